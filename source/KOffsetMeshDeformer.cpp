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
#include <maya/MSelectionList.h>
#include <maya/MThreadUtils.h>
#include <maya/MVector.h>

#include "KMayaBase.h"
#include "KMayaMessageSink.h"
#include "KPluginRegistration.h"

const MString KOffsetMeshDeformer::name(Kavrin::kOffsetMeshDeformerNode.name);
const MTypeId KOffsetMeshDeformer::id(Kavrin::kOffsetMeshDeformerNode.id);

MObject KOffsetMeshDeformer::offsetObj;
MObject KOffsetMeshDeformer::scaleObj;

namespace {

// The surface shader and its shading engine, made as Maya's own material commands make them.
const char* const kOffsetShaderCommand = "shadingNode -asShader -skipSelect -name offsetShader1 surfaceShader";
const char* const kOffsetEngineCommand = "sets -renderable true -noSurfaceShader true -empty -name offsetEngine1";
const char* const kOffsetNoShaderMade =
    "KOffsetMeshDeformer: its surface shader and shading engine could not be made; connect a shader's outColor to "
    "the deformer's offset and to a shading engine's surfaceShader by hand.";


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
    MObject* const handles[] = {&offsetObj, &scaleObj};
    return Kavrin::AddAttributes(Kavrin::kOffsetMeshDeformerAttributeTable, handles);
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

    // Decision (behaviour note "Maya layer: outputs marked clean"): a failed evaluation leaves the
    // output as it is (or as the copied input) and clean, so its message is not repeated on
    // every redraw.
    auto failed = [&](const Kavrin::KOutcome& outcome) {
        Kavrin::ReportOutcome(outcome);
        block.setClean(plug);
        return MStatus(MS::kFailure);
    };

    // Decision (behaviour note "Offset: offset read through the data block"): its value is not
    // used, but reading it cleans the plug, so later edits of the shading network dirty it again.
    block.inputValue(offsetObj);
    Kavrin::KOffsetInput in;
    in.scale = block.inputValue(scaleObj).asDouble();
    in.envelope = block.inputValue(envelope).asFloat();
    in.vertices = &_vertices;
    in.threads = MThreadUtils::getNumThreads();
    _vertices.clear();
    RendererSampler sampler;

    MPlug inputPlug(thisMObject(), input);
    inputPlug.selectAncestorLogicalIndex(multiIndex, input);
    MDataHandle inputHandle = block.inputValue(inputPlug);
    MDataHandle geometry = inputHandle.child(inputGeom);
    in.polyMesh = geometry.type() == MFnData::kMesh;
    if (!in.polyMesh) return failed(_solver.evaluate(in, sampler));

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
            if (index < 0 || index >= meshVertices || !vertexIter.setIndex(index, previous))
                return failed(Kavrin::KOutcome::Failed(Kavrin::kOffsetNoMeshVertex));
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
    if (!outcome.deformed()) return failed(outcome);
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

MPxNode::SchedulingType KOffsetMeshDeformer::schedulingType() const {
    // Decision (behaviour note "Offset: sampled alone"): the renderer's sampling service must not
    // run beside any other evaluation.
    return MPxNode::kUntrusted;
}

MStatus KOffsetMeshDeformer::accessoryNodeSetup(MDagModifier&) {
    // Decision (behaviour note "Offset: the shader made as a material"): made by Maya's own
    // material commands, which list the pair as a material, and not selected. Kept on purpose
    // (behaviour note "Offset: the shader outlives an undo"): neither the commands nor the
    // connections go through the modifier Maya passes in.
    MString shaderName, engineName;
    MGlobal::executeCommand(kOffsetShaderCommand, shaderName, false, false);
    MGlobal::executeCommand(kOffsetEngineCommand, engineName, false, false);
    MSelectionList made;
    MObject shader, engine;
    // Guard (behaviour note "Offset: a shader that could not be made")
    if (!made.add(shaderName) || !made.getDependNode(0, shader) || !made.add(engineName) ||
        !made.getDependNode(1, engine)) {
        MGlobal::displayWarning(kOffsetNoShaderMade);
        return MS::kSuccess;
    }
    MDGModifier modifier;
    const MObject outColor = MFnDependencyNode(shader).attribute("outColor");
    modifier.connect(shader, outColor, thisMObject(), offsetObj);
    modifier.connect(shader, outColor, engine, MFnDependencyNode(engine).attribute("surfaceShader"));
    modifier.doIt();
    return MS::kSuccess;
}
