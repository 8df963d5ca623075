#include "KDeltaMushSolver.h"

#include "KPointTransform.h"
#include "KThreads.h"

namespace Kavrin {

const char* const kDeltaMushRestTooSmall =
    "KDeltaMush: the rest mesh has fewer vertices than the deformed geometry; nothing was bound.";
const char* const kDeltaMushMeshTooSmall =
    "KDeltaMush: the input mesh has fewer vertices than the deformed geometry; the points were left untouched.";
const char* const kDeltaMushBadNeighbours =
    "KDeltaMush: the mesh's edge connectivity does not match its vertices; the points were left untouched.";

namespace {

void loadPoints(const KVectorArray& points, std::vector<double>& out) {
    const int n = points.length();
    out.resize(3 * static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        out[3 * i] = points[i].x;
        out[3 * i + 1] = points[i].y;
        out[3 * i + 2] = points[i].z;
    }
}

void narrowPoints(const std::vector<double>& in, KVectorArray& out) {
    const int n = static_cast<int>(in.size() / 3);
    out.setLength(n, false);
    for (int i = 0; i < n; ++i)
        out[i] = KVector(static_cast<float>(in[3 * i]), static_cast<float>(in[3 * i + 1]),
                         static_cast<float>(in[3 * i + 2]));
}

}  // namespace

bool KDeltaMushSolver::_bind(int pointCount, KDeltaMushStore& store, KMessageSink& sink) {
    KTriMesh rest;
    KVertexNeighbours restNeighbours;
    store.readRestMesh(rest, restNeighbours);
    if (rest.numVertices() < pointCount) {
        sink.error(kDeltaMushRestTooSmall);
        return false;
    }
    if (!restNeighbours.validFor(rest.numVertices()) || !rest.indicesValid()) {
        sink.error(kDeltaMushBadNeighbours);
        return false;
    }
    _numIter = store.numIter();

    loadPoints(rest.points, _work);
    _restSmoother.smooth(_work, restNeighbours, _numIter, _threads);
    KVectorArray smoothRest;
    narrowPoints(_work, smoothRest);
    _restTangents.compute(smoothRest.data(), smoothRest.length(), rest.triangles, _frames, _threads);

    KArray<KDouble3> deltas;
    deltas.setLength(pointCount, false);
    const KAxis* frames = _frames.data();
    const KVector* restPoints = rest.points.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, pointCount))
    for (int i = 0; i < pointCount; ++i) {
        const KVector d = frames[i].worldToLocal(restPoints[i], false, true);
        deltas[i] = KDouble3{d.x, d.y, d.z};
    }
    store.writeDelta(deltas);
    return true;
}

KDeltaMushSolver::Result KDeltaMushSolver::deform(const KTriMesh& mesh, const KVertexNeighbours& neighbours,
                                                  int pointCount, float envelope, KDeltaMushStore& store,
                                                  KMessageSink& sink) {
    // The envelope only switches the deformer on or off: any value from 1e-30 up gives the
    // full result.
    if (!Active(envelope)) return kUntouched;

    if (store.onlyOnce()) {
        store.captureRestMesh();
        store.setOnlyOnce(false);
    }
    if (_numIter != store.numIter() || !store.gotDelta()) {
        if (!_bind(pointCount, store, sink)) return kUntouched;
    }
    store.setGotDelta(true);
    if (!store.gotDelta()) return kUntouched;
    _numIter = store.numIter();

    const int nv = mesh.numVertices();
    if (neighbours.offsets.length() != nv + 1 || neighbours.indices.length() != neighbours.offsets[nv]) {
        sink.error(kDeltaMushBadNeighbours);
        return kUntouched;
    }
    loadPoints(mesh.points, _work);
    _smoother.smooth(_work, neighbours, _numIter, _threads);
    narrowPoints(_work, _smoothPoints);
    _tangents.compute(_smoothPoints.data(), nv, mesh.triangles, _frames, _threads);

    if (!store.readDelta(_storedDeltas) || _storedDeltas.empty()) {
        sink.error("No delta found.");
        return kUntouched;
    }
    if (_storedDeltas.length() != pointCount) {
        sink.error("Wrong size of the delta array.");
        return kUntouched;
    }
    if (pointCount > nv) {
        sink.error(kDeltaMushMeshTooSmall);
        return kUntouched;
    }

    _deltas.setLength(pointCount, false);
    const KDouble3* stored = _storedDeltas.data();
    KVector* deltas = _deltas.data();
    const KAxis* frames = _frames.data();
    KVector* out = _smoothPoints.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, pointCount))
    for (int i = 0; i < pointCount; ++i) {
        deltas[i] = KVector(static_cast<float>(stored[i][0]), static_cast<float>(stored[i][1]),
                            static_cast<float>(stored[i][2]));
        out[i] = frames[i].localToWorld(deltas[i], false, true);
    }
    return kDeformed;
}

void KDeltaMushSolver::objectPoint(int idx, double w, const double inverseMatrix[4][4], double out[4]) const {
    const KVector& p = _smoothPoints[idx];
    const double in[4] = {p.x, p.y, p.z, w};
    TransformPoint(in, inverseMatrix, out);
}

}  // namespace Kavrin
