#include "KDeltaMushSolver.h"

#include "KPointTransform.h"
#include "KThreads.h"

namespace Kavrin {

const char* const kDeltaMushNoDelta = "No delta found.";
const char* const kDeltaMushWrongDeltaSize = "Wrong size of the delta array.";
const char* const kDeltaMushRestTooSmall =
    "KDeltaMush: the rest mesh has fewer vertices than the deformed geometry; nothing was bound.";
const char* const kDeltaMushNoRestMesh = "KDeltaMush: no rest mesh is stored; nothing was bound.";
const char* const kDeltaMushMeshTooSmall =
    "KDeltaMush: the input mesh has fewer vertices than the deformed geometry; the points were left untouched.";
const char* const kDeltaMushBadFaces =
    "KDeltaMush: the mesh's faces name vertices it does not have; the points were left untouched.";

namespace {

void LoadPoints(const KVectorArray& points, std::vector<double>& out) {
    const int n = points.length();
    out.resize(3 * static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        out[3 * i] = points[i].x;
        out[3 * i + 1] = points[i].y;
        out[3 * i + 2] = points[i].z;
    }
}

void NarrowPoints(const std::vector<double>& in, KVectorArray& out) {
    const int n = static_cast<int>(in.size() / 3);
    out.setLength(n, false);
    for (int i = 0; i < n; ++i)
        out[i] = KVector(static_cast<float>(in[3 * i]), static_cast<float>(in[3 * i + 1]),
                         static_cast<float>(in[3 * i + 2]));
}

}  // namespace

bool KDeltaMushSolver::_bindDue(const KDeltaMushInput& in) const { return _numIter != in.numIter || !in.gotDelta; }

bool KDeltaMushSolver::restMeshNeeded(const KDeltaMushInput& in) const {
    return Active(in.envelope) && !in.onlyOnce && _bindDue(in);
}

KOutcome KDeltaMushSolver::_bind(const KPolyMesh& rest, const KDeltaMushInput& in) {
    // Guard (behaviour note "Delta mush: faces naming missing vertices").
    if (!_restTopology.update(rest)) return KOutcome::Failed(kDeltaMushBadFaces);
    // Guard (behaviour note "Delta mush: rest mesh too small or missing").
    if (rest.numVertices() < in.pointCount) return KOutcome::Failed(kDeltaMushRestTooSmall);
    _numIter = in.numIter;

    LoadPoints(rest.points, _work);
    _restSmoother.smooth(_work, _restTopology.neighbours(), _numIter, in.threads);
    KVectorArray smoothRest;
    NarrowPoints(_work, smoothRest);
    _restTangents.compute(smoothRest.data(), smoothRest.length(), _restTopology.triangles(), _frames, in.threads);

    const int count = in.pointCount;
    _boundDelta.setLength(count, false);
    KDouble3* deltas = _boundDelta.data();
    const KAxis* frames = _frames.data();
    const KVector* restPoints = rest.points.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, count))
    for (int i = 0; i < count; ++i) {
        const KVector d = frames[i].worldToLocal(restPoints[i], false, true);
        deltas[i] = KDouble3{d.x, d.y, d.z};
    }
    return KOutcome::Deformed();
}

KDeltaMushResult KDeltaMushSolver::evaluate(const KDeltaMushInput& in) {
    KDeltaMushResult result;
    // Kept on purpose (behaviour note "Delta mush: envelope is an on/off switch").
    if (!Active(in.envelope) || !in.mesh) return result;

    // Kept on purpose (behaviour note "Delta mush: onlyOnce does not rebind").
    result.captureRestMesh = in.onlyOnce;
    const KPolyMesh* rest = in.onlyOnce ? in.mesh : in.restMesh;
    const bool bound = _bindDue(in);
    if (bound) {
        // Guard (behaviour note "Delta mush: rest mesh too small or missing").
        if (!rest) return KDeltaMushResult{KOutcome::Failed(kDeltaMushNoRestMesh), false, false, false};
        const KOutcome bind = _bind(*rest, in);
        if (bind.failed()) return KDeltaMushResult{bind, false, false, false};
        result.writeDelta = true;
    }
    result.writeGotDelta = true;
    _numIter = in.numIter;

    const KPolyMesh& mesh = *in.mesh;
    // Decision (behaviour note "Delta mush: neighbours from the faces"); guard (behaviour note
    // "Delta mush: faces naming missing vertices").
    if (!_topology.update(mesh)) return KDeltaMushResult{KOutcome::Failed(kDeltaMushBadFaces), false, false, false};
    const int nv = mesh.numVertices();
    LoadPoints(mesh.points, _work);
    _smoother.smooth(_work, _topology.neighbours(), _numIter, in.threads);
    NarrowPoints(_work, _smoothPoints);
    _tangents.compute(_smoothPoints.data(), nv, _topology.triangles(), _frames, in.threads);

    // The deltas as the node reads them back from "delta": those just bound, or the stored ones.
    const KArray<KDouble3>* stored = bound ? &_boundDelta : in.delta;
    const int count = in.pointCount;
    if (!stored || stored->empty()) {
        result.outcome = KOutcome::Failed(kDeltaMushNoDelta);
        return result;
    }
    if (stored->length() != count) {
        result.outcome = KOutcome::Failed(kDeltaMushWrongDeltaSize);
        return result;
    }
    // Guard (behaviour note "Delta mush: input mesh too small").
    if (count > nv) return KDeltaMushResult{KOutcome::Failed(kDeltaMushMeshTooSmall), false, false, false};

    _deltas.setLength(count, false);
    const KDouble3* delta = stored->data();
    KVector* deltas = _deltas.data();
    const KAxis* frames = _frames.data();
    KVector* out = _smoothPoints.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, count))
    for (int i = 0; i < count; ++i) {
        deltas[i] = KVector(static_cast<float>(delta[i][0]), static_cast<float>(delta[i][1]),
                            static_cast<float>(delta[i][2]));
        out[i] = frames[i].localToWorld(deltas[i], false, true);
    }
    result.outcome = KOutcome::Deformed();
    return result;
}

void KDeltaMushSolver::objectPoint(int idx, double w, const double inverseMatrix[4][4], double out[4]) const {
    const KVector& p = _smoothPoints[idx];
    const double in[4] = {p.x, p.y, p.z, w};
    TransformPoint(in, inverseMatrix, out);
}

KDeltaMushResult KDeltaMushAttributes::evaluate(KDeltaMushSolver& solver, const KPolyMesh& mesh, float envelope,
                                                int threads) {
    KDeltaMushInput in;
    in.envelope = envelope;
    in.mesh = &mesh;
    in.pointCount = mesh.numVertices();
    in.onlyOnce = onlyOnce;
    in.gotDelta = gotDelta;
    in.numIter = numIter;
    in.restMesh = hasRestMesh ? &restMesh : nullptr;
    in.delta = hasDelta ? &delta : nullptr;
    in.threads = threads;
    const KDeltaMushResult result = solver.evaluate(in);
    if (result.captureRestMesh) {
        restMesh = mesh;
        hasRestMesh = true;
        onlyOnce = false;
    }
    if (result.writeDelta) {
        delta = solver.boundDelta();
        hasDelta = true;
    }
    if (result.writeGotDelta) gotDelta = true;
    return result;
}

}  // namespace Kavrin
