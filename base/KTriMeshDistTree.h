#pragma once
// Exact closest point on a triangle mesh, through a bounding-volume hierarchy over its triangles.
// The tree keeps its own copy of the geometry, so the mesh may change after set(). Queries are
// const and use only their own stack, so they may run concurrently.
//
// The hierarchy is four wide: every inner node holds the boxes of up to four children side by
// side. A node's triangles are split twice at the median of their box centres, each time along
// the longest extent of those centres, so each level quarters the triangle count; a child becomes
// a leaf when it holds at most leafSize triangles or lies at maxDepth. Leaves therefore hold at
// most leafSize triangles for meshes of up to leafSize * 4^maxDepth triangles. Building costs
// O(n log n) and reuses the tree's storage; the subtrees of the root's children are built on the
// parallel team, into the same tree whatever the team.
//
// Closest points are exact (computed in double precision from the stored float corners);
// degenerate triangles are handled as the union of their edges. Triangles with a vertex index out
// of range or a non-finite corner are left out of the tree and never returned. Among triangles at
// exactly the same computed distance the lowest triangle index wins, so a query at a vertex
// position returns that vertex on the lowest-indexed triangle using it.

#include <memory>
#include <utility>
#include <vector>

#include "KTriMesh.h"

namespace Kavrin {

class KTriMeshDistTree {
public:
    // leafSize: most triangles kept in a leaf; maxDepth: deepest level the hierarchy splits to
    // (values below 1 fall back to 10 and 32; levels past 20 are never needed).
    KTriMeshDistTree(int leafSize, int maxDepth);
    KTriMeshDistTree(const KTriMesh& mesh, int leafSize, int maxDepth, int threads = 1);

    // threads: team size of the build's parallel loops (0: the OpenMP default).
    void set(const KTriMesh& mesh, int threads = 1);
    // The same tree as set(mesh) gives, for a mesh that may be the last one moved (an animated
    // mesh): when mesh has the vertex count and the triangles of the mesh of the last set() or
    // update(), every triangle was kept then and every corner is finite now, the hierarchy is kept
    // and only its boxes are refitted to the new corners, in a fraction of a build's time. Queries
    // answer exactly as after set(mesh), since closest points and ties do not depend on the
    // hierarchy. Otherwise, or when the refitted boxes have grown to more than twice the surface
    // of a fresh build's (relative to the whole mesh's box), the tree is built anew. Returns true
    // when it refitted.
    bool update(const KTriMesh& mesh, int threads = 1);
    bool empty() const;

    // Closest point of the surface to p within maxDistance (inclusive), and its triangle. Returns
    // false and sets triangle to -1 (leaving closest unchanged) when no triangle lies within
    // maxDistance, when the tree is empty, or when p or maxDistance is NaN, infinite or negative
    // (an infinite maxDistance is allowed).
    //
    // hint: a triangle expected to lie near p (the answer of the previous query at a nearby
    // point, or the last frame's answer at this point), or -1. Its distance bounds the search
    // from the start, so fewer boxes pass; the answer is the same whatever the hint, and a hint
    // that is not a triangle of the tree is ignored.
    bool getClosestPoint(const KVector& p, KVector& closest, int& triangle, float maxDistance, int hint = -1) const;

    // The same search; a weights the triangle's first vertex, b its second and 1 - a - b its third,
    // so that a*P0 + b*P1 + (1 - a - b)*P2 is the closest point. a, b and 1 - a - b lie in [0, 1].
    // On failure triangle is -1 and a, b are left unchanged.
    bool getClosestPoint(const KVector& p, int& triangle, float& a, float& b, float maxDistance, int hint = -1) const;

    // Every crossing of the ray source + t * unit(direction), t from 0 to maxDistance, with the
    // surface: the distances t, nearest first, into hits (replaced); returns their number. A
    // triangle counts when the ray meets it within `tolerance` of its edges (barycentric) and of
    // the ray's ends; crossings less than `tolerance` apart along the ray (a ray through a shared
    // edge or vertex) count once. Nothing is found for a zero, NaN or infinite direction, a
    // non-finite source, a NaN or negative maxDistance or an empty tree. Const and thread-safe;
    // hits is the caller's, so a caller that keeps it allocates only when it grows.
    int allIntersections(const KVector& source, const KVector& direction, float maxDistance, float tolerance,
                         std::vector<float>& hits) const;

