#include "KOffsetMeshDeformer.h"

#include <maya/MArrayDataHandle.h>
#include <maya/MDGModifier.h>
#include <maya/MFloatArray.h>
#include <maya/MFloatMatrix.h>
#include <maya/MFloatPointArray.h>
#include <maya/MFloatVectorArray.h>
#include <maya/MFnData.h>
#include <maya/MFnDependencyNode.h>
#include <maya/MFnNumericAttribute.h>
#include <maya/MItGeometry.h>
#include <maya/MItMeshVertex.h>
#include <maya/MPlugArray.h>
#include <maya/MPoint.h>
#include <maya/MRenderUtil.h>
#include <maya/MVector.h>

#include "KMayaBase.h"
#include "KMayaMessageSink.h"
#include "KPluginRegistration.h"

const MString KOffsetMeshDeformer::name(Kavrin::kOffsetMeshDeformerNode.name);
const MTypeId KOffsetMeshDeformer::id(Kavrin::kOffsetMeshDeformerNode.id);

MObject KOffsetMeshDeformer::offsetObj;
MObject KOffsetMeshDeformer::scaleObj;

namespace {

const char* const kSource = "source/KOffsetMeshDeformer";
// Withdraws the deformer's standard weights from the paint tool; they are still applied.
const char* const kWithdrawWeightsFromPaint = "makePaintable -rm KOffsetMeshDeformer weights;";

// Maya's renderer as the engine's sampler: the engine's arrays go to
// MRenderUtil::sampleShadingNetwork as they are, the positions doubling as reference points.
class RendererSampler : public Kavrin::KShadingSampler {
public:
    bool sample(const std::string& shadingEngine, const Kavrin::KOffsetSamples& samples,
                Kavrin::KArray<Kavrin::KFloat3>& colours) override {
        const int n = samples.count();
        const unsigned int count = static_cast<unsigned int>(n);
        MFloatPointArray points(reinterpret_cast<const float(*)[4]>(samples.positions.data()), count);
        MFloatArray u(samples.u.data(), count);
        MFloatArray v(samples.v.data(), count);
        MFloatVectorArray normals(reinterpret_cast<const float(*)[3]>(samples.normals.data()), count);
        MFloatArray filterSizes(samples.filterSizes.data(), count);
        MFloatMatrix camera;  // identity
        MFloatVectorArray resultColours;
        MFloatVectorArray resultTransparencies;
        const MStatus status = MRenderUtil::sampleShadingNetwork(
            MString(shadingEngine.c_str()), n, true, true, camera, &points, &u, &v, &normals, &points, nullptr,
            nullptr, &filterSizes, resultColours, resultTransparencies);
        if (!status) return false;
        colours.setLength(static_cast<int>(resultColours.length()), false);
        if (!colours.empty()) resultColours.get(reinterpret_cast<float(*)[3]>(colours.data()));
        return true;
    }
};

}  // namespace

void* KOffsetMeshDeformer::creator() { return new KOffsetMeshDeformer(); }

MStatus KOffsetMeshDeformer::initialize() {
    MFnNumericAttribute nAttr;
    MStatus status;

    Kavrin::CreateColorAttr(nAttr, offsetObj, "offset", "offset");
    status = addAttribute(offsetObj);
    K_CHECK_API(status, kSource);

    Kavrin::CreateDoubleAttr(nAttr, scaleObj, "scale", "scale", 1.0);
    nAttr.setSoftMin(-1.0);
    nAttr.setSoftMax(2.0);
    status = addAttribute(scaleObj);
    K_CHECK_API(status, kSource);

    attributeAffects(offsetObj, outputGeom);
    attributeAffects(scaleObj, outputGeom);

    MGlobal::executeCommand(kWithdrawWeightsFromPaint, false, false);
    return MS::kSuccess;
}

MString KOffsetMeshDeformer::_findShadingEngine() const {
    MString found;
    MPlugArray connected;
    MPlug(thisMObject(), offsetObj).connectedTo(connected, true, true);
    for (unsigned int i = 0; i < connected.length(); ++i) {
        MPlugArray next;
        connected[i].connectedTo(next, true, true);
        for (unsigned int j = 0; j < next.length(); ++j) {
            MObject node = next[j].node();
            if (node.hasFn(MFn::kShadingEngine)) found = MFnDependencyNode(node).name();  // the last one wins
        }
    }
    return found;
}

