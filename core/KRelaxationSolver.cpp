#include "KRelaxationSolver.h"

#include <cmath>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// Decision (behaviour note "Relaxation: w dropped"): w = 1 in, and the product's w is not kept.
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

    // Decision (behaviour note "Relaxation: two working arrays"). The input in world space goes
    // into the working array that does not hold the last result, which a failure below leaves as
    // it was.
    const int first = 1 - _result;
    KArray<KDouble3>& world = _work[first];
    world.setLength(count, false);
    const KDouble3* points = in.points;
    KDouble3* input = world.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, count))
    for (int i = 0; i < count; ++i) ToWorld(points[i], in.worldMatrix, input[i]);
    const float* weights = in.weights;  // null: all 1

    // A "stiffness" array that does not fit the mesh (none on a new node) binds it.
    const bool bind = bindingDue(in);
    if (bind) {
        // Guard (behaviour note "Relaxation: neighbour lists outside the mesh").
        if (!in.rings) return KRelaxationResult{KOutcome::Failed(kRelaxNoRings), false, false};
        KRelaxationBindingData bound;
        const KOutcome outcome = BindRelaxation(input, count, *in.rings, bound, in.threads);
        if (outcome.failed()) {
            // The lists written before the stop are kept, as they always were; a guard wrote none.
            const bool partial = outcome.message == kRelaxTooManyNeighbours;
            if (partial) {
                _rebound = std::move(bound);
                _lastBindInCaches = false;
            }
            return KRelaxationResult{outcome, partial, false};
        }
        result.writeBinding = true;
        _stiffness.setLengthWithValue(count, kRelaxDefaultStiffness);
        result.writeStiffness = true;
        // Kept on purpose (behaviour note "Relaxation: caches loaded once"): only the first run's
        // bind is what the solve reads; a later one is held for the write-back alone.
        if (_firstRun) {
            _caches = std::move(bound);
            _rebound.clear();
            _lastBindInCaches = true;
            _firstRun = false;
        } else {
            _rebound = std::move(bound);
            _lastBindInCaches = false;
        }
    } else if (_firstRun) {
        static const KRelaxationBindingData kNone;
        const KOutcome loaded = LoadRelaxationCaches(in.stored ? *in.stored : kNone, count, _caches);
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
    // The stiffness the bind set, or the node's (read where it is).
    const double* stiffness = bind ? _stiffness.data() : in.stiffness->data();

    if (collisions) {
        _collisions.prepare(input, count, in.colliders, in.numColliders);
        // Decision (behaviour note "Relaxation: inverse-transpose normals"). Push directions: the
        // normals by the inverse transpose of the world matrix (a direction ignores the
        // translation), unit length; a zero normal stays zero.
        _worldNormals.setLength(count, false);
        const KVector* normals = in.normals;
        KVector* worldNormals = _worldNormals.data();
        const double(&inv)[4][4] = in.inverseWorldMatrix;
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, count))
        for (int i = 0; i < count; ++i) {
            const KVector& n = normals[i];
            double w[3];
            for (int j = 0; j < 3; ++j) w[j] = n.x * inv[j][0] + n.y * inv[j][1] + n.z * inv[j][2];
            const double len = std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
            if (len > 0.0)
                for (double& c : w) c /= len;
            worldNormals[i] = KVector(static_cast<float>(w[0]), static_cast<float>(w[1]), static_cast<float>(w[2]));
        }
    }

    // Decision (behaviour note "Relaxation: ping-pong arrays"). The passes, ping-ponging between
    // the two arrays: a pass reads the points of the one before and writes every vertex (moved or
    // not) of the other.
    int from = first;
    if (in.iterations > 0) _work[1 - first].setLength(count, false);
    for (int pass = 0; pass < in.iterations; ++pass) {
        KArray<KDouble3>& to = _work[1 - from];
        _relaxPass(_work[from], to, weights, stiffness, in.enableScaleSafe, in.threads);
        if (collisions && CollisionDue(pass, in.iterations, in.collisionSteps)) {
            _collisions.collide(to.data(), count, weights, in.multipliers ? in.multipliers->data() : nullptr,
                                _worldNormals.data(), in.threads);
            _collisionPasses.push_back(pass);
        }
        from = 1 - from;
    }

    // Final blend by weight and envelope with the input (in world space again), then back to
    // object space, in place.
    KDouble3* out = _work[from].data();
    const float envelope = in.envelope;
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, count))
    for (int i = 0; i < count; ++i) {
        KDouble3 p = out[i];
        const float f = (weights ? weights[i] : 1.0f) * envelope;
        if (f != 1.0f) {
            KDouble3 x;
            ToWorld(points[i], in.worldMatrix, x);
            for (int a = 0; a < 3; ++a) p[a] = x[a] + (p[a] - x[a]) * static_cast<double>(f);
        }
        ToWorld(p, in.inverseWorldMatrix, out[i]);
    }
    _result = from;
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
    const double* heights;  // the stored heights, used rounded to single precision
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
    // Decision (behaviour note "Relaxation: reciprocals"): 1/n and 1/|N| multiply.
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
    // Decision (behaviour note "Relaxation: the ring-normal sum starts with the closing pair").
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
    // Decision (behaviour note "Relaxation: the normal's length test on its square").
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
        // Decision (behaviour note "Relaxation: heights as N.q + d").
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
        lift = static_cast<double>(static_cast<float>(in.heights[i]));
    }
    t[0] = e0 + N0 * lift;
    t[1] = e1 + N1 * lift;
    t[2] = e2 + N2 * lift;
    return true;
}

