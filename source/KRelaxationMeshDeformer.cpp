#include "KRelaxationMeshDeformer.h"

#include <maya/MArrayDataHandle.h>
#include <maya/MDoubleArray.h>
#include <maya/MFloatVectorArray.h>
#include <maya/MFnDoubleArrayData.h>
#include <maya/MFnMesh.h>
#include <maya/MItMeshVertex.h>
#include <maya/MPlugArray.h>
#include <maya/MPointArray.h>
#include <maya/MThreadUtils.h>

#include "KMayaBase.h"
#include "KMayaMessageSink.h"
#include "KPluginRegistration.h"
#include "KRelaxationStore.h"

const MString KRelaxationMeshDeformer::name(Kavrin::kRelaxationMeshDeformerNode.name);
const MTypeId KRelaxationMeshDeformer::id(Kavrin::kRelaxationMeshDeformerNode.id);

MObject KRelaxationMeshDeformer::enableScaleSafeObj;
MObject KRelaxationMeshDeformer::iterationsObj;
MObject KRelaxationMeshDeformer::doCollisionsObj;
MObject KRelaxationMeshDeformer::collisionStepsObj;
MObject KRelaxationMeshDeformer::connVrtIdObj;
MObject KRelaxationMeshDeformer::connVrtIdListObj;
MObject KRelaxationMeshDeformer::connVrtIdNrmOrderObj;
MObject KRelaxationMeshDeformer::connVrtIdNrmOrderListObj;
MObject KRelaxationMeshDeformer::bObj;
MObject KRelaxationMeshDeformer::bScalableObj;
MObject KRelaxationMeshDeformer::bScalableListObj;
MObject KRelaxationMeshDeformer::meanValWgtObj;
MObject KRelaxationMeshDeformer::meanValWgtListObj;
MObject KRelaxationMeshDeformer::stiffnessObj;
MObject KRelaxationMeshDeformer::paintTransObj;
MObject KRelaxationMeshDeformer::colliderMapObj;
MObject KRelaxationMeshDeformer::mshColliderObj;
MObject KRelaxationMeshDeformer::mshColliderTagObj;
MObject KRelaxationMeshDeformer::mshColliderVrtMultObj;
MObject KRelaxationMeshDeformer::mshColliderVrtMultListObj;

namespace {

const char* const kNotAMesh =
    "KRelaxationMeshDeformer: the input geometry is not a polygon mesh; the points were left untouched.";
const char* const kPartialMesh =
    "KRelaxationMeshDeformer: the deformer must act on every vertex of its mesh, in order (use the painted weights "
    "to limit it); the points were left untouched.";

bool ReadDoubleArray(const MObject& data, Kavrin::KArray<double>& values) {
    values.clear();
    if (data.isNull()) return false;
    MStatus status;
    MFnDoubleArrayData fn(data, &status);
    if (!status) return false;
    const MDoubleArray array = fn.array();
    values.resize(array.length());
    for (unsigned int i = 0; i < array.length(); ++i) values[i] = array[i];
    return true;
}

MObject MakeDoubleArray(const Kavrin::KArray<double>& values) {
    MDoubleArray array(static_cast<unsigned int>(values.length()));
    for (int i = 0; i < values.length(); ++i) array[static_cast<unsigned int>(i)] = values[i];
    MFnDoubleArrayData fn;
    return fn.create(array);
}

}  // namespace

KRelaxationMeshDeformer::KRelaxationMeshDeformer() {}

KRelaxationMeshDeformer::~KRelaxationMeshDeformer() {
    // Guard (behaviour note "Relaxation: callback removed with the node").
    removeCallbacks();
}

void* KRelaxationMeshDeformer::creator() { return new KRelaxationMeshDeformer(); }

MStatus KRelaxationMeshDeformer::initialize() {
    MObject* const handles[] = {&enableScaleSafeObj,    &iterationsObj,         &doCollisionsObj,
                                &collisionStepsObj,     &connVrtIdObj,          &connVrtIdListObj,
                                &connVrtIdNrmOrderObj,  &connVrtIdNrmOrderListObj,
                                &bObj,                  &bScalableObj,          &bScalableListObj,
                                &meanValWgtObj,         &meanValWgtListObj,     &stiffnessObj,
                                &paintTransObj,         &colliderMapObj,        &mshColliderObj,
                                &mshColliderTagObj,     &mshColliderVrtMultObj, &mshColliderVrtMultListObj};
    return Kavrin::AddAttributes(Kavrin::kRelaxationMeshDeformerAttributeTable, handles);
}

