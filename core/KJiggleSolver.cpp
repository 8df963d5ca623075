#include "KJiggleSolver.h"

#include <cmath>

#include "KPointTransform.h"
#include "KThreads.h"
#include "KVertexNormals.h"

namespace Kavrin {

const char* const kJiggleInputMismatch =
    "KJiggleMeshDeformer: the evaluation's points, indices, weights, normals and mesh do not fit together; the "
    "points were left untouched.";
const char* const kJiggleBadIndex =
    "KJiggleMeshDeformer: the deformed geometry names a vertex the mesh does not have; the points were left "
    "untouched.";
const char* const kJiggleMeshGrew =
    "KJiggleMeshDeformer: the mesh has more vertices than when the simulation started; the points were left "
    "untouched. Delete the deformer and apply it again to simulate the new mesh.";
const char* const kJiggleDampingMapTooShort =
    "KJiggleMeshDeformer: dampingMap holds fewer values than the mesh has vertices; the points were left "
    "untouched. Paint the map again, or empty it to start again from full weight.";
const char* const kJiggleStiffnessMapTooShort =
    "KJiggleMeshDeformer: stiffnessMap holds fewer values than the mesh has vertices; the points were left "
    "untouched. Paint the map again, or empty it to start again from full weight.";
const char* const kJiggleNormalStrengthMapTooShort =
    "KJiggleMeshDeformer: normalStrengthMap holds fewer values than the mesh has vertices; the points were left "
    "untouched. Paint the map again, or empty it to start again from full weight.";

namespace {

// Point times affine matrix (w = 1), as the host multiplies a point by a matrix.
// Decision (behaviour note "Jiggle: points as Cartesian"): w is taken as 1 and the product's w is
// not divided out.
inline void Transform(const KDouble3& p, const double m[4][4], double out[3]) {
    const double in[4] = {p[0], p[1], p[2], 1.0};
    double r[4];
    TransformPoint(in, m, r);
    out[0] = r[0];
    out[1] = r[1];
    out[2] = r[2];
}

inline double Dot(const double a[3], const double b[3]) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// A normal (single precision, widened) dotted with a double vector.
inline double Dot(const KVector& n, const double v[3]) {
    return static_cast<double>(n.x) * v[0] + static_cast<double>(n.y) * v[1] + static_cast<double>(n.z) * v[2];
}

inline bool Usable(const KJiggleMap& map) { return map.values && map.length > 0; }

bool FitsCount(const void* array, int length, int count) { return array && length == count; }

}  // namespace

bool KJiggleSolver::stepDue(const KJiggleInput& in) const {
    // A fresh simulation starts its clock at the evaluation's time, so its first step has dt = 0.
    // Kept on purpose (behaviour note "Jiggle: the frame after a later start frame"): the clock
    // stands still up to the start frame, so the next frame is a jump.
    const double dt = in.time - (_firstEval ? in.time : _lastTime);
    if (dt > 1.0 || dt < 0.0) return false;
    return !(static_cast<double>(in.startFrame) >= in.time);
}

KOutcome KJiggleSolver::_checkStep(const KJiggleInput& in, bool& distinct) {
    distinct = true;
    const int count = in.indices->length();
    if (count == 0) return KOutcome::Deformed();
    const int* indices = in.indices->data();
    int lo = indices[0], hi = indices[0];
    bool increasing = true;
    for (int i = 1; i < count; ++i) {
        lo = indices[i] < lo ? indices[i] : lo;
        hi = indices[i] > hi ? indices[i] : hi;
        increasing = increasing && indices[i] > indices[i - 1];
    }
    // Guard (behaviour note "Jiggle: vertex indices"): the step reads the normals, the maps and
    // the state at every deformed vertex index.
    if (lo < 0 || hi >= in.numVertices) return KOutcome::Failed(kJiggleBadIndex);
    const int stateSize = _firstEval ? in.numVertices : _curPos.length();
    // Guard (behaviour note "Jiggle: mesh grown since the start"): the state keeps the size it
    // was started with.
    if (hi >= stateSize) return KOutcome::Failed(kJiggleMeshGrew);
    // Guard (behaviour note "Jiggle: painted map too short"): a stored map is read at every index.
    if (Usable(in.dampingMap) && hi >= in.dampingMap.length) return KOutcome::Failed(kJiggleDampingMapTooShort);
    if (Usable(in.stiffnessMap) && hi >= in.stiffnessMap.length) return KOutcome::Failed(kJiggleStiffnessMapTooShort);
    if (Usable(in.normalStrengthMap) && hi >= in.normalStrengthMap.length)
        return KOutcome::Failed(kJiggleNormalStrengthMapTooShort);

    // Points in increasing vertex order (a host's iterator) cannot repeat a vertex; otherwise
    // look.
    if (!increasing) {
        _seen.setLength(hi + 1, true);
        for (int i = 0; i < count && distinct; ++i) {
            distinct = !_seen[indices[i]];
            _seen[indices[i]] = 1;
        }
    }
    return KOutcome::Deformed();
}

void KJiggleSolver::_start(const KJiggleInput& in) {
    const int nv = in.numVertices;
    _curPos.setLength(nv, false);
    _prevPos.setLength(nv, false);
    _velocity.setLength(nv, true);
    _tanHint.setLengthWithValue(nv, -1);
    const KDouble3* mesh = in.meshPoints->data();
    KDouble3* cur = _curPos.data();
    KDouble3* prev = _prevPos.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, nv))
    for (int j = 0; j < nv; ++j) {
        double w[3];
        Transform(mesh[j], in.localToWorld, w);
        cur[j] = prev[j] = KDouble3{w[0], w[1], w[2]};
    }
    _lastTime = in.time;
    _firstEval = false;
}

