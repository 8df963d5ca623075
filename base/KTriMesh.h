#pragma once
// Triangle mesh: positions, vertex-index triples in winding order, and texture coordinates.

#include "KArray.h"

namespace Kavrin {

class KTriMesh {
public:
    KVectorArray points;
    KInt3Array triangles;
    KArray<KFloat2> uvs;

    int numVertices() const { return points.length(); }
    int numTriangles() const { return triangles.length(); }

    // True when every triangle index refers to an existing point.
    bool indicesValid() const;

    // One normal per vertex: the area-weighted sum of the normals of the triangles around it,
    // normalised when normalize is true. A vertex in no triangle gets (0, 0, 0).
    void getVertexNormals(KVectorArray& normals, bool normalize) const;

    // One point per triangle, the mean of its three corners.
    void getTriangleCenters(KVectorArray& centers, bool mean) const;
};

}  // namespace Kavrin
