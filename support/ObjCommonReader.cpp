#include "ObjCommonReader.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>

#include <string.h>  // memrchr

#include "KThreads.h"
#include "TextFields.h"

namespace Kavrin {

namespace {

// Text below this many bytes is read on one thread.
const size_t kBytesPerThread = 1 << 16;

}  // namespace

// Decision (behaviour note "What the OBJ reader accepts")
bool IsIgnoredObjStatement(std::string_view key) {
    static const char* const kIgnored[] = {"o",   "g",     "s",        "usemtl",   "mtllib",     "usemap",
                                           "maplib", "mg", "lod",      "bevel",    "c_interp",   "d_interp",
                                           "shadow_obj", "trace_obj", "ctech", "stech"};
    for (const char* k : kIgnored)
        if (key == k) return true;
    return false;
}

namespace {

bool Blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }

// The words of one line, one after the other.
struct Words {
    const char* at;
    const char* end;
    // The next word as [begin, end); false at the end of the line.
    bool next(const char*& begin, const char*& stop) {
        while (at < end && Blank(*at)) ++at;
        begin = at;
        while (at < end && !Blank(*at)) ++at;
        stop = at;
        return stop > begin;
    }
};

bool Is(const char* begin, const char* end, const char* word) {
    const size_t n = std::strlen(word);
    return static_cast<size_t>(end - begin) == n && std::memcmp(begin, word, n) == 0;
}

// A number as ParseFloatWord reads it, without the cases it handles apart (a leading '+',
// magnitudes beyond a double): false for those and for whatever it refuses.
bool Number(const char* begin, const char* end, double& value) {
    if (begin == end || *begin == '+') return false;
    const std::from_chars_result r = std::from_chars(begin, end, value, std::chars_format::general);
    return r.ec == std::errc() && r.ptr == end && std::isfinite(value) && WithinFloatRange(value);
}

// A one-based index written as plain digits (no sign).
bool Index(const char* begin, const char* end, long long& value) {
    if (begin == end || *begin < '0' || *begin > '9') return false;
    int parsed = 0;
    const std::from_chars_result r = std::from_chars(begin, end, parsed);
    value = parsed;
    return r.ec == std::errc() && r.ptr == end && parsed > 0;
}

// The numbers after a statement word: between least and most of them, and exactly count of the
// allowed ones.
bool Numbers(Words& words, double* values, int most, int& count) {
    const char* b;
    const char* e;
    count = 0;
    while (words.next(b, e)) {
        if (count == most || !Number(b, e, values[count])) return false;
        ++count;
    }
    return true;
}

bool Repeats(const int* corners, int n, std::vector<int>& sorted) {
    if (n <= 16) {
        for (int i = 1; i < n; ++i)
            for (int j = 0; j < i; ++j)
                if (corners[i] == corners[j]) return true;
        return false;
    }
    sorted.assign(corners, corners + n);
    std::sort(sorted.begin(), sorted.end());
    return std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end();
}

// One face line's corners (after the "f"), appended to the piece.
bool Face(Words& words, bool wantUVs, KObjCommonReader::Piece& out, std::vector<int>& sorted) {
    const long long points = static_cast<long long>(out.points.size());
    const long long texcoords = static_cast<long long>(out.texcoords.size());
    const size_t first = out.faceVertices.size();
    int form = -1;
    int n = 0;
    const char* b;
    const char* e;
    while (words.next(b, e)) {
        // v, v/vt, v/vt/vn or v//vn, the same form on every corner.
        const char* slash = static_cast<const char*>(std::memchr(b, '/', e - b));
        const char* vEnd = slash ? slash : e;
        const char* vtBegin = nullptr;
        const char* vtEnd = nullptr;
        const char* vnBegin = nullptr;
        int cornerForm = 0;
        if (slash) {
            const char* second = static_cast<const char*>(std::memchr(slash + 1, '/', e - slash - 1));
            vtBegin = slash + 1;
            vtEnd = second ? second : e;
            if (second) vnBegin = second + 1;
            cornerForm = !second ? 1 : (vtBegin == vtEnd ? 3 : 2);
            if (cornerForm != 3 && vtBegin == vtEnd) return false;
        }
        if (form < 0) form = cornerForm;
        if (cornerForm != form) return false;
        long long v = 0, vt = 0, vn = 0;
        if (!Index(b, vEnd, v)) return false;
        out.faceVertices.push_back(static_cast<int>(v - 1));
        out.pastPoints = std::max(out.pastPoints, v - points);
        if (cornerForm == 1 || cornerForm == 2) {
            if (!Index(vtBegin, vtEnd, vt)) return false;
            out.pastTexcoords = std::max(out.pastTexcoords, vt - texcoords);
            if (wantUVs) out.cornerUVs.push_back(static_cast<int>(vt - 1));
        }
        if (cornerForm >= 2) {
            if (!Index(vnBegin, e, vn)) return false;
            out.pastNormals = std::max(out.pastNormals, vn - out.normals);
        }
        ++n;
    }
    if (n < 3 || Repeats(out.faceVertices.data() + first, n, sorted)) return false;
    out.faceCounts.push_back(n);
    if (wantUVs && form != 1 && form != 2) out.cornerUVs.insert(out.cornerUVs.end(), static_cast<size_t>(n), -1);
    return true;
}

// The whole lines of [p, end) into out; false when a line leaves the common form.
bool ParsePiece(const char* p, const char* end, bool wantUVs, KObjCommonReader::Piece& out) {
    out.points.clear();
    out.texcoords.clear();
    out.normals = 0;
    out.faceCounts.clear();
    out.faceVertices.clear();
    out.cornerUVs.clear();
    out.pastPoints = out.pastTexcoords = out.pastNormals = 0;
    std::vector<int> sorted;
    double values[7];
    while (p < end) {
        const char* newline = static_cast<const char*>(std::memchr(p, '\n', end - p));
        const char* lineEnd = newline ? newline : end;
        const char* next = newline ? newline + 1 : end;
        // A carriage return ends a line on its own for the strict reader: only one right before
        // the line end is read here.
        if (lineEnd > p && lineEnd[-1] == '\r') --lineEnd;
        if (std::memchr(p, '\r', lineEnd - p)) return false;
        const char* hash = static_cast<const char*>(std::memchr(p, '#', lineEnd - p));
        Words words{p, hash ? hash : lineEnd};
        p = next;
        const char* b;
        const char* e;
        if (!words.next(b, e)) continue;
        int count = 0;
        if (Is(b, e, "v")) {
            if (!Numbers(words, values, 6, count) || (count != 3 && count != 4 && count != 6)) return false;
            out.points.push_back(KVector(ToFloat(values[0]), ToFloat(values[1]), ToFloat(values[2])));
        } else if (Is(b, e, "f")) {
            if (!Face(words, wantUVs, out, sorted)) return false;
        } else if (Is(b, e, "vt")) {
            if (!Numbers(words, values, 3, count) || count < 2) return false;
            out.texcoords.push_back(KFloat2{ToFloat(values[0]), ToFloat(values[1])});
        } else if (Is(b, e, "vn")) {
            if (!Numbers(words, values, 3, count) || count != 3) return false;
            ++out.normals;
        } else if (!IsIgnoredObjStatement(std::string_view(b, static_cast<size_t>(e - b)))) {
            return false;
        }
    }
    return true;
}

template <class Array, class Values>
void Append(Array& to, const Values& from) {
    to.insert(to.end(), from.begin(), from.end());
}

}  // namespace