#if defined(__SSE2__)
// RelaxTarget for two vertices with the same valence kN at once, vertex a in the low lane and b
// in the high lane of every SSE2 double pair. Every lane performs exactly the operations of
// RelaxTarget<kN> in the same order (additions from 0.0, the same products, IEEE division and
// square root), so each vertex gets the bits it would get alone. moves[k] is false where that
// vertex stays (its ring normal vanishes); its target is then not written.
template <int kN>
inline void RelaxTargetPair(const RelaxTables& in, int a, int b, int beginA, int beginB, bool scaleSafe,
                            double ta[3], double tb[3], bool moves[2]) {
    const KDouble3* p = in.p;
    const __m128d zero = _mm_setzero_pd();
    auto pair = [](double lo, double hi) { return _mm_set_pd(hi, lo); };
    __m128d q[kN][3], r[kN][3], s[kN];
    const __m128d inv = _mm_set1_pd(1.0 / kN);
    __m128d c[3] = {zero, zero, zero};
    const int* sa = in.sorted + beginA;
    const int* sb = in.sorted + beginB;
    for (int k = 0; k < kN; ++k) {
        const KDouble3& xa = p[sa[k]];
        const KDouble3& xb = p[sb[k]];
        for (int x = 0; x < 3; ++x) {
            q[k][x] = pair(xa[x], xb[x]);
            c[x] = _mm_add_pd(c[x], q[k][x]);
        }
    }
    for (int x = 0; x < 3; ++x) c[x] = _mm_mul_pd(c[x], inv);

    const int* oa = in.order + beginA;
    const int* ob = in.order + beginB;
    __m128d prev[3];
    {
        const KDouble3& la = p[oa[kN - 1]];
        const KDouble3& lb = p[ob[kN - 1]];
        for (int x = 0; x < 3; ++x) prev[x] = _mm_sub_pd(pair(la[x], lb[x]), c[x]);
    }
    __m128d N[3] = {zero, zero, zero};
    for (int k = 0; k < kN; ++k) {
        const KDouble3& pa = p[oa[k]];
        const KDouble3& pb = p[ob[k]];
        __m128d cur[3];
        for (int x = 0; x < 3; ++x) cur[x] = _mm_sub_pd(pair(pa[x], pb[x]), c[x]);
        N[0] = _mm_add_pd(N[0], _mm_sub_pd(_mm_mul_pd(cur[1], prev[2]), _mm_mul_pd(cur[2], prev[1])));
        N[1] = _mm_add_pd(N[1], _mm_sub_pd(_mm_mul_pd(cur[2], prev[0]), _mm_mul_pd(cur[0], prev[2])));
        N[2] = _mm_add_pd(N[2], _mm_sub_pd(_mm_mul_pd(cur[0], prev[1]), _mm_mul_pd(cur[1], prev[0])));
        for (int x = 0; x < 3; ++x) prev[x] = cur[x];
    }
    const __m128d len2 =
        _mm_add_pd(_mm_add_pd(_mm_mul_pd(N[0], N[0]), _mm_mul_pd(N[1], N[1])), _mm_mul_pd(N[2], N[2]));
    // Decision (behaviour note "Relaxation: the normal's length test on its square").
    const int ok = _mm_movemask_pd(_mm_cmpgt_pd(len2, zero));
    moves[0] = (ok & 1) != 0;
    moves[1] = (ok & 2) != 0;
    if (ok == 0) return;
    // A lane whose normal vanishes computes with length 1 (its result is not used).
    const __m128d one = _mm_set1_pd(1.0);
    const __m128d safeLen2 = _mm_or_pd(_mm_and_pd(_mm_cmpgt_pd(len2, zero), len2),
                                       _mm_andnot_pd(_mm_cmpgt_pd(len2, zero), one));
    const __m128d invLen = _mm_div_pd(one, _mm_sqrt_pd(safeLen2));
    for (int x = 0; x < 3; ++x) N[x] = _mm_mul_pd(N[x], invLen);

    __m128d sum = zero;
    for (int k = 0; k < kN; ++k) {
        s[k] = _mm_add_pd(_mm_add_pd(_mm_mul_pd(N[0], q[k][0]), _mm_mul_pd(N[1], q[k][1])), _mm_mul_pd(N[2], q[k][2]));
        sum = _mm_add_pd(sum, s[k]);
    }
    const __m128d d = _mm_mul_pd(_mm_xor_pd(sum, _mm_set1_pd(-0.0)), inv);  // -sum (a sign flip) times 1/n

    const double* wa = in.mvw + beginA;
    const double* wb = in.mvw + beginB;
    __m128d w[kN];
    __m128d e[3] = {zero, zero, zero};
    for (int k = 0; k < kN; ++k) {
        w[k] = pair(wa[k], wb[k]);
        const __m128d h = _mm_add_pd(s[k], d);
        s[k] = h;
        for (int x = 0; x < 3; ++x) {
            r[k][x] = _mm_sub_pd(q[k][x], _mm_mul_pd(N[x], h));
            e[x] = _mm_add_pd(e[x], _mm_mul_pd(w[k], r[k][x]));
        }
    }

    __m128d lift;
    if (scaleSafe) {
        const double* ra = in.ratios + beginA;
        const double* rb = in.ratios + beginB;
        lift = zero;
        for (int k = 0; k < kN; ++k) {
            const __m128d l0 = _mm_sub_pd(e[0], r[k][0]), l1 = _mm_sub_pd(e[1], r[k][1]), l2 = _mm_sub_pd(e[2], r[k][2]);
            const __m128d l = _mm_sqrt_pd(
                _mm_add_pd(_mm_add_pd(_mm_mul_pd(l0, l0), _mm_mul_pd(l1, l1)), _mm_mul_pd(l2, l2)));
            lift = _mm_add_pd(lift, _mm_mul_pd(w[k], _mm_add_pd(_mm_mul_pd(pair(ra[k], rb[k]), l), s[k])));
        }
    } else {
        // Rounded to single precision by the vector conversions: GCC 12 folds away the rounding of
        // static_cast<double>(static_cast<float>(x)) when the results are packed into a pair.
        lift = _mm_cvtps_pd(_mm_cvtpd_ps(pair(in.heights[a], in.heights[b])));
    }
    double lo[2], hi[2];
    for (int x = 0; x < 3; ++x) {
        _mm_storel_pd(lo, _mm_add_pd(e[x], _mm_mul_pd(N[x], lift)));
        _mm_storeh_pd(hi, _mm_add_pd(e[x], _mm_mul_pd(N[x], lift)));
        ta[x] = lo[0];
        tb[x] = hi[0];
    }
}
#endif

}  // namespace

