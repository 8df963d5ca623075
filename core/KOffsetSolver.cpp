#include "KOffsetSolver.h"

#include "KThreads.h"

namespace Kavrin {

const char* const kOffsetNotPolyMesh = "KOffsetMeshDeformer works only for poly meshes.";
// Kept on purpose (behaviour note "Offset: the shading-engine warning is cut short")
const char* const kOffsetNoShadingEngine = "KOffsetMeshDeformer cannot find connected shading shadingEng";
const char* const kOffsetSamplingFailed =
    "KOffsetMeshDeformer: the shading network could not be sampled; the points were left as they came in.";
const char* const kOffsetTooFewColours =
    "KOffsetMeshDeformer: the shading network returned fewer colours than there are vertices; the points were "
    "left as they came in.";
const char* const kOffsetNoMeshVertex =
    "KOffsetMeshDeformer: the deformed geometry names a vertex the mesh does not have; the points were left as "
    "they came in.";

const float kOffsetFilterSize = 1e-5f;

void KOffsetSolver::_buildSamples(const KArray<KOffsetVertex>& vertices, int threads) {
    const int n = vertices.length();
    _samples.positions.setLength(n, false);
    _samples.u.setLength(n, false);
    _samples.v.setLength(n, false);
    _samples.normals.setLength(n, false);
    _samples.filterSizes.setLengthWithValue(n, kOffsetFilterSize);
    _samples.weights.setLength(n, false);
    const KOffsetVertex* in = vertices.data();
    KFloatPoint* positions = _samples.positions.data();
    float* u = _samples.u.data();
    float* v = _samples.v.data();
    KVector* normals = _samples.normals.data();
    float* weights = _samples.weights.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(threads, n))
    for (int i = 0; i < n; ++i) {
        const KOffsetVertex& vertex = in[i];
        KFloatPoint& p = positions[i];
        p[0] = static_cast<float>(vertex.position[0]);
        p[1] = static_cast<float>(vertex.position[1]);
        p[2] = static_cast<float>(vertex.position[2]);
        p[3] = 1.0f;
        u[i] = vertex.u;
        v[i] = vertex.v;
        normals[i] = KVector(static_cast<float>(vertex.normal[0]), static_cast<float>(vertex.normal[1]),
                             static_cast<float>(vertex.normal[2]));
        weights[i] = vertex.weight;
    }
}

KOutcome KOffsetSolver::evaluate(const KOffsetInput& in, KShadingSampler& sampler) {
    if (!in.polyMesh) return KOutcome::Failed(kOffsetNotPolyMesh, KOutcome::kWarning);
    if (in.shadingEngine.empty()) return KOutcome::Failed(kOffsetNoShadingEngine, KOutcome::kWarning);

    static const KArray<KOffsetVertex> kNone;
    _buildSamples(in.vertices ? *in.vertices : kNone, in.threads);
    const int n = _samples.count();
    _displacements.setLength(n, false);
    // Guard (behaviour note "Offset: nothing to sample")
    if (n == 0) return KOutcome::Deformed();

    _colours.clear();
    // Guard (behaviour note "Offset: failed sampling")
    if (!sampler.sample(in.shadingEngine, _samples, _colours)) return KOutcome::Failed(kOffsetSamplingFailed);
    if (_colours.length() < n) return KOutcome::Failed(kOffsetTooFewColours);

    // No early exit on a small envelope: envelope 0 gives zero displacements. Only red is read.
    const double envelopeScale = static_cast<double>(in.envelope) * in.scale;
    const KFloat3* colours = _colours.data();
    const KVector* normals = _samples.normals.data();
    const float* weights = _samples.weights.data();
    KVector* out = _displacements.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, n))
    for (int i = 0; i < n; ++i) {
        const float a = static_cast<float>(envelopeScale * static_cast<double>(colours[i][0]) *
                                           static_cast<double>(weights[i]));
        out[i] = KVector(normals[i].x * a, normals[i].y * a, normals[i].z * a);
    }
    return KOutcome::Deformed();
}

}  // namespace Kavrin
