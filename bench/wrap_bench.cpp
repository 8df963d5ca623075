// Wrap: binding a 316 x 316 sheet (99,856 vertices, size 2) to a 112 x 112 driver sheet (12,544
// vertices, size 2.2) lying 0.01 below it, and one evaluation with the driver bent.

#include <benchmark/benchmark.h>

#include "KWrapBinding.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

// A flat n x n sheet of the given size at height z, as triangles.
KTriMesh FlatSheet(int n, float size, float z, float bend) {
    KPolyMesh grid = MakeDetailedGrid(n, size);
    for (KVector& p : grid.points) p.z = z;
    grid = BendAroundY(grid, bend);
    KTriMesh mesh;
    grid.triangulate(mesh);
    return mesh;
}

class NullSink : public KMessageSink {
public:
    void error(const std::string&) override {}
    void warning(const std::string&) override {}
    void output(const std::string&) override {}
};

struct Scene {
    KTriMesh mesh = FlatSheet(316, 2.0f, 0.0f, 0.0f);
    KTriMesh driver = FlatSheet(112, 2.2f, -0.01f, 0.0f);
    KTriMesh bent = FlatSheet(112, 2.2f, -0.01f, 1.2f);
};

const Scene& TheScene() {
    static const Scene scene;
    return scene;
}

}  // namespace

static void BM_WrapBind(benchmark::State& state) {
    const Scene& scene = TheScene();
    NullSink sink;
    for (auto _ : state) {
        KWrapBindingAttributes attributes;
        KWrapBinding engine;
        const KWrapBindingResult r = attributes.evaluate(engine, scene.driver, scene.mesh.points, 1.0f, 0, sink);
        benchmark::DoNotOptimize(r.outcome.status);
        benchmark::DoNotOptimize(engine.boundOffsets().data());
    }
    state.counters["vertices"] = scene.mesh.numVertices();
    state.counters["driver"] = scene.driver.numVertices();
}
BENCHMARK(BM_WrapBind)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_WrapEvaluate(benchmark::State& state) {
    const Scene& scene = TheScene();
    NullSink sink;
    KWrapBindingAttributes attributes;
    KWrapBinding engine;
    attributes.evaluate(engine, scene.driver, scene.mesh.points, 1.0f, 0, sink);  // bind
    for (auto _ : state) {
        const KWrapBindingResult r = attributes.evaluate(engine, scene.bent, scene.mesh.points, 1.0f, 0, sink);
        benchmark::DoNotOptimize(r.outcome.status);
        benchmark::DoNotOptimize(engine.points().data());
    }
    state.counters["vertices"] = scene.mesh.numVertices();
}
BENCHMARK(BM_WrapEvaluate)->Unit(benchmark::kMillisecond)->UseRealTime();
