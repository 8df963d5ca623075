#include "KDeltaMush.h"

#include <vector>

#include <maya/MArrayDataHandle.h>
#include <maya/MFnDependencyNode.h>
#include <maya/MFnMesh.h>
#include <maya/MFnMeshData.h>
#include <maya/MFnNumericAttribute.h>
#include <maya/MFnTypedAttribute.h>
#include <maya/MFnVectorArrayData.h>
#include <maya/MIntArray.h>
#include <maya/MItMeshVertex.h>
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

const char* const kSource = "source/KDeltaMush";

// The polygon-edge neighbours of every vertex, in the host's order. The host is asked only when
// the mesh's topology differs from the one the cache holds.
const Kavrin::KVertexNeighbours& EdgeNeighbours(const MObject& mesh, Kavrin::KNeighbourCache& cache) {
    MFnMesh fn(mesh);
    MIntArray counts, connects;
    fn.getVertices(counts, connects);
    Kavrin::KIntArray faceCounts, faceVertices;
    Kavrin::Copy(faceCounts, counts);
    Kavrin::Copy(faceVertices, connects);
    return cache.get(fn.numVertices(), faceCounts, faceVertices, [&mesh](std::vector<std::vector<int> >& lists) {
        MObject object(mesh);
        MStatus status;
        MItMeshVertex it(object, &status);
        if (!status) return;
        MIntArray connected;
        for (; !it.isDone(); it.next()) {
            const int v = it.index();
            if (v < 0 || v >= static_cast<int>(lists.size())) continue;
            it.getConnectedVertices(connected);
            lists[v].resize(connected.length());
            if (connected.length() > 0) connected.get(lists[v].data());
        }
    });
}

// The node's stored attributes, read and written through the data block of one evaluation.
class BlockStore : public Kavrin::KDeltaMushStore {
public:
    BlockStore(MDataBlock& block, const MObject& inputMesh, Kavrin::KNeighbourCache& restNeighbours)
        : _block(block), _inputMesh(inputMesh), _restNeighbours(restNeighbours) {}

    bool onlyOnce() override { return _block.inputValue(KDeltaMush::onlyOnceObj).asBool(); }
    void setOnlyOnce(bool value) override { _block.outputValue(KDeltaMush::onlyOnceObj).set(value); }
    bool gotDelta() override { return _block.inputValue(KDeltaMush::gotDeltaObj).asBool(); }
    void setGotDelta(bool value) override { _block.outputValue(KDeltaMush::gotDeltaObj).set(value); }
    int numIter() override { return _block.inputValue(KDeltaMush::numIterObj).asInt(); }

    void captureRestMesh() override {
        MStatus status;
        MFnMeshData data;
        MObject copy = data.create(&status);
        if (!status) return;
        MFnMesh().copy(_inputMesh, copy, &status);
        if (status) _block.outputValue(KDeltaMush::restMeshObj).set(copy);
    }

    void readRestMesh(Kavrin::KTriMesh& mesh, Kavrin::KVertexNeighbours& neighbours) override {
        mesh = Kavrin::KTriMesh();
        neighbours = Kavrin::KVertexNeighbours();
        MObject rest = _block.inputValue(KDeltaMush::restMeshObj).data();
        if (rest.isNull()) return;
        Kavrin::Convert(mesh, rest, false, "currentUVSet");
        neighbours = EdgeNeighbours(rest, _restNeighbours);
    }

    bool readDelta(Kavrin::KArray<Kavrin::KDouble3>& deltas) override {
        deltas.clear();
        MObject data = _block.inputValue(KDeltaMush::deltaObj).data();
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

    void writeDelta(const Kavrin::KArray<Kavrin::KDouble3>& deltas) override {
        MVectorArray values(static_cast<unsigned int>(deltas.length()));
        for (int i = 0; i < deltas.length(); ++i)
            values.set(MVector(deltas[i][0], deltas[i][1], deltas[i][2]), static_cast<unsigned int>(i));
        MFnVectorArrayData fn;
        MObject data = fn.create(values);
        _block.outputValue(KDeltaMush::deltaObj).set(data);
    }

private:
    MDataBlock& _block;
    const MObject& _inputMesh;
    Kavrin::KNeighbourCache& _restNeighbours;
};

// True when every index the iterator visits has a reconstructed point, so that the write-back
// never reads past the engine's result.
bool IndicesFit(MItGeometry& iter, int count) {
    for (iter.reset(); !iter.isDone(); iter.next())
        if (iter.index() < 0 || iter.index() >= count) return false;
    return true;
}

}  // namespace

