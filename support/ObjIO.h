#pragma once
// Wavefront OBJ reading and writing that keeps vertex order, face order and winding exactly,
// because markers and maps refer to vertex indices.
//
// The reader is strict: it accepts what WriteObj writes and the harmless extras real exporters
// add, and refuses everything else with one line naming the file, the line and what is wrong.
// Read: "v x y z" (an optional w, a curve weight, or an r g b vertex colour may follow and is
// ignored), "vt u v [w]", "vn x y z", "f" with three or more corners in one of the forms v,
// v/vt, v/vt/vn, v//vn (the same form on every corner of a face), one-based indices or negative
// ones counting back from the last entry read so far. Ignored: comments (from '#' to the end of
// the line), blank lines, and the grouping, material and display statements (o, g, s, usemtl,
// mtllib, usemap, maplib, mg, lod, bevel, c_interp, d_interp, shadow_obj, trace_obj, ctech,
// stech). Refused: anything that is not exactly a number where a number belongs (nan, inf,
// decimal commas, values beyond the range of a float), missing or extra values, faces with fewer
// than three corners or one vertex twice, indices that are 0 or lie outside the entries read so
// far, points and lines ("p", "l"), free-form geometry, and unknown statements.

#include <functional>
#include <string>
#include <string_view>

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
// coordinates of every face corner. Normals are checked and otherwise ignored. Throws KFileError
// when the file cannot be read, holds no vertices, or breaks any rule above.
KPolyMesh ReadObj(const std::string& path, KCornerUVs* uvs = nullptr);

// The same on text already in memory; name stands for the file in messages.
KPolyMesh ParseObj(std::string_view text, const std::string& name, KCornerUVs* uvs = nullptr);

// The same with the strict line-by-line parser alone. ReadObj and ParseObj read the common form of
// OBJ files on all cores (ObjCommonReader.h) and hand everything else to this parser, which
// reads the same mesh from what both accept.
KPolyMesh ParseObjStrict(std::string_view text, const std::string& name, KCornerUVs* uvs = nullptr);

// Writes the points (the shortest decimal text that reads back as the same float), with uvs given
// the texture coordinates ("vt", and "f v/vt" on the faces that have them), and the original
// faces (one-based indices). Throws KFileError, writing nothing, when a point or coordinate is not
// finite, the faces do not fit the vertices or the coordinates do not fit the faces (ReadObj
// would refuse the file), and when the file cannot be written.
void WriteObj(const std::string& path, const KPolyMesh& mesh, const KCornerUVs* uvs = nullptr);

// The text WriteObj writes. Throws KFileError (without a file name) as WriteObj does.
std::string FormatObj(const KPolyMesh& mesh, const KCornerUVs* uvs = nullptr);

// The same text handed to write piece after piece (about a megabyte each, formatted on all cores)
// instead of held whole; the checks come first, so a refused mesh throws before the first piece.
// Stops when write returns false, and returns false then.
bool FormatObjPieces(const KPolyMesh& mesh, const KCornerUVs* uvs, const std::function<bool(std::string_view)>& write);

}  // namespace Kavrin
