#pragma once
// Host-independent steps of turning a host polygon mesh into a KTriMesh: per-face triangle
// counts of the fan split, and texture coordinates per triangle corner.

#include "KTriMesh.h"

namespace Kavrin {

// How many triangles KPolyMesh::triangulate makes of each face (size - 2, none for a face of
// fewer than three corners).
void FanTriangleCounts(const KIntArray& faceCounts, KIntArray& trianglesPerFace);

// Texture coordinates per triangle corner: uvs[3 t + c] for corner c of triangle t.
// The triangles come face after face, trianglesPerFace[f] of them for face f, and use the
// vertices of their face (faceCounts, faceVertices). uvCounts / uvIds are the UV set's
// assignment in the same face-vertex layout: a face with uvCounts[f] equal to its size has one
// UV id per corner, any other face has none. Each triangle corner takes the UV of the first
// corner of its face holding the same vertex; corners of faces without UVs, or whose vertex or UV
// id does not fit, get (0, 0). Returns false and leaves uvs empty when the arrays do not
// describe the same faces (then nothing past their ends has been read).
bool TriangleCornerUVs(const KIntArray& faceCounts, const KIntArray& faceVertices,
                       const KIntArray& trianglesPerFace, const KInt3Array& triangles, const KIntArray& uvCounts,
                       const KIntArray& uvIds, const KArray<KFloat2>& setUVs, KArray<KFloat2>& uvs);

}  // namespace Kavrin
