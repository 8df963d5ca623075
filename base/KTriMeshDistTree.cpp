// Four-wide bounding-volume hierarchy over a mesh's triangles with an exact, pruned nearest search.
#include "KTriMeshDistTree.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "KBitMask.h"
#include "KThreads.h"

namespace Kavrin {

namespace {

// Levels past this are never reached: every level quarters the triangle count.
const int kDepthLimit = 20;
// Pending entries of a search: each inner node visited goes on with one child and leaves at most
// three.
const int kStackSize = 3 * kDepthLimit + 8;

inline double Dot(const double a[3], const double b[3]) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
inline void Sub(const double a[3], const double b[3], double r[3]) {
    r[0] = a[0] - b[0];
    r[1] = a[1] - b[1];
    r[2] = a[2] - b[2];
}
inline void Cross(const double a[3], const double b[3], double r[3]) {
    r[0] = a[1] * b[2] - a[2] * b[1];
    r[1] = a[2] * b[0] - a[0] * b[2];
    r[2] = a[0] * b[1] - a[1] * b[0];
}

// Lexicographic order of two points; fixes the direction in which a shared edge is evaluated so
// that both triangles of the edge compute bit-identical closest points and distances.
inline bool LexLess(const double a[3], const double b[3]) {
    if (a[0] != b[0]) return a[0] < b[0];
    if (a[1] != b[1]) return a[1] < b[1];
    return a[2] < b[2];
}

// Closest point to p on the segment e0-e1 as the weight t of e1 (1 - t of e0). Zero-length
// segments give t = 0.
inline double SegmentParameter(const double p[3], const double e0[3], const double e1[3]) {
    double d[3], ep[3];
    Sub(e1, e0, d);
    Sub(p, e0, ep);
    const double len2 = Dot(d, d);
    if (!(len2 > 0.0)) return 0.0;
    const double t = Dot(ep, d) / len2;
    return t <= 0.0 ? 0.0 : (t >= 1.0 ? 1.0 : t);
}

// Closest point of one triangle (corners P[0..2]).
struct TriangleHit {
    double w[3];  // barycentric weights of the three corners, each in [0, 1], summing to 1
    double q[3];  // the closest point
    double d2;    // its squared distance to the query
};

// Puts the closest point of edge (i, j) into hit, the edge taken in lexicographic direction.
inline void EdgeHit(const double p[3], const double P[3][3], int i, int j, TriangleHit& hit) {
    if (LexLess(P[j], P[i])) std::swap(i, j);
    const double t = SegmentParameter(p, P[i], P[j]);
    hit.w[0] = hit.w[1] = hit.w[2] = 0.0;
    hit.w[i] = 1.0 - t;
    hit.w[j] = t;
    for (int k = 0; k < 3; ++k) hit.q[k] = P[i][k] + t * (P[j][k] - P[i][k]);
}

inline void VertexHit(const double P[3][3], int i, TriangleHit& hit) {
    hit.w[0] = hit.w[1] = hit.w[2] = 0.0;
    hit.w[i] = 1.0;
    hit.q[0] = P[i][0];
    hit.q[1] = P[i][1];
    hit.q[2] = P[i][2];
}

inline double Distance2(const double p[3], const double q[3]) {
    double d[3];
    Sub(p, q, d);
    return Dot(d, d);
}

// Region-based closest point on a triangle: the vertex regions first (valid for any triangle,
// degenerate or not), then the edge regions, then the interior. Triangles whose area vanishes
// against their edge lengths are treated as the union of their three edges. Never produces NaN
// for finite input.
void ClosestOnTriangle(const double p[3], const double P[3][3], TriangleHit& hit) {
    double ab[3], ac[3], ap[3], bp[3], cp[3];
    Sub(P[1], P[0], ab);
    Sub(P[2], P[0], ac);
    Sub(p, P[0], ap);
    const double d1 = Dot(ab, ap), d2 = Dot(ac, ap);
    if (d1 <= 0.0 && d2 <= 0.0) {
        VertexHit(P, 0, hit);
        hit.d2 = Distance2(p, hit.q);
        return;
    }
    Sub(p, P[1], bp);
    const double d3 = Dot(ab, bp), d4 = Dot(ac, bp);
    if (d3 >= 0.0 && d4 <= d3) {
        VertexHit(P, 1, hit);
        hit.d2 = Distance2(p, hit.q);
        return;
    }
    Sub(p, P[2], cp);
    const double d5 = Dot(ab, cp), d6 = Dot(ac, cp);
    if (d6 >= 0.0 && d5 <= d6) {
        VertexHit(P, 2, hit);
        hit.d2 = Distance2(p, hit.q);
        return;
    }

    double n[3];
    Cross(ab, ac, n);
    const double area2 = Dot(n, n);
    const double scale = Dot(ab, ab) * Dot(ac, ac);
    if (!(area2 > 1e-20 * scale)) {
        // Zero-area or needle triangle: the nearest of its three edges.
        TriangleHit best, cur;
        EdgeHit(p, P, 0, 1, best);
        best.d2 = Distance2(p, best.q);
        EdgeHit(p, P, 1, 2, cur);
        cur.d2 = Distance2(p, cur.q);
        if (cur.d2 < best.d2) best = cur;
        EdgeHit(p, P, 2, 0, cur);
        cur.d2 = Distance2(p, cur.q);
        if (cur.d2 < best.d2) best = cur;
        hit = best;
        return;
    }

    // Unnormalised barycentric weights of the plane projection, from triple products (no
    // cancellation of large dot-product terms).
    double t[3], bc[3];
    Cross(ab, ap, t);
    const double wc = Dot(n, t);
    if (wc <= 0.0 && d1 >= 0.0 && d3 <= 0.0) {
        EdgeHit(p, P, 0, 1, hit);
        hit.d2 = Distance2(p, hit.q);
        return;
    }
    Cross(ap, ac, t);
    const double wb = Dot(n, t);
    if (wb <= 0.0 && d2 >= 0.0 && d6 <= 0.0) {
        EdgeHit(p, P, 0, 2, hit);
        hit.d2 = Distance2(p, hit.q);
        return;
    }
    Sub(P[2], P[1], bc);
    Cross(bc, bp, t);
    const double wa = Dot(n, t);
    if (wa <= 0.0 && d4 - d3 >= 0.0 && d5 - d6 >= 0.0) {
        EdgeHit(p, P, 1, 2, hit);
        hit.d2 = Distance2(p, hit.q);
        return;
    }

    // Interior. Rounding may leave a weight marginally negative; clamp onto the triangle.
    double v = std::max(wb / area2, 0.0), w = std::max(wc / area2, 0.0);
    if (v + w > 1.0) {
        const double s = v + w;
        v /= s;
        w /= s;
    }
    hit.w[0] = 1.0 - v - w;
    hit.w[1] = v;
    hit.w[2] = w;
    for (int k = 0; k < 3; ++k) hit.q[k] = P[0][k] + v * ab[k] + w * ac[k];
    hit.d2 = Distance2(p, hit.q);
}

// Starts loading a child's data while nearer children are searched; the random order of the
// queries makes the leaves' data the main cache cost.
inline void Prefetch(const void* data, size_t bytes) {
#if defined(__GNUC__)
    const char* p = static_cast<const char*>(data);
    const size_t limit = std::min(bytes, static_cast<size_t>(512));  // leaves past the depth cap can be large
    for (size_t off = 0; off < limit; off += 64) __builtin_prefetch(p + off);
#else
    (void)data;
    (void)bytes;
#endif
}

// Number of set bits of a four-bit mask (a nibble table: without a popcount instruction in the
// baseline instruction set, the builtin is a library call).
inline int PopCount4(int mask) { return static_cast<int>((0x4332322132212110ull >> (4 * mask)) & 0xf); }

// Sorts four keys ascending (a sorting network: no branches to mispredict).
inline void SortFour(uint64_t key[4]) {
    auto order = [](uint64_t& a, uint64_t& b) {
        const uint64_t lo = a < b ? a : b, hi = a < b ? b : a;
        a = lo;
        b = hi;
    };
    order(key[0], key[1]);
    order(key[2], key[3]);
    order(key[0], key[2]);
    order(key[1], key[3]);
    order(key[1], key[2]);
}

// The query point, also broadcast for the four-box tests.
struct Probe {
    float s[3];
#if defined(__SSE2__)
    __m128 v[3];
#endif
    explicit Probe(const KVector& p) {
        for (int a = 0; a < 3; ++a) {
            s[a] = p[a];
#if defined(__SSE2__)
            v[a] = _mm_set1_ps(p[a]);
#endif
        }
    }
};

// The mask of a node's children that exist (count -1 marks a missing one).
inline int ChildMask(const int (&count)[4]) {
#if defined(__SSE2__)
    const __m128i counts = _mm_loadu_si128(reinterpret_cast<const __m128i*>(count));
    return _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpgt_epi32(counts, _mm_set1_epi32(-1))));
#else
    return (count[0] >= 0 ? 1 : 0) | (count[1] >= 0 ? 2 : 0) | (count[2] >= 0 ? 4 : 0) | (count[3] >= 0 ? 8 : 0);
#endif
}

