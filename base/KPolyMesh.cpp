#include "KPolyMesh.h"

#include <algorithm>

namespace Kavrin {

void KVertexNeighbours::assign(const std::vector<std::vector<int> >& lists) {
    const int n = static_cast<int>(lists.size());
    offsets.setLength(n + 1, true);
    for (int v = 0; v < n; ++v) offsets[v + 1] = offsets[v] + static_cast<int>(lists[v].size());
    indices.setLength(offsets[n], false);
    for (int v = 0; v < n; ++v) std::copy(lists[v].begin(), lists[v].end(), indices.begin() + offsets[v]);
}

bool KVertexNeighbours::validFor(int n) const {
    if (numVertices() != n) return false;
    if (offsets.length() > 0 && (offsets[0] != 0 || offsets[n] != indices.length())) return false;
    for (int v = 0; v < n; ++v)
        if (offsets[v + 1] < offsets[v]) return false;
    for (int i : indices)
        if (i < 0 || i >= n) return false;
    return true;
}

bool KPolyMesh::valid() const {
    long long total = 0;
    for (int c : faceCounts) {
        if (c < 3) return false;
        total += c;
    }
    if (total != faceVertices.length()) return false;
    const int n = numVertices();
    for (int v : faceVertices)
        if (v < 0 || v >= n) return false;
    return true;
}

void KPolyMesh::triangulate(KTriMesh& mesh) const {
    mesh.points = points;
    mesh.uvs.clear();
    fanTriangles(mesh.triangles);
}

void KPolyMesh::fanTriangles(KInt3Array& triangles) const {
    triangles.clear();
    long long total = 0;
    for (int c : faceCounts) total += std::max(c - 2, 0);
    triangles.reserve(static_cast<size_t>(total));
    int start = 0;
    for (int c : faceCounts) {
        for (int k = 1; k + 1 < c; ++k)
            triangles.push_back(KInt3{faceVertices[start], faceVertices[start + k], faceVertices[start + k + 1]});
        start += c;
    }
}

void KPolyMesh::edgeNeighbours(KVertexNeighbours& neighbours) const {
    // Every face edge a-b lists b after a's earlier entries and a after b's, repeats included, in
    // flat arrays; then each list keeps the first of each repeat.
    const int nv = numVertices();
    KIntArray& offsets = neighbours.offsets;
    KIntArray& indices = neighbours.indices;
    offsets.setLength(nv + 1, true);
    const int* fv = faceVertices.data();
    int start = 0;
    for (int c : faceCounts) {
        for (int k = 0; k < c; ++k) {
            const int a = fv[start + k], b = fv[start + (k + 1 == c ? 0 : k + 1)];
            if (a == b) continue;
            ++offsets[a + 1];
            ++offsets[b + 1];
        }
        start += c;
    }
    for (int v = 0; v < nv; ++v) offsets[v + 1] += offsets[v];
    indices.setLength(offsets[nv], false);
    std::vector<int> fill(offsets.begin(), offsets.end() - 1);
    start = 0;
    for (int c : faceCounts) {
        for (int k = 0; k < c; ++k) {
            const int a = fv[start + k], b = fv[start + (k + 1 == c ? 0 : k + 1)];
            if (a == b) continue;
            indices[fill[a]++] = b;
            indices[fill[b]++] = a;
        }
        start += c;
    }
    int kept = 0;
    for (int v = 0; v < nv; ++v) {
        const int begin = offsets[v], end = offsets[v + 1];
        offsets[v] = kept;
        for (int i = begin; i < end; ++i) {
            const int u = indices[i];
            bool seen = false;
            for (int j = offsets[v]; j < kept && !seen; ++j) seen = indices[j] == u;
            if (!seen) indices[kept++] = u;
        }
    }
    offsets[nv] = kept;
    indices.resize(static_cast<size_t>(kept));
    indices.shrink_to_fit();
}

}  // namespace Kavrin
