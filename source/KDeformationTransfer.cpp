#include "KDeformationTransfer.h"

#include <fstream>

#include <maya/MFnDependencyNode.h>
#include <maya/MFnIntArrayData.h>
#include <maya/MFnMesh.h>
#include <maya/MFnMeshData.h>
#include <maya/MIntArray.h>
#include <maya/MPoint.h>
#include <maya/MPointArray.h>
#include <maya/MThreadUtils.h>
#include <maya/MVector.h>
#include <maya/MVectorArray.h>

#include "KMayaBase.h"
#include "KMayaMessageSink.h"
#include "KPluginRegistration.h"
#include "KTrianglePairing.h"

const MString KDeformationTransfer::name(Kavrin::kDeformationTransferNode.name);
const MTypeId KDeformationTransfer::id(Kavrin::kDeformationTransferNode.id);

MObject KDeformationTransfer::sourceMeshObj;
MObject KDeformationTransfer::targetMeshObj;
MObject KDeformationTransfer::outputMeshObj;
MObject KDeformationTransfer::vertCorresObj;
MObject KDeformationTransfer::reCalculateObj;
MObject KDeformationTransfer::calcModeObj;
MObject KDeformationTransfer::iterCountObj;
MObject KDeformationTransfer::aimObj;
MObject KDeformationTransfer::srcFixPNumObj;
MObject KDeformationTransfer::trgFixPNumObj;

namespace {

typedef Kavrin::KDeformationTransferResult Result;

const char* const kCopyFailedSource =
    "KDeformationTransfer: the output mesh could not be made from the source mesh; the output was left untouched.";
const char* const kCopyFailedTarget =
    "KDeformationTransfer: the output mesh could not be made from the target mesh; the output was left untouched.";

// The int-array attribute attr; empty when it holds no data.
void ReadIntArray(MDataBlock& block, const MObject& attr, Kavrin::KIntArray& to) {
    to.clear();
    const MObject data = block.inputValue(attr).data();
    if (data.isNull()) return;
    MStatus status;
    MFnIntArrayData fn(data, &status);
    if (status) Kavrin::Copy(to, fn.array());
}

MPointArray ToPoints(const Kavrin::KArray<Kavrin::KDouble4>& from) {
    MPointArray to(static_cast<unsigned int>(from.length()));
    for (int i = 0; i < from.length(); ++i)
        to.set(static_cast<unsigned int>(i), from[i][0], from[i][1], from[i][2], from[i][3]);
    return to;
}

MVectorArray ToVectors(const Kavrin::KArray<Kavrin::KDouble3>& from) {
    MVectorArray to(static_cast<unsigned int>(from.length()));
    for (int i = 0; i < from.length(); ++i)
        to.set(MVector(from[i][0], from[i][1], from[i][2]), static_cast<unsigned int>(i));
    return to;
}

MIntArray ToInts(const Kavrin::KIntArray& from) {
    return from.empty() ? MIntArray() : MIntArray(from.data(), static_cast<unsigned int>(from.length()));
}

}  // namespace

void* KDeformationTransfer::creator() { return new KDeformationTransfer(); }

MStatus KDeformationTransfer::initialize() {
    MObject* const handles[] = {&sourceMeshObj, &targetMeshObj, &outputMeshObj, &vertCorresObj, &reCalculateObj,
                                &calcModeObj,   &iterCountObj,  &aimObj,        &srcFixPNumObj, &trgFixPNumObj};
    return Kavrin::AddAttributes(Kavrin::kDeformationTransferAttributeTable, handles);
}

void KDeformationTransfer::postConstructor() {
    MPxNode::postConstructor();
    _self = thisMObject();
    MFnDependencyNode(_self).setName("KDeformationTransfer#");
}

MStatus KDeformationTransfer::compute(const MPlug& plug, MDataBlock& block) {
    if (plug != outputMeshObj) return MS::kUnknownParameter;

    _input.threads = MThreadUtils::getNumThreads();
    _input.reCalculate = block.inputValue(reCalculateObj).asBool();
    _input.aim = block.inputValue(aimObj).asShort();
    _input.calcMode = block.inputValue(calcModeObj).asShort();
    _input.iterCount = block.inputValue(iterCountObj).asShort();  // 16 bits: larger counts wrap
    // The engine reads no texture coordinates, so none are converted.
    Kavrin::Convert(_input.sourceMesh, block.inputValue(sourceMeshObj).asMesh(), false, nullptr);
    Kavrin::Convert(_input.targetMesh, block.inputValue(targetMeshObj).asMesh(), false, nullptr);
    ReadIntArray(block, vertCorresObj, _input.vertCorres);
    ReadIntArray(block, srcFixPNumObj, _input.srcFixPNum);
    ReadIntArray(block, trgFixPNumObj, _input.trgFixPNum);

    Kavrin::KMayaMessageSink sink;
    const Result result = _solver.compute(_input, sink);

    // Decision (behaviour note "Maya layer: stored data written only in the normal context").
    if (result.writeReCalculate && Kavrin::NormalContext(block))
        block.outputValue(reCalculateObj).set(result.reCalculate);
    MStatus status = MS::kSuccess;
    if (result.output != Result::kNoOutput && !_writeOutputMesh(block, result)) {
        sink.error(result.output == Result::kFromSource ? kCopyFailedSource : kCopyFailedTarget);
        status = MS::kFailure;
    } else if (result.outcome.failed()) {
        Kavrin::ReportOutcome(result.outcome);
        status = MS::kFailure;
    }
    // Decision (behaviour note "Maya layer: outputs marked clean"): every path marks "outputMesh"
    // clean, also those that write nothing ("not ready", a quiet "Source To Target" pass, a
    // failure), so that a message is not repeated at every redraw.
    block.setClean(plug);
    return status;
}

MStatus KDeformationTransfer::_writeOutputMesh(MDataBlock& block, const Result& result) {
    const MObject& input = result.output == Result::kFromSource ? sourceMeshObj : targetMeshObj;
    const MObject copied = block.inputValue(input).asMeshTransformed();
    MStatus status;
    MFnMeshData data;
    MObject outData = data.create(&status);
    if (!status) return status;
    MFnMesh mesh;
    const MObject outMesh = mesh.copy(copied, outData, &status);
    if (!status) return status;
    status = mesh.setObject(outMesh);
    if (!status) return status;

    if (result.setPoints) {
        MPointArray points = ToPoints(_solver.outPoints());
        mesh.setPoints(points, MSpace::kObject);
    }
    if (result.setNormals) {
        MVectorArray normals = ToVectors(_solver.outNormals());
        MIntArray vertices = ToInts(_solver.outNormalVerts());
        mesh.setVertexNormals(normals, vertices, MSpace::kTransform);
    }
    return block.outputValue(outputMeshObj).set(outData);
}

void KDeformationTransfer::_writeTriCorresLog() const {
    std::ofstream("/tmp/triCorres.out") << Kavrin::TriangleCorrespondenceLog(_solver.triCorres());
}
