#pragma once
// The neighbours of every vertex of a polygon mesh in cyclic order around it, the order in which
// a host walks a vertex's ring. The relaxation binding takes its ring normal from this order.

#include "KPolyMesh.h"

namespace Kavrin {

// For every vertex, its polygon-edge neighbours (the same set as KPolyMesh::edgeNeighbours) in
// cyclic order around it, turning clockwise when the faces around it wind counter-clockwise, so
// that the ring normal of KRingNormal.h points to the side the faces face. A border vertex starts
// at its border edge; neighbours that no fan of faces reaches (non-manifold vertices) follow in
// the order the faces first reach them. The faces must be valid for the mesh (KPolyMesh::valid).
// threads: team size of the loops over the vertices (0: the OpenMP default); the rings do not
// depend on it.
void VertexRings(const KPolyMesh& mesh, KVertexNeighbours& rings, int threads = 1);

}  // namespace Kavrin
