#include "InputChecks.h"

#include <cmath>

#include "RunError.h"
#include "TextFields.h"

namespace Kavrin {

namespace {

template <class Real>
void RequireComputable(const Real* xyz, int count, const std::string& name) {
    for (int v = 0; v < count; ++v) {
        const Real* p = xyz + 3 * static_cast<size_t>(v);
        bool finite = true, within = true;
        for (int k = 0; k < 3; ++k) {
            finite = finite && std::isfinite(p[k]);
            within = within && std::fabs(static_cast<double>(p[k])) <= kLargestCoordinate;
        }
        if (within) continue;
        const std::string at = name + ": vertex " + std::to_string(v) + " is at (" + NumberText(p[0]) + ", " +
                               NumberText(p[1]) + ", " + NumberText(p[2]) + ")";
        if (!finite) throw KInputError(at + ", which is not a finite position");
        // Decision (behaviour note "Coordinates too large to compute with")
        throw KInputError(at + "; coordinates outside " + RangeText(-kLargestCoordinate, kLargestCoordinate) +
                          " overflow the engines' single-precision arithmetic");
    }
}

}  // namespace

void RequireComputablePoints(const float* xyz, int count, const std::string& name) {
    RequireComputable(xyz, count, name);
}

void RequireComputablePoints(const double* xyz, int count, const std::string& name) {
    RequireComputable(xyz, count, name);
}

void RequireVertexCount(int count, const std::string& poseName, int restCount, const std::string& restName) {
    if (count != restCount)
        throw KInputError(poseName + ": " + std::to_string(count) + " vertices, but " + restName + " has " +
                          std::to_string(restCount));
}

void RequireSameTopology(const KPolyMesh& rest, const std::string& restName, const KPolyMesh& pose,
                         const std::string& poseName) {
    RequireVertexCount(pose.numVertices(), poseName, rest.numVertices(), restName);
    if (pose.numFaces() != rest.numFaces())
        throw KInputError(poseName + ": " + std::to_string(pose.numFaces()) + " faces, but " + restName + " has " +
                          std::to_string(rest.numFaces()));
    if (pose.faceCounts != rest.faceCounts || pose.faceVertices != rest.faceVertices)
        throw KInputError(poseName + ": its faces differ from those of " + restName);
}

void RequireValidFaces(const KPolyMesh& mesh, const std::string& name) {
    const int nv = mesh.numVertices();
    long long at = 0;
    for (int f = 0; f < mesh.numFaces(); ++f) {
        const int n = mesh.faceCounts[f];
        const std::string face = name + ": face " + std::to_string(f);
        if (n < 3) throw KInputError(face + " has " + std::to_string(n) + " corners; a face needs 3 or more");
        if (at + n > mesh.faceVertices.length())
            throw KInputError(face + " runs past the end of the face list");
        for (int c = 0; c < n; ++c) {
            const int v = mesh.faceVertices[static_cast<int>(at + c)];
            if (v < 0 || v >= nv)
                throw KInputError(face + " names vertex " + std::to_string(v) + ", but the mesh has " +
                                  std::to_string(nv) + " vertices");
            // Decision (behaviour note "Faces that visit a vertex twice")
            for (int d = 0; d < c; ++d)
                if (mesh.faceVertices[static_cast<int>(at + d)] == v)
                    throw KInputError(face + " names vertex " + std::to_string(v) + " twice");
        }
        at += n;
    }
    if (at != mesh.faceVertices.length()) throw KInputError(name + ": the face list has corners past its last face");
}

std::vector<int> LooseVertices(const KPolyMesh& mesh) {
    std::vector<char> used(static_cast<size_t>(mesh.numVertices()), 0);
    for (int v : mesh.faceVertices)
        if (v >= 0 && v < mesh.numVertices()) used[static_cast<size_t>(v)] = 1;
    std::vector<int> loose;
    for (int v = 0; v < mesh.numVertices(); ++v)
        if (!used[static_cast<size_t>(v)]) loose.push_back(v);
    return loose;
}

void RefuseLooseVertices(const std::string& name, const std::vector<int>& loose, const std::string& consequence) {
    if (loose.empty()) return;
    throw KInputError(name + ": " + std::to_string(loose.size()) + (loose.size() == 1 ? " vertex is" : " vertices are") +
                      " in no face (" + FirstFew(loose) + ", counting from 0); " + consequence);
}

std::string ValueCountMismatch(const std::string& name, int count, int vertices) {
    return name + ": " + std::to_string(count) + " values for " + std::to_string(vertices) + " vertices";
}

void RequireValues(const double* values, int count, int vertices, const KValueRange* range, const std::string& name) {
    if (vertices >= 0 && count != vertices) throw KInputError(ValueCountMismatch(name, count, vertices));
    for (int i = 0; i < count; ++i) {
        const double v = values[i];
        const std::string at = name + "[" + std::to_string(i) + "]: ";
        if (!std::isfinite(v)) throw KInputError(at + NumberText(v) + " is not a finite number");
        if (!WithinFloatRange(v)) throw KInputError(at + NumberText(v) + " is beyond the range of a float");
        if (range && (v < range->lowest || v > range->highest))
            throw KInputError(at + NumberText(v) + " is outside " + RangeText(range->lowest, range->highest));
    }
}

void RequireFiniteResult(const KVectorArray& result, const std::string& name, const std::string& resultOf,
                         const std::string& suffix) {
    std::vector<int> bad;
    for (int v = 0; v < result.length(); ++v) {
        const KVector& p = result[v];
        if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) bad.push_back(v);
    }
    // Guard (behaviour note "Results that are not finite")
    if (!bad.empty())
        throw KRunError(name + ": " + std::to_string(bad.size()) + (bad.size() == 1 ? " vertex" : " vertices") + " of " +
                        (resultOf.empty() ? "the result" : "its result (" + resultOf + " deformed)") +
                        (bad.size() == 1 ? " is" : " are") + " not finite (" + FirstFew(bad) + ", counting from 0)" +
                        suffix);
}

}  // namespace Kavrin
