// Offset: one evaluation of an n x n sheet displaced by a 1024 x 1024 texture: the sample arrays, the bilinear texture lookups at every vertex's UV and the
// displacements.

#include <benchmark/benchmark.h>

#include <cmath>

#include "HeapCounter.h"
#include "KOffsetSolver.h"
#include "MeshGenerators.h"
#include "TextureImage.h"
#include "VertexNormalsUVs.h"

using namespace Kavrin;

namespace {

// The texture's red channel as the colour of each sample, as the command line samples it.
class TextureSampler : public KShadingSampler {
public:
    explicit TextureSampler(const KTextureImage& texture) : _texture(texture) {}
    bool sample(const std::string&, const KOffsetSamples& samples, KArray<KFloat3>& colours) override {
        const int n = samples.count();
        colours.setLength(n, false);
        _reds.resize(static_cast<size_t>(n));
        _texture.sample(samples.u.data(), samples.v.data(), n, _reds.data(), 0);
        for (int i = 0; i < n; ++i) colours[i] = KFloat3{_reds[i], 0.0f, 0.0f};
        return true;
    }

private:
    const KTextureImage& _texture;
    std::vector<float> _reds;
};

KTextureImage Pattern(int size) {
    std::vector<float> texels;
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x) texels.push_back(0.5f + 0.5f * std::sin(0.05f * x) * std::cos(0.08f * y));
    return KTextureImage(size, size, texels);
}

}  // namespace

static void BM_OffsetEvaluate(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const KPolyMesh sheet = MakeDetailedGrid(n, 10.0f);
    KArray<KDouble3> normals;
    AveragedVertexNormals(sheet, normals);
    KArray<KOffsetVertex> vertices(sheet.numVertices());
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            KOffsetVertex& v = vertices[j * n + i];
            const KVector& p = sheet.points[j * n + i];
            v.position = KDouble3{p.x, p.y, p.z};
            v.normal = normals[j * n + i];
            v.u = 3.0f * i / (n - 1);  // the texture repeats three times across the sheet
            v.v = 3.0f * j / (n - 1);
            v.weight = 1.0f;
        }
    const KTextureImage texture = Pattern(1024);
    TextureSampler sampler(texture);
    KOffsetInput in;
    in.shadingEngine = "offsetEngine1";
    in.scale = 0.2;
    in.vertices = &vertices;
    const std::size_t before = HeapLiveBytes();
    KOffsetSolver solver;
    solver.evaluate(in, sampler);
    // What one evaluation leaves on the heap: the engine's sample, colour and displacement arrays
    // (and the sampler's reds).
    state.counters["bound_bytes_per_vertex"] = static_cast<double>(HeapLiveBytes() - before) / sheet.numVertices();
    for (auto _ : state) {
        const KOutcome outcome = solver.evaluate(in, sampler);
        benchmark::DoNotOptimize(outcome.status);
        benchmark::DoNotOptimize(solver.displacements().data());
    }
    state.counters["vertices"] = sheet.numVertices();
}
BENCHMARK(BM_OffsetEvaluate)->Arg(316)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();