void KRelaxationMeshDeformer::postConstructor() {
    MPxDeformerNode::postConstructor();
    MObject self = thisMObject();
    callbackId = MNodeMessage::addAttributeChangedCallback(self, sAttrChangedCallback, this);
}

void KRelaxationMeshDeformer::removeCallbacks() {
    if (callbackId != 0) MMessage::removeCallback(callbackId);
    callbackId = 0;
}

void KRelaxationMeshDeformer::sAttrChangedCallback(MNodeMessage::AttributeMessage message, MPlug& plug,
                                                   MPlug& otherPlug, void* clientData) {
    if (clientData) static_cast<KRelaxationMeshDeformer*>(clientData)->attrChangedCallback(message, plug, otherPlug);
}

bool KRelaxationMeshDeformer::findInfluenceObjectIndex(const MObject& node, int& index) const {
    const MPlug tags(thisMObject(), mshColliderTagObj);
    std::vector<Kavrin::KColliderTag> list;
    for (unsigned int j = 0; j < tags.numElements(); ++j) {
        const MPlug element = tags.elementByPhysicalIndex(j);
        MPlugArray sources;
        element.connectedTo(sources, true, false);
        Kavrin::KColliderTag tag;
        tag.logicalIndex = static_cast<int>(element.logicalIndex());
        tag.connections = static_cast<int>(sources.length());
        tag.fromNode = sources.length() == 1 && sources[0].node() == node;
        list.push_back(tag);
    }
    Kavrin::KMayaMessageSink sink;
    return Kavrin::FindColliderIndex(list, sink, index);
}

void KRelaxationMeshDeformer::_readMultiplierPlugs(std::vector<Kavrin::KMultiplierElement>& list) const {
    list.clear();
    const MPlug multipliers(thisMObject(), mshColliderVrtMultListObj);
    for (unsigned int e = 0; e < multipliers.numElements(); ++e) {
        const MPlug element = multipliers.elementByPhysicalIndex(e);
        Kavrin::KMultiplierElement values;
        values.vertex = static_cast<int>(element.logicalIndex());
        const MPlug children = element.child(mshColliderVrtMultObj);
        for (unsigned int k = 0; k < children.numElements(); ++k) {
            const MPlug child = children.elementByPhysicalIndex(k);
            double value = 0.0;
            child.getValue(value);
            values.values.push_back(std::make_pair(static_cast<int>(child.logicalIndex()), value));
        }
        list.push_back(values);
    }
}

void KRelaxationMeshDeformer::getInfluenceObjectWeights(int index, Kavrin::KArray<double>& weights) const {
    std::vector<Kavrin::KMultiplierElement> list;
    _readMultiplierPlugs(list);
    Kavrin::ColliderWeights(list, index, weights);
}

MStatus KRelaxationMeshDeformer::connectionMade(const MPlug& plug, const MPlug& otherPlug, bool asSrc) {
    const MStatus status = MPxDeformerNode::connectionMade(plug, otherPlug, asSrc);
    if (asSrc || plug != paintTransObj) return status;
    int index = 0;
    if (!findInfluenceObjectIndex(otherPlug.node(), index)) return status;
    // The paint tool now shows this collider's multipliers.
    Kavrin::KArray<double> weights;
    getInfluenceObjectWeights(index, weights);
    MPlug map(thisMObject(), colliderMapObj);
    MObject data = MakeDoubleArray(weights);
    map.setValue(data);
    return status;
}

