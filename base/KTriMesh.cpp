#include "KTriMesh.h"

namespace Kavrin {

bool KTriMesh::indicesValid() const {
    const int n = numVertices();
    for (const KInt3& t : triangles)
        for (int k = 0; k < 3; ++k)
            if (t[k] < 0 || t[k] >= n) return false;
    return true;
}

void KTriMesh::getVertexNormals(KVectorArray& normals, bool normalize) const {
    normals.setLength(numVertices(), true);
    for (const KInt3& t : triangles) {
        const KVector& p0 = points[t[0]];
        const KVector n = (points[t[1]] - p0).cross(points[t[2]] - p0);
        normals[t[0]] += n;
        normals[t[1]] += n;
        normals[t[2]] += n;
    }
    if (normalize)
        for (KVector& n : normals) n.normalize();
}

void KTriMesh::getTriangleCenters(KVectorArray& centers, bool /*mean*/) const {
    centers.setLength(numTriangles(), false);
    const int n = numTriangles();
    for (int i = 0; i < n; ++i) {
        const KInt3& t = triangles[i];
        centers[i] = (points[t[0]] + points[t[1]] + points[t[2]]) / 3.0f;
    }
}

}  // namespace Kavrin