MStatus KOffsetMeshDeformer::compute(const MPlug& plug, MDataBlock& block) {
    if (plug.attribute() != outputGeom) return MS::kUnknownParameter;
    // Decision (behaviour note "Offset: one thread")
    const unsigned int multiIndex = plug.logicalIndex();

    Kavrin::KOffsetInput in;
    in.scale = block.inputValue(scaleObj).asDouble();
    in.envelope = block.inputValue(envelope).asFloat();
    in.vertices = &_vertices;
    _vertices.clear();
    RendererSampler sampler;

    MPlug inputPlug(thisMObject(), input);
    inputPlug.selectAncestorLogicalIndex(multiIndex, input);
    MDataHandle inputHandle = block.inputValue(inputPlug);
    MDataHandle geometry = inputHandle.child(inputGeom);
    in.polyMesh = geometry.type() == MFnData::kMesh;
    if (!in.polyMesh) {
        Kavrin::ReportOutcome(_solver.evaluate(in, sampler));
        return MS::kFailure;
    }

    const unsigned int group = static_cast<unsigned int>(inputHandle.child(groupId).asLong());
    MDataHandle output = block.outputValue(plug);
    output.copy(geometry);
    MObject mesh = output.asMesh();
    in.shadingEngine = _findShadingEngine().asChar();

    MItGeometry iter(output, group, false);
    if (Kavrin::KOffsetSolver::VerticesNeeded(in)) {
        MStatus status;
        MItMeshVertex vertexIter(mesh, &status);
        const int meshVertices = status ? vertexIter.count() : 0;
        for (iter.reset(); !iter.isDone(); iter.next()) {
            const int index = iter.index();
            int previous = 0;
            // Guard (behaviour note "Offset: iterated index outside the mesh")
            if (index < 0 || index >= meshVertices || !vertexIter.setIndex(index, previous)) {
                Kavrin::ReportOutcome(Kavrin::KOutcome::Failed(Kavrin::kOffsetNoMeshVertex));
                return MS::kFailure;
            }
            Kavrin::KOffsetVertex vertex;
            // Decision (behaviour note "Offset: Cartesian positions")
            MPoint p = iter.position(MSpace::kObject);
            p.cartesianize();
            vertex.position = Kavrin::KDouble3{p.x, p.y, p.z};
            MVector normal;
            vertexIter.getNormal(normal, MSpace::kObject);
            vertex.normal = Kavrin::KDouble3{normal.x, normal.y, normal.z};
            float2 uv = {0.0f, 0.0f};
            // Guard (behaviour note "Offset: vertex without a UV")
            if (!vertexIter.getUV(uv)) uv[0] = uv[1] = 0.0f;
            vertex.u = uv[0];
            vertex.v = uv[1];
            vertex.weight = weightValue(block, multiIndex, static_cast<unsigned int>(index));
            _vertices.push_back(vertex);
        }
    }

    const Kavrin::KOutcome outcome = _solver.evaluate(in, sampler);
    if (!outcome.deformed()) {
        Kavrin::ReportOutcome(outcome);
        return MS::kFailure;
    }
    const int count = _solver.displacements().length();
    int i = 0;
    // Guard (behaviour note "Offset: second walk")
    for (iter.reset(); !iter.isDone() && i < count; iter.next(), ++i) {
        MPoint p = iter.position(MSpace::kObject);
        p.cartesianize();
        const double from[3] = {p.x, p.y, p.z};
        double to[3];
        _solver.displacedPoint(i, from, to);
        iter.setPosition(MPoint(to[0], to[1], to[2]), MSpace::kObject);
    }
    // Decision (behaviour note "Offset: output marked clean")
    output.setClean();
    return MS::kSuccess;
}

MStatus KOffsetMeshDeformer::accessoryNodeSetup(MDagModifier&) {
    // Kept on purpose (behaviour note "Offset: the shader outlives an undo")
    MDGModifier modifier;
    MObject shader = modifier.createNode("surfaceShader");
    modifier.renameNode(shader, "offsetShader1");
    MObject engine = modifier.createNode("shadingEngine");
    modifier.renameNode(engine, "offsetEngine1");
    modifier.doIt();

    const MObject outColor = MFnDependencyNode(shader).attribute("outColor");
    modifier.connect(shader, outColor, thisMObject(), offsetObj);
    modifier.connect(shader, outColor, engine, MFnDependencyNode(engine).attribute("surfaceShader"));
    modifier.doIt();
    return MS::kSuccess;
}
