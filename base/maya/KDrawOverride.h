#pragma once
// Viewport 2.0 drawing for a locator that draws itself with plain OpenGL: the override hands the
// locator instance and its DAG path to a static draw callback, which loads the view's matrices
// and calls the locator's draw(style).
//
// T offers boundingBox() (an MBoundingBox in object space) and draw(int style) (OpenGL in object
// space). Register KDrawOverride<T>::Creator for T's draw classification.

#include <GL/gl.h>

#include <maya/MBoundingBox.h>
#include <maya/MDagPath.h>
#include <maya/MDrawContext.h>
#include <maya/MFnDependencyNode.h>
#include <maya/MFrameContext.h>
#include <maya/MMatrix.h>
#include <maya/MObject.h>
#include <maya/MPxDrawOverride.h>
#include <maya/MPxNode.h>
#include <maya/MStateManager.h>
#include <maya/MUserData.h>
#include <maya/MViewport2Renderer.h>

#include "KDrawStyle.h"

namespace Kavrin {

// What prepareForDraw hands to draw: the locator instance (not owned) and the drawn path. Kept
// by the renderer from frame to frame (not deleted after use).
template <class T>
class KDrawData : public MUserData {
public:
    KDrawData() : MUserData(false), node(nullptr) {}
    T* node;
    MDagPath path;
};

template <class T>
class KDrawOverride : public MHWRender::MPxDrawOverride {
public:
    static MHWRender::MPxDrawOverride* Creator(const MObject& obj) { return new KDrawOverride(obj); }

    MHWRender::DrawAPI supportedDrawAPIs() const override {
        return static_cast<MHWRender::DrawAPI>(MHWRender::kOpenGL | MHWRender::kOpenGLCoreProfile);
    }
    bool hasUIDrawables() const override { return true; }
    MBoundingBox boundingBox(const MDagPath& /*objPath*/, const MDagPath& /*cameraPath*/) const override {
        // Guard (behaviour note "Maya layer: KDrawOverride without a locator").
        return node ? node->boundingBox() : MBoundingBox();
    }
    bool isBounded(const MDagPath& /*objPath*/, const MDagPath& /*cameraPath*/) const override { return true; }

    MUserData* prepareForDraw(const MDagPath& objPath, const MDagPath& /*cameraPath*/,
                              const MHWRender::MFrameContext& /*frameContext*/, MUserData* oldData) override {
        if (!node) return nullptr;
        MStatus status;
        MFnDependencyNode fn(objPath.node(), &status);
        if (!status) return nullptr;
        KDrawData<T>* data = dynamic_cast<KDrawData<T>*>(oldData);
        if (!data) data = new KDrawData<T>();
        data->node = node;
        data->path = objPath;
        return data;
    }

    // Draws with the legacy OpenGL calls inside Viewport 2.0; draws nothing for another draw API
    // or missing data.
    static void draw(const MHWRender::MDrawContext& context, const MUserData* userData) {
        MHWRender::MRenderer* renderer = MHWRender::MRenderer::theRenderer();
        if (!renderer || !renderer->drawAPIIsOpenGL() || !context.getStateManager()) return;
        const KDrawData<T>* data = dynamic_cast<const KDrawData<T>*>(userData);
        if (!data || !data->node) return;

        const MDAGDrawOverrideInfo info = data->path.getDrawOverrideInfo();
        const KDisplayOverride displayOverride = {info.fOverrideEnabled, info.fEnableVisible, info.fEnableShading,
                                                  static_cast<int>(info.fDisplayType)};
        const int style = DrawStyleCode(displayOverride, context.getDisplayStyle());
        if (style == kDrawNothing) return;

        const MMatrix projection = context.getMatrix(MHWRender::MFrameContext::kProjectionMtx);
        const MMatrix worldView = context.getMatrix(MHWRender::MFrameContext::kWorldViewMtx);
        glPushAttrib(GL_CURRENT_BIT);
        glMatrixMode(GL_PROJECTION);
        glPushMatrix();
        glLoadMatrixd(projection.matrix[0]);
        glMatrixMode(GL_MODELVIEW);
        glPushMatrix();
        glLoadMatrixd(worldView.matrix[0]);

        data->node->draw(style);

        glMatrixMode(GL_MODELVIEW);
        glPopMatrix();
        glMatrixMode(GL_PROJECTION);
        glPopMatrix();
        glPopAttrib();
        glMatrixMode(GL_MODELVIEW);  // leave the renderer in the matrix mode it expects
    }

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
