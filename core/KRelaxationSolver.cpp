#include "KRelaxationSolver.h"

#include <cmath>

#include "KPointTransform.h"
#include "KThreads.h"

namespace Kavrin {

const char* const kRelaxNoPoints =
    "KRelaxationMeshDeformer: the input geometry has no points for some of its indices; the points were left "
    "untouched.";
const char* const kRelaxNotFinite =
    "KRelaxationMeshDeformer: the input mesh has a point that is not a number or infinite; the points were left "
    "untouched.";
const char* const kRelaxNoRings =
    "KRelaxationMeshDeformer: the mesh's neighbour lists could not be read; nothing was bound.";
const char* const kRelaxCachesDoNotFit =
    "KRelaxationMeshDeformer: the binding loaded when the node was created belongs to a mesh with other vertices; "
    "re-create the node (or reload the scene) to use the new binding. The points were left untouched.";
const char* const kRelaxNoColliders =
    "KRelaxationMeshDeformer: the colliders could not be read; the points were left untouched.";
const char* const kRelaxBadMultipliers =
    "KRelaxationMeshDeformer: the collider multipliers do not cover every vertex; the points were left untouched.";
const char* const kRelaxNoNormals =
    "KRelaxationMeshDeformer: the input mesh's normals could not be read; the points were left untouched.";

namespace {

inline void ToWorld(const KDouble3& p, const double m[4][4], KDouble3& out) {
    const double in[4] = {p[0], p[1], p[2], 1.0};
    double r[4];
    TransformPoint(in, m, r);
    out = KDouble3{r[0], r[1], r[2]};
}

}  // namespace

bool KRelaxationSolver::bindingDue(const KRelaxationInput& in) const {
    return Active(in.envelope) && (!in.stiffness || in.stiffness->length() != in.count);
}

bool KRelaxationSolver::storedBindingNeeded(const KRelaxationInput& in) const {
    return Active(in.envelope) && _firstRun && !bindingDue(in);
}

bool KRelaxationSolver::collisionsNeeded(const KRelaxationInput& in) const {
    return Active(in.envelope) && in.doCollisions && in.iterations >= 1 && in.numColliders > 0;
}

bool KRelaxationSolver::CollisionDue(int pass, int iterations, int steps) {
    // Guard (behaviour note "Relaxation: collisionSteps below 1").
    if (steps < 1) return true;
    return pass % steps == 0 || pass == iterations - 1;
}

KRelaxationResult KRelaxationSolver::evaluate(const KRelaxationInput& in) {
    KRelaxationResult result;
    _collisionPasses.clear();
    if (!Active(in.envelope)) return result;
    const int count = in.count > 0 ? in.count : 0;
    // Guard (behaviour note "Relaxation: points that are not there or not finite").
    if (count > 0 && !in.points) return KRelaxationResult{KOutcome::Failed(kRelaxNoPoints), false, false};
    for (int i = 0; i < count; ++i)
        if (!std::isfinite(in.points[i][0]) || !std::isfinite(in.points[i][1]) || !std::isfinite(in.points[i][2]))
            return KRelaxationResult{KOutcome::Failed(kRelaxNotFinite), false, false};
    const bool collisions = collisionsNeeded(in);
    // Guard (behaviour note "Relaxation: collider inputs that do not cover the mesh").
    if (collisions && count > 0 && !in.normals) return KRelaxationResult{KOutcome::Failed(kRelaxNoNormals), false, false};
    if (collisions && !in.colliders) return KRelaxationResult{KOutcome::Failed(kRelaxNoColliders), false, false};
    if (collisions && in.multipliers &&
        in.multipliers->size() != static_cast<size_t>(count) * static_cast<size_t>(in.numColliders))
        return KRelaxationResult{KOutcome::Failed(kRelaxBadMultipliers), false, false};

    // The input in world space, then the deformer weights.
    _input.setLength(count, false);
    const KDouble3* points = in.points;
    KDouble3* input = _input.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, count))
    for (int i = 0; i < count; ++i) ToWorld(points[i], in.worldMatrix, input[i]);
    _weights.setLength(count, false);
    for (int i = 0; i < count; ++i) _weights[i] = in.weights ? in.weights[i] : 1.0f;

    // A "stiffness" array that does not fit the mesh (none on a new node) binds it.
    const bool bind = bindingDue(in);
    if (bind) {
        // Guard (behaviour note "Relaxation: neighbour lists outside the mesh").
        if (!in.rings) return KRelaxationResult{KOutcome::Failed(kRelaxNoRings), false, false};
        const KOutcome bound = BindRelaxation(_input.data(), count, *in.rings, _bound);
        if (bound.failed()) {
            // The lists written before the stop are kept, as they always were; a guard wrote none.
            const bool partial = bound.message == kRelaxTooManyNeighbours;
            return KRelaxationResult{bound, partial, false};
        }
        result.writeBinding = true;
        _stiffness.setLengthWithValue(count, kRelaxDefaultStiffness);
        result.writeStiffness = true;
    } else {
        _stiffness = *in.stiffness;
    }

    // Kept on purpose (behaviour note "Relaxation: caches loaded once").
    if (_firstRun) {
        const KRelaxationBindingData* stored = bind ? &_bound : in.stored;
        static const KRelaxationBindingData kNone;
        const KOutcome loaded = LoadRelaxationCaches(stored ? *stored : kNone, count, _caches);
        if (loaded.failed()) {
            result.outcome = loaded;
            return result;
        }
        _firstRun = false;
    }
    // Guard (behaviour note "Relaxation: stored binding that does not fit").
    if (!_caches.fits(count)) {
        result.outcome = KOutcome::Failed(kRelaxCachesDoNotFit);
        return result;
    }

    if (collisions) _collisions.prepare(_input.data(), count, in.colliders, in.numColliders);

    // The passes, ping-ponging between two arrays: a pass reads the points of the one before and
    // writes every vertex (moved or not) of the other.
    _prev = _input;
    _cur.setLength(count, false);
    KArray<KDouble3>* from = &_prev;
    KArray<KDouble3>* to = &_cur;
    for (int pass = 0; pass < in.iterations; ++pass) {
        _relaxPass(*from, *to, in.enableScaleSafe, in.threads);
        if (collisions && CollisionDue(pass, in.iterations, in.collisionSteps)) {
            _collisions.collide(to->data(), count, _weights.data(), in.multipliers ? in.multipliers->data() : nullptr,
                                in.normals, in.threads);
            _collisionPasses.push_back(pass);
        }
        std::swap(from, to);
    }

    // Final blend by weight and envelope, then back to object space.
    _out.setLength(count, false);
    const KDouble3* relaxed = from->data();
    const float* weights = _weights.data();
    const float envelope = in.envelope;
    KDouble3* out = _out.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, count))
    for (int i = 0; i < count; ++i) {
        KDouble3 p = relaxed[i];
        const float f = weights[i] * envelope;
        if (f != 1.0f)
            for (int a = 0; a < 3; ++a) p[a] = input[i][a] + (p[a] - input[i][a]) * static_cast<double>(f);
        ToWorld(p, in.inverseWorldMatrix, out[i]);
    }
    result.outcome = KOutcome::Deformed();
    return result;
}

