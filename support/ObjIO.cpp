#include "ObjIO.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "KThreads.h"
#include "ObjCommonReader.h"
#include "TextFields.h"

namespace Kavrin {

namespace {

bool IsFreeFormStatement(std::string_view key) {
    static const char* const kFreeForm[] = {"vp",   "cstype", "deg",  "bmat", "step", "curv", "curv2", "surf",
                                            "parm", "trim",   "hole", "scrv", "sp",   "end",  "con"};
    for (const char* k : kFreeForm)
        if (key == k) return true;
    return false;
}

std::string Plural(size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

class ObjParser {
public:
    ObjParser(std::string_view text, const std::string& name) : _lines(text, name) {}

    KPolyMesh parse(KCornerUVs* uvs) {
        std::string_view line;
        while (_lines.next(line)) {
            SplitWords(line, _words);
            if (_words.empty()) continue;
            const std::string_view key = _words[0];
            if (key == "v")
                vertex();
            else if (key == "vt")
                texcoord();
            else if (key == "vn")
                normal();
            else if (key == "f")
                face();
            else if (IsIgnoredObjStatement(key))
                continue;
            else if (key == "p" || key == "l")
                throw _lines.error(Quoted(key) + " elements (points and lines) are not read: kavrin reads polygon "
                                                 "meshes only");
            else if (IsFreeFormStatement(key))
                throw _lines.error("free-form geometry (" + Quoted(key) + ") is not read: export the mesh as polygons");
            else
                throw _lines.error("unknown statement " + Quoted(key));
        }
        if (_mesh.points.empty()) throw KFileError(_lines.name() + ": no vertices");
        if (uvs) {
            uvs->uvs.swap(_texcoords);
            uvs->corners.swap(_cornerUVs);
        }
        return std::move(_mesh);
    }

private:
    // The numbers after the statement word, which must number one of the allowed counts.
    void numbers(std::initializer_list<size_t> allowed, const char* what) {
        const size_t n = _words.size() - 1;
        if (std::find(allowed.begin(), allowed.end(), n) == allowed.end())
            throw _lines.error(std::string(what) + "; this one has " + Plural(n, "value", "values"));
        _values.resize(n);
        for (size_t i = 0; i < n; ++i)
            if (!ParseFloatWord(_words[i + 1], _values[i], _why)) throw _lines.error(_why);
    }

    void vertex() {
        numbers({3, 4, 6}, "a vertex takes x y z (and an optional w, or an r g b colour)");
        if (_mesh.points.length() == INT_MAX) throw _lines.error("too many vertices");
        _mesh.points.push_back(KVector(ToFloat(_values[0]), ToFloat(_values[1]), ToFloat(_values[2])));
    }

    void texcoord() {
        numbers({2, 3}, "a texture coordinate takes u v (and an optional w)");
        if (_texcoords.length() == INT_MAX) throw _lines.error("too many texture coordinates");
        _texcoords.push_back(KFloat2{ToFloat(_values[0]), ToFloat(_values[1])});
    }

    void normal() {
        numbers({3}, "a normal takes x y z");
        if (_normals == INT_MAX) throw _lines.error("too many normals");
        ++_normals;
    }

    // A one-based or negative (relative) index into `count` entries read so far, zero-based.
    int resolve(std::string_view word, int count, const char* what, const char* entry, const char* entries) {
        long long index = 0;
        if (!ParseIntegerWord(word, what, index, _why)) throw _lines.error(_why);
        const std::string named = std::string(what) + " " + std::to_string(index);
        if (index == 0) throw _lines.error(named + " does not exist (indices count from 1)");
        if (index > count)
            throw _lines.error(named + " refers past the " + Plural(count, entry, entries) + " read so far");
        if (index < 0 && -index > count)
            throw _lines.error(named + " reaches back before the first of the " + Plural(count, entry, entries) +
                               " read so far");
        return static_cast<int>(index > 0 ? index - 1 : count + index);
    }

    void face() {
        const size_t n = _words.size() - 1;
        if (n < 3) throw _lines.error("a face needs at least three vertices; this one has " + std::to_string(n));
        if (static_cast<long long>(_mesh.faceVertices.size()) + static_cast<long long>(n) > INT_MAX)
            throw _lines.error("too many face corners");
        _face.clear();
        int form = -1;
        for (size_t k = 1; k <= n; ++k) {
            const std::string_view corner = _words[k];
            std::string_view v = corner, vt, vn;
            int cornerForm = 0;  // 0: v, 1: v/vt, 2: v/vt/vn, 3: v//vn
            const size_t slash = corner.find('/');
            if (slash != std::string_view::npos) {
                v = corner.substr(0, slash);
                const std::string_view rest = corner.substr(slash + 1);
                const size_t second = rest.find('/');
                if (second == std::string_view::npos) {
                    vt = rest;
                    cornerForm = 1;
                } else {
                    vt = rest.substr(0, second);
                    vn = rest.substr(second + 1);
                    cornerForm = vt.empty() ? 3 : 2;
                }
                if ((cornerForm != 3 && vt.empty()) || (cornerForm >= 2 && vn.empty()) || v.empty() ||
                    vn.find('/') != std::string_view::npos)
                    throw _lines.error(Quoted(corner) + " is not a face corner (v, v/vt, v/vt/vn or v//vn)");
            }
            if (form < 0) form = cornerForm;
            if (cornerForm != form)
                throw _lines.error("the corners " + Quoted(_words[1]) + " and " + Quoted(corner) +
                                   " of this face are written in different forms");
            _face.push_back(resolve(v, _mesh.points.length(), "vertex index", "vertex", "vertices"));
            if (!vt.empty()) _faceUVs.push_back(resolve(vt, _texcoords.length(), "texture coordinate index",
                                                        "texture coordinate", "texture coordinates"));
            if (!vn.empty()) resolve(vn, _normals, "normal index", "normal", "normals");
        }
        refuseRepeats();
        _mesh.faceCounts.push_back(static_cast<int>(n));
        _mesh.faceVertices.insert(_mesh.faceVertices.end(), _face.begin(), _face.end());
        if (_faceUVs.empty())
            _cornerUVs.insert(_cornerUVs.end(), n, -1);
        else
            _cornerUVs.insert(_cornerUVs.end(), _faceUVs.begin(), _faceUVs.end());
        _faceUVs.clear();
    }

    // Decision (behaviour note "Faces that visit a vertex twice")
    void refuseRepeats() {
        _sorted.assign(_face.begin(), _face.end());
        std::sort(_sorted.begin(), _sorted.end());
        const auto twice = std::adjacent_find(_sorted.begin(), _sorted.end());
        if (twice != _sorted.end())
            throw _lines.error("the face uses vertex " + std::to_string(*twice + 1) + " twice");
    }

    KTextLines _lines;
    KPolyMesh _mesh;
    KArray<KFloat2> _texcoords;
    KIntArray _cornerUVs;
    int _normals = 0;
    std::vector<std::string_view> _words;
    std::vector<double> _values;
    std::vector<int> _face, _faceUVs, _sorted;
    std::string _why;
};

// Checks that the reader would read the mesh back; returns the texture coordinates to write (null
// for none). Throws KFileError (without a file name) otherwise.
const KCornerUVs* WritableUVs(const KPolyMesh& mesh, const KCornerUVs* uvs) {
    // Guard (behaviour note "Results that are not finite")
    std::vector<int> bad;
    for (int i = 0; i < mesh.numVertices(); ++i) {
        const KVector& p = mesh.points[i];
        if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) bad.push_back(i);
    }
    if (!bad.empty())
        throw KFileError(Plural(bad.size(), "vertex is", "vertices are") + " not finite (" + FirstFew(bad) +
                         "); nothing was written");
    if (!mesh.valid()) throw KFileError("the faces do not fit the vertices; nothing was written");
    // Texture coordinates are written only when they describe these faces: one entry per corner,
    // each face with a coordinate on every corner or on none (the reader's rule).
    if (uvs && uvs->uvs.empty()) uvs = nullptr;
    if (uvs) {
        if (uvs->corners.length() != mesh.faceVertices.length())
            throw KFileError("the texture coordinates do not fit the faces; nothing was written");
        int corner = 0;
        for (int f = 0; f < mesh.numFaces(); ++f) {
            int mapped = 0;
            for (int k = 0; k < mesh.faceCounts[f]; ++k, ++corner) {
                const int uv = uvs->corners[corner];
                if (uv >= uvs->uvs.length()) throw KFileError("a texture coordinate index is out of range; nothing was written");
                mapped += uv >= 0 ? 1 : 0;
            }
            if (mapped != 0 && mapped != mesh.faceCounts[f])
                throw KFileError("face " + std::to_string(f + 1) +
                                 " has texture coordinates on some corners only; nothing was written");
        }
        for (const KFloat2& uv : uvs->uvs)
            if (!std::isfinite(uv[0]) || !std::isfinite(uv[1]))
                throw KFileError("a texture coordinate is not finite; nothing was written");
    }
    return uvs;
}

// The most characters a float or an int takes: "-1.17549435e-38", "-2147483648".
const size_t kFloatChars = 16, kIntChars = 11;

inline char* Put(char* at, float value) { return std::to_chars(at, at + kFloatChars, value).ptr; }
inline char* Put(char* at, int value) { return std::to_chars(at, at + kIntChars, value).ptr; }

// A run of lines of one kind: vertices, texture coordinates or faces [first, last); a run of faces
// starts at corner.
struct LineRun {
    enum Kind { kVertices, kTexcoords, kFaces } kind;
    int first, last, corner;
};

// A text buffer that keeps its storage.
struct TextPiece {
    std::unique_ptr<char[]> data;
    size_t capacity = 0, size = 0;
    void reserve(size_t most) {
        if (most > capacity) {
            data.reset(new char[most]);
            capacity = most;
        }
    }
};

// The most characters the lines of run take.
size_t MostChars(const LineRun& run, const KPolyMesh& mesh) {
    const size_t lines = static_cast<size_t>(run.last - run.first);
    if (run.kind == LineRun::kVertices) return lines * (5 + 3 * kFloatChars);
    if (run.kind == LineRun::kTexcoords) return lines * (5 + 2 * kFloatChars);
    size_t corners = 0;
    for (int f = run.first; f < run.last; ++f) corners += static_cast<size_t>(mesh.faceCounts[f]);
    return 2 * lines + corners * (2 + 2 * kIntChars);
}

// The lines of run into piece, which holds MostChars(run).
void FormatRun(const LineRun& run, const KPolyMesh& mesh, const KCornerUVs* uvs, TextPiece& piece) {
    if (run.kind == LineRun::kVertices) {
        char* const start = piece.data.get();
        char* at = start;
        for (int i = run.first; i < run.last; ++i) {
            const KVector& p = mesh.points[i];
            *at++ = 'v';
            *at++ = ' ';
            at = Put(at, p.x);
            *at++ = ' ';
            at = Put(at, p.y);
            *at++ = ' ';
            at = Put(at, p.z);
            *at++ = '\n';
        }
        piece.size = static_cast<size_t>(at - start);
    } else if (run.kind == LineRun::kTexcoords) {
        char* const start = piece.data.get();
        char* at = start;
        for (int i = run.first; i < run.last; ++i) {
            const KFloat2& uv = uvs->uvs[i];
            *at++ = 'v';
            *at++ = 't';
            *at++ = ' ';
            at = Put(at, uv[0]);
            *at++ = ' ';
            at = Put(at, uv[1]);
            *at++ = '\n';
        }
        piece.size = static_cast<size_t>(at - start);
    } else {
        char* const start = piece.data.get();
        char* at = start;
        const int* fv = mesh.faceVertices.data();
        const int* uv = uvs ? uvs->corners.data() : nullptr;
        for (int f = run.first, c = run.corner; f < run.last; ++f) {
            *at++ = 'f';
            for (const int end = c + mesh.faceCounts[f]; c < end; ++c) {
                *at++ = ' ';
                at = Put(at, fv[c] + 1);
                if (uv && uv[c] >= 0) {
                    *at++ = '/';
                    at = Put(at, uv[c] + 1);
                }
            }
            *at++ = '\n';
        }
        piece.size = static_cast<size_t>(at - start);
    }
}

}  // namespace

// The common form is read on all cores; anything else, or anything wrong, again by the strict
// parser, which names the line and the reason.
KPolyMesh ParseObj(std::string_view text, const std::string& name, KCornerUVs* uvs) {
    KPolyMesh mesh;
    if (KObjCommonReader::ReadText(text.data(), text.size(), mesh, uvs)) return mesh;
    return ParseObjStrict(text, name, uvs);
}

KPolyMesh ParseObjStrict(std::string_view text, const std::string& name, KCornerUVs* uvs) {
    return ObjParser(text, name).parse(uvs);
}

KPolyMesh ReadObj(const std::string& path, KCornerUVs* uvs) {
    KPolyMesh mesh;
    if (KObjCommonReader::ReadFile(path, mesh, uvs)) return mesh;
    return ParseObjStrict(ReadTextFile(path), path, uvs);
}

bool FormatObjPieces(const KPolyMesh& mesh, const KCornerUVs* uvs, const std::function<bool(std::string_view)>& write) {
    uvs = WritableUVs(mesh, uvs);
    // Runs of about a megabyte of text, formatted a few at a time on all cores and written in order.
    const int kLines = 1 << 15;
    std::vector<LineRun> runs;
    for (int i = 0; i < mesh.numVertices(); i += kLines)
        runs.push_back(LineRun{LineRun::kVertices, i, std::min(mesh.numVertices(), i + kLines), 0});
    for (int i = 0; uvs && i < uvs->uvs.length(); i += kLines)
        runs.push_back(LineRun{LineRun::kTexcoords, i, std::min(uvs->uvs.length(), i + kLines), 0});
    for (int f = 0, corner = 0; f < mesh.numFaces(); f += kLines) {
        const int last = std::min(mesh.numFaces(), f + kLines);
        runs.push_back(LineRun{LineRun::kFaces, f, last, corner});
        for (int g = f; g < last; ++g) corner += mesh.faceCounts[g];
    }
    const int runCount = static_cast<int>(runs.size());
    const int team = std::max(1, std::min(ResolveThreads(0), runCount));
    std::vector<TextPiece> pieces(static_cast<size_t>(2 * team));
    for (int first = 0; first < runCount; first += 2 * team) {
        const int count = std::min(2 * team, runCount - first);
        // Buffers made here rather than on the threads: memory the threads take stays with them.
        for (int r = 0; r < count; ++r) pieces[r].reserve(MostChars(runs[first + r], mesh));
        KAVRIN_OMP(omp parallel for schedule(static, 1) num_threads(team))
        for (int r = 0; r < count; ++r) FormatRun(runs[first + r], mesh, uvs, pieces[r]);
        for (int r = 0; r < count; ++r)
            if (!write(std::string_view(pieces[r].data.get(), pieces[r].size))) return false;
    }
    return true;
}

std::string FormatObj(const KPolyMesh& mesh, const KCornerUVs* uvs) {
    std::string out;
    FormatObjPieces(mesh, uvs, [&out](std::string_view piece) {
        out.append(piece);
        return true;
    });
    return out;
}

void WriteObj(const std::string& path, const KPolyMesh& mesh, const KCornerUVs* uvs) {
    // The file is opened with the first piece, after the checks: a mesh the reader would refuse
    // writes nothing.
    std::FILE* file = nullptr;
    int reason = 0;
    bool written = false;
    try {
        written = FormatObjPieces(mesh, uvs, [&](std::string_view piece) {
            if (!file) file = std::fopen(path.c_str(), "wb");
            if (file && std::fwrite(piece.data(), 1, piece.size(), file) == piece.size()) return true;
            reason = errno;
            return false;
        });
        if (written && !file) file = std::fopen(path.c_str(), "wb");  // an empty text
    } catch (const KFileError& e) {
        throw KFileError(path + ": " + e.what());
    }
    if (!file) throw KFileError(path + ": cannot write the file (" + std::strerror(reason ? reason : errno) + ")");
    if (std::fclose(file) != 0 && written) {
        written = false;
        reason = errno;
    }
    if (!written) throw KFileError(path + ": cannot write the file (" + std::strerror(reason ? reason : EIO) + ")");
}

}  // namespace Kavrin