// Squared distances from the query point to four boxes stored per axis (lo[axis][box]), into
// dist: per box the sum over x, y, z of max(lo - p, p - hi, 0) squared, in that order, in single
// precision. Returns the mask of the boxes within bound. Empty boxes (lo = inf, hi = -inf) are
// infinitely far.
inline int BoxesWithin(const float (&lo)[3][4], const float (&hi)[3][4], const Probe& probe, float bound,
                       float dist[4]) {
#if defined(__SSE2__)
    const __m128 zero = _mm_setzero_ps();
    __m128 sum = zero;
    for (int a = 0; a < 3; ++a) {
        const __m128 below = _mm_sub_ps(_mm_loadu_ps(lo[a]), probe.v[a]);
        const __m128 above = _mm_sub_ps(probe.v[a], _mm_loadu_ps(hi[a]));
        const __m128 d = _mm_max_ps(_mm_max_ps(below, above), zero);
        sum = a == 0 ? _mm_mul_ps(d, d) : _mm_add_ps(sum, _mm_mul_ps(d, d));
    }
    _mm_storeu_ps(dist, sum);
    return _mm_movemask_ps(_mm_cmple_ps(sum, _mm_set1_ps(bound)));
#else
    int mask = 0;
    for (int c = 0; c < 4; ++c) {
        float sum = 0.0f;
        for (int a = 0; a < 3; ++a) {
            const float d = std::max(std::max(lo[a][c] - probe.s[a], probe.s[a] - hi[a][c]), 0.0f);
            sum = a == 0 ? d * d : sum + d * d;
        }
        dist[c] = sum;
        if (sum <= bound) mask |= 1 << c;
    }
    return mask;
#endif
}

