#pragma once
// A polygon mesh as it comes from a file or a host: points plus faces of any size, kept in
// their original order and winding, and the per-vertex neighbours along polygon edges.

#include "KTriMesh.h"

namespace Kavrin {

// Variable-length per-vertex lists in compressed form: the neighbours of vertex v are
// indices[offsets[v] .. offsets[v + 1]).
class KVertexNeighbours {
public:
    KIntArray offsets;
    KIntArray indices;

    int numVertices() const { return offsets.length() > 0 ? offsets.length() - 1 : 0; }
    int count(int v) const { return offsets[v + 1] - offsets[v]; }
    const int* begin(int v) const { return indices.data() + offsets[v]; }
    const int* end(int v) const { return indices.data() + offsets[v + 1]; }

    // Builds the compressed form from one list per vertex.
    void assign(const std::vector<std::vector<int> >& lists);
    // True when the table covers n vertices and every neighbour index lies in [0, n).
    bool validFor(int n) const;
};

class KPolyMesh {
public:
    KVectorArray points;
    KIntArray faceCounts;    // vertices per face
    KIntArray faceVertices;  // the faces' vertex indices, face after face

    int numVertices() const { return points.length(); }
    int numFaces() const { return faceCounts.length(); }

    // True when the face arrays agree with each other, every face has at least three
    // vertices and every index refers to an existing point.
    bool valid() const;

    // Splits every face into a fan of triangles around its first vertex, keeping the winding.
    void triangulate(KTriMesh& mesh) const;
    // The same triangles alone.
    void fanTriangles(KInt3Array& triangles) const;

    // For every vertex, the vertices joined to it by a polygon edge (quad diagonals are not
    // edges), each once, in the order the faces first reach them.
    void edgeNeighbours(KVertexNeighbours& neighbours) const;
};

}  // namespace Kavrin
