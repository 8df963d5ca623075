#pragma once
// Meshes generated in code, for the demo, the tests and the benchmarks.

#include "KPolyMesh.h"

namespace Kavrin {

// A square sheet of n x n vertices and (n-1)^2 quads in the XY plane, centred on the origin and
// size wide, with small bumps along Z as surface detail. Vertex (i, j) has index j * n + i.
KPolyMesh MakeDetailedGrid(int n, float size);

// The sheet bent around the Y axis: the part with x > 0 is wrapped onto a cylinder so that its
// far edge turns by angle radians; the part with x <= 0 is left in place. Detail along Z follows
// the bend, as it would on a skinned character.
KPolyMesh BendAroundY(const KPolyMesh& rest, float angle);

}  // namespace Kavrin

namespace Kavrin {

// A closed latitude-longitude sphere of unit radius: two pole vertices and rings x segments
// vertices between them, all triangles.
KPolyMesh MakeUVSphere(int rings, int segments);

// A closed sphere of unit radius from an icosahedron whose triangles are split subdivisions
// times into four, its vertices pushed onto the sphere. Its topology differs from the UV sphere's.
KPolyMesh MakeIcosphere(int subdivisions);

// Scales every point by (sx, sy, sz).
void ScalePoints(KPolyMesh& mesh, float sx, float sy, float sz);

}  // namespace Kavrin

#include <functional>
#include <vector>

namespace Kavrin {

// The mesh as triangles (each face split into a fan around its first vertex).
KTriMesh Triangulated(const KPolyMesh& mesh);

// Moves every point along its own direction from the origin by up to amount times its distance,
// by a smooth pattern of its position (the seed varies it): meshes cut from the same one get the
// same bumps where they agree, and no two faces are alike.
void AddRadialBumps(KPolyMesh& mesh, float amount, int seed);

// An icosphere of the given subdivision levels with radial bumps of amount (none for 0), as
// triangles: a closed, irregular test surface.
KTriMesh TriangulatedIcosphere(int levels, float amount = 0.0f, int seed = 1);

// The faces whose centroid satisfies keep, with the vertices they use renumbered in their old
// order: cuts an opening (a cap, a patch) out of a mesh.
KPolyMesh KeepFaces(const KPolyMesh& mesh, const std::function<bool(const KVector&)>& keep);

// Cuts a slit along path, a run of vertices each joined to the next by an edge: every inner
// vertex of the path is split in two, and the faces around it whose centroid satisfies side take
// the new copy (appended after the existing vertices). The ends stay whole, so the slit is a
// border of path.size() - 1 edges on each lip.
KPolyMesh CutSlit(const KPolyMesh& mesh, const std::vector<int>& path,
                  const std::function<bool(const KVector&)>& side);

}  // namespace Kavrin

namespace Kavrin {

// Every face split into triangles (a fan), and every triangle into four at its edge midpoints:
// four times the faces, about four times the vertices, the same surface. The original vertices
// keep their indices; the midpoints follow.
KPolyMesh SplitIntoFour(const KPolyMesh& mesh);

// The same mesh with its vertices numbered in a random order (std::shuffle driven by
// std::mt19937(seed)), so that index ranges are scattered over the surface.
KPolyMesh ShuffledVertices(const KPolyMesh& mesh, unsigned seed);

}  // namespace Kavrin
