// Compiled by the compile-only check, never built into a library: instantiates the draw
// override with a minimal locator so that every member of the template is checked against the
// devkit headers before the real locator exists.

#include <maya/MPxLocatorNode.h>

#include "KDrawOverride.h"

namespace {

class CheckLocator : public MPxLocatorNode {
public:
    struct DrawValues {
        float size = 1.0f;
    };
    MBoundingBox boundingBox() const override { return MBoundingBox(); }
    void drawValues(DrawValues& values) const { values.size = 2.0f; }
    static void drawUI(const DrawValues& values, int /*style*/, MHWRender::MUIDrawManager& manager) {
        manager.beginDrawable();
        manager.setPointSize(values.size);
        manager.endDrawable();
    }
};

}  // namespace

template class Kavrin::KDrawOverride<CheckLocator>;
template class Kavrin::KDrawData<CheckLocator>;