inline bool Finite(const KVector& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

// Lower bounds on the squared distances from the query point to four triangles (their SlotPlanes),
// into lb; returns the mask of those within bound. Per triangle h = the distance outside the slab
// [nLo, nHi] along n and s = the largest distance outside an edge plane, each reduced by err (which
// covers the float rounding of the dot products) and floored at 0; then |p - x|^2 >= h^2 + s^2 for
// every point x of the triangle.
template <class Planes>
inline int PlanesWithin(const Planes& t, const Probe& probe, float err, float bound, float lb[4]) {
#if defined(__SSE2__)
    const __m128 zero = _mm_setzero_ps(), vErr = _mm_set1_ps(err);
    auto dot = [&probe](const float (&v)[3][4]) {
        return _mm_add_ps(_mm_add_ps(_mm_mul_ps(_mm_loadu_ps(v[0]), probe.v[0]), _mm_mul_ps(_mm_loadu_ps(v[1]), probe.v[1])),
                          _mm_mul_ps(_mm_loadu_ps(v[2]), probe.v[2]));
    };
    const __m128 np = dot(t.n);
    const __m128 h = _mm_max_ps(
        _mm_sub_ps(_mm_max_ps(_mm_sub_ps(np, _mm_loadu_ps(t.nHi)), _mm_sub_ps(_mm_loadu_ps(t.nLo), np)), vErr), zero);
    __m128 out = _mm_sub_ps(dot(t.m[0]), _mm_loadu_ps(t.off[0]));
    out = _mm_max_ps(out, _mm_sub_ps(dot(t.m[1]), _mm_loadu_ps(t.off[1])));
    out = _mm_max_ps(out, _mm_sub_ps(dot(t.m[2]), _mm_loadu_ps(t.off[2])));
    const __m128 sd = _mm_max_ps(_mm_sub_ps(out, vErr), zero);
    const __m128 sum = _mm_add_ps(_mm_mul_ps(h, h), _mm_mul_ps(sd, sd));
    _mm_storeu_ps(lb, sum);
    return _mm_movemask_ps(_mm_cmple_ps(sum, _mm_set1_ps(bound)));
#else
    const float* p = probe.s;
    int mask = 0;
    for (int c = 0; c < 4; ++c) {
        const float np = t.n[0][c] * p[0] + t.n[1][c] * p[1] + t.n[2][c] * p[2];
        const float h = std::max(std::max(np - t.nHi[c], t.nLo[c] - np) - err, 0.0f);
        float out = -std::numeric_limits<float>::infinity();
        for (int e = 0; e < 3; ++e)
            out = std::max(out, t.m[e][0][c] * p[0] + t.m[e][1][c] * p[1] + t.m[e][2][c] * p[2] - t.off[e][c]);
        const float sd = std::max(out - err, 0.0f);
        lb[c] = h * h + sd * sd;
        if (lb[c] <= bound) mask |= 1 << c;
    }
    return mask;
#endif
}

// Squared box distances of the search are single precision; widen the double bound by a small
// relative margin so that rounding never prunes a box holding an equally near triangle.
inline float PruneBound(double best) {
    const double b = best * (1.0 + 1e-6) + 1e-37;
    return b >= static_cast<double>(FLT_MAX) ? std::numeric_limits<float>::infinity() : static_cast<float>(b);
}

}  // namespace

struct KTriMeshDistTree::Prim {
    float c[3];  // twice the centre of the triangle's box
    int tri;
};

KTriMeshDistTree::KTriMeshDistTree(int leafSize, int maxDepth)
    : _leafSize(leafSize < 1 ? 10 : leafSize), _maxDepth(maxDepth < 1 ? 32 : maxDepth) {}

KTriMeshDistTree::KTriMeshDistTree(const KTriMesh& mesh, int leafSize, int maxDepth, int threads)
    : KTriMeshDistTree(leafSize, maxDepth) {
    set(mesh, threads);
}

void KTriMeshDistTree::set(const KTriMesh& mesh, int threads) {
    _corners.clear();
    _order.clear();
    _nodes.clear();
    _slotBoxes.clear();
    _slotPlanes.clear();
    _slotOf.clear();
    _extent = 0.0f;

    // The boxes of all triangles by triangle index, and which are kept; then one centre (twice the
    // box centre, to spare the halving) per kept triangle, in index order.
    const int nv = mesh.numVertices();
    const int nt = mesh.numTriangles();
    Array<float> boxes(6 * static_cast<size_t>(nt));
    Array<Prim> prims(static_cast<size_t>(nt));
    const KVector* points = mesh.points.data();
    const KInt3* triangles = mesh.triangles.data();
    int left = 0;  // triangles left out
#pragma omp parallel for schedule(static) num_threads(TeamFor(threads, nt)) reduction(+ : left)
    for (int i = 0; i < nt; ++i) {
        const KInt3& t = triangles[i];
        bool ok = true;
        // Guard (behaviour note "KTriMeshDistTree: bad triangles").
        for (int k = 0; k < 3 && ok; ++k) ok = t[k] >= 0 && t[k] < nv && Finite(points[t[k]]);
        Prim& prim = prims[static_cast<size_t>(i)];
        prim.tri = ok ? i : -1;
        if (!ok) {
            ++left;
            continue;
        }
        float* box = &boxes[6 * static_cast<size_t>(i)];
        for (int a = 0; a < 3; ++a) {
            const float c0 = points[t[0]][a], c1 = points[t[1]][a], c2 = points[t[2]][a];
            box[a] = std::min(c0, std::min(c1, c2));
            box[3 + a] = std::max(c0, std::max(c1, c2));
            prim.c[a] = box[a] + box[3 + a];
        }
    }
    if (left > 0)
        prims.erase(std::remove_if(prims.begin(), prims.end(), [](const Prim& p) { return p.tri < 0; }), prims.end());
    if (prims.empty()) return;

    const int count = static_cast<int>(prims.size());
    float rootBox[6];
    _buildRoot(prims.data(), boxes.data(), count, threads, rootBox);
    _extent = 0.0f;
    for (int k = 0; k < 6; ++k) _extent = std::max(_extent, std::fabs(rootBox[k]));

    // The build only permutes prims inside each node's range, so the final order is leaf order.
    _order.resize(prims.size());
    _corners.resize(3 * prims.size());
    _slotOf.resize(static_cast<size_t>(nt));
    int* slotOf = _slotOf.data();
    if (left > 0) std::fill(_slotOf.begin(), _slotOf.end(), -1);
    const Prim* sorted = prims.data();
    int* order = _order.data();
    KVector* corners = _corners.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(threads, count))
    for (int s = 0; s < count; ++s) {
        const int tri = sorted[s].tri;
        const KInt3& t = triangles[tri];
        order[s] = tri;
        slotOf[tri] = s;
        for (int k = 0; k < 3; ++k) corners[3 * static_cast<size_t>(s) + k] = points[t[k]];
    }
    _fillSlotBoxes(threads);

    _triangles = mesh.triangles;
    _numVertices = nv;
    _allKept = count == nt;
    _builtSurface = _surface();
}