void KJiggleSolver::_step(const KJiggleInput& in, double h, int threads) {
    const int count = in.points->length();
    _points.setLength(count, false);
    const double limit = static_cast<double>(in.distanceLimit) * static_cast<double>(in.scale);
    const double damping = in.damping, stiffness = in.stiffness, normalStrength = in.normalStrength;
    const double bias = in.directionBias, envelope = in.envelope;
    const bool snap = in.moreAccurateTangent;
    const double* dMap = Usable(in.dampingMap) ? in.dampingMap.values : _fullMap.data();
    const double* sMap = Usable(in.stiffnessMap) ? in.stiffnessMap.values : _fullMap.data();
    const double* nMap = Usable(in.normalStrengthMap) ? in.normalStrengthMap.values : _fullMap.data();
    const KDouble3* points = in.points->data();
    const int* indices = in.indices->data();
    const float* weights = in.weights->data();
    const KVector* normals = in.normals->data();
    const double(*toWorld)[4] = in.localToWorld;
    const double(*toLocal)[4] = in.worldToLocal;
    const KTriMeshDistTree& tree = _tanTree;
    KDouble3* cur = _curPos.data();
    KDouble3* prev = _prevPos.data();
    KDouble3* velocity = _velocity.data();
    KDouble3* out = _points.data();
    int* hints = _tanHint.data();

#pragma omp parallel for schedule(static) num_threads(TeamFor(threads, count))
    for (int i = 0; i < count; ++i) {
        const int idx = indices[i];
        const double d = damping * dMap[idx];
        const double s = stiffness * sMap[idx];
        const double n = normalStrength * nMap[idx];
        double g[3];
        Transform(points[i], toWorld, g);

        // The damped velocity and the spring towards the goal.
        const double f = (1.0 - d) * h;
        const double sh2 = s * h * h;
        double p[3], e[3];
        for (int k = 0; k < 3; ++k) {
            velocity[idx][k] = (cur[idx][k] - prev[idx][k]) * f;
            p[k] = cur[idx][k] + velocity[idx][k];
            p[k] = p[k] + (g[k] - p[k]) * sh2;
            e[k] = p[k] - g[k];
        }

        // The distance limit.
        const double e2 = Dot(e, e);
        const double len = std::sqrt(e2);
        if (len > limit) {
            if (e2 > 1e-20)
                for (int k = 0; k < 3; ++k) e[k] = e[k] / len;
            for (int k = 0; k < 3; ++k) {
                e[k] = e[k] * limit;
                p[k] = g[k] + e[k];
            }
        }

        // Kept on purpose (behaviour note "Jiggle: object-space normals"): the normal is object
        // space while p and g are world space.
        const KVector& N = normals[idx];
        if (n < 1.0) {
            const float c = static_cast<float>((1.0 - n) * Dot(N, e));
            p[0] -= static_cast<double>(N.x * c);
            p[1] -= static_cast<double>(N.y * c);
            p[2] -= static_cast<double>(N.z * c);
            if (snap) {
                // Decision (behaviour note "Jiggle: snapping radius"): formed in double, then
                // narrowed to the search's float.
                const double radius = std::fabs(1.5 * std::sqrt(Dot(e, e))) + static_cast<double>(1e-4f);
                // Decision (behaviour note "Jiggle: snapping that finds nothing"): a point with no
                // surface within the radius keeps its position.
                KVector closest;
                int triangle = -1;
                if (tree.getClosestPoint(
                        KVector(static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2])), closest,
                        triangle, static_cast<float>(radius), hints[idx])) {
                    hints[idx] = triangle;
                    p[0] = closest.x;
                    p[1] = closest.y;
                    p[2] = closest.z;
                }
            }
        }

        // The direction bias: only a point lagging against the normal is pulled or pushed.
        if (bias != 0.0) {
            double r[3] = {p[0] - g[0], p[1] - g[1], p[2] - g[2]};
            const double r2 = Dot(r, r);
            double unit[3] = {r[0], r[1], r[2]};
            if (r2 > 1e-20) {
                const double rlen = std::sqrt(r2);
                for (int k = 0; k < 3; ++k) unit[k] = r[k] / rlen;
            }
            const double k = Dot(N, unit);
            if (k < 0.0)
                for (int a = 0; a < 3; ++a) p[a] = p[a] + r[a] * (bias * k);
        }

        prev[idx] = cur[idx];
        cur[idx] = KDouble3{p[0], p[1], p[2]};

        // Back to object space, blended by the paint weight and the envelope.
        double q[3];
        Transform(cur[idx], toLocal, q);
        // Decision (behaviour note "Jiggle: blend in double precision").
        const double blend = static_cast<double>(weights[i]) * envelope;
        for (int k = 0; k < 3; ++k) out[i][k] = points[i][k] + (q[k] - points[i][k]) * blend;
    }
}

