// All crossings of a ray with the mesh held by a KTriMeshDistTree, through the same hierarchy.
#include <algorithm>
#include <cmath>
#include <limits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "KBitMask.h"
#include "KTriMeshDistTree.h"

namespace Kavrin {

namespace {

// Deepest traversal: each inner node replaces its entry by at most four (see the closest-point
// search, which bounds its levels the same way).
const int kRayStackSize = 3 * 20 + 8;

inline bool Finite(const KVector& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

// The single-precision slab test of one ray against four boxes stored per axis: per box the
// interval of t over which the ray lies in all three widened slabs, cut to [tStart, tEnd], meets
// the box when it is not empty up to a relative slack of 1e-6.
struct RaySlabs {
    float origin[3], inv[3];
    float margin, tStart, tEnd;
#if defined(__SSE2__)
    __m128 vOrigin[3], vInv[3], vMargin, vStart, vEnd;
#endif

    void prepare() {
#if defined(__SSE2__)
        for (int a = 0; a < 3; ++a) {
            vOrigin[a] = _mm_set1_ps(origin[a]);
            vInv[a] = _mm_set1_ps(inv[a]);
        }
        vMargin = _mm_set1_ps(margin);
        vStart = _mm_set1_ps(tStart);
        vEnd = _mm_set1_ps(tEnd);
#endif
    }

    // The mask of the boxes (of those whose count is not -1) the ray meets.
    int hits(const float (&lo)[3][4], const float (&hi)[3][4], const int (&count)[4]) const {
#if defined(__SSE2__)
        __m128 t0 = vStart, t1 = vEnd;
        for (int a = 0; a < 3; ++a) {
            const __m128 l = _mm_sub_ps(_mm_sub_ps(_mm_loadu_ps(lo[a]), vMargin), vOrigin[a]);
            const __m128 h = _mm_sub_ps(_mm_add_ps(_mm_loadu_ps(hi[a]), vMargin), vOrigin[a]);
            const __m128 ta = _mm_mul_ps(l, vInv[a]), tb = _mm_mul_ps(h, vInv[a]);
            t0 = _mm_max_ps(t0, _mm_min_ps(ta, tb));
            t1 = _mm_min_ps(t1, _mm_max_ps(ta, tb));
        }
        const __m128 sign = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
        const __m128 slack = _mm_mul_ps(_mm_set1_ps(1e-6f), _mm_add_ps(_mm_and_ps(t0, sign), _mm_and_ps(t1, sign)));
        const __m128i valid =
            _mm_cmpgt_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(count)), _mm_set1_epi32(-1));
        return _mm_movemask_ps(_mm_and_ps(_mm_cmple_ps(t0, _mm_add_ps(t1, slack)), _mm_castsi128_ps(valid)));
#else
        int mask = 0;
        for (int c = 0; c < 4; ++c) {
            float t0 = tStart, t1 = tEnd;
            for (int a = 0; a < 3; ++a) {
                const float ta = (lo[a][c] - margin - origin[a]) * inv[a];
                const float tb = (hi[a][c] + margin - origin[a]) * inv[a];
                t0 = std::max(t0, std::min(ta, tb));
                t1 = std::min(t1, std::max(ta, tb));
            }
            if (count[c] >= 0 && t0 <= t1 + 1e-6f * (std::fabs(t0) + std::fabs(t1))) mask |= 1 << c;
        }
        return mask;
#endif
    }
};

// Walks the tree from the root through the children whose box the slab test passes and hands
// every such leaf (its first slot and slot count) to visit, which returns false to stop the walk.
// Returns false when visit stopped it.
template <class Nodes, class Visit>
bool WalkLeavesMet(const Nodes& nodes, const RaySlabs& slabs, Visit visit) {
    int stack[kRayStackSize];
    int top = 0;
    stack[top++] = 0;
    while (top > 0) {
        const auto& node = nodes[static_cast<size_t>(stack[--top])];
        for (int mask = slabs.hits(node.lo, node.hi, node.count); mask != 0; mask &= mask - 1) {
            const int c = LowestBit(mask);
            if (node.count[c] == 0)
                stack[top++] = node.first[c];
            else if (!visit(node.first[c], node.count[c]))
                return false;
        }
    }
    return true;
}

}  // namespace

int KTriMeshDistTree::allIntersections(const KVector& source, const KVector& direction, float maxDistance,
                                       float tolerance, std::vector<float>& hits) const {
    return _rayHits(source, direction, maxDistance, tolerance, nullptr, 0, hits);
}

