#include "KRelaxationCollisions.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "KThreads.h"

namespace Kavrin {

const float KRelaxationCollisions::kTolerance = 1e-6f;

void KBox::expand(double x, double y, double z) {
    const double p[3] = {x, y, z};
    for (int a = 0; a < 3; ++a) {
        if (empty || p[a] < lo[a]) lo[a] = p[a];
        if (empty || p[a] > hi[a]) hi[a] = p[a];
    }
    empty = false;
}

bool KBox::intersects(const KBox& o) const {
    if (empty || o.empty) return false;
    for (int a = 0; a < 3; ++a)
        if (lo[a] > o.hi[a] || o.lo[a] > hi[a]) return false;
    return true;
}

void KRelaxationCollisions::prepare(const KDouble3* worldPoints, int count, const KRelaxationCollider* colliders,
                                    int numColliders) {
    // Guard (behaviour note "Relaxation: a collider removed between evaluations"): trees of
    // colliders past numColliders are kept for a collider that comes back; only the first
    // numColliders take part, and the per-vertex tables have exactly that many columns.
    if (static_cast<int>(_colliders.size()) < numColliders) _colliders.resize(static_cast<size_t>(numColliders));
    for (Collider& c : _colliders) c.active = false;
    _numColliders = numColliders > 0 ? numColliders : 0;
    KBox meshBox;
    for (int i = 0; i < count; ++i) meshBox.expand(worldPoints[i][0], worldPoints[i][1], worldPoints[i][2]);

    for (int c = 0; c < numColliders; ++c) {
        const KRelaxationCollider& in = colliders[c];
        Collider& out = _colliders[static_cast<size_t>(c)];
        if (!in.connected || !in.mesh) continue;
        // Decision (behaviour note "Relaxation: collider box in world space"): the box of the
        // collider's world-space points, which meets the box of the world-space input points.
        // Guard (behaviour note "Relaxation: non-finite collider points"): left out of the box.
        KBox box;
        for (const KVector& p : in.mesh->points)
            if (std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z)) box.expand(p.x, p.y, p.z);
        if (!box.intersects(meshBox)) continue;
        const double w = box.width() + meshBox.width(), h = box.height() + meshBox.height(),
                     d = box.depth() + meshBox.depth();
        out.reach = static_cast<float>(std::sqrt(w * w + h * h + d * d));
        // Most vertices move by less than this between passes; a wider radius lists more leaves.
        out.certRadius = 2.5e-4f * out.reach;
        // Decision (behaviour note "Relaxation: own ray cast and tree"). A collider that only moved
        // since the last evaluation has its tree refitted (same answers).
        out.tree.update(*in.mesh);
        out.active = !out.tree.empty();
    }
    _count = count;
    const size_t cells = static_cast<size_t>(count) * static_cast<size_t>(_numColliders);
    _lastTriangle.assign(cells, -1);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    RayMemo fresh;
    fresh.cast = fresh.anchor = KVector(nan, nan, nan);
    _rayMemos.assign(cells, fresh);
}

namespace {

inline bool SameBits(const KVector& a, const KVector& b) { return std::memcmp(&a, &b, sizeof(KVector)) == 0; }

// Whether every coordinate of a lies within r of b's (false when b is NaN).
inline bool Within(const KVector& a, const KVector& b, float r) {
    return std::fabs(a.x - b.x) <= r && std::fabs(a.y - b.y) <= r && std::fabs(a.z - b.z) <= r;
}

}  // namespace

int KRelaxationCollisions::activeColliders() const {
    int n = 0;
    for (int c = 0; c < _numColliders; ++c) n += _colliders[static_cast<size_t>(c)].active ? 1 : 0;
    return n;
}

