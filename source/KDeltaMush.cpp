#include "KDeltaMush.h"

#include <maya/MArrayDataHandle.h>
#include <maya/MFnDependencyNode.h>
#include <maya/MFnMesh.h>
#include <maya/MFnMeshData.h>
#include <maya/MFnNumericAttribute.h>
#include <maya/MFnTypedAttribute.h>
#include <maya/MFnVectorArrayData.h>
#include <maya/MPoint.h>
#include <maya/MThreadUtils.h>
#include <maya/MVectorArray.h>

#include "KMayaBase.h"
#include "KMayaMessageSink.h"
#include "KPluginRegistration.h"

const MString KDeltaMush::name(Kavrin::kDeltaMushNode.name);
const MTypeId KDeltaMush::id(Kavrin::kDeltaMushNode.id);

MObject KDeltaMush::onlyOnceObj;
MObject KDeltaMush::gotDeltaObj;
MObject KDeltaMush::restMeshObj;
MObject KDeltaMush::deltaObj;
MObject KDeltaMush::numIterObj;

namespace {

const char* const kNotAMesh = "KDeltaMush: the input geometry is not a polygon mesh; the points were left untouched.";
const char* const kGeometryMismatch =
    "KDeltaMush: the deformed geometry does not match the input mesh; the points were left untouched.";

// The "delta" attribute; false when it holds no data.
bool ReadDelta(MDataBlock& block, Kavrin::KArray<Kavrin::KDouble3>& deltas) {
    deltas.clear();
    MObject data = block.inputValue(KDeltaMush::deltaObj).data();
    if (data.isNull()) return false;
    MStatus status;
    MFnVectorArrayData fn(data, &status);
    if (!status) return false;
    deltas.setLength(static_cast<int>(fn.length()), false);
    for (int i = 0; i < deltas.length(); ++i) {
        const MVector& d = fn[static_cast<unsigned int>(i)];
        deltas[i] = Kavrin::KDouble3{d.x, d.y, d.z};
    }
    return true;
}

void WriteDelta(MDataBlock& block, const Kavrin::KArray<Kavrin::KDouble3>& deltas) {
    MVectorArray values(static_cast<unsigned int>(deltas.length()));
    for (int i = 0; i < deltas.length(); ++i)
        values.set(MVector(deltas[i][0], deltas[i][1], deltas[i][2]), static_cast<unsigned int>(i));
    MFnVectorArrayData fn;
    MObject data = fn.create(values);
    block.outputValue(KDeltaMush::deltaObj).set(data);
}

// Copies the evaluated input mesh into "restMesh".
void CaptureRestMesh(MDataBlock& block, const MObject& inputMesh) {
    MStatus status;
    MFnMeshData data;
    MObject copy = data.create(&status);
    if (!status) return;
    MFnMesh().copy(inputMesh, copy, &status);
    if (status) block.outputValue(KDeltaMush::restMeshObj).set(copy);
}

}  // namespace

void* KDeltaMush::creator() { return new KDeltaMush(); }

MStatus KDeltaMush::initialize() {
    MObject* const handles[] = {&onlyOnceObj, &gotDeltaObj, &restMeshObj, &deltaObj, &numIterObj};
    return Kavrin::AddAttributes(Kavrin::kDeltaMushAttributeTable, handles);
}

void KDeltaMush::postConstructor() {
    MFnDependencyNode fn(thisMObject());
    fn.setName("KDeltaMush#");
}

MStatus KDeltaMush::deform(MDataBlock& block, MItGeometry& iter, const MMatrix& localToWorld,
                           unsigned int multiIndex) {
    Kavrin::KDeltaMushInput in;
    in.threads = MThreadUtils::getNumThreads();
    in.envelope = block.inputValue(envelope).asFloat();
    if (!Kavrin::KDeltaMushSolver::Active(in.envelope)) return MS::kSuccess;
    if (Kavrin::RefuseOtherGeometry(Kavrin::kDeltaMushNode.name, multiIndex)) return MS::kSuccess;

    MArrayDataHandle inputs = block.outputArrayValue(input);
    inputs.jumpToElement(multiIndex);
    const MObject inputMesh = inputs.outputValue().child(inputGeom).asMesh();
    // Guard (behaviour note "Delta mush: input not a polygon mesh").
    if (inputMesh.isNull() || !Kavrin::Convert(_curMesh, inputMesh)) {
        MGlobal::displayError(kNotAMesh);
        return MS::kSuccess;
    }
    in.mesh = &_curMesh;
    in.pointCount = static_cast<int>(iter.count());
    in.onlyOnce = block.inputValue(onlyOnceObj).asBool();
    in.gotDelta = block.inputValue(gotDeltaObj).asBool();
    in.numIter = block.inputValue(numIterObj).asInt();
    in.delta = ReadDelta(block, _delta) ? &_delta : nullptr;
    if (_solver.restMeshNeeded(in)) {
        const MObject rest = block.inputValue(restMeshObj).data();
        in.restMesh = !rest.isNull() && Kavrin::Convert(_restMesh, rest) ? &_restMesh : nullptr;
    }

    const Kavrin::KDeltaMushResult result = _solver.evaluate(in);
    // Decision (behaviour note "Maya layer: stored data written only in the normal context").
    const bool normal = Kavrin::NormalContext(block);
    if (result.captureRestMesh && normal) {
        CaptureRestMesh(block, inputMesh);
        block.outputValue(onlyOnceObj).set(false);
    }
    if (result.writeDelta && normal) WriteDelta(block, _solver.boundDelta());
    if (result.writeGotDelta && normal) {
        block.outputValue(gotDeltaObj).set(true);
        // Kept on purpose (behaviour note "Delta mush: gotDelta is read back").
        if (!block.inputValue(gotDeltaObj).asBool()) return MS::kSuccess;
    }
    if (result.outcome.failed()) {
        Kavrin::ReportOutcome(result.outcome);
        return MS::kSuccess;
    }
    if (!result.outcome.deformed()) return MS::kSuccess;
    // Guard (behaviour note "Delta mush: iterator index beyond the result").
    if (!Kavrin::IndicesBelow(iter, _solver.points().length())) {
        MGlobal::displayError(kGeometryMismatch);
        return MS::kSuccess;
    }

    // Kept on purpose (behaviour note "Delta mush: inverse local-to-world matrix").
    const MMatrix inverse = localToWorld.inverse();
    double out[4];
    for (iter.reset(); !iter.isDone(); iter.next()) {
        const MPoint current = iter.position(MSpace::kObject);
        _solver.objectPoint(iter.index(), current.w, inverse.matrix, out);
        iter.setPosition(MPoint(out[0], out[1], out[2], out[3]), MSpace::kObject);
    }
    return MS::kSuccess;
}
