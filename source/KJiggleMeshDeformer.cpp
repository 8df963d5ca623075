#include "KJiggleMeshDeformer.h"

#include <maya/MArrayDataHandle.h>
#include <maya/MFnEnumAttribute.h>
#include <maya/MFnMatrixAttribute.h>
#include <maya/MFnMesh.h>
#include <maya/MFnNumericAttribute.h>
#include <maya/MFnTypedAttribute.h>
#include <maya/MFnUnitAttribute.h>
#include <maya/MGlobal.h>
#include <maya/MPoint.h>
#include <maya/MThreadUtils.h>
#include <maya/MTime.h>

#include "KMayaBase.h"
#include "KMayaMessageSink.h"
#include "KPluginRegistration.h"

const MString KJiggleMeshDeformer::name(Kavrin::kJiggleMeshDeformerNode.name);
const MTypeId KJiggleMeshDeformer::id(Kavrin::kJiggleMeshDeformerNode.id);

MObject KJiggleMeshDeformer::computingMethodObj;
MObject KJiggleMeshDeformer::inTimeObj;
MObject KJiggleMeshDeformer::startFrameObj;
MObject KJiggleMeshDeformer::timeScaleObj;
MObject KJiggleMeshDeformer::worldMatrixObj;
MObject KJiggleMeshDeformer::dampingObj;
MObject KJiggleMeshDeformer::stiffnessObj;
MObject KJiggleMeshDeformer::normalStrengthObj;
MObject KJiggleMeshDeformer::dampingMapObj;
MObject KJiggleMeshDeformer::stiffnessMapObj;
MObject KJiggleMeshDeformer::normalStrengthMapObj;
MObject KJiggleMeshDeformer::scaleObj;
MObject KJiggleMeshDeformer::distanceLimitObj;
MObject KJiggleMeshDeformer::directionBiasObj;
MObject KJiggleMeshDeformer::moreAccurateTangentObj;

namespace {

const char* const kNotAMesh =
    "KJiggleMeshDeformer: the deformed geometry is not a polygon mesh; the points were left untouched.";
#if MAYA_API_VERSION >= 20200000
const char* const kNoCachedPlayback =
    "KJiggleMeshDeformer simulates frame after frame from the frame before, which cached playback cannot do.";
const char* const kNoCachedPlaybackMitigation = "Play the scene forwards frame by frame from its first frame.";
#endif

void WriteMap(MDataBlock& block, const MObject& attr, const Kavrin::KArray<double>& values) {
    MDoubleArray array(values.data(), static_cast<unsigned int>(values.length()));
    Kavrin::SetMapValues(block, attr, array);
}

}  // namespace

void* KJiggleMeshDeformer::creator() { return new KJiggleMeshDeformer(); }

#if MAYA_API_VERSION >= 20200000
void KJiggleMeshDeformer::getCacheSetup(const MEvaluationNode& evalNode, MNodeCacheDisablingInfo& disablingInfo,
                                        MNodeCacheSetupInfo& cacheSetupInfo, MObjectArray& monitoredAttributes) const {
    MPxDeformerNode::getCacheSetup(evalNode, disablingInfo, cacheSetupInfo, monitoredAttributes);
    // Decision (behaviour note "Jiggle: no cached playback"): each frame's result depends on the
    // frame before, which a cache filled out of order cannot give.
    disablingInfo.setCacheDisabled(true);
    disablingInfo.setReason(kNoCachedPlayback);
    disablingInfo.setMitigation(kNoCachedPlaybackMitigation);
}
#endif

MStatus KJiggleMeshDeformer::initialize() {
    MObject* const handles[] = {&computingMethodObj, &inTimeObj,          &startFrameObj,    &timeScaleObj,
                                &worldMatrixObj,     &dampingObj,         &stiffnessObj,     &normalStrengthObj,
                                &dampingMapObj,      &stiffnessMapObj,    &normalStrengthMapObj,
                                &scaleObj,           &distanceLimitObj,   &directionBiasObj, &moreAccurateTangentObj};
    return Kavrin::AddAttributes(Kavrin::kJiggleMeshDeformerAttributeTable, handles);
}

void KJiggleMeshDeformer::_readMap(MDataBlock& block, const MObject& attr, Kavrin::KArray<double>& values,
                                   Kavrin::KJiggleMap& map) {
    map = Kavrin::KJiggleMap();
    if (!Kavrin::GetMapValues(block, attr, _hostMap)) return;
    values.setLength(static_cast<int>(_hostMap.length()), false);
    if (!_hostMap.get(values.data())) return;
    map.values = values.data();
    map.length = values.length();
}