int KTriMeshDistTree::intersectionsInLeaves(const KVector& source, const KVector& direction, float maxDistance,
                                            float tolerance, const LeafRun* leaves, int count,
                                            std::vector<float>& hits) const {
    return _rayHits(source, direction, maxDistance, tolerance, leaves, leaves ? std::max(0, count) : 0, hits);
}

int KTriMeshDistTree::_rayHits(const KVector& source, const KVector& direction, float maxDistance, float tolerance,
                               const LeafRun* given, int numGiven, std::vector<float>& hits) const {
    hits.clear();
    if (_nodes.empty() || !Finite(source) || !Finite(direction) || !(maxDistance >= 0.0f)) return 0;
    const double len = std::sqrt(double(direction.x) * direction.x + double(direction.y) * direction.y +
                                 double(direction.z) * direction.z);
    if (!(len > 0.0)) return 0;
    const double o[3] = {source.x, source.y, source.z};
    const double d[3] = {direction.x / len, direction.y / len, direction.z / len};
    const double tol = tolerance > 0.0f ? tolerance : 0.0;
    const double tMax = static_cast<double>(maxDistance) + tol;

    // The leaves whose box the ray meets are gathered first (single precision only), then their
    // triangles are intersected in double; the order of the hits does not matter, they are sorted.
    const int kLeafBatch = 64;
    int leafFirst[kLeafBatch], leafCount[kLeafBatch];
    int leaves = 0;
    auto intersectLeaves = [&]() {
        for (int l = 0; l < leaves; ++l)
            for (int s = leafFirst[l], last = leafFirst[l] + leafCount[l]; s < last; ++s) {
                // Moeller-Trumbore in double with barycentric tolerance.
                const KVector* corner = &_corners[3 * static_cast<size_t>(s)];
                const double p0[3] = {corner[0].x, corner[0].y, corner[0].z};
                const double e1[3] = {corner[1].x - p0[0], corner[1].y - p0[1], corner[1].z - p0[2]};
                const double e2[3] = {corner[2].x - p0[0], corner[2].y - p0[1], corner[2].z - p0[2]};
                const double pv[3] = {d[1] * e2[2] - d[2] * e2[1], d[2] * e2[0] - d[0] * e2[2],
                                      d[0] * e2[1] - d[1] * e2[0]};
                const double det = e1[0] * pv[0] + e1[1] * pv[1] + e1[2] * pv[2];
                if (det == 0.0 || !std::isfinite(det)) continue;  // ray parallel to the triangle
                // The barycentric tests scaled by |det|, so that most misses need no division.
                const double sign = det > 0.0 ? 1.0 : -1.0, adet = det * sign;
                const double tv[3] = {o[0] - p0[0], o[1] - p0[1], o[2] - p0[2]};
                const double us = (tv[0] * pv[0] + tv[1] * pv[1] + tv[2] * pv[2]) * sign;
                if (us < -tol * adet || us > (1.0 + tol) * adet) continue;
                const double qv[3] = {tv[1] * e1[2] - tv[2] * e1[1], tv[2] * e1[0] - tv[0] * e1[2],
                                      tv[0] * e1[1] - tv[1] * e1[0]};
                const double vs = (d[0] * qv[0] + d[1] * qv[1] + d[2] * qv[2]) * sign;
                if (vs < -tol * adet || us + vs > (1.0 + tol) * adet) continue;
                const double t = (e2[0] * qv[0] + e2[1] * qv[1] + e2[2] * qv[2]) / det;
                if (t < -tol || t > tMax) continue;
                hits.push_back(static_cast<float>(std::max(0.0, std::min(t, static_cast<double>(maxDistance)))));
            }
        leaves = 0;
    };

    if (given) {
        // Leaves that leavesNear listed for a nearby source: a superset of those the traversal
        // below would reach, and triangles outside those are never met (its box test is only a
        // conservative filter), so the crossings are the same.
        for (int g = 0; g < numGiven; ++g) {
            // Guard (behaviour note "Hints and leaf lists from elsewhere").
            if (given[g].first < 0 || given[g].count < 1 ||
                static_cast<size_t>(given[g].first) + static_cast<size_t>(given[g].count) > _order.size())
                continue;
            leafFirst[leaves] = given[g].first;
            leafCount[leaves] = given[g].count;
            if (++leaves == kLeafBatch) intersectLeaves();
        }
        intersectLeaves();
        return _clusterHits(hits, tol);
    }

    // The four child boxes of a node are tested together in single precision. The test is only a
    // filter, so it is kept conservative: boxes are widened by the tolerance plus a margin above
    // float rounding at the scene's scale, and the slab interval by a relative slack. An axis the
    // ray runs parallel to gets a huge finite inverse, which rejects exactly the slabs the source
    // lies outside of.
    RaySlabs slabs;
    double scale = std::max(1.0, static_cast<double>(_extent));
    for (int a = 0; a < 3; ++a) {
        slabs.origin[a] = source[a];
        const double id = d[a] == 0.0 ? 1e30 : std::max(-1e30, std::min(1e30, 1.0 / d[a]));
        slabs.inv[a] = static_cast<float>(id);
        scale = std::max(scale, std::fabs(o[a]));
    }
    slabs.margin = static_cast<float>(tol + 1e-6 * scale);
    slabs.tStart = -slabs.margin;
    slabs.tEnd = static_cast<float>(tMax) + slabs.margin;
    slabs.prepare();

    WalkLeavesMet(_nodes, slabs, [&](int first, int count) {
        leafFirst[leaves] = first;
        leafCount[leaves] = count;
        if (++leaves == kLeafBatch) intersectLeaves();
        return true;
    });
    intersectLeaves();
    return _clusterHits(hits, tol);
}