void KRelaxationSolver::_relaxPass(const KArray<KDouble3>& prevPoints, KArray<KDouble3>& curPoints,
                                   const float* weights, const double* stiffness, bool scaleSafe, int threads) const {
    const int count = prevPoints.length();
    const KDouble3* p = prevPoints.data();
    KDouble3* cur = curPoints.data();
    // Every list of a vertex has the length of its sorted list.
    const int* offsets = _caches.connVrtId.offsets.data();
    const RelaxTables tables = {p,
                                _caches.connVrtId.values.data(),
                                _caches.connVrtIdNrmOrder.values.data(),
                                _caches.bScalable.values.data(),
                                _caches.meanValueWeight.values.data(),
                                _caches.b.data()};
    auto moving = [weights](int i) { return !((weights ? weights[i] : 1.0f) <= 0.001f); };
    // The target of vertex i (false: it stays), and the stiffness blend of a target into cur[i].
    auto target = [&](int i, double t[3]) {
        if (!moving(i)) return false;
        const int begin = offsets[i];
        const int n = offsets[i + 1] - begin;
        if (n < 1) return false;
        switch (n) {
            case 3: return RelaxTarget<3>(tables, i, begin, n, scaleSafe, t);
            case 4: return RelaxTarget<4>(tables, i, begin, n, scaleSafe, t);
            case 5: return RelaxTarget<5>(tables, i, begin, n, scaleSafe, t);
            case 6: return RelaxTarget<6>(tables, i, begin, n, scaleSafe, t);
            default: return RelaxTarget<0>(tables, i, begin, n, scaleSafe, t);
        }
    };
    auto blend = [&](int i, const double t[3]) {
        // Stiffness blend towards the point of the pass before.
        const KDouble3& y = p[i];
        const double stiff = static_cast<double>(static_cast<float>(stiffness[i]));
        KDouble3 out;
        out[0] = t[0] + (y[0] - t[0]) * stiff;
        out[1] = t[1] + (y[1] - t[1]) * stiff;
        out[2] = t[2] + (y[2] - t[2]) * stiff;
        cur[i] = out;
    };
    // Vertices go in pairs (2k, 2k + 1); a pair of moving vertices with the same common valence
    // is computed two at a time, with the same bits as one at a time.
    const int pairs = (count + 1) / 2;
#pragma omp parallel for schedule(static) num_threads(TeamFor(threads, count))
    for (int k = 0; k < pairs; ++k) {
        const int i = 2 * k, j = 2 * k + 1;
        cur[i] = p[i];
        if (j < count) cur[j] = p[j];
#if defined(__SSE2__)
        if (j < count && moving(i) && moving(j)) {
            const int n = offsets[i + 1] - offsets[i];
            if (n == offsets[j + 1] - offsets[j] && n >= 3 && n <= 6) {
                double ti[3], tj[3];
                bool moves[2];
                switch (n) {
                    case 3: RelaxTargetPair<3>(tables, i, j, offsets[i], offsets[j], scaleSafe, ti, tj, moves); break;
                    case 4: RelaxTargetPair<4>(tables, i, j, offsets[i], offsets[j], scaleSafe, ti, tj, moves); break;
                    case 5: RelaxTargetPair<5>(tables, i, j, offsets[i], offsets[j], scaleSafe, ti, tj, moves); break;
                    default: RelaxTargetPair<6>(tables, i, j, offsets[i], offsets[j], scaleSafe, ti, tj, moves); break;
                }
                if (moves[0]) blend(i, ti);
                if (moves[1]) blend(j, tj);
                continue;
            }
        }
#endif
        double t[3];
        if (target(i, t)) blend(i, t);
        if (j < count && target(j, t)) blend(j, t);
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
