#pragma once
// The marker locator: one picked vertex of the correspondence list, drawn as a 5-pixel point of
// its colour at its position, with OpenGL in the legacy viewport and with the draw manager
// through KDrawOverride<KDTPoint> in Viewport 2.0. The marking tool creates it under the
// transform "VertexPicked".

#include <maya/M3dView.h>
#include <maya/MBoundingBox.h>
#include <maya/MDagPath.h>
#include <maya/MDataBlock.h>
#include <maya/MFnDagNode.h>
#include <maya/MFnDependencyNode.h>
#include <maya/MObject.h>
#include <maya/MPlug.h>
#include <maya/MPxLocatorNode.h>
#include <maya/MString.h>
#include <maya/MTypeId.h>
#include <maya/MUIDrawManager.h>

class KDTPoint : public MPxLocatorNode {
public:
    KDTPoint();
    ~KDTPoint() override;
    KDTPoint(const KDTPoint&) = delete;
    KDTPoint& operator=(const KDTPoint&) = delete;

    static void* creator();
    static MStatus initialize();

    void postConstructor() override;
    MStatus compute(const MPlug& plug, MDataBlock& block) override;
    using MPxLocatorNode::draw;
    void draw(M3dView& view, const MDagPath& path, M3dView::DisplayStyle style,
              M3dView::DisplayStatus status) override;
    bool isBounded() const override;
    MBoundingBox boundingBox() const override;

    // The legacy viewport's drawing (OpenGL); the style code is accepted and not used.
    void draw(int style);

    // What Viewport 2.0 draws (KDrawOverride): the marker's position and colour, read from its
    // plugs (a child that cannot be read reports and stays 0), queued as draw-manager drawables.
    struct DrawValues {
        float position[3] = {0.0f, 0.0f, 0.0f};
        float colour[3] = {0.0f, 0.0f, 0.0f};
    };
    void drawValues(DrawValues& values) const;
    static void drawUI(const DrawValues& values, int style, MHWRender::MUIDrawManager& manager);

    static const MString name;
    static const MTypeId id;
    static const MString drawDbClassification;
    static const MString drawRegistrantId;

    static MObject positionObj;
    static MObject colorObj;

private:
    // Decision (behaviour note "KDTPoint: members kept")
    MObject _thisObj;
    MFnDependencyNode _dependFn;
    MFnDagNode _dagFn;
};
