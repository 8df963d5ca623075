#pragma once
// Viewport 2.0 drawing for a locator through the draw manager's primitives (MUIDrawManager),
// which every draw API and OpenGL profile draws: prepareForDraw reads the locator's values on
// the main thread, addUIDrawables hands them to the locator's drawing.
//
// T offers:
//   struct DrawValues;                              what one drawing needs (plain values)
//   void drawValues(DrawValues& values) const;      reads them from the node's plugs
//   static void drawUI(const DrawValues& values, int style, MHWRender::MUIDrawManager& manager);
//                                                   queues the drawables, in object space
// Register KDrawOverride<T>::Creator for T's draw classification.

#include <maya/MBoundingBox.h>
#include <maya/MDagPath.h>
#include <maya/MDrawContext.h>
#include <maya/MFnDependencyNode.h>
#include <maya/MFrameContext.h>
#include <maya/MObject.h>
#include <maya/MPxDrawOverride.h>
#include <maya/MPxNode.h>
#include <maya/MUIDrawManager.h>
#include <maya/MUserData.h>
#include <maya/MViewport2Renderer.h>

#include "KDrawStyle.h"

namespace Kavrin {

// What prepareForDraw hands to addUIDrawables: the locator's values and the style code. Kept by
// the renderer from frame to frame (not deleted after use).
template <class T>
class KDrawData : public MUserData {
public:
    KDrawData() : MUserData(false), style(kDrawNothing) {}
    typename T::DrawValues values;
    int style;
};

template <class T>
class KDrawOverride : public MHWRender::MPxDrawOverride {
public:
    static MHWRender::MPxDrawOverride* Creator(const MObject& obj) { return new KDrawOverride(obj); }

    MHWRender::DrawAPI supportedDrawAPIs() const override { return MHWRender::kAllDevices; }
    bool hasUIDrawables() const override { return true; }
    // Decision (behaviour note "KDTPoint: never culled, not framed"): unbounded, so Viewport 2.0
    // never culls the locator and "Frame All" does not fly the camera out to a huge box.
    bool isBounded(const MDagPath& /*objPath*/, const MDagPath& /*cameraPath*/) const override { return false; }
    MBoundingBox boundingBox(const MDagPath& /*objPath*/, const MDagPath& /*cameraPath*/) const override {
        // Guard (behaviour note "Maya layer: KDrawOverride without a locator").
        return node ? node->boundingBox() : MBoundingBox();
    }

    MUserData* prepareForDraw(const MDagPath& objPath, const MDagPath& /*cameraPath*/,
                              const MHWRender::MFrameContext& frameContext, MUserData* oldData) override {
        if (!node) return nullptr;
        MStatus status;
        MFnDependencyNode fn(objPath.node(), &status);
        if (!status) return nullptr;
        KDrawData<T>* data = dynamic_cast<KDrawData<T>*>(oldData);
        if (!data) data = new KDrawData<T>();
        const MDAGDrawOverrideInfo info = objPath.getDrawOverrideInfo();
        const KDisplayOverride displayOverride = {info.fOverrideEnabled, info.fEnableVisible, info.fEnableShading,
                                                  static_cast<int>(info.fDisplayType)};
        data->style = DrawStyleCode(displayOverride, frameContext.getDisplayStyle());
        data->values = typename T::DrawValues();  // a value that cannot be read draws as 0
        node->drawValues(data->values);
        return data;
    }

    void addUIDrawables(const MDagPath& /*objPath*/, MHWRender::MUIDrawManager& drawManager,
                        const MHWRender::MFrameContext& /*frameContext*/, const MUserData* userData) override {
        const KDrawData<T>* data = dynamic_cast<const KDrawData<T>*>(userData);
        if (!data || data->style == kDrawNothing) return;
        T::drawUI(data->values, data->style, drawManager);
    }

    // The drawing is all in addUIDrawables: the callback draws nothing, so no OpenGL state is
    // touched in any profile.
    static void draw(const MHWRender::MDrawContext& /*context*/, const MUserData* /*userData*/) {}

    // The locator instance this override draws; null when the object is not a T.
    T* node;

private:
    explicit KDrawOverride(const MObject& obj)
#if MAYA_API_VERSION >= 201700
        : MHWRender::MPxDrawOverride(obj, draw, true),
#else
        : MHWRender::MPxDrawOverride(obj, draw),  // always redrawn: the only behaviour before 2017
#endif
          node(nullptr) {
        MStatus status;
        MFnDependencyNode fn(obj, &status);
        if (status) node = dynamic_cast<T*>(fn.userNode());
    }
};

}  // namespace Kavrin
