#pragma once
// Wavefront OBJ reading and writing that keeps vertex order, face order and winding exactly,
// because markers and maps refer to vertex indices.

#include <string>

#include "FileError.h"
#include "KPolyMesh.h"

namespace Kavrin {

// Texture coordinates of a mesh's face corners, as an OBJ file gives them.
struct KCornerUVs {
    KArray<KFloat2> uvs;  // the "vt" entries, in file order (u, v)
    KIntArray corners;    // one entry per face corner, parallel to KPolyMesh::faceVertices: an
                          // index into uvs, or -1 where the corner has no texture coordinate
};

// Reads the vertices ("v") and polygon faces ("f") of an OBJ file, in file order, with indices
// turned from one-based (or negative, relative) to zero-based, and with uvs given, the texture
// coordinates of every face corner. Normals are ignored. Throws KFileError when the file cannot
// be opened, holds no vertices, or has a face with fewer than three vertices or an index outside
// the vertex or texture-coordinate list.
KPolyMesh ReadObj(const std::string& path, KCornerUVs* uvs = nullptr);

// Writes the points and the original faces (one-based indices). Throws KFileError when the
// file cannot be written.
void WriteObj(const std::string& path, const KPolyMesh& mesh);

}  // namespace Kavrin