MStatus KJiggleMeshDeformer::deform(MDataBlock& block, MItGeometry& iter, const MMatrix& localToWorld,
                                    unsigned int multiIndex) {
    Kavrin::KJiggleInput in;
    const int hostThreads = MThreadUtils::getNumThreads();
    in.envelope = block.inputValue(envelope).asFloat();
    if (!Kavrin::KJiggleSolver::Active(in.envelope)) return MS::kSuccess;
    if (Kavrin::RefuseOtherGeometry(Kavrin::kJiggleMeshDeformerNode.name, multiIndex)) return MS::kSuccess;
    // Guard (behaviour note "Jiggle: other evaluation contexts"): the simulation lives at the
    // scene's current time; an evaluation for another time neither steps it nor moves its clock,
    // and leaves the points (and the maps) as they come in.
    if (!Kavrin::NormalContext(block)) return MS::kSuccess;
    // Kept on purpose (behaviour note "Jiggle: Multi-CPUs stays on one thread"): only the value
    // 2 of "computingMethod" runs the loops on the host's threads.
    in.threads = Kavrin::KJiggleSolver::TeamSize(block.inputValue(computingMethodObj).asShort(), hostThreads);

    localToWorld.get(in.localToWorld);
    localToWorld.inverse().get(in.worldToLocal);
    in.time = block.inputValue(inTimeObj).asTime().value();
    in.startFrame = block.inputValue(startFrameObj).asInt();
    in.timeScale = block.inputValue(timeScaleObj).asFloat();
    // Read for its dependency only: the goals come from the deformer's own matrix.
    (void)block.inputValue(worldMatrixObj).asMatrix();
    in.damping = block.inputValue(dampingObj).asFloat();
    in.stiffness = block.inputValue(stiffnessObj).asFloat();
    in.normalStrength = block.inputValue(normalStrengthObj).asFloat();
    in.scale = block.inputValue(scaleObj).asFloat();
    in.distanceLimit = block.inputValue(distanceLimitObj).asFloat();
    in.directionBias = block.inputValue(directionBiasObj).asFloat();
    in.moreAccurateTangent = block.inputValue(moreAccurateTangentObj).asBool();

    MArrayDataHandle outputs = block.outputArrayValue(outputGeom);
    outputs.jumpToElement(multiIndex);
    MObject mesh = outputs.outputValue().asMesh();
    MStatus status;
    MFnMesh fnMesh;
    if (!mesh.isNull()) status = fnMesh.setObject(mesh);
    // Guard (behaviour note "Jiggle: geometry that is not a mesh"): normals and snapping need a
    // polygon mesh.
    if (mesh.isNull() || !status) {
        MGlobal::displayError(kNotAMesh);
        return MS::kSuccess;
    }
    in.numVertices = fnMesh.numVertices();

    iter.allPositions(_iterPoints, MSpace::kObject);
    _points.setLength(static_cast<int>(_iterPoints.length()), false);
    for (unsigned int i = 0; i < _iterPoints.length(); ++i)
        _points[static_cast<int>(i)] = Kavrin::KDouble3{_iterPoints[i].x, _iterPoints[i].y, _iterPoints[i].z};
    const int count = static_cast<int>(iter.count());
    _indices.setLength(count, false);
    _weights.setLength(count, false);
    int i = 0;
    for (iter.reset(); !iter.isDone() && i < count; iter.next(), ++i) {
        _indices[i] = iter.index();
        _weights[i] = weightValue(block, multiIndex, static_cast<unsigned int>(iter.index()));
    }
    _indices.setLength(i, false);
    _weights.setLength(i, false);
    in.points = &_points;
    in.indices = &_indices;
    in.weights = &_weights;

    // Decision (behaviour note "Jiggle: read only what the evaluation uses"): the mesh's points,
    // normals and triangles are read only by the evaluations that use them.
    if (_solver.meshPointsNeeded()) {
        fnMesh.getPoints(_meshPoints, MSpace::kObject);
        _restPoints.setLength(static_cast<int>(_meshPoints.length()), false);
        for (unsigned int v = 0; v < _meshPoints.length(); ++v)
            _restPoints[static_cast<int>(v)] = Kavrin::KDouble3{_meshPoints[v].x, _meshPoints[v].y, _meshPoints[v].z};
        in.meshPoints = &_restPoints;
    }
    if (_solver.stepDue(in)) {
        fnMesh.getVertexNormals(false, _hostNormals, MSpace::kObject);
        _normals.setLength(static_cast<int>(_hostNormals.length()), false);
        for (unsigned int v = 0; v < _hostNormals.length(); ++v)
            _normals[static_cast<int>(v)] = Kavrin::KVector(_hostNormals[v].x, _hostNormals[v].y, _hostNormals[v].z);
        in.normals = &_normals;
        if (in.moreAccurateTangent) {
            Kavrin::Convert(_tanMesh, mesh, true, "");
            in.tangentMesh = &_tanMesh;
        }
    }
    _readMap(block, dampingMapObj, _dampingMap, in.dampingMap);
    _readMap(block, stiffnessMapObj, _stiffnessMap, in.stiffnessMap);
    _readMap(block, normalStrengthMapObj, _normalStrengthMap, in.normalStrengthMap);

    const Kavrin::KJiggleResult result = _solver.evaluate(in);
    // Only evaluations in the normal context get here (see above), so the maps are written back in
    // that context alone (behaviour note "Maya layer: stored data written only in the normal
    // context").
    if (result.writeDampingMap) WriteMap(block, dampingMapObj, _solver.fullMap());
    if (result.writeStiffnessMap) WriteMap(block, stiffnessMapObj, _solver.fullMap());
    if (result.writeNormalStrengthMap) WriteMap(block, normalStrengthMapObj, _solver.fullMap());
    if (result.outcome.failed()) {
        Kavrin::ReportOutcome(result.outcome);
        return MS::kSuccess;
    }
    if (!result.outcome.deformed()) return MS::kSuccess;

    const Kavrin::KArray<Kavrin::KDouble3>& points = _solver.points();
    for (int k = 0; k < points.length(); ++k) {
        MPoint& p = _iterPoints[static_cast<unsigned int>(k)];
        p.x = points[k][0];
        p.y = points[k][1];
        p.z = points[k][2];
    }
    iter.setAllPositions(_iterPoints, MSpace::kObject);
    return MS::kSuccess;
}
