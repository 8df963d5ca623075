#include "KDeltaMushSolver.h"

#include <algorithm>
#include <cstring>

#include "KAxis.h"
#include "KPointTransform.h"
#include "KTangentFrameLanes.h"
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

// Whether two int arrays hold the same values, compared in pieces on the team.
bool SameInts(const KIntArray& a, const KIntArray& b, int threads) {
    if (a.size() != b.size()) return false;
    const size_t piece = 1 << 16;
    const int pieces = static_cast<int>((a.size() + piece - 1) / piece);
    int differ = 0;
#pragma omp parallel for schedule(static) reduction(| : differ) num_threads(TeamFor(threads, pieces, 16))
    for (int i = 0; i < pieces; ++i) {
        const size_t at = i * piece, count = std::min(piece, a.size() - at);
        differ |= std::memcmp(a.data() + at, b.data() + at, count * sizeof(int)) != 0 ? 1 : 0;
    }
    return differ == 0;
}

// The frame of vertex v of the smoothed mesh s.
inline KAxis FrameAt(const KVector* s, const int* reference, const KFanNormals& normals, int v) {
    KAxis a;
    if (reference[v] < 0)
        WorldFrameAt(s[v], a);
    else
        TangentFrameAt(s[v], s[reference[v]], normals.sum(v), a);
    return a;
}

// The frames of vertices i to i + 3 of the smoothed mesh s (which holds one more point), four at
// a time; a set bit of the returned mask names a vertex whose frame FrameAt must make.
inline int FramesAt(const KVector* s, const int* reference, const KFanNormals& normals, int i, KVectorLanes& t,
                    KVectorLanes& y, KVectorLanes& n, KVectorLanes& origin) {
    int apart = 0;
    int r[4];
    for (int j = 0; j < 4; ++j) {
        r[j] = reference[i + j];
        if (r[j] < 0) {
            r[j] = i + j;
            apart |= 1 << j;
        }
    }
    origin = LoadPacked(&s[i].x);
    const KVectorLanes to = LoadLanes(&s[r[0]].x, &s[r[1]].x, &s[r[2]].x, &s[r[3]].x);
    n = LoadLanes(normals.sum4(i), normals.sum4(i + 1), normals.sum4(i + 2), normals.sum4(i + 3));
    return TangentFrameLanes(origin, to, n, t, y) | apart;
}

}  // namespace

bool KDeltaMushSolver::_bindDue(const KDeltaMushInput& in) const { return _numIter != in.numIter || !in.gotDelta; }

bool KDeltaMushSolver::restMeshNeeded(const KDeltaMushInput& in) const {
    return Active(in.envelope) && !in.onlyOnce && _bindDue(in);
}

bool KDeltaMushSolver::_setTopology(const KPolyMesh& mesh, int threads) {
    if (_valid && mesh.numVertices() == _numVertices && SameInts(mesh.faceCounts, _faceCounts, threads) &&
        SameInts(mesh.faceVertices, _faceVertices, threads))
        return true;
    _numVertices = mesh.numVertices();
    _faceCounts = mesh.faceCounts;
    _faceVertices = mesh.faceVertices;
    _valid = mesh.valid();
    if (!_valid) {
        _smoother = KJacobiSmoother();
        _normals = KFanNormals();
        return false;
    }
    // Decision (behaviour note "Delta mush: neighbours from the faces").
    KVertexNeighbours neighbours;
    mesh.edgeNeighbours(neighbours);
    _smoother.setNeighbours(neighbours);
    _normals.setFaces(_numVertices, _faceCounts, _faceVertices);
    return true;
}

void KDeltaMushSolver::_smoothAndSum(const KPolyMesh& mesh, int threads) {
    const int nv = mesh.numVertices();
    _smooth.setLength(nv + 1, false);  // one more: the fan normals read 16 bytes a point
    _points.setLength(nv, false);
    _smoother.smooth(mesh.points.data(), _smooth.data(), _numIter, threads);
    _normals.compute(_smooth.data(), _faceCounts, _faceVertices, threads);
}