bool KObjCommonReader::feed(const char* text, size_t size, size_t expectedBytes) {
    if (!_ok) return false;
    const int team = std::max(1, std::min(ResolveThreads(0), static_cast<int>(size / kBytesPerThread)));
    _pieces.resize(static_cast<size_t>(team));
    // Pieces of about equal size, each ending after a line end.
    std::vector<size_t> cut(static_cast<size_t>(team) + 1, size);
    cut[0] = 0;
    for (int t = 1; t < team; ++t) {
        size_t at = std::max(cut[t - 1], size * t / team);
        const void* newline = at < size ? std::memchr(text + at, '\n', size - at) : nullptr;
        cut[t] = newline ? static_cast<size_t>(static_cast<const char*>(newline) - text) + 1 : size;
    }
    // Room for the most each piece can hold (a "v" line takes 8 bytes at least, a face corner 2),
    // made here rather than grown on the threads: memory the threads take stays with them.
    const bool wantUVs = _uvs != nullptr;
    for (int t = 0; t < team; ++t) {
        Piece& piece = _pieces[t];
        const size_t bytes = cut[t + 1] - cut[t];
        piece.points.reserve(bytes / 8 + 1);
        piece.texcoords.reserve(bytes / 7 + 1);
        piece.faceCounts.reserve(bytes / 8 + 1);
        piece.faceVertices.reserve(bytes / 2 + 1);
        if (wantUVs) piece.cornerUVs.reserve(bytes / 2 + 1);
    }
    Piece* pieces = _pieces.data();
    KAVRIN_OMP(omp parallel for schedule(static, 1) num_threads(team))
    for (int t = 0; t < team; ++t) pieces[t].ok = ParsePiece(text + cut[t], text + cut[t + 1], wantUVs, pieces[t]);

    // The pieces in order: each index must lie within the entries read before its line.
    size_t points = 0, texcoords = 0, corners = 0, faces = 0;
    for (const Piece& piece : _pieces) {
        if (!piece.ok) return _ok = false;
        points += piece.points.size();
        texcoords += piece.texcoords.size();
        corners += piece.faceVertices.size();
        faces += piece.faceCounts.size();
    }
    // Room for the rest of the text as this block reads (and a little more): no array grows
    // twice over.
    const double rest = expectedBytes > _fed + size ? static_cast<double>(expectedBytes - _fed) / size : 1.0;
    const auto reserve = [rest](auto& array, size_t count) {
        const size_t wanted = array.size() + static_cast<size_t>(1.02 * rest * count);
        if (wanted > array.capacity()) array.reserve(wanted + 16);
    };
    reserve(_mesh.points, points);
    reserve(_mesh.faceCounts, faces);
    reserve(_mesh.faceVertices, corners);
    if (_uvs) {
        reserve(_texcoords, texcoords);
        reserve(_cornerUVs, corners);
    }
    _fed += size;
    for (const Piece& piece : _pieces) {
        if (piece.pastPoints > _mesh.points.length() || piece.pastTexcoords > _texcoordCount ||
            piece.pastNormals > _normals)
            return _ok = false;
        if (static_cast<long long>(_mesh.points.size() + piece.points.size()) > INT_MAX ||
            _texcoordCount + static_cast<long long>(piece.texcoords.size()) > INT_MAX || _normals + piece.normals > INT_MAX ||
            static_cast<long long>(_mesh.faceVertices.size() + piece.faceVertices.size()) > INT_MAX)
            return _ok = false;
        Append(_mesh.points, piece.points);
        _normals += piece.normals;
        Append(_mesh.faceCounts, piece.faceCounts);
        Append(_mesh.faceVertices, piece.faceVertices);
        // Texture coordinates are counted (and checked) even when they are not kept.
        _texcoordCount += static_cast<long long>(piece.texcoords.size());
        if (_uvs) {
            Append(_texcoords, piece.texcoords);
            Append(_cornerUVs, piece.cornerUVs);
        }
    }
    return true;
}