int KTriMeshDistTree::_clusterHits(std::vector<float>& hits, double tol) {
    if (hits.size() < 2) return static_cast<int>(hits.size());
    std::sort(hits.begin(), hits.end());
    // One crossing per cluster of hits closer than the tolerance (a shared edge or vertex).
    size_t kept = 0;
    for (size_t i = 0; i < hits.size(); ++i)
        if (kept == 0 || hits[i] - hits[kept - 1] > tol) hits[kept++] = hits[i];
    hits.resize(kept);
    return static_cast<int>(kept);
}

}  // namespace Kavrin

namespace Kavrin {

int KTriMeshDistTree::leavesNear(const KVector& source, const KVector& direction, float maxDistance, float tolerance,
                                 float radius, LeafRun* leaves, int capacity) const {
    // What allIntersections answers with nothing whatever the source.
    if (_nodes.empty() || !Finite(direction) || !(maxDistance >= 0.0f)) return 0;
    if (!Finite(source) || !(radius >= 0.0f) || !std::isfinite(radius)) return -1;
    const double len = std::sqrt(double(direction.x) * direction.x + double(direction.y) * direction.y +
                                 double(direction.z) * direction.z);
    if (!(len > 0.0)) return 0;
    // The direction and its inverses exactly as allIntersections computes them.
    const double d[3] = {direction.x / len, direction.y / len, direction.z / len};
    const double tol = tolerance > 0.0f ? tolerance : 0.0;
    const double tMax = static_cast<double>(maxDistance) + tol;
    RaySlabs slabs;
    double scale = std::max(1.0, static_cast<double>(_extent));  // at least the scale of any source in reach
    for (int a = 0; a < 3; ++a) {
        slabs.origin[a] = source[a];
        const double id = d[a] == 0.0 ? 1e30 : std::max(-1e30, std::min(1e30, 1.0 / d[a]));
        slabs.inv[a] = static_cast<float>(id);
        scale = std::max(scale, std::fabs(static_cast<double>(source[a])) + radius);
    }
    // Far from the origin or along long rays the slab products could overflow; no claim there.
    if (scale + tMax > 1e6) return -1;
    // A box that the test of a source s within radius passes, widened by s's margin, is met by the
    // segment from s once widened further by the test's rounding (below err: the two subtractions
    // and the product of every slab bound, and the relative slack, are far below it); the same
    // segment from source then meets it widened by radius more. So a box that fails the test from
    // source with a margin wider by 2 radius + 2 err fails the test from every such s, and a ray
    // from s reaches no leaf this test cannot reach.
    const double err = 1e-5 * (scale + tMax + 1.0);
    slabs.margin = static_cast<float>(tol + 1e-6 * scale + 2.0 * radius + 2.0 * err);
    slabs.tStart = -slabs.margin;
    slabs.tEnd = static_cast<float>(tMax) + slabs.margin;
    slabs.prepare();

    int found = 0;
    const bool all = WalkLeavesMet(_nodes, slabs, [&](int first, int count) {
        // A leaf in reach: its triangles could be met.
        if (found == capacity) return false;
        leaves[found].first = first;
        leaves[found].count = count;
        ++found;
        return true;
    });
    if (!all) return -1;
    return found;
}

}  // namespace Kavrin