bool KTriMeshDistTree::update(const KTriMesh& mesh, int threads) {
    const int nt = mesh.numTriangles();
    const bool same = _allKept && !_nodes.empty() && mesh.numVertices() == _numVertices &&
                      nt == _triangles.length() &&
                      std::memcmp(mesh.triangles.data(), _triangles.data(), sizeof(KInt3) * static_cast<size_t>(nt)) == 0;
    if (same) {
        // Every triangle was kept, so slot s holds triangle _order[s] and the indices are in range.
        bool finite = true;
        const int slots = static_cast<int>(_order.size());
        for (int s = 0; s < slots; ++s) {
            const KInt3& t = mesh.triangles[_order[s]];
            for (int k = 0; k < 3; ++k) {
                const KVector& c = mesh.points[t[k]];
                finite = finite && Finite(c);
                _corners[3 * static_cast<size_t>(s) + k] = c;
            }
        }
        // Decision (behaviour note "KTriMeshDistTree::update"): a refit that has loosened the
        // boxes to twice a build's surface is replaced by a build.
        _fillSlotBoxes(threads);
        if (finite && _refitBoxes() <= 2.0 * _builtSurface) {
            // The scale of float rounding the ray queries use follows the moved corners.
            _extent = 0.0f;
            for (const KVector& c : _corners)
                _extent = std::max(_extent, std::max(std::fabs(c.x), std::max(std::fabs(c.y), std::fabs(c.z))));
            return true;
        }
    }
    set(mesh, threads);
    return false;
}