bool KObjCommonReader::finish(KPolyMesh& mesh) {
    if (!_ok || _mesh.points.empty()) return false;
    // An early block of the file may have promised more of its kind than the file held.
    const auto fit = [](auto& array) {
        if (array.capacity() > array.size() + array.size() / 16) array.shrink_to_fit();
    };
    fit(_mesh.points);
    fit(_mesh.faceCounts);
    fit(_mesh.faceVertices);
    fit(_texcoords);
    fit(_cornerUVs);
    mesh = std::move(_mesh);
    if (_uvs) {
        _uvs->uvs.swap(_texcoords);
        _uvs->corners.swap(_cornerUVs);
    }
    return true;
}

bool KObjCommonReader::ReadText(const char* text, size_t size, KPolyMesh& mesh, KCornerUVs* uvs) {
    KObjCommonReader reader(uvs);
    return reader.feed(text, size) && reader.finish(mesh);
}

bool KObjCommonReader::ReadFile(const std::string& path, KPolyMesh& mesh, KCornerUVs* uvs, size_t blockBytes) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) return false;
    size_t expected = 0;
    if (std::fseek(file, 0, SEEK_END) == 0) {
        const long end = std::ftell(file);
        expected = end > 0 ? static_cast<size_t>(end) : 0;
    }
    std::rewind(file);
    KObjCommonReader reader(uvs);
    std::vector<char> block(std::max<size_t>(1, std::min(blockBytes, expected + 1)));
    size_t held = 0;  // bytes of a line begun in the block before
    bool ok = true;
    for (;;) {
        if (held == block.size()) block.resize(2 * block.size());  // a line longer than a block
        const size_t got = std::fread(block.data() + held, 1, block.size() - held, file);
        const size_t have = held + got;
        if (got == 0) {
            ok = !std::ferror(file) && (have == 0 || reader.feed(block.data(), have, expected));
            break;
        }
        const char* text = block.data();
        const char* last = static_cast<const char*>(::memrchr(text, '\n', have));
        const size_t whole = last ? static_cast<size_t>(last - text) + 1 : 0;
        if (whole > 0 && !reader.feed(text, whole, expected)) {
            ok = false;
            break;
        }
        held = have - whole;
        std::memmove(block.data(), text + whole, held);
    }
    std::fclose(file);
    return ok && reader.finish(mesh);
}

}  // namespace Kavrin
