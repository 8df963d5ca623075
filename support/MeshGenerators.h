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