namespace {

// Half-spaces around four triangles (corners c[lane][0..2]) for a SlotPlanes. Any vectors would
// do: the offsets make the bounds hold, the directions only make them sharp. Single precision
// throughout. The vectors are normalised to 1 - 1e-5, so that with their rounding they stay
// shorter than 1 and n stays orthogonal enough to every m = edge x n (m is used only when it is
// not much shorter than the edge, which keeps its rounding small against its length) for
// |p - x|^2 >= (n.(p - x))^2 + (m.(p - x))^2. Each offset is the extreme of the vector's dot
// products with the corners, moved outwards by more than their rounding (1e-6 of the corners'
// largest |x| + |y| + |z|), so every point x of the triangle satisfies nLo <= n.x <= nHi and
// m.x <= off. A vector that fails these conditions (a degenerate triangle) is zero with zero
// offsets: it bounds nothing.
template <class Planes>
void FillPlanes(const KVector* const (&c)[4], Planes& out) {
#if defined(__SSE2__)
    typedef __m128 V;
    auto add = [](V a, V b) { return _mm_add_ps(a, b); };
    auto sub = [](V a, V b) { return _mm_sub_ps(a, b); };
    auto mul = [](V a, V b) { return _mm_mul_ps(a, b); };
    auto vmax = [](V a, V b) { return _mm_max_ps(a, b); };
    auto vmin = [](V a, V b) { return _mm_min_ps(a, b); };
    auto splat = [](float x) { return _mm_set1_ps(x); };
    auto select = [](V mask, V a, V b) { return _mm_or_ps(_mm_and_ps(mask, a), _mm_andnot_ps(mask, b)); };
    auto store = [](float (&to)[4], V v) { _mm_storeu_ps(to, v); };
    const V absMask = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    auto vabs = [absMask](V a) { return _mm_and_ps(a, absMask); };
    auto greater = [](V a, V b) { return _mm_cmpgt_ps(a, b); };
    auto And = [](V a, V b) { return _mm_and_ps(a, b); };
    auto rsqrtShort = [](V len2, float shorten) { return _mm_div_ps(_mm_set1_ps(shorten), _mm_sqrt_ps(len2)); };
    V P[3][3];  // corner, axis
    for (int k = 0; k < 3; ++k)
        for (int a = 0; a < 3; ++a) P[k][a] = _mm_setr_ps(c[0][k][a], c[1][k][a], c[2][k][a], c[3][k][a]);
#else
    struct V {
        float x[4];
    };
    auto op = [](V a, V b, int which) {
        V r;
        for (int l = 0; l < 4; ++l)
            r.x[l] = which == 0 ? a.x[l] + b.x[l]
                     : which == 1 ? a.x[l] - b.x[l]
                     : which == 2 ? a.x[l] * b.x[l]
                     : which == 3 ? std::max(a.x[l], b.x[l])
                                  : std::min(a.x[l], b.x[l]);
        return r;
    };
    auto add = [op](V a, V b) { return op(a, b, 0); };
    auto sub = [op](V a, V b) { return op(a, b, 1); };
    auto mul = [op](V a, V b) { return op(a, b, 2); };
    auto vmax = [op](V a, V b) { return op(a, b, 3); };
    auto vmin = [op](V a, V b) { return op(a, b, 4); };
    auto splat = [](float x) { return V{{x, x, x, x}}; };
    auto select = [](V mask, V a, V b) {
        V r;
        for (int l = 0; l < 4; ++l) r.x[l] = mask.x[l] != 0.0f ? a.x[l] : b.x[l];
        return r;
    };
    auto store = [](float (&to)[4], V v) { std::copy(v.x, v.x + 4, to); };
    auto vabs = [](V a) {
        for (float& x : a.x) x = std::fabs(x);
        return a;
    };
    auto greater = [](V a, V b) {
        V r;
        for (int l = 0; l < 4; ++l) r.x[l] = a.x[l] > b.x[l] ? 1.0f : 0.0f;
        return r;
    };
    auto And = [](V a, V b) {
        V r;
        for (int l = 0; l < 4; ++l) r.x[l] = a.x[l] != 0.0f && b.x[l] != 0.0f ? 1.0f : 0.0f;
        return r;
    };
    auto rsqrtShort = [](V len2, float shorten) {
        for (float& x : len2.x) x = shorten / std::sqrt(x);
        return len2;
    };
    V P[3][3];
    for (int k = 0; k < 3; ++k)
        for (int a = 0; a < 3; ++a) P[k][a] = V{{c[0][k][a], c[1][k][a], c[2][k][a], c[3][k][a]}};
#endif
    const float shorten = 1.0f - 1e-5f;
    const V zero = splat(0.0f);
    auto dot = [&](const V (&v)[3], const V (&x)[3]) { return add(add(mul(v[0], x[0]), mul(v[1], x[1])), mul(v[2], x[2])); };
    auto cross = [&](const V (&a)[3], const V (&b)[3], V (&r)[3]) {
        r[0] = sub(mul(a[1], b[2]), mul(a[2], b[1]));
        r[1] = sub(mul(a[2], b[0]), mul(a[0], b[2]));
        r[2] = sub(mul(a[0], b[1]), mul(a[1], b[0]));
    };
    V size = zero;
    for (int k = 0; k < 3; ++k) size = vmax(size, add(add(vabs(P[k][0]), vabs(P[k][1])), vabs(P[k][2])));
    const V pad = add(mul(splat(1e-6f), size), splat(1e-30f));
    V e1[3], e2[3], n[3];
    for (int a = 0; a < 3; ++a) {
        e1[a] = sub(P[1][a], P[0][a]);
        e2[a] = sub(P[2][a], P[0][a]);
    }
    cross(e1, e2, n);
    {
        const V len2 = dot(n, n);
        const V ok = And(greater(len2, splat(1e-30f)), greater(splat(1e30f), len2));
        const V f = select(ok, rsqrtShort(select(ok, len2, splat(1.0f)), shorten), zero);
        for (int a = 0; a < 3; ++a) n[a] = mul(n[a], f);
        V lo = dot(n, P[0]), hi = lo;
        for (int k = 1; k < 3; ++k) {
            lo = vmin(lo, dot(n, P[k]));
            hi = vmax(hi, dot(n, P[k]));
        }
        for (int a = 0; a < 3; ++a) store(out.n[a], n[a]);
        store(out.nLo, select(ok, sub(lo, pad), zero));
        store(out.nHi, select(ok, add(hi, pad), zero));
    }
    for (int e = 0; e < 3; ++e) {
        V edge[3], toOpposite[3], m[3];
        for (int a = 0; a < 3; ++a) {
            edge[a] = sub(P[(e + 1) % 3][a], P[e][a]);
            toOpposite[a] = sub(P[(e + 2) % 3][a], P[e][a]);
        }
        cross(edge, n, m);
        const V len2 = dot(m, m);
        // m is used when |m|^2 > |edge|^2 / 100 (|n| is 0 or about 1).
        const V ok = And(greater(len2, vmax(mul(splat(0.01f), dot(edge, edge)), splat(1e-30f))), greater(splat(1e30f), len2));
        V f = select(ok, rsqrtShort(select(ok, len2, splat(1.0f)), shorten), zero);
        // Pointing away from the opposite corner.
        f = select(greater(dot(m, toOpposite), zero), sub(zero, f), f);
        for (int a = 0; a < 3; ++a) m[a] = mul(m[a], f);
        const V top = vmax(dot(m, P[0]), vmax(dot(m, P[1]), dot(m, P[2])));
        for (int a = 0; a < 3; ++a) store(out.m[e][a], m[a]);
        store(out.off[e], select(ok, add(top, pad), zero));
    }
}

}  // namespace

void KTriMeshDistTree::_fillSlotBoxes(int threads) {
    const size_t slots = _order.size();
    const int blocks = static_cast<int>((slots + 3) / 4);
    _slotBoxes.resize(static_cast<size_t>(blocks));
    _slotPlanes.resize(static_cast<size_t>(blocks));
    static const KVector kPoint[3];  // the corners of the empty lanes past the last slot
#pragma omp parallel for schedule(static) num_threads(TeamFor(threads, blocks))
    for (int b = 0; b < blocks; ++b) {
        const KVector* corners[4];
        for (size_t lane = 0; lane < 4; ++lane)
            corners[lane] = 4 * static_cast<size_t>(b) + lane < slots ? &_corners[3 * (4 * static_cast<size_t>(b) + lane)] : kPoint;
        FillPlanes(corners, _slotPlanes[static_cast<size_t>(b)]);
        SlotBoxes& block = _slotBoxes[static_cast<size_t>(b)];
        for (size_t lane = 0; lane < 4; ++lane) {
            const size_t s = 4 * static_cast<size_t>(b) + lane;
            for (int a = 0; a < 3; ++a) {
                if (s >= slots) {
                    block.lo[a][lane] = std::numeric_limits<float>::infinity();
                    block.hi[a][lane] = -std::numeric_limits<float>::infinity();
                    continue;
                }
                const KVector* c = &_corners[3 * s];
                block.lo[a][lane] = std::min(c[0][a], std::min(c[1][a], c[2][a]));
                block.hi[a][lane] = std::max(c[0][a], std::max(c[1][a], c[2][a]));
            }
        }
    }
}

