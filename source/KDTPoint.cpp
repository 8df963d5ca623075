#include "KDTPoint.h"

#include <GL/gl.h>

#include <maya/MFnNumericAttribute.h>
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

namespace {

const char* const kSource = "source/KDTPoint";

// The marker is never culled: its box reaches single-precision 1e30 on every axis.
const double kBoxHalfSize = static_cast<double>(1e30f);

}  // namespace

// Decision (behaviour note "KDTPoint: solid shapes without GLU")
KDTPoint::KDTPoint() = default;

KDTPoint::~KDTPoint() = default;

void* KDTPoint::creator() { return new KDTPoint(); }

MStatus KDTPoint::initialize() {
    MFnNumericAttribute nAttr;
    MStatus status;

    Kavrin::CreateF3Attr(nAttr, positionObj, "position", "position", 0.0f);
    status = addAttribute(positionObj);
    K_CHECK_API(status, kSource);

    Kavrin::CreateColorAttr(nAttr, colorObj, "color", "color");
    nAttr.setDefault(1.0f, 0.0f, 0.0f);
    status = addAttribute(colorObj);
    K_CHECK_API(status, kSource);

    return MS::kSuccess;
}

void KDTPoint::postConstructor() {
    MPxLocatorNode::postConstructor();
    _thisObj = thisMObject();
    _dependFn.setObject(_thisObj);
    _dagFn.setObject(_thisObj);
    _dependFn.setName("KDTPoint#");
}

MStatus KDTPoint::compute(const MPlug& /*plug*/, MDataBlock& /*block*/) { return MS::kSuccess; }

void KDTPoint::draw(M3dView& view, const MDagPath& /*path*/, M3dView::DisplayStyle /*style*/,
                    M3dView::DisplayStatus /*status*/) {
    glPushAttrib(0xfffff);  // every attribute group
    view.beginGL();
    draw(0);
    view.endGL();
    glPopAttrib();
}

bool KDTPoint::isBounded() const { return true; }

MBoundingBox KDTPoint::boundingBox() const {
    return MBoundingBox(MPoint(-kBoxHalfSize, -kBoxHalfSize, -kBoxHalfSize),
                        MPoint(kBoxHalfSize, kBoxHalfSize, kBoxHalfSize));
}

void KDTPoint::draw(int /*style*/) {
    float x = 0.0f, y = 0.0f, z = 0.0f, r = 0.0f, g = 0.0f, b = 0.0f;
    Kavrin::KGetAttr3(MPlug(_thisObj, positionObj), x, y, z);
    Kavrin::KGetAttr3(MPlug(_thisObj, colorObj), r, g, b);
    Kavrin::DrawMarkerPoint(x, y, z, r, g, b);
}

void* KDTPointClass::creator() { return KDTPoint::creator(); }
MStatus KDTPointClass::initialize() { return KDTPoint::initialize(); }
MHWRender::MPxDrawOverride* KDTPointClass::drawOverrideCreator(const MObject& obj) {
    return Kavrin::KDrawOverride<KDTPoint>::Creator(obj);
}