KJiggleResult KJiggleSolver::evaluate(const KJiggleInput& in) {
    KJiggleResult result;
    if (!Active(in.envelope)) return result;

    // Guard (behaviour note "Jiggle: inputs that do not fit"): every per-point array has one entry
    // per point, and the arrays the evaluation reads are there.
    const int count = in.points ? in.points->length() : 0;
    const bool due = stepDue(in);
    if (!in.points || !in.indices || !FitsCount(in.indices, in.indices->length(), count) || !in.weights ||
        in.weights->length() != count || in.numVertices < 0 ||
        (_firstEval && !FitsCount(in.meshPoints, in.meshPoints ? in.meshPoints->length() : 0, in.numVertices)) ||
        (due && !FitsCount(in.normals, in.normals ? in.normals->length() : 0, in.numVertices)) ||
        (due && in.moreAccurateTangent && !in.tangentMesh)) {
        result.outcome = KOutcome::Failed(kJiggleInputMismatch);
        return result;
    }
    bool distinct = true;
    if (due) {
        result.outcome = _checkStep(in, distinct);
        if (result.outcome.failed()) return result;
    }

    if (_firstEval) _start(in);

    // A map that holds no values becomes one 1.0 per vertex, written back.
    result.writeDampingMap = !Usable(in.dampingMap);
    result.writeStiffnessMap = !Usable(in.stiffnessMap);
    result.writeNormalStrengthMap = !Usable(in.normalStrengthMap);
    if (result.writeDampingMap || result.writeStiffnessMap || result.writeNormalStrengthMap)
        _fullMap.setLengthWithValue(in.numVertices, 1.0);

    // Kept on purpose (behaviour note "Jiggle: re-evaluating the same frame"): dt = 0 still steps,
    // with h = 0.
    const double dt = in.time - _lastTime;
    if (dt > 1.0 || dt < 0.0) {
        // A jump forwards or any step backwards moves only the clock; the state is kept.
        _lastTime = in.time;
        result.outcome = KOutcome::Untouched();
        return result;
    }
    if (!due) {
        result.outcome = KOutcome::Untouched();
        return result;
    }

    // Decision (behaviour note "Jiggle: snapping surface rebuilt for each step"): the surface tree
    // follows the mesh at every evaluation that steps, the only ones that search it; an unchanged
    // topology refits the tree's boxes instead of building it anew (same answers).
    if (in.moreAccurateTangent) {
        // Decision (behaviour note "Jiggle: snapping in world space"): the surface is brought into
        // the simulation's space before the search.
        const KTriMesh& mesh = *in.tangentMesh;
        _worldTanMesh.triangles = mesh.triangles;
        const int n = mesh.points.length();
        _worldTanMesh.points.setLength(n, false);
        const KVector* from = mesh.points.data();
        KVector* to = _worldTanMesh.points.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, n))
        for (int v = 0; v < n; ++v) {
            double w[3];
            Transform(KDouble3{from[v].x, from[v].y, from[v].z}, in.localToWorld, w);
            to[v] = KVector(static_cast<float>(w[0]), static_cast<float>(w[1]), static_cast<float>(w[2]));
        }
        _tanTree.update(_worldTanMesh);
    }
    // Decision (behaviour note "Jiggle: points that repeat a vertex"): they step one after the
    // other, on one thread, instead of racing for the vertex's state.
    _step(in, static_cast<double>(in.timeScale) * dt, distinct ? in.threads : 1);
    _lastTime = in.time;
    result.outcome = KOutcome::Deformed();
    return result;
}