namespace {

// Box half-surface dx*dy + dy*dz + dz*dx of (lo, hi).
inline double HalfSurface(const float* lo, const float* hi) {
    const double dx = double(hi[0]) - lo[0], dy = double(hi[1]) - lo[1], dz = double(hi[2]) - lo[2];
    return dx * dy + dy * dz + dz * dx;
}

}  // namespace

double KTriMeshDistTree::_refitBoxes() {
    if (_nodes.empty()) return 0.0;
    // Nodes are numbered in depth-first order, so every child comes after its parent.
    for (int n = static_cast<int>(_nodes.size()) - 1; n >= 0; --n) {
        Node& node = _nodes[static_cast<size_t>(n)];
        for (int c = 0; c < 4; ++c) {
            if (node.count[c] < 0) continue;
            float lo[3] = {std::numeric_limits<float>::infinity(), std::numeric_limits<float>::infinity(),
                           std::numeric_limits<float>::infinity()};
            float hi[3] = {-lo[0], -lo[1], -lo[2]};
            if (node.count[c] > 0) {
                const KVector* corner = &_corners[3 * static_cast<size_t>(node.first[c])];
                for (int k = 0, last = 3 * node.count[c]; k < last; ++k)
                    for (int a = 0; a < 3; ++a) {
                        lo[a] = std::min(lo[a], corner[k][a]);
                        hi[a] = std::max(hi[a], corner[k][a]);
                    }
            } else {
                const Node& child = _nodes[static_cast<size_t>(node.first[c])];
                for (int a = 0; a < 3; ++a) {
                    lo[a] = std::min(std::min(child.lo[a][0], child.lo[a][1]), std::min(child.lo[a][2], child.lo[a][3]));
                    hi[a] = std::max(std::max(child.hi[a][0], child.hi[a][1]), std::max(child.hi[a][2], child.hi[a][3]));
                }
            }
            for (int a = 0; a < 3; ++a) {
                node.lo[a][c] = lo[a];
                node.hi[a][c] = hi[a];
            }
        }
    }
    return _surface();
}

double KTriMeshDistTree::_surface() const {
    if (_nodes.empty()) return 0.0;
    double total = 0.0;
    for (int n = static_cast<int>(_nodes.size()) - 1; n >= 0; --n) {
        const Node& node = _nodes[static_cast<size_t>(n)];
        for (int c = 0; c < 4; ++c) {
            if (node.count[c] < 0) continue;
            const float lo[3] = {node.lo[0][c], node.lo[1][c], node.lo[2][c]};
            const float hi[3] = {node.hi[0][c], node.hi[1][c], node.hi[2][c]};
            total += HalfSurface(lo, hi);
        }
    }
    const Node& root = _nodes[0];
    float lo[3], hi[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] = std::min(std::min(root.lo[a][0], root.lo[a][1]), std::min(root.lo[a][2], root.lo[a][3]));
        hi[a] = std::max(std::max(root.hi[a][0], root.hi[a][1]), std::max(root.hi[a][2], root.hi[a][3]));
    }
    const double whole = HalfSurface(lo, hi);
    return whole > 0.0 ? total / whole : total;
}

