#pragma once
// Offset: push every vertex along its averaged normal by the red channel of a shading network
// sampled at the vertex, times "scale", the envelope and the paint weight.
//
// The host hands over, per iterated vertex in iterator order, what it read (position, normal,
// UV, weight) as plain values. The engine builds the sample arrays the host's sampler takes,
// asks the sampler (KShadingSampler: the renderer's sampling service in Maya, an image file or
// a constant on the command line) for one colour per sample, and computes one displacement per
// vertex with the node's exact order and precision.

#include <string>

#include "KArray.h"
#include "KOutcome.h"

namespace Kavrin {

// Failure messages (warnings, as the node shows them).
extern const char* const kOffsetNotPolyMesh;      // "KOffsetMeshDeformer works only for poly meshes."
extern const char* const kOffsetNoShadingEngine;  // "KOffsetMeshDeformer cannot find connected shading shadingEng"
// Failure messages of the guards (errors).
extern const char* const kOffsetSamplingFailed;
extern const char* const kOffsetTooFewColours;
extern const char* const kOffsetNoMeshVertex;  // the node's: an iterated index the mesh does not have

// The filter size of every sample.
extern const float kOffsetFilterSize;  // 1e-5

// What the host read for one iterated vertex.
struct KOffsetVertex {
    KDouble3 position;  // object space, Cartesian, as the geometry iterator gives it
    KDouble3 normal;    // the vertex's averaged normal, object space
    float u = 0.0f;     // the vertex's UV in the current UV set
    float v = 0.0f;
    float weight = 1.0f;  // the deformer's paint weight of the vertex
};

// A homogeneous single-precision point x, y, z, w, laid out as the host's float point arrays.
typedef KTuple<4, float> KFloatPoint;
static_assert(sizeof(KFloatPoint) == 4 * sizeof(float), "KFloatPoint must be four packed floats");
static_assert(sizeof(KFloat3) == 3 * sizeof(float), "KFloat3 must be three packed floats");

// The arrays a shading-network sampler takes: one entry per sample, in iterator order.
struct KOffsetSamples {
    KArray<KFloatPoint> positions;  // object space, w = 1; also the reference points
    KFloatArray u;
    KFloatArray v;
    KVectorArray normals;  // object space
    KFloatArray filterSizes;  // all kOffsetFilterSize
    KFloatArray weights;      // the paint weights (not handed to the sampler; the displacement uses them)

    int count() const { return positions.length(); }
};

// The host's service that evaluates a shading network at sample points.
class KShadingSampler {
public:
    virtual ~KShadingSampler() {}
    // Fills colours with one colour (red, green, blue) per sample of the network behind the
    // shading engine named shadingEngine. Returns false when the sampling failed.
    virtual bool sample(const std::string& shadingEngine, const KOffsetSamples& samples, KArray<KFloat3>& colours) = 0;
};

// One evaluation's inputs.
struct KOffsetInput {
    bool polyMesh = true;       // whether the input geometry is a polygon mesh
    std::string shadingEngine;  // the shading engine found through "offset"; empty: none
    float envelope = 1.0f;      // "envelope"
    double scale = 1.0;         // "scale"
    // The iterated vertices, in iterator order; null: none.
    const KArray<KOffsetVertex>* vertices = nullptr;
    int threads = 0;  // team size of the parallel loops; 0 or less: the OpenMP default
};

class KOffsetSolver {
public:
    // Whether evaluate(input) reads the vertices, so that a host walks its geometry only then.
    static bool VerticesNeeded(const KOffsetInput& input) { return input.polyMesh && !input.shadingEngine.empty(); }

    // One evaluation: checks the input, builds the samples, has sampler colour them and
    // computes the displacements. On a deformed outcome displacements() holds one vector per
    // iterated vertex; otherwise the host leaves the points as they are.
    KOutcome evaluate(const KOffsetInput& input, KShadingSampler& sampler);

    // The displacement of each iterated vertex: normal * a with
    // a = float(double(envelope) * scale * double(red) * double(weight)), each component in
    // single precision.
    const KVectorArray& displacements() const { return _displacements; }

    // The new position of the i-th iterated vertex: the Cartesian point p (x, y, z) plus its
    // displacement, added in double precision.
    void displacedPoint(int i, const double p[3], double out[3]) const {
        const KVector& d = _displacements[i];
        out[0] = p[0] + static_cast<double>(d.x);
        out[1] = p[1] + static_cast<double>(d.y);
        out[2] = p[2] + static_cast<double>(d.z);
    }

private:
    void _buildSamples(const KArray<KOffsetVertex>& vertices, int threads);

    KOffsetSamples _samples;
    KArray<KFloat3> _colours;
    KVectorArray _displacements;
};

}  // namespace Kavrin
