#include "KTriMeshConnectionInfo.h"

#include <algorithm>

namespace Kavrin {

void BuildVertexTriangles(int nv, const KInt3Array& triangles, KIntArray& offsets, KIntArray& indices) {
    const int nt = triangles.length();
    offsets.setLength(nv + 1, true);
    for (const KInt3& t : triangles)
        for (int k = 0; k < 3; ++k) ++offsets[t[k] + 1];
    for (int v = 0; v < nv; ++v) offsets[v + 1] += offsets[v];
    indices.setLength(offsets[nv], false);
    KIntArray fill(offsets);
    for (int t = 0; t < nt; ++t)
        for (int k = 0; k < 3; ++k) indices[fill[triangles[t][k]]++] = t;
}

KTriMeshConnectionInfo::KTriMeshConnectionInfo(const KTriMesh& mesh) : _triangles(mesh.triangles) {
    BuildVertexTriangles(mesh.numVertices(), _triangles, v2tOffsets, v2tIndices);
}

void ConnectedParts(int numVertices, const KInt3Array& triangles, KIntArray& root) {
    root.setLength(numVertices, false);
    for (int v = 0; v < numVertices; ++v) root[v] = v;
    // Union by the smaller root, so that every root is its part's lowest vertex.
    const auto find = [&root](int v) {
        while (root[v] != v) v = root[v] = root[root[v]];
        return v;
    };
    for (const KInt3& t : triangles)
        for (int k = 1; k < 3; ++k) {
            const int a = find(t[0]), b = find(t[k]);
            if (a != b) root[std::max(a, b)] = std::min(a, b);
        }
    for (int v = 0; v < numVertices; ++v) root[v] = find(v);
}

void KTriMeshConnectionInfo::calculate_t2t() {
    const int nt = _triangles.length();
    t2t.setLengthWithValue(nt, KInt3{-1, -1, -1});
    for (int t = 0; t < nt; ++t) {
        const KInt3& tri = _triangles[t];
        for (int s = 0; s < 3; ++s) {
            const int a = tri[s];
            const int b = tri[(s + 1) % 3];
            for (int j = v2tOffsets[a]; j < v2tOffsets[a + 1]; ++j) {
                const int u = v2tIndices[j];
                if (u == t) continue;
                const KInt3& other = _triangles[u];
                if (other[0] == b || other[1] == b || other[2] == b) {
                    t2t[t][s] = u;
                    break;
                }
            }
        }
    }
}

}  // namespace Kavrin
