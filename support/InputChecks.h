#pragma once
// The checks every host without a scene (the command line, Python) makes before an engine sees
// its input: coordinates the engines can compute with, poses that match their rest mesh, faces
// that name the mesh's vertices, vertices in no face, one value per vertex. Each failure is a
// KInputError whose what() is one line naming the input (a file, or an argument's name).

#include <stdexcept>
#include <string>
#include <vector>

#include "KPolyMesh.h"

namespace Kavrin {

// Input the engines cannot use: meshes that do not match, coordinates too large, a bad option.
class KInputError : public std::runtime_error {
public:
    explicit KInputError(const std::string& message) : std::runtime_error(message) {}
};

// Coordinates the engines compute with safely: their single-precision geometry forms products of
// coordinate differences and squares them (edge cross products, normalised), which overflow for
// coordinates much beyond this.
constexpr double kLargestCoordinate = 1e9;

// The range of the envelope of a deformer in Maya, which every host's envelope takes.
// Decision (behaviour note "Envelopes on the command line")
constexpr double kEnvelopeLowest = -2.0, kEnvelopeHighest = 2.0;
// Most worker threads a host accepts.
constexpr int kMaxThreads = 1024;

// Throws "<name>: vertex V is at (x, y, z); coordinates outside -1e9 to 1e9 overflow ..." for the
// first vertex beyond kLargestCoordinate, or "<name>: vertex V is at (x, y, z), which is not a
// finite position" for one that is NaN or infinite. xyz holds count points, three values each.
void RequireComputablePoints(const float* xyz, int count, const std::string& name);
void RequireComputablePoints(const double* xyz, int count, const std::string& name);
inline void RequireComputablePoints(const KVectorArray& points, const std::string& name) {
    RequireComputablePoints(&points.data()->x, points.length(), name);
}

// Throws "<poseName>: N vertices, but <restName> has M" unless the counts agree.
void RequireVertexCount(int count, const std::string& poseName, int restCount, const std::string& restName);
// Throws unless pose has the vertex count and faces of rest.
void RequireSameTopology(const KPolyMesh& rest, const std::string& restName, const KPolyMesh& pose,
                         const std::string& poseName);

// Throws "<name>: face F ..." unless every face has three or more corners, each a vertex of the
// mesh, none twice (what the OBJ reader accepts).
void RequireValidFaces(const KPolyMesh& mesh, const std::string& name);

// Vertices that no face uses, in index order.
std::vector<int> LooseVertices(const KPolyMesh& mesh);
// Throws "<name>: N vertices are in no face (the first few, counting from 0); <consequence>"
// unless loose is empty.
void RefuseLooseVertices(const std::string& name, const std::vector<int>& loose, const std::string& consequence);

// "<name>: N values for M vertices", the line for a per-vertex map of the wrong length.
std::string ValueCountMismatch(const std::string& name, int count, int vertices);

// The values a per-vertex map may hold: [lowest, highest].
struct KValueRange {
    double lowest;
    double highest;
};

// Throws unless values holds one finite value per vertex (vertices < 0: any count) within the
// range of a float and, when given, within range: "<name>[i]: 1.5 is outside 0 to 1".
void RequireValues(const double* values, int count, int vertices, const KValueRange* range, const std::string& name);

// Throws KRunError "<name>: N vertices of the result are not finite (the first few, counting from
// 0)<suffix>" (of "its result (<resultOf> deformed)" when resultOf is given) unless every point of
// the result is finite.
void RequireFiniteResult(const KVectorArray& result, const std::string& name, const std::string& resultOf,
                         const std::string& suffix);

}  // namespace Kavrin