void KRelaxationMeshDeformer::attrChangedCallback(MNodeMessage::AttributeMessage message, MPlug& plug, MPlug&) {
    if (!(message & MNodeMessage::kAttributeSet) || plug != colliderMapObj) return;
    const MPlug paintTrans(thisMObject(), paintTransObj);
    MPlugArray sources;
    paintTrans.connectedTo(sources, true, false);
    if (sources.length() != 1) return;
    int index = 0;
    if (!findInfluenceObjectIndex(sources[0].node(), index)) return;

    MObject data;
    if (!plug.getValue(data)) return;
    Kavrin::KArray<double> painted, stored;
    if (!ReadDoubleArray(data, painted)) return;
    getInfluenceObjectWeights(index, stored);
    std::vector<Kavrin::KMultiplierWrite> writes;
    Kavrin::PaintedMultiplierWrites(painted, stored, writes);
    const MPlug list(thisMObject(), mshColliderVrtMultListObj);
    for (const Kavrin::KMultiplierWrite& w : writes) {
        MPlug value = list.elementByLogicalIndex(static_cast<unsigned int>(w.vertex))
                          .child(mshColliderVrtMultObj)
                          .elementByLogicalIndex(static_cast<unsigned int>(index));
        value.setValue(w.value);
    }
}

