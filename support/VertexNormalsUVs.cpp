#include "VertexNormalsUVs.h"

#include <cmath>

namespace Kavrin {

namespace {

void Normalise(KDouble3& n) {
    const double length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    if (length > 0.0 && std::isfinite(length))
        for (int k = 0; k < 3; ++k) n[k] /= length;
    else
        n = KDouble3();
}

}  // namespace

// Decision (behaviour note "Offset command: averaged normals")
void AveragedVertexNormals(const KPolyMesh& mesh, KArray<KDouble3>& normals) {
    const int nv = mesh.numVertices();
    normals.setLength(nv, true);
    if (!mesh.valid()) return;
    int at = 0;
    for (int count : mesh.faceCounts) {
        const int* face = mesh.faceVertices.data() + at;
        at += count;
        KDouble3 n;
        for (int k = 0; k < count; ++k) {
            const KVector& a = mesh.points[face[k]];
            const KVector& b = mesh.points[face[(k + 1) % count]];
            n[0] += (double(a.y) - b.y) * (double(a.z) + b.z);
            n[1] += (double(a.z) - b.z) * (double(a.x) + b.x);
            n[2] += (double(a.x) - b.x) * (double(a.y) + b.y);
        }
        Normalise(n);
        for (int k = 0; k < count; ++k)
            for (int c = 0; c < 3; ++c) normals[face[k]][c] += n[c];
    }
    for (KDouble3& n : normals) Normalise(n);
}

// Decision (behaviour note "Offset command: the first corner's UV")
KVertexUVs VertexUVs(const KPolyMesh& mesh, const KCornerUVs& corners) {
    KVertexUVs result;
    const int nv = mesh.numVertices();
    result.uvs.setLength(nv, true);
    std::vector<bool> found(static_cast<size_t>(nv > 0 ? nv : 0), false);
    // Guard (behaviour note "Offset command: corner UVs that do not fit")
    const bool cornersFit = corners.corners.length() == mesh.faceVertices.length();
    for (int c = 0; cornersFit && c < mesh.faceVertices.length(); ++c) {
        const int vertex = mesh.faceVertices[c];
        const int uv = corners.corners[c];
        if (vertex < 0 || vertex >= nv || found[vertex] || uv < 0 || uv >= corners.uvs.length()) continue;
        found[vertex] = true;
        result.uvs[vertex] = corners.uvs[uv];
    }
    for (int v = 0; v < nv; ++v) {
        if (found[v]) continue;
        if (result.missing++ == 0) result.firstMissing = v;
    }
    return result;
}

}  // namespace Kavrin
