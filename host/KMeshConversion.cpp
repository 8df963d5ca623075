#include "KMeshConversion.h"

namespace Kavrin {

void FanTriangleCounts(const KIntArray& faceCounts, KIntArray& trianglesPerFace) {
    trianglesPerFace.setLength(faceCounts.length(), false);
    for (int f = 0; f < faceCounts.length(); ++f) trianglesPerFace[f] = faceCounts[f] > 2 ? faceCounts[f] - 2 : 0;
}

bool TriangleCornerUVs(const KIntArray& faceCounts, const KIntArray& faceVertices,
                       const KIntArray& trianglesPerFace, const KInt3Array& triangles, const KIntArray& uvCounts,
                       const KIntArray& uvIds, const KArray<KFloat2>& setUVs, KArray<KFloat2>& uvs) {
    uvs.clear();
    const int numFaces = faceCounts.length();
    if (trianglesPerFace.length() != numFaces || uvCounts.length() != numFaces) return false;
    long long corners = 0, uvCorners = 0, tris = 0;
    for (int f = 0; f < numFaces; ++f) {
        if (faceCounts[f] < 0 || trianglesPerFace[f] < 0 || uvCounts[f] < 0) return false;
        corners += faceCounts[f];
        uvCorners += uvCounts[f];
        tris += trianglesPerFace[f];
    }
    if (corners != faceVertices.length() || uvCorners != uvIds.length() || tris != triangles.length())
        return false;

    uvs.setLength(3 * triangles.length(), true);
    int start = 0, uvStart = 0, t = 0;
    for (int f = 0; f < numFaces; ++f) {
        const int size = faceCounts[f];
        const bool mapped = uvCounts[f] == size;
        for (int k = 0; k < trianglesPerFace[f]; ++k, ++t) {
            if (!mapped) continue;
            for (int c = 0; c < 3; ++c) {
                for (int j = 0; j < size; ++j) {
                    if (faceVertices[start + j] != triangles[t][c]) continue;
                    const int id = uvIds[uvStart + j];
                    if (id >= 0 && id < setUVs.length()) uvs[3 * t + c] = setUVs[id];
                    break;
                }
            }
        }
        start += size;
        uvStart += uvCounts[f];
    }
    return true;
}

}  // namespace Kavrin