KOutcome KDeltaMushSolver::_bind(const KPolyMesh& rest, const KDeltaMushInput& in) {
    // Guard (behaviour note "Delta mush: faces naming missing vertices").
    if (!_setTopology(rest, in.threads)) return KOutcome::Failed(kDeltaMushBadFaces);
    // Guard (behaviour note "Delta mush: rest mesh too small or missing").
    if (rest.numVertices() < in.pointCount) return KOutcome::Failed(kDeltaMushRestTooSmall);
    _numIter = in.numIter;
    _smoothAndSum(rest, in.threads);

    const int count = in.pointCount;
    _boundDelta.setLength(count, false);
    KDouble3* deltas = _boundDelta.data();
    const KVector* smooth = _smooth.data();
    const int* reference = _normals.reference().data();
    const KVector* restPoints = rest.points.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, count / 4))
    for (int b = 0; b < (count + 3) / 4; ++b) {
        const int i = 4 * b;
        int apart = 0xF;
        if (i + 4 <= count) {
            KVectorLanes t, y, n, o;
            apart = FramesAt(smooth, reference, _normals, i, t, y, n, o);
            const KVectorLanes p = LoadPacked(&restPoints[i].x);
            const KVectorLanes d{_mm_sub_ps(p.x, o.x), _mm_sub_ps(p.y, o.y), _mm_sub_ps(p.z, o.z)};
            alignas(16) float local[3][4];
            _mm_store_ps(local[0], DotLanes(d, t));
            _mm_store_ps(local[1], DotLanes(d, y));
            _mm_store_ps(local[2], DotLanes(d, n));
            for (int j = 0; j < 4; ++j) deltas[i + j] = KDouble3{local[0][j], local[1][j], local[2][j]};
        }
        for (int j = 0; j < 4 && i + j < count; ++j)
            if (apart & (1 << j)) {
                const KVector d = FrameAt(smooth, reference, _normals, i + j).worldToLocal(restPoints[i + j], false, true);
                deltas[i + j] = KDouble3{d.x, d.y, d.z};
            }
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
    } else if (in.delta != &_boundDelta) {
        KArray<KDouble3>().swap(_boundDelta);  // the host holds the deltas since the bind
    }
    result.writeGotDelta = true;
    _numIter = in.numIter;

    const KPolyMesh& mesh = *in.mesh;
    // Decision (behaviour note "Delta mush: neighbours from the faces"); guard (behaviour note
    // "Delta mush: faces naming missing vertices").
    if (!_setTopology(mesh, in.threads))
        return KDeltaMushResult{KOutcome::Failed(kDeltaMushBadFaces), false, false, false};
    const int nv = mesh.numVertices();

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

    _smoothAndSum(mesh, in.threads);
    const KDouble3* delta = stored->data();
    const KVector* smooth = _smooth.data();
    const int* reference = _normals.reference().data();
    KVector* out = _points.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, nv / 4))
    for (int b = 0; b < (nv + 3) / 4; ++b) {
        const int i = 4 * b;
        int apart = 0xF;
        if (i + 4 <= count) {
            KVectorLanes t, y, n, o;
            apart = FramesAt(smooth, reference, _normals, i, t, y, n, o);
            const KVectorLanes d = LoadPackedNarrowed(&delta[i][0]);
            const auto axis = [&](__m128 tc, __m128 yc, __m128 nc, __m128 oc) {
                return _mm_add_ps(
                    _mm_add_ps(_mm_add_ps(_mm_mul_ps(tc, d.x), _mm_mul_ps(yc, d.y)), _mm_mul_ps(nc, d.z)), oc);
            };
            StorePacked(KVectorLanes{axis(t.x, y.x, n.x, o.x), axis(t.y, y.y, n.y, o.y), axis(t.z, y.z, n.z, o.z)},
                        &out[i].x);
        }
        for (int j = 0; j < 4 && i + j < nv; ++j) {
            const int v = i + j;
            if (v >= count) {
                out[v] = smooth[v];
            } else if (apart & (1 << j)) {
                const KVector d(static_cast<float>(delta[v][0]), static_cast<float>(delta[v][1]),
                                static_cast<float>(delta[v][2]));
                out[v] = FrameAt(smooth, reference, _normals, v).localToWorld(d, false, true);
            }
        }
    }
    result.outcome = KOutcome::Deformed();
    return result;
}

void KDeltaMushSolver::objectPoint(int idx, double w, const double inverseMatrix[4][4], double out[4]) const {
    const KVector& p = _points[idx];
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
        delta = solver.takeBoundDelta();
        hasDelta = true;
    }
    if (result.writeGotDelta) gotDelta = true;
    return result;
}

}  // namespace Kavrin
