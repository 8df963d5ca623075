#include "KDTPoint.h"

#include <GL/gl.h>

#include <maya/MColor.h>
#include <maya/MPoint.h>

#include "KDTPointClass.h"
#include "KDrawOverride.h"
#include "KMarkerDrawing.h"
#include "KMayaBase.h"
#include "KPluginRegistration.h"

const MString KDTPoint::name(Kavrin::kDTPointNode.name);
const MTypeId KDTPoint::id(Kavrin::kDTPointNode.id);
const MString KDTPoint::drawDbClassification(Kavrin::kDTPointNode.classification);
const MString KDTPoint::drawRegistrantId(Kavrin::kDTPointDrawOverride.registrantId);

MObject KDTPoint::positionObj;
MObject KDTPoint::colorObj;

// Decision (behaviour note "KDTPoint: solid shapes without GLU")
KDTPoint::KDTPoint() = default;

KDTPoint::~KDTPoint() = default;

void* KDTPoint::creator() { return new KDTPoint(); }

MStatus KDTPoint::initialize() {
    MObject* const handles[] = {&positionObj, &colorObj};
    return Kavrin::AddAttributes(Kavrin::kDTPointAttributeTable, handles);
}

void KDTPoint::postConstructor() {
    MPxLocatorNode::postConstructor();
    _thisObj = thisMObject();
    _dependFn.setObject(_thisObj);
    _dagFn.setObject(_thisObj);
    _dependFn.setName("KDTPoint#");
}

// Decision (behaviour note "KDTPoint: computes nothing"): no plug of the marker is computed.
MStatus KDTPoint::compute(const MPlug& /*plug*/, MDataBlock& /*block*/) { return MS::kUnknownParameter; }

void KDTPoint::draw(M3dView& view, const MDagPath& /*path*/, M3dView::DisplayStyle /*style*/,
                    M3dView::DisplayStatus /*status*/) {
    glPushAttrib(0xfffff);  // every attribute group
    view.beginGL();
    draw(0);
    view.endGL();
    glPopAttrib();
}

// Decision (behaviour note "KDTPoint: never culled, not framed"): an unbounded locator is never
// culled and leaves "Frame All" alone; the box, should anything ask, is the marker's point.
bool KDTPoint::isBounded() const { return false; }

MBoundingBox KDTPoint::boundingBox() const {
    DrawValues v;
    drawValues(v);
    const MPoint p(v.position[0], v.position[1], v.position[2]);
    return MBoundingBox(p, p);
}

void KDTPoint::drawValues(DrawValues& v) const {
    Kavrin::KGetAttr3(MPlug(_thisObj, positionObj), v.position[0], v.position[1], v.position[2]);
    Kavrin::KGetAttr3(MPlug(_thisObj, colorObj), v.colour[0], v.colour[1], v.colour[2]);
}

void KDTPoint::draw(int /*style*/) {
    DrawValues v;
    drawValues(v);
    Kavrin::DrawMarkerPoint(v.position[0], v.position[1], v.position[2], v.colour[0], v.colour[1], v.colour[2]);
}

// Decision (behaviour note "KDTPoint: Viewport 2.0 draws through the draw manager"): the same
// 5-pixel point, in every draw API and OpenGL profile.
void KDTPoint::drawUI(const DrawValues& v, int /*style*/, MHWRender::MUIDrawManager& manager) {
    manager.beginDrawable();
    manager.setColor(MColor(v.colour[0], v.colour[1], v.colour[2], 1.0f));
    manager.setPointSize(Kavrin::kMarkerPointSize);
    manager.point(MPoint(v.position[0], v.position[1], v.position[2]));
    manager.endDrawable();
}

void* KDTPointClass::creator() { return KDTPoint::creator(); }
MStatus KDTPointClass::initialize() { return KDTPoint::initialize(); }
MHWRender::MPxDrawOverride* KDTPointClass::drawOverrideCreator(const MObject& obj) {
    return Kavrin::KDrawOverride<KDTPoint>::Creator(obj);
}
