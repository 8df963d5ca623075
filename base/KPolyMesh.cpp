#include "KPolyMesh.h"

#include <algorithm>
#include <cstring>

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
    std::vector<std::vector<int> > lists(static_cast<size_t>(numVertices()));
    auto link = [&lists](int a, int b) {
        std::vector<int>& l = lists[a];
        if (std::find(l.begin(), l.end(), b) == l.end()) l.push_back(b);
    };
    int start = 0;
    for (int c : faceCounts) {
        for (int k = 0; k < c; ++k) {
            const int a = faceVertices[start + k];
            const int b = faceVertices[start + (k + 1) % c];
            if (a == b) continue;
            link(a, b);
            link(b, a);
        }
        start += c;
    }
    neighbours.assign(lists);
}

namespace {

bool SameInts(const KIntArray& a, const KIntArray& b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(int)) == 0);
}

}  // namespace

bool KPolyTopology::update(const KPolyMesh& mesh) {
    if (_valid && mesh.numVertices() == _numVertices && SameInts(mesh.faceCounts, _faceCounts) &&
        SameInts(mesh.faceVertices, _faceVertices))
        return true;
    _numVertices = mesh.numVertices();
    _faceCounts = mesh.faceCounts;
    _faceVertices = mesh.faceVertices;
    _valid = mesh.valid();
    if (!_valid) {
        _triangles.clear();
        _neighbours = KVertexNeighbours();
        return false;
    }
    mesh.fanTriangles(_triangles);
    mesh.edgeNeighbours(_neighbours);
    return true;
}

}  // namespace Kavrin