KJiggleResult KJiggleAttributes::evaluate(KJiggleSolver& solver, const KPolyMesh& mesh, double time,
                                          const KArray<float>* weights, float envelope, int threads) {
    KJiggleInput in;
    in.envelope = envelope;
    in.time = time;
    in.startFrame = startFrame;
    in.timeScale = timeScale;
    in.damping = damping;
    in.stiffness = stiffness;
    in.normalStrength = normalStrength;
    in.scale = scale;
    in.distanceLimit = distanceLimit;
    in.directionBias = directionBias;
    in.moreAccurateTangent = moreAccurateTangent;
    in.threads = threads;

    const int nv = mesh.numVertices();
    in.numVertices = nv;
    _points.setLength(nv, false);
    _indices.setLength(nv, false);
    for (int v = 0; v < nv; ++v) {
        const KVector& p = mesh.points[v];
        _points[v] = KDouble3{p.x, p.y, p.z};
        _indices[v] = v;
    }
    if (!weights) _weights.setLengthWithValue(nv, 1.0f);
    in.points = &_points;
    in.indices = &_indices;
    in.weights = weights ? weights : &_weights;
    in.meshPoints = &_points;
    if (solver.stepDue(in)) {
        // Decision (behaviour note "Jiggle: normals without a host"): unweighted face means.
        FaceMeanVertexNormals(mesh, _normals);
        in.normals = &_normals;
        if (moreAccurateTangent) {
            mesh.triangulate(_tangentMesh);
            in.tangentMesh = &_tangentMesh;
        }
    }
    const auto map = [](bool has, const KArray<double>& values) {
        KJiggleMap m;
        if (has) {
            m.values = values.data();
            m.length = values.length();
        }
        return m;
    };
    in.dampingMap = map(hasDampingMap, dampingMap);
    in.stiffnessMap = map(hasStiffnessMap, stiffnessMap);
    in.normalStrengthMap = map(hasNormalStrengthMap, normalStrengthMap);

    const KJiggleResult result = solver.evaluate(in);
    if (result.writeDampingMap) {
        dampingMap = solver.fullMap();
        hasDampingMap = true;
    }
    if (result.writeStiffnessMap) {
        stiffnessMap = solver.fullMap();
        hasStiffnessMap = true;
    }
    if (result.writeNormalStrengthMap) {
        normalStrengthMap = solver.fullMap();
        hasNormalStrengthMap = true;
    }
    return result;
}

}  // namespace Kavrin
