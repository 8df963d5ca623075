#include "KVertexNormals.h"

#include <cmath>
#include <vector>

namespace Kavrin {

void FaceMeanVertexNormals(const KPolyMesh& mesh, KVectorArray& normals) {
    const int nv = mesh.numVertices();
    std::vector<double> sums(3 * static_cast<size_t>(nv > 0 ? nv : 0), 0.0);
    const int total = mesh.faceVertices.length();
    long long start = 0;
    for (int size : mesh.faceCounts) {
        const long long first = start;
        start += size > 0 ? size : 0;
        // Guard (behaviour note "Face-mean normals: faces outside the mesh").
        if (size < 3 || start > total) continue;
        const int* face = mesh.faceVertices.data() + first;
        bool inside = true;
        for (int k = 0; k < size && inside; ++k) inside = face[k] >= 0 && face[k] < nv;
        if (!inside) continue;

        double n[3] = {0.0, 0.0, 0.0};
        for (int k = 0; k < size; ++k) {
            const KVector& a = mesh.points[face[k]];
            const KVector& b = mesh.points[face[(k + 1) % size]];
            n[0] += (static_cast<double>(a.y) - b.y) * (static_cast<double>(a.z) + b.z);
            n[1] += (static_cast<double>(a.z) - b.z) * (static_cast<double>(a.x) + b.x);
            n[2] += (static_cast<double>(a.x) - b.x) * (static_cast<double>(a.y) + b.y);
        }
        const double len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        if (!(len > 0.0)) continue;
        for (int k = 0; k < size; ++k)
            for (int a = 0; a < 3; ++a) sums[3 * static_cast<size_t>(face[k]) + a] += n[a] / len;
    }

    normals.setLength(nv, false);
    for (int v = 0; v < nv; ++v) {
        const double* s = &sums[3 * static_cast<size_t>(v)];
        const double len = std::sqrt(s[0] * s[0] + s[1] * s[1] + s[2] * s[2]);
        normals[v] = len > 0.0 ? KVector(static_cast<float>(s[0] / len), static_cast<float>(s[1] / len),
                                         static_cast<float>(s[2] / len))
                               : KVector();
    }
}

}  // namespace Kavrin
