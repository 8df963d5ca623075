#pragma once
// Wavefront OBJ reading and writing that keeps vertex order, face order and winding exactly,
// because markers and maps refer to vertex indices.

#include <string>

#include "FileError.h"
#include "KPolyMesh.h"

namespace Kavrin {

// Reads the vertices ("v") and polygon faces ("f") of an OBJ file, in file order, with indices
// turned from one-based (or negative, relative) to zero-based. Normals and texture coordinates
// are ignored. Throws KFileError when the file cannot be opened, holds no vertices, or has a face
// with fewer than three vertices or an index outside the vertex list.
KPolyMesh ReadObj(const std::string& path);

// Writes the points and the original faces (one-based indices). Throws KFileError when the
// file cannot be written.
void WriteObj(const std::string& path, const KPolyMesh& mesh);

}  // namespace Kavrin