void* KDeltaMush::creator() { return new KDeltaMush(); }

MStatus KDeltaMush::initialize() {
    MFnNumericAttribute nAttr;
    MFnTypedAttribute tAttr;
    MStatus status;

    Kavrin::CreateBoolAttr(nAttr, onlyOnceObj, "onlyOnce", "onlyOnce", true);
    nAttr.setHidden(true);
    status = addAttribute(onlyOnceObj);
    K_CHECK_API(status, kSource);

    Kavrin::CreateBoolAttr(nAttr, gotDeltaObj, "gotDelta", "gotDelta", false);
    nAttr.setHidden(true);
    status = addAttribute(gotDeltaObj);
    K_CHECK_API(status, kSource);

    Kavrin::CreateMeshAttr(tAttr, restMeshObj, "restMesh", "restMesh");
    tAttr.setHidden(true);
    tAttr.setStorable(true);
    status = addAttribute(restMeshObj);
    K_CHECK_API(status, kSource);

    Kavrin::CreateVArrayAttr(tAttr, deltaObj, "delta", "delta");
    tAttr.setHidden(true);
    tAttr.setStorable(true);
    status = addAttribute(deltaObj);
    K_CHECK_API(status, kSource);

    Kavrin::CreateIntAttr(nAttr, numIterObj, "numIter", "numIter", 15);
    status = addAttribute(numIterObj);
    K_CHECK_API(status, kSource);

    attributeAffects(inputGeom, outputGeom);
    attributeAffects(numIterObj, outputGeom);
    return MS::kSuccess;
}

void KDeltaMush::postConstructor() {
    MFnDependencyNode fn(thisMObject());
    fn.setName("KDeltaMush#");
}

MStatus KDeltaMush::deform(MDataBlock& block, MItGeometry& iter, const MMatrix& localToWorld,
                           unsigned int multiIndex) {
    _solver.setThreads(MThreadUtils::getNumThreads());
    const float envelopeValue = block.inputValue(envelope).asFloat();
    if (!Kavrin::KDeltaMushSolver::Active(envelopeValue)) return MS::kSuccess;

    MArrayDataHandle inputs = block.outputArrayValue(input);
    inputs.jumpToElement(multiIndex);
    const MObject inputMesh = inputs.outputValue().child(inputGeom).asMesh();
    if (inputMesh.isNull()) {
        MGlobal::displayError("KDeltaMush: the input geometry is not a polygon mesh; the points were left untouched.");
        return MS::kSuccess;
    }
    Kavrin::Convert(_curMesh, inputMesh, false, "currentUVSet");
    const Kavrin::KVertexNeighbours& neighbours = EdgeNeighbours(inputMesh, _curNeighbours);

    BlockStore store(block, inputMesh, _restNeighbours);
    Kavrin::KMayaMessageSink sink;
    const int count = iter.count();
    if (_solver.deform(_curMesh, neighbours, count, envelopeValue, store, sink) != Kavrin::KDeltaMushSolver::kDeformed)
        return MS::kSuccess;
    if (!IndicesFit(iter, _solver.result().length())) {
        sink.error("KDeltaMush: the deformed geometry does not match the input mesh; the points were left untouched.");
        return MS::kSuccess;
    }

    const MMatrix inverse = localToWorld.inverse();
    double out[4];
    for (iter.reset(); !iter.isDone(); iter.next()) {
        const MPoint current = iter.position(MSpace::kObject);
        _solver.objectPoint(iter.index(), current.w, inverse.matrix, out);
        iter.setPosition(MPoint(out[0], out[1], out[2], out[3]), MSpace::kObject);
    }
    return MS::kSuccess;
}