namespace {

// What the relax pass reads besides the points of the pass before.
struct RelaxTables {
    const KDouble3* p;
    const int* sorted;
    const int* order;
    const double* ratios;
    const double* mvw;
    const float* heights;
};

// The relaxed target of vertex i, whose n neighbours start at begin; false when the vertex stays
// (a ring whose normal vanishes). kN > 0 fixes n at compile time so that the common valences run
// unrolled; kN = 0 takes any n up to kRelaxMaxNeighbours. The arithmetic is the same either way.
template <int kN>
inline bool RelaxTarget(const RelaxTables& in, int i, int begin, int dynamicN, bool scaleSafe, double t[3]) {
    const int n = kN > 0 ? kN : dynamicN;
    const KDouble3* p = in.p;
    // This thread's scratch: the neighbours in sorted order, their plane projections and heights.
    double q[kN > 0 ? kN : kRelaxMaxNeighbours][3];
    double r[kN > 0 ? kN : kRelaxMaxNeighbours][3];
    double s[kN > 0 ? kN : kRelaxMaxNeighbours];
    const double inv = 1.0 / n;
    double c0 = 0.0, c1 = 0.0, c2 = 0.0;
    const int* sorted = in.sorted + begin;
    for (int k = 0; k < n; ++k) {
        const KDouble3& x = p[sorted[k]];
        q[k][0] = x[0];
        q[k][1] = x[1];
        q[k][2] = x[2];
        c0 += x[0];
        c1 += x[1];
        c2 += x[2];
    }
    c0 *= inv;
    c1 *= inv;
    c2 *= inv;

    // Ring normal from the neighbours in the host's order; a zero normal (a degenerate ring)
    // leaves the vertex where it is, as any normal shorter than 0.001 does.
    const int* o = in.order + begin;
    const KDouble3& last = p[o[n - 1]];
    double b0 = last[0] - c0, b1 = last[1] - c1, b2 = last[2] - c2;
    double N0 = 0.0, N1 = 0.0, N2 = 0.0;
    for (int k = 0; k < n; ++k) {
        const KDouble3& pn = p[o[k]];
        const double a0 = pn[0] - c0, a1 = pn[1] - c1, a2 = pn[2] - c2;
        N0 += a1 * b2 - a2 * b1;
        N1 += a2 * b0 - a0 * b2;
        N2 += a0 * b1 - a1 * b0;
        b0 = a0;
        b1 = a1;
        b2 = a2;
    }
    const double len2 = N0 * N0 + N1 * N1 + N2 * N2;
    if (!(len2 > 0.0)) return false;
    const double invLen = 1.0 / std::sqrt(len2);
    N0 *= invLen;
    N1 *= invLen;
    N2 *= invLen;

    double sum = 0.0;
    for (int k = 0; k < n; ++k) {
        s[k] = N0 * q[k][0] + N1 * q[k][1] + N2 * q[k][2];
        sum += s[k];
    }
    const double d = -sum * inv;

    // Mean-value estimate in the plane.
    const double* w = in.mvw + begin;
    double e0 = 0.0, e1 = 0.0, e2 = 0.0;
    for (int k = 0; k < n; ++k) {
        const double h = s[k] + d;
        s[k] = h;  // from here on: the neighbour's height above the plane
        r[k][0] = q[k][0] - N0 * h;
        r[k][1] = q[k][1] - N1 * h;
        r[k][2] = q[k][2] - N2 * h;
        e0 += w[k] * r[k][0];
        e1 += w[k] * r[k][1];
        e2 += w[k] * r[k][2];
    }

    // Lift along the normal: the stored height, or each neighbour's prediction from its ratio
    // (its in-plane distance to the estimate times the rest cotangent, plus its own height
    // N.q + d, which is (q - r).N for the unit normal).
    double lift;
    if (scaleSafe) {
        const double* ratio = in.ratios + begin;
        lift = 0.0;
        for (int k = 0; k < n; ++k) {
            const double l0 = e0 - r[k][0], l1 = e1 - r[k][1], l2 = e2 - r[k][2];
            const double l = std::sqrt(l0 * l0 + l1 * l1 + l2 * l2);
            lift += w[k] * (ratio[k] * l + s[k]);
        }
    } else {
        lift = static_cast<double>(in.heights[i]);
    }
    t[0] = e0 + N0 * lift;
    t[1] = e1 + N1 * lift;
    t[2] = e2 + N2 * lift;
    return true;
}

}  // namespace

