#pragma once
// Adjacency tables of a triangle mesh.

#include "KTriMesh.h"

namespace Kavrin {

// The triangles around each of numVertices vertices in compressed form: those of vertex v are
// indices[offsets[v] .. offsets[v + 1]), in increasing triangle order. Every triangle index must
// lie in [0, numVertices).
void BuildVertexTriangles(int numVertices, const KInt3Array& triangles, KIntArray& offsets, KIntArray& indices);

// The connected parts of a mesh (vertices joined through triangles): root[v] is the lowest-numbered
// vertex of the part of vertex v; a vertex in no triangle is a part of its own. Every triangle
// index must lie in [0, numVertices).
void ConnectedParts(int numVertices, const KInt3Array& triangles, KIntArray& root);

class KTriMeshConnectionInfo {
public:
    explicit KTriMeshConnectionInfo(const KTriMesh& mesh);

    // Vertex-to-triangle table in compressed form: the triangles around vertex v are
    // v2tIndices[v2tOffsets[v] .. v2tOffsets[v + 1]), in increasing triangle order.
    KIntArray v2tOffsets;
    KIntArray v2tIndices;

    // Per triangle, for its edges (v0 v1), (v1 v2), (v2 v0) in that slot order, the triangle on
    // the other side of the edge, or -1 on the border. Where more than two triangles share an
    // edge, the first other one in triangle order is taken. Empty until calculate_t2t().
    KInt3Array t2t;

    void calculate_t2t();

private:
    KInt3Array _triangles;
};

}  // namespace Kavrin