int KTriMeshDistTree::_split(Prim* prims, int begin, int end, Range (&parts)[4]) const {
    // Splits a range in two at the median centre along the longest side of the centres' bounds.
    auto split = [prims](const Range& r, Range& left, Range& right) {
        float lo[3] = {FLT_MAX, FLT_MAX, FLT_MAX}, hi[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
        for (int i = r.begin; i < r.end; ++i)
            for (int a = 0; a < 3; ++a) {
                lo[a] = std::min(lo[a], prims[i].c[a]);
                hi[a] = std::max(hi[a], prims[i].c[a]);
            }
        int axis = 0;
        for (int a = 1; a < 3; ++a)
            if (hi[a] - lo[a] > hi[axis] - lo[axis]) axis = a;
        const int mid = r.begin + (r.end - r.begin) / 2;
        std::nth_element(prims + r.begin, prims + mid, prims + r.end,
                         [axis](const Prim& x, const Prim& y) { return x.c[axis] < y.c[axis]; });
        left.begin = r.begin;
        left.end = right.begin = mid;
        right.end = r.end;
    };
    // One part when the whole range fits a leaf (a small root), else the two halves, each halved
    // again when it is still larger than a leaf.
    const Range whole = {begin, end};
    int count = 0;
    if (end - begin <= _leafSize) {
        parts[count++] = whole;
    } else {
        Range halves[2];
        split(whole, halves[0], halves[1]);
        for (const Range& h : halves) {
            if (h.end - h.begin > _leafSize) {
                split(h, parts[count], parts[count + 1]);
                count += 2;
            } else {
                parts[count++] = h;
            }
        }
    }
    return count;
}

namespace {

// A node with no children yet: empty boxes, every child missing.
template <class Node>
Node EmptyNode() {
    Node node;
    for (int c = 0; c < 4; ++c) {
        for (int a = 0; a < 3; ++a) {
            node.lo[a][c] = std::numeric_limits<float>::infinity();
            node.hi[a][c] = -std::numeric_limits<float>::infinity();
        }
        node.first[c] = 0;
        node.count[c] = -1;
    }
    return node;
}

// The bounds (lo then hi) of a node's child boxes.
template <class Node>
void NodeBox(const Node& node, float* box) {
    for (int a = 0; a < 3; ++a) {
        box[a] = std::min(std::min(node.lo[a][0], node.lo[a][1]), std::min(node.lo[a][2], node.lo[a][3]));
        box[3 + a] = std::max(std::max(node.hi[a][0], node.hi[a][1]), std::max(node.hi[a][2], node.hi[a][3]));
    }
}

}  // namespace

int KTriMeshDistTree::_build(std::vector<Node>& nodes, Prim* prims, const float* boxes, int begin, int end, int depth,
                             float* box) const {
    const int index = static_cast<int>(nodes.size());
    nodes.push_back(Node());
    Range parts[4];
    const int count = _split(prims, begin, end, parts);
    Node node = EmptyNode<Node>();
    for (int c = 0; c < count; ++c) {
        const Range& r = parts[c];
        float childBox[6];
        if (r.end - r.begin <= _leafSize || depth + 1 >= std::min(_maxDepth, kDepthLimit)) {
            for (int a = 0; a < 3; ++a) {
                childBox[a] = std::numeric_limits<float>::infinity();
                childBox[3 + a] = -std::numeric_limits<float>::infinity();
            }
            for (int i = r.begin; i < r.end; ++i) {
                const float* b = boxes + 6 * static_cast<size_t>(prims[i].tri);
                for (int a = 0; a < 3; ++a) {
                    childBox[a] = std::min(childBox[a], b[a]);
                    childBox[3 + a] = std::max(childBox[3 + a], b[3 + a]);
                }
            }
            node.first[c] = r.begin;
            node.count[c] = r.end - r.begin;
        } else {
            node.first[c] = _build(nodes, prims, boxes, r.begin, r.end, depth + 1, childBox);
            node.count[c] = 0;
        }
        for (int a = 0; a < 3; ++a) {
            node.lo[a][c] = childBox[a];
            node.hi[a][c] = childBox[3 + a];
        }
    }
    NodeBox(node, box);
    nodes[static_cast<size_t>(index)] = node;
    return index;
}

void KTriMeshDistTree::_buildRoot(Prim* prims, const float* boxes, int count, int threads, float* box) {
    _nodes.reserve(static_cast<size_t>(count / _leafSize + 1));
    // Below this many triangles a build is too quick to share.
    const int kParallelBuild = 65536;
    // Shared only when the root gets four children that are not leaves (each holds at least a
    // quarter of the triangles, rounded down).
    if (count <= kParallelBuild || ResolveThreads(threads) < 2 || count / 4 <= _leafSize ||
        std::min(_maxDepth, kDepthLimit) < 2) {
        _build(_nodes, prims, boxes, 0, count, 0, box);
        return;
    }
    Range parts[4];
    const int numParts = _split(prims, 0, count, parts);
    // Decision (behaviour note "KTriMeshDistTree: parallel build"). The root's children as the
    // serial build splits them; each child's subtree built on its own into its own nodes, then
    // appended in child order, which is the serial build's depth-first numbering.
    std::vector<Node> subtrees[4];
    float childBoxes[4][6];
#pragma omp parallel for schedule(static) num_threads(std::min(ResolveThreads(threads), numParts))
    for (int c = 0; c < numParts; ++c) {
        const Range& r = parts[c];
        subtrees[c].reserve(static_cast<size_t>((r.end - r.begin) / _leafSize + 1));
        _build(subtrees[c], prims, boxes, r.begin, r.end, 1, childBoxes[c]);
    }
    Node root = EmptyNode<Node>();
    size_t total = 1;
    for (int c = 0; c < numParts; ++c) total += subtrees[c].size();
    _nodes.resize(total);
    int at = 1;
    for (int c = 0; c < numParts; ++c) {
        for (size_t n = 0; n < subtrees[c].size(); ++n) {
            Node node = subtrees[c][n];
            for (int k = 0; k < 4; ++k)
                if (node.count[k] == 0) node.first[k] += at;
            _nodes[static_cast<size_t>(at) + n] = node;
        }
        root.first[c] = at;
        root.count[c] = 0;
        for (int a = 0; a < 3; ++a) {
            root.lo[a][c] = childBoxes[c][a];
            root.hi[a][c] = childBoxes[c][3 + a];
        }
        at += static_cast<int>(subtrees[c].size());
    }
    NodeBox(root, box);
    _nodes[0] = root;
}

bool KTriMeshDistTree::empty() const { return _nodes.empty(); }

bool KTriMeshDistTree::_search(const KVector& p, float maxDistance, int hint, int& triangle, float& u, float& v,
                               KVector& closest) const {
    triangle = -1;
    // Guard (behaviour note "KTriMeshDistTree: nothing found").
    if (_nodes.empty() || !Finite(p) || !(maxDistance >= 0.0f)) return false;

    const double q[3] = {p.x, p.y, p.z};
    double best = static_cast<double>(maxDistance) * maxDistance;  // inclusive limit until a hit
    int bestTri = INT_MAX;
    TriangleHit bestHit = {{1.0, 0.0, 0.0}, {0.0, 0.0, 0.0}, 0.0};
    // The closest point of slot s, exactly as the traversal computes it.
    auto exact = [this, &q](int s, TriangleHit& hit) {
        const KVector* c = &_corners[3 * static_cast<size_t>(s)];
        const double P[3][3] = {{c[0].x, c[0].y, c[0].z}, {c[1].x, c[1].y, c[1].z}, {c[2].x, c[2].y, c[2].z}};
        ClosestOnTriangle(q, P, hit);
    };
    // The hint is taken as the traversal would take it on meeting it first; every triangle that
    // could beat it, or tie with a lower index, is still visited below.
    int hintSlot = -1;
    // Guard (behaviour note "Hints and leaf lists from elsewhere").
    if (hint >= 0 && hint < static_cast<int>(_slotOf.size()) && _slotOf[static_cast<size_t>(hint)] >= 0) {
        TriangleHit hit;
        exact(_slotOf[static_cast<size_t>(hint)], hit);
        if (hit.d2 <= best) {
            best = hit.d2;
            bestTri = hint;
            bestHit = hit;
            hintSlot = _slotOf[static_cast<size_t>(hint)];  // taken: meeting it again changes nothing
        }
    }
    float bound = PruneBound(best);
    const Probe probe(p);
    // Rounding of the plane bounds' dot products: a few units in the last place of |n||p| + |offset|.
    const float planeErr = 2e-6f * (std::max(std::fabs(p.x), std::max(std::fabs(p.y), std::fabs(p.z))) + _extent);

    struct Entry {
        int first;
        int count;
        float dist;
    };
    Entry stack[kStackSize];
    int top = 0;
    Entry cur = {0, 0, 0.0f};
    for (;;) {
        if (cur.count > 0) {
            // A leaf: its triangles' own boxes first, four at a time; most are rejected by them.
            const int first = cur.first, last = cur.first + cur.count;
            for (int b = first >> 2, lastBlock = (last - 1) >> 2; b <= lastBlock; ++b) {
                float dist[4];
                const int begin = std::max(first - 4 * b, 0), end = std::min(last - 4 * b, 4);
                int mask = BoxesWithin(_slotBoxes[static_cast<size_t>(b)].lo, _slotBoxes[static_cast<size_t>(b)].hi,
                                       probe, bound, dist) &
                           ((1 << end) - (1 << begin));
                if (mask != 0) {
                    float lb[4];
                    mask &= PlanesWithin(_slotPlanes[static_cast<size_t>(b)], probe, planeErr, bound, lb);
                    for (int k = 0; k < 4; ++k) dist[k] = std::max(dist[k], lb[k]);
                }
                for (; mask != 0; mask &= mask - 1) {
                    const int lane = LowestBit(mask);
                    const int s = 4 * b + lane;
                    if (dist[lane] > bound || s == hintSlot) continue;  // the bound has shrunk since
                    TriangleHit hit;
                    exact(s, hit);
                    const int tri = _order[static_cast<size_t>(s)];
                    if (hit.d2 < best || (hit.d2 == best && tri < bestTri)) {
                        best = hit.d2;
                        bestTri = tri;
                        bestHit = hit;
                        bound = PruneBound(best);
                    }
                }
            }
        } else {
            const Node& node = _nodes[static_cast<size_t>(cur.first)];
            float dist[4];
            const int mask = BoxesWithin(node.lo, node.hi, probe, bound, dist) & ChildMask(node.count);
            // Children within the bound, nearest first. The nearest is searched next; the others
            // are pushed farthest first so that the nearer are popped first.
            const int n = PopCount4(mask);
            int order[4];
            if (n == 1) {
                order[0] = LowestBit(mask);
            } else if (n > 1) {
                // Sorted as keys that hold a distance's bits (ordered as the non-negative floats)
                // above the child's number, missing children last.
                uint64_t key[4];
                for (int c = 0; c < 4; ++c) {
                    uint32_t bits;
                    std::memcpy(&bits, &dist[c], sizeof bits);
                    key[c] = mask & (1 << c) ? (static_cast<uint64_t>(bits) << 2 | static_cast<uint64_t>(c)) : ~uint64_t(0);
                }
                SortFour(key);
                for (int k = 0; k < n; ++k) order[k] = static_cast<int>(key[k] & 3);
            }
            for (int k = n - 1; k >= 0; --k) {
                const int c = order[k];
                const int childFirst = node.first[c], childCount = node.count[c];
                if (childCount > 0) {
                    const int firstBlock = childFirst >> 2, blocks = ((childFirst + childCount - 1) >> 2) - firstBlock + 1;
                    Prefetch(&_slotBoxes[static_cast<size_t>(firstBlock)], sizeof(SlotBoxes) * static_cast<size_t>(blocks));
                } else {
                    Prefetch(&_nodes[static_cast<size_t>(childFirst)], sizeof(Node));
                }
                if (k > 0)
                    stack[top++] = Entry{childFirst, childCount, dist[c]};
                else
                    cur = Entry{childFirst, childCount, dist[c]};
            }
            if (n > 0) continue;
        }
        // The next pending entry still within the bound.
        do {
            if (top == 0) goto done;
            cur = stack[--top];
        } while (cur.dist > bound);
    }
done:
    if (bestTri == INT_MAX) return false;
    triangle = bestTri;
    u = static_cast<float>(bestHit.w[0]);
    v = static_cast<float>(bestHit.w[1]);
    closest = KVector(static_cast<float>(bestHit.q[0]), static_cast<float>(bestHit.q[1]),
                      static_cast<float>(bestHit.q[2]));
    return true;
}

bool KTriMeshDistTree::getClosestPoint(const KVector& p, KVector& closest, int& triangle, float maxDistance,
                                       int hint) const {
    float u, v;
    return _search(p, maxDistance, hint, triangle, u, v, closest);
}

bool KTriMeshDistTree::getClosestPoint(const KVector& p, int& triangle, float& a, float& b, float maxDistance,
                                       int hint) const {
    KVector c;
    return _search(p, maxDistance, hint, triangle, a, b, c);
}

}  // namespace Kavrin
