// All crossings of a ray with the mesh held by a KTriMeshDistTree, through the same hierarchy.
#include <algorithm>
#include <cmath>
#include <limits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "KTriMeshDistTree.h"

namespace Kavrin {

namespace {

// Deepest traversal: each inner node replaces its entry by at most four (see the closest-point
// search, which bounds its levels the same way).
const int kRayStackSize = 3 * 20 + 8;

inline bool Finite(const KVector& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

}  // namespace

int KTriMeshDistTree::allIntersections(const KVector& source, const KVector& direction, float maxDistance,
                                       float tolerance, std::vector<float>& hits) const {
    hits.clear();
    if (_nodes.empty() || !Finite(source) || !Finite(direction) || !(maxDistance >= 0.0f)) return 0;
    const double len = std::sqrt(double(direction.x) * direction.x + double(direction.y) * direction.y +
                                 double(direction.z) * direction.z);
    if (!(len > 0.0)) return 0;
    const double o[3] = {source.x, source.y, source.z};
    const double d[3] = {direction.x / len, direction.y / len, direction.z / len};
    const double tol = tolerance > 0.0f ? tolerance : 0.0;
    const double tMax = static_cast<double>(maxDistance) + tol;

    // The four child boxes of a node are tested together in single precision. The test is only a
    // filter, so it is kept conservative: boxes are widened by the tolerance plus a margin above
    // float rounding at the scene's scale, and the slab interval by a relative slack. An axis the
    // ray runs parallel to gets a huge finite inverse, which rejects exactly the slabs the source
    // lies outside of.
    float origin[3], inv[3];
    double scale = std::max(1.0, static_cast<double>(_extent));
    for (int a = 0; a < 3; ++a) {
        origin[a] = source[a];
        const double id = d[a] == 0.0 ? 1e30 : std::max(-1e30, std::min(1e30, 1.0 / d[a]));
        inv[a] = static_cast<float>(id);
        scale = std::max(scale, std::fabs(o[a]));
    }
    const float margin = static_cast<float>(tol + 1e-6 * scale);
    const float tStart = -margin, tEnd = static_cast<float>(tMax) + margin;
#if defined(__SSE2__)
    const __m128 vMargin = _mm_set1_ps(margin), vSlack = _mm_set1_ps(1e-6f);
    const __m128 vSign = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    __m128 vOrigin[3], vInv[3];
    for (int a = 0; a < 3; ++a) {
        vOrigin[a] = _mm_set1_ps(origin[a]);
        vInv[a] = _mm_set1_ps(inv[a]);
    }
    auto boxHits = [&](const Node& node) {
        __m128 t0 = _mm_set1_ps(tStart), t1 = _mm_set1_ps(tEnd);
        for (int a = 0; a < 3; ++a) {
            const __m128 lo = _mm_sub_ps(_mm_sub_ps(_mm_loadu_ps(node.lo[a]), vMargin), vOrigin[a]);
            const __m128 hi = _mm_sub_ps(_mm_add_ps(_mm_loadu_ps(node.hi[a]), vMargin), vOrigin[a]);
            const __m128 ta = _mm_mul_ps(lo, vInv[a]), tb = _mm_mul_ps(hi, vInv[a]);
            t0 = _mm_max_ps(t0, _mm_min_ps(ta, tb));
            t1 = _mm_min_ps(t1, _mm_max_ps(ta, tb));
        }
        const __m128 slack = _mm_mul_ps(vSlack, _mm_add_ps(_mm_and_ps(t0, vSign), _mm_and_ps(t1, vSign)));
        const __m128i valid = _mm_cmpgt_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(node.count)),
                                              _mm_set1_epi32(-1));
        return _mm_movemask_ps(_mm_and_ps(_mm_cmple_ps(t0, _mm_add_ps(t1, slack)), _mm_castsi128_ps(valid)));
    };
#else
    auto boxHits = [&](const Node& node) {
        float t0[4], t1[4];
        for (int c = 0; c < 4; ++c) {
            t0[c] = tStart;
            t1[c] = tEnd;
        }
        for (int a = 0; a < 3; ++a)
            for (int c = 0; c < 4; ++c) {
                const float ta = (node.lo[a][c] - margin - origin[a]) * inv[a];
                const float tb = (node.hi[a][c] + margin - origin[a]) * inv[a];
                t0[c] = std::max(t0[c], std::min(ta, tb));
                t1[c] = std::min(t1[c], std::max(ta, tb));
            }
        int mask = 0;
        for (int c = 0; c < 4; ++c)
            if (node.count[c] >= 0 && t0[c] <= t1[c] + 1e-6f * (std::fabs(t0[c]) + std::fabs(t1[c]))) mask |= 1 << c;
        return mask;
    };
#endif

    int stack[kRayStackSize];
    int top = 0;
    stack[top++] = 0;
    while (top > 0) {
        const Node& node = _nodes[stack[--top]];
        // The children whose box the ray meets, lowest first.
        for (int mask = boxHits(node); mask != 0; mask &= mask - 1) {
            const int c = mask & 1 ? 0 : (mask & 2 ? 1 : (mask & 4 ? 2 : 3));
            if (node.count[c] == 0) {
                stack[top++] = node.first[c];
                continue;
            }
            for (int s = node.first[c], last = node.first[c] + node.count[c]; s < last; ++s) {
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
        }
    }
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
