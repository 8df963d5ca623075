// All crossings of a ray with the mesh held by a KTriMeshDistTree, through the same hierarchy.
#include <algorithm>
#include <cmath>
#include <limits>

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

    // Slab test of a box widened by the tolerance, in double; returns whether [0, tMax] meets it.
    auto boxHit = [&](float lo0, float lo1, float lo2, float hi0, float hi1, float hi2) {
        const double lo[3] = {lo0 - tol, lo1 - tol, lo2 - tol}, hi[3] = {hi0 + tol, hi1 + tol, hi2 + tol};
        double t0 = -tol, t1 = tMax;
        for (int a = 0; a < 3; ++a) {
            if (d[a] == 0.0) {
                if (o[a] < lo[a] || o[a] > hi[a]) return false;
                continue;
            }
            double ta = (lo[a] - o[a]) / d[a], tb = (hi[a] - o[a]) / d[a];
            if (ta > tb) std::swap(ta, tb);
            t0 = std::max(t0, ta);
            t1 = std::min(t1, tb);
            if (t0 > t1) return false;
        }
        return true;
    };

    int stack[kRayStackSize];
    int top = 0;
    stack[top++] = 0;
    while (top > 0) {
        const Node& node = _nodes[stack[--top]];
        for (int c = 0; c < 4; ++c) {
            if (node.count[c] < 0) continue;
            if (!boxHit(node.lo[0][c], node.lo[1][c], node.lo[2][c], node.hi[0][c], node.hi[1][c], node.hi[2][c]))
                continue;
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
                const double inv = 1.0 / det;
                const double tv[3] = {o[0] - p0[0], o[1] - p0[1], o[2] - p0[2]};
                const double u = (tv[0] * pv[0] + tv[1] * pv[1] + tv[2] * pv[2]) * inv;
                if (u < -tol || u > 1.0 + tol) continue;
                const double qv[3] = {tv[1] * e1[2] - tv[2] * e1[1], tv[2] * e1[0] - tv[0] * e1[2],
                                      tv[0] * e1[1] - tv[1] * e1[0]};
                const double v = (d[0] * qv[0] + d[1] * qv[1] + d[2] * qv[2]) * inv;
                if (v < -tol || u + v > 1.0 + tol) continue;
                const double t = (e2[0] * qv[0] + e2[1] * qv[1] + e2[2] * qv[2]) * inv;
                if (t < -tol || t > tMax) continue;
                hits.push_back(static_cast<float>(std::max(0.0, std::min(t, static_cast<double>(maxDistance)))));
            }
        }
    }
    std::sort(hits.begin(), hits.end());
    // One crossing per cluster of hits closer than the tolerance (a shared edge or vertex).
    size_t kept = 0;
    for (size_t i = 0; i < hits.size(); ++i)
        if (kept == 0 || hits[i] - hits[kept - 1] > tol) hits[kept++] = hits[i];
    hits.resize(kept);
    return static_cast<int>(kept);
}

}  // namespace Kavrin
