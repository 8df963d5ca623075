// Compiled by the compile-only check, never built into a library: instantiates the draw
// override with a minimal locator so that every member of the template is checked against the
// devkit headers before the real locator exists.

#include <maya/MPxLocatorNode.h>

#include "KDrawOverride.h"

namespace {

class CheckLocator : public MPxLocatorNode {
public:
    using MPxLocatorNode::draw;
    MBoundingBox boundingBox() const override { return MBoundingBox(); }
    void draw(int style) { lastStyle = style; }
    int lastStyle = 0;
};

}  // namespace

template class Kavrin::KDrawOverride<CheckLocator>;
template class Kavrin::KDrawData<CheckLocator>;
