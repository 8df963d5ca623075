#include "OffsetRun.h"

#include <cstdio>

#include "RunError.h"
#include "VertexNormalsUVs.h"

namespace Kavrin {

namespace {

// The command line's stand-in for the renderer: the texture's value at each sample's UV, or the
// constant, as the red of the sample's colour.
class FileSampler : public KShadingSampler {
public:
    FileSampler(const KTextureImage* texture, float red, int threads)
        : _texture(texture), _red(red), _threads(threads) {}

    bool sample(const std::string&, const KOffsetSamples& samples, KArray<KFloat3>& colours) override {
        const int n = samples.count();
        colours.setLength(n, true);
        if (!_texture) {
            for (KFloat3& c : colours) c[0] = _red;
            return true;
        }
        _reds.resize(static_cast<size_t>(n));
        _texture->sample(samples.u.data(), samples.v.data(), n, _reds.data(), _threads);
        for (int i = 0; i < n; ++i) colours[i][0] = _reds[i];
        return true;
    }

private:
    const KTextureImage* _texture;
    float _red;
    int _threads;
    std::vector<float> _reds;
};

}  // namespace

OffsetRun::OffsetRun(const KTextureImage* texture, float red, double scale, float envelope, int threads)
    : _texture(texture), _red(red), _scale(scale), _envelope(envelope), _threads(threads) {}

KVectorArray OffsetRun::deform(const KPolyMesh& mesh, const KArray<KFloat2>& uvs, const KFloatArray& weights) {
    const int n = mesh.numVertices();
    AveragedVertexNormals(mesh, _normals);
    _vertices.setLength(n, false);
    for (int i = 0; i < n; ++i) {
        KOffsetVertex& v = _vertices[i];
        const KVector& p = mesh.points[i];
        v.position = KDouble3{p.x, p.y, p.z};
        v.normal = _normals[i];
        v.u = i < uvs.length() ? uvs[i][0] : 0.0f;
        v.v = i < uvs.length() ? uvs[i][1] : 0.0f;
        v.weight = i < weights.length() ? weights[i] : 1.0f;
    }
    KOffsetInput in;
    in.shadingEngine = _texture ? "texture" : "constant red";
    in.scale = _scale;
    in.envelope = _envelope;
    in.vertices = &_vertices;
    in.threads = _threads;
    FileSampler sampler(_texture, _red, _threads);
    const KOutcome outcome = _solver.evaluate(in, sampler);
    if (outcome.failed()) throw KRunError(outcome.message);

    KVectorArray points(n);
    for (int i = 0; i < n; ++i) {
        double out[3];
        _solver.displacedPoint(i, _vertices[i].position.v, out);
        points[i] = KVector(static_cast<float>(out[0]), static_cast<float>(out[1]), static_cast<float>(out[2]));
    }
    return points;
}

// Decision (behaviour note "Offset command: texture coordinates kept")
}  // namespace Kavrin
