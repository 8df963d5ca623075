#pragma once
// The OBJ reader's fast path: the common form of OBJ files (what WriteObj writes and what
// exporters write: "v", "vt", "vn" and "f" lines with positive indices, comments, blank lines,
// CRLF line ends, the grouping and material statements) read block by block, each block's lines
// parsed on all cores straight into the mesh's arrays, without a string per line or word.
//
// Anything else, and anything the strict reader (ObjIO) refuses, stops it: the caller then reads
// the file with the strict reader, which reads the same mesh from what the fast path accepts and
// names the file, line and reason for what it refuses. The fast path never accepts what the strict
// reader refuses and reads the same mesh from what both accept (the OBJ fuzz target checks both).

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "ObjIO.h"

namespace Kavrin {

// Statements that describe grouping, materials or display and carry nothing the mesh keeps.
bool IsIgnoredObjStatement(std::string_view key);

class KObjCommonReader {
public:
    // with uvs given, the texture coordinates are kept too (as ReadObj keeps them).
    explicit KObjCommonReader(KCornerUVs* uvs) : _uvs(uvs) {}

    // Reads the whole lines of text[0, size): a block of the file, ending at a line end or at the
    // file's end. expectedBytes, when known, is the size of the whole text (the arrays are sized
    // for the rest of it as this block reads). False when the text leaves the common form.
    bool feed(const char* text, size_t size, size_t expectedBytes = 0);
    // The mesh read, once every block is fed; false when it leaves the common form (no vertices).
    bool finish(KPolyMesh& mesh);

    // Reads the whole file at path, blockBytes at a time (16 MB unless given); false when the file
    // cannot be read or leaves the common form.
    static bool ReadFile(const std::string& path, KPolyMesh& mesh, KCornerUVs* uvs, size_t blockBytes = 16 << 20);
    // Reads text already in memory; false when it leaves the common form.
    static bool ReadText(const char* text, size_t size, KPolyMesh& mesh, KCornerUVs* uvs);

    // What one piece of a block read (public for the parser in the .cpp).
    struct Piece {
        std::vector<KVector> points;
        std::vector<KFloat2> texcoords;
        long long normals = 0;
        std::vector<int> faceCounts, faceVertices, cornerUVs;
        // The most an index went past the entries this piece read before it: the entries read
        // before the piece must make up for it.
        long long pastPoints = 0, pastTexcoords = 0, pastNormals = 0;
        bool ok = true;
    };

private:
    KCornerUVs* _uvs;
    KPolyMesh _mesh;
    KArray<KFloat2> _texcoords;
    KIntArray _cornerUVs;
    long long _texcoordCount = 0;
    long long _normals = 0;
    size_t _fed = 0;  // bytes fed so far
    bool _ok = true;
    std::vector<Piece> _pieces;
};

}  // namespace Kavrin