    // A leaf of the tree, as its run of slots.
    struct LeafRun {
        int first;
        int count;
    };
    // The leaves (at most capacity of them, into leaves) that the rays of allIntersections(s,
    // direction, maxDistance, tolerance) could meet for any source s within radius of source along
    // each axis (|s.x - source.x| <= radius, and so on). Returns their number, or -1 when there are
    // more than capacity or it cannot show it (a non-finite source or radius, or a scene too large
    // for its rounding bounds). 0 certifies that no such ray crosses the surface, so a caller that
    // moves a source by little between casts can skip the casts while that holds, or cast against
    // the listed leaves alone (intersectionsInLeaves).
    int leavesNear(const KVector& source, const KVector& direction, float maxDistance, float tolerance, float radius,
                   LeafRun* leaves, int capacity) const;
    // allIntersections for a source within the radius of a leavesNear call with the same direction,
    // maxDistance and tolerance, meeting only the leaves it listed: the same crossings, without
    // walking the tree. Runs that are not slots of this tree are skipped.
    int intersectionsInLeaves(const KVector& source, const KVector& direction, float maxDistance, float tolerance,
                              const LeafRun* leaves, int count, std::vector<float>& hits) const;

private:
    // One inner node: the boxes of its up to four children, stored per axis so that the four box
    // distances are computed together.
    struct Node {
        float lo[3][4];
        float hi[3][4];
        int first[4];  // child node index, or the first slot of a leaf
        int count[4];  // 0: inner node; > 0: leaf of that many slots; -1: no child
    };
    // The boxes of four consecutive slots (slots 4b to 4b + 3 in block b), laid out as a node's,
    // so that a leaf's triangles are rejected four at a time.
    struct SlotBoxes {
        float lo[3][4];
        float hi[3][4];
    };
    // For the same four slots, half-spaces that bound each triangle, for a lower bound on its
    // distance sharper than its box: the triangle lies between nLo and nHi along the (slightly
    // shortened) unit normal n, and on the inner side (at most off) of the three edge planes m,
    // unit vectors in the triangle's plane pointing out of its edges. Degenerate triangles get
    // zeros, which bound nothing.
    struct SlotPlanes {
        float n[3][4];
        float nLo[4], nHi[4];
        float m[3][3][4];  // edge, axis, slot
        float off[3][4];
    };
    struct Prim;  // build-time centre of one triangle
    // Leaves plain values uninitialised when an array grows, so that the build's parallel loops,
    // which write every element, are the first to touch the memory (and share its page faults).
    template <class T>
    struct Uninitialised : std::allocator<T> {
        template <class U>
        struct rebind {
            typedef Uninitialised<U> other;
        };
        Uninitialised() = default;
        template <class U>
        Uninitialised(const Uninitialised<U>&) {}
        template <class U>
        void construct(U* p) {
            ::new (static_cast<void*>(p)) U;
        }
        template <class U, class... Args>
        void construct(U* p, Args&&... args) {
            ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
        }
    };
    template <class T>
    using Array = std::vector<T, Uninitialised<T> >;

    // allIntersections, over the given leaves instead of the tree's traversal when leaves is set.
    int _rayHits(const KVector& source, const KVector& direction, float maxDistance, float tolerance,
                 const LeafRun* leaves, int numLeaves, std::vector<float>& hits) const;
    // Sorts the hits and keeps one per cluster closer than tol; returns how many are left.
    static int _clusterHits(std::vector<float>& hits, double tol);
    bool _search(const KVector& p, float maxDistance, int hint, int& triangle, float& u, float& v,
                 KVector& closest) const;
    // Fills _slotBoxes and _slotPlanes from _corners.
    void _fillSlotBoxes(int threads);
    // Splits prims[begin, end) into the ranges of a node's up to four children; returns their number.
    struct Range {
        int begin, end;
    };
    int _split(Prim* prims, int begin, int end, Range (&parts)[4]) const;
    // Builds the node over prims[begin, end) (boxes: six floats per triangle index) at the end of
    // nodes, its subtree after it in depth-first order; returns its index and puts its bounds (lo
    // then hi) into box.
    int _build(std::vector<Node>& nodes, Prim* prims, const float* boxes, int begin, int end, int depth,
               float* box) const;
    // The whole hierarchy over prims[0, count) into _nodes, the root's subtrees on the team.
    void _buildRoot(Prim* prims, const float* boxes, int count, int threads, float* box);
    // Recomputes every node's child boxes from the corners, children before parents; returns
    // _surface().
    double _refitBoxes();
    // The nodes' child boxes' total surface over the root box's surface.
    double _surface() const;

    int _leafSize;
    int _maxDepth;
    std::vector<KVector> _corners;  // three per slot, in leaf order
    Array<int> _order;              // triangle index of each slot, grouped by leaf
    std::vector<Node> _nodes;       // node 0 is the root
    Array<SlotBoxes> _slotBoxes;    // the box of every slot; lanes past the last slot are empty
    Array<SlotPlanes> _slotPlanes;
    Array<int> _slotOf;             // slot of each triangle index, -1 for a triangle left out
    // What update() compares against: the triangles and vertex count of the last build, whether
    // it kept every triangle, and its relative box surface.
    KInt3Array _triangles;
    int _numVertices = -1;
    bool _allKept = false;
    double _builtSurface = 0.0;
    float _extent = 0.0f;           // largest absolute corner coordinate (scale of float rounding)
};

}  // namespace Kavrin