void KRelaxationCollisions::collide(KDouble3* points, int count, const float* weights, const double* multipliers,
                                    const KVector* normals, int threads) {
    if (!multipliers || !normals) return;
    // The multiplier table and the per-vertex tables have one column per collider in use.
    const int numColliders = _numColliders;
    if (count > _count) return;
    const int team = TeamFor(threads, count, 512);
    for (int c = 0; c < numColliders; ++c) {
        const Collider& collider = _colliders[static_cast<size_t>(c)];
        if (!collider.active) continue;
        const float reach = collider.reach;
        int* last = _lastTriangle.data() + static_cast<size_t>(c) * static_cast<size_t>(_count);
        RayMemo* memos = _rayMemos.data() + static_cast<size_t>(c) * static_cast<size_t>(_count);
        // Decision (behaviour note "Relaxation: parallel collision pass").
#pragma omp parallel num_threads(team)
        {
            // The thread's last triangle is the hint of a vertex that has none of its own yet.
            int previous = -1;
            // Each thread's own buffer of crossings, in its own memory: buffers whose bookkeeping
            // shared a cache line would slow every cast down.
            std::vector<float> hits;
            hits.reserve(64);
#pragma omp for schedule(static)
            for (int v = 0; v < count; ++v) {
                // A vertex of weight exactly 0.001 is collided, although the relax pass skips it.
                if (weights && weights[v] < 0.001f) continue;
                const double m = multipliers[static_cast<size_t>(v) * numColliders + c];
                if (m == 0.0) continue;
                KDouble3& point = points[v];
                // Decision (behaviour note "Relaxation: collision queries in single precision").
                const KVector source(static_cast<float>(point[0]), static_cast<float>(point[1]),
                                     static_cast<float>(point[2]));
                const KVector direction = normals[v] * reach;
                // The inside test, spared when its answer is known (the same source as the last
                // cast), and cast against the certified leaves alone while the source stays near the
                // certificate's anchor.
                RayMemo& memo = memos[v];
                bool odd;
                if (SameBits(source, memo.cast)) {
                    odd = memo.odd;
                } else {
                    // A certificate is made once per vertex, and again when one has run out; its
                    // leaves then also give this cast.
                    const bool near = Within(source, memo.anchor, collider.certRadius);
                    if (!near && !memo.tried) {
                        const int n = collider.tree.leavesNear(source, direction, reach, kTolerance,
                                                               collider.certRadius, memo.leaves, kMemoLeaves);
                        memo.tried = n < 0;
                        memo.numLeaves = std::max(n, 0);
                        memo.anchor = source;
                        if (n < 0) memo.anchor.x = std::numeric_limits<float>::quiet_NaN();
                    }
                    int crossings;
                    if (near || !memo.tried)
                        crossings = memo.numLeaves == 0 ? 0
                                                        : collider.tree.intersectionsInLeaves(source, direction, reach,
                                                                                              kTolerance, memo.leaves,
                                                                                              memo.numLeaves, hits);
                    else
                        crossings = collider.tree.allIntersections(source, direction, reach, kTolerance, hits);
                    odd = crossings % 2 == 1;
                    memo.cast = source;
                    memo.odd = odd;
                }
                if (!odd) continue;

                // The closest point on the whole surface (no distance limit). The hint, the triangle
                // found last for this vertex or else for the vertex before, only spares the search
                // the triangles that cannot be nearer.
                KVector closest;
                int triangle;
                if (!collider.tree.getClosestPoint(source, closest, triangle, std::numeric_limits<float>::infinity(),
                                                   last[v] >= 0 ? last[v] : previous))
                    continue;
                last[v] = triangle;
                previous = triangle;
                double q[3] = {closest.x, closest.y, closest.z};
                if (m != 1.0) {
                    double e[3] = {q[0] - point[0], q[1] - point[1], q[2] - point[2]};
                    const double len = std::sqrt(e[0] * e[0] + e[1] * e[1] + e[2] * e[2]);
                    const double step = static_cast<double>(static_cast<float>(len)) * m;
                    for (int a = 0; a < 3; ++a) q[a] = point[a] + (len > 0.0 ? e[a] / len : 0.0) * step;
                }
                point = KDouble3{q[0], q[1], q[2]};
            }
        }
    }
}

}  // namespace Kavrin