void KRelaxationSolver::_relaxPass(const KArray<KDouble3>& prevPoints, KArray<KDouble3>& curPoints, bool scaleSafe,
                                   int threads) const {
    const int count = prevPoints.length();
    const KDouble3* p = prevPoints.data();
    KDouble3* cur = curPoints.data();
    const float* weights = _weights.data();
    const double* stiffness = _stiffness.data();
    const int* offsets = _caches.offsets.data();
    const RelaxTables tables = {p,
                                _caches.connVrtIds.data(),
                                _caches.nrmOrderIds.data(),
                                _caches.scalableRatios.data(),
                                _caches.meanValWeights.data(),
                                _caches.heightCache.data()};
#pragma omp parallel for schedule(static) num_threads(TeamFor(threads, count))
    for (int i = 0; i < count; ++i) {
        const KDouble3& y = p[i];
        cur[i] = y;
        if (weights[i] <= 0.001f) continue;
        const int begin = offsets[i];
        const int n = offsets[i + 1] - begin;
        if (n < 1) continue;
        double t[3];
        bool moves;
        switch (n) {
            case 3: moves = RelaxTarget<3>(tables, i, begin, n, scaleSafe, t); break;
            case 4: moves = RelaxTarget<4>(tables, i, begin, n, scaleSafe, t); break;
            case 5: moves = RelaxTarget<5>(tables, i, begin, n, scaleSafe, t); break;
            case 6: moves = RelaxTarget<6>(tables, i, begin, n, scaleSafe, t); break;
            default: moves = RelaxTarget<0>(tables, i, begin, n, scaleSafe, t); break;
        }
        if (!moves) continue;
        // Stiffness blend towards the point of the pass before.
        const double stiff = static_cast<double>(static_cast<float>(stiffness[i]));
        KDouble3 out;
        out[0] = t[0] + (y[0] - t[0]) * stiff;
        out[1] = t[1] + (y[1] - t[1]) * stiff;
        out[2] = t[2] + (y[2] - t[2]) * stiff;
        cur[i] = out;
    }
}

KRelaxationResult KRelaxationAttributes::evaluate(KRelaxationSolver& solver, KRelaxationInput in) {
    in.stiffness = hasStiffness ? &stiffness : nullptr;
    in.stored = &binding;
    const KRelaxationResult result = solver.evaluate(in);
    if (result.writeBinding) binding = solver.binding();
    if (result.writeStiffness) {
        stiffness = solver.stiffness();
        hasStiffness = true;
    }
    return result;
}

}  // namespace Kavrin