MStatus KRelaxationMeshDeformer::deform(MDataBlock& block, MItGeometry& iter, const MMatrix& worldMatrix,
                                        unsigned int geometryIndex) {
    Kavrin::KRelaxationInput in;
    in.envelope = block.inputValue(envelope).asFloat();
    if (!Kavrin::KRelaxationSolver::Active(in.envelope)) return MS::kSuccess;
    if (Kavrin::RefuseOtherGeometry(Kavrin::kRelaxationMeshDeformerNode.name, geometryIndex)) return MS::kSuccess;
    in.threads = MThreadUtils::getNumThreads();
    // Decision (behaviour note "Maya layer: outputs marked clean"): a failed evaluation leaves
    // the geometry as it came in and its output clean, so its message is not repeated at every
    // redraw.
    auto failed = [&](const Kavrin::KOutcome& outcome) {
        Kavrin::ReportOutcome(outcome);
        Kavrin::SetOutputClean(block, geometryIndex);
        return MStatus(MS::kFailure);
    };

    MArrayDataHandle outputs = block.outputArrayValue(outputGeom);
    outputs.jumpToElement(geometryIndex);
    MObject mesh = outputs.outputValue().asMesh();
    const int count = static_cast<int>(iter.count());
    in.collisionSteps = block.inputValue(collisionStepsObj).asInt();
    in.iterations = block.inputValue(iterationsObj).asInt();
    in.doCollisions = block.inputValue(doCollisionsObj).asBool();
    in.enableScaleSafe = block.inputValue(enableScaleSafeObj).asBool();

    // Guard (behaviour note "Relaxation: whole polygon meshes only").
    MStatus status;
    MFnMesh fnMesh(mesh, &status);
    if (mesh.isNull() || !status) return failed(Kavrin::KOutcome::Failed(kNotAMesh));
    int expected = 0;
    bool inOrder = fnMesh.numVertices() == count;
    for (iter.reset(); inOrder && !iter.isDone(); iter.next()) inOrder = iter.index() == expected++;
    MPointArray positions;
    iter.allPositions(positions, MSpace::kObject);
    if (!inOrder || static_cast<int>(positions.length()) != count)
        return failed(Kavrin::KOutcome::Failed(kPartialMesh));

    _points.setLength(count, false);
    for (int i = 0; i < count; ++i) {
        const MPoint& p = positions[static_cast<unsigned int>(i)];
        _points[i] = Kavrin::KDouble3{p.x, p.y, p.z};
    }
    in.points = _points.data();
    in.count = count;
    worldMatrix.get(in.worldMatrix);
    worldMatrix.inverse().get(in.inverseWorldMatrix);
    _weights.setLength(count, false);
    for (int i = 0; i < count; ++i) _weights[i] = weightValue(block, geometryIndex, static_cast<unsigned int>(i));
    in.weights = _weights.data();

    const bool hasStiffness = ReadDoubleArray(block.inputValue(stiffnessObj).data(), _stiffness);
    in.stiffness = hasStiffness ? &_stiffness : nullptr;
    if (_solver.bindingDue(in)) {
        // Decision (behaviour note "Relaxation: neighbour cache per topology"): the host's
        // neighbour order, asked for again only when the faces change.
        Kavrin::KIntArray faceCounts, faceVertices;
        MIntArray counts, connects;
        fnMesh.getVertices(counts, connects);
        Kavrin::Copy(faceCounts, counts);
        Kavrin::Copy(faceVertices, connects);
        in.rings = &_rings.get(count, faceCounts, faceVertices, [&mesh](std::vector<std::vector<int> >& lists) {
            MStatus s;
            MItMeshVertex vertices(mesh, &s);
            if (!s) return;
            MIntArray ids;
            for (; !vertices.isDone(); vertices.next()) {
                const int v = vertices.index();
                if (v < 0 || v >= static_cast<int>(lists.size()) || !vertices.getConnectedVertices(ids)) continue;
                std::vector<int>& list = lists[static_cast<size_t>(v)];
                for (unsigned int k = 0; k < ids.length(); ++k) list.push_back(ids[k]);
            }
        });
    }
    if (_solver.storedBindingNeeded(in)) {
        KRelaxationStore::ReadBinding(block, count, _stored);
        in.stored = &_stored;
    }

    // The colliders are pulled only when passes with collisions will run.
    if (in.doCollisions && in.iterations >= 1) {
        MArrayDataHandle colliders = block.inputArrayValue(mshColliderObj);
        in.numColliders = static_cast<int>(colliders.elementCount());
        const MPlug colliderPlugs(thisMObject(), mshColliderObj);
        if (_solver.collisionsNeeded(in)) {
            _colliderMeshes.resize(static_cast<size_t>(in.numColliders));
            _colliders.assign(static_cast<size_t>(in.numColliders), Kavrin::KRelaxationCollider());
            for (int c = 0; c < in.numColliders; ++c) {
                Kavrin::KRelaxationCollider& collider = _colliders[static_cast<size_t>(c)];
                if (!colliders.jumpToArrayElement(static_cast<unsigned int>(c))) {
                    collider.connected = false;
                    continue;
                }
                collider.connected = colliderPlugs.elementByLogicalIndex(colliders.elementIndex()).isConnected();
                // Decision (behaviour note "Relaxation: collider box in world space"): the collider in
                // world space, its box included.
                const MObject world = colliders.inputValue().asMeshTransformed();
                Kavrin::KTriMesh& triMesh = _colliderMeshes[static_cast<size_t>(c)];
                // A collider whose data is not a mesh is skipped; a concave face collides only
                // within itself.
                // Decision (behaviour note "Relaxation: colliders in the host's triangulation")
                if (!world.isNull() && Kavrin::Convert(triMesh, world, true, nullptr)) collider.mesh = &triMesh;
            }
            in.colliders = _colliders.data();
            // Kept on purpose (behaviour note "Relaxation: multipliers by collider position").
            KRelaxationStore::ReadMultipliers(block, _multiplierList);
            Kavrin::MultiplierTable(_multiplierList, count, in.numColliders, _multipliers);
            in.multipliers = &_multipliers;

            // Push directions: the input mesh's object-space vertex normals (the engine brings them
            // into world space).
            MFloatVectorArray normals;
            fnMesh.getVertexNormals(false, normals, MSpace::kObject);
            _normals.setLength(count, false);
            for (int i = 0; i < count && i < static_cast<int>(normals.length()); ++i) {
                const MFloatVector& n = normals[static_cast<unsigned int>(i)];
                _normals[i] = Kavrin::KVector(n.x, n.y, n.z);
            }
            in.normals = static_cast<int>(normals.length()) == count ? _normals.data() : nullptr;
        }
    }

    const Kavrin::KRelaxationResult result = _solver.evaluate(in);
    // Decision (behaviour note "Maya layer: stored data written only in the normal context").
    const bool normal = Kavrin::NormalContext(block);
    if (result.writeBinding && normal) KRelaxationStore::WriteBinding(block, _solver.binding());
    if (result.writeStiffness && normal) {
        MDataHandle stiffness = block.outputValue(stiffnessObj);
        stiffness.set(MakeDoubleArray(_solver.stiffness()));
    }
    if (result.outcome.failed()) return failed(result.outcome);
    if (!result.outcome.deformed()) return MS::kSuccess;

    const Kavrin::KArray<Kavrin::KDouble3>& out = _solver.points();
    for (int i = 0; i < count; ++i)
        positions[static_cast<unsigned int>(i)] = MPoint(out[i][0], out[i][1], out[i][2]);
    iter.setAllPositions(positions, MSpace::kObject);
    return MS::kSuccess;
}
