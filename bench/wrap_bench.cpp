// Wrap: binding an n x n sheet (size 2) to an m x m driver sheet (size 2.2) lying 0.01 below it,
// and one evaluation with the driver bent; the arguments are n and m: 316 and 112 (99,856
// vertices onto 12,544), 1000 and 316 (1,000,000 onto 99,856), 1000 and 1000 (1,000,000 onto
// 1,000,000). The bind reports the bytes per vertex the bound engine holds and its peak.

#include <benchmark/benchmark.h>

#include <memory>
#include <utility>
#include <vector>

#include "HeapCounter.h"
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
    KTriMesh mesh, driver, bent;
    Scene(int n, int m)
        : mesh(FlatSheet(n, 2.0f, 0.0f, 0.0f)), driver(FlatSheet(m, 2.2f, -0.01f, 0.0f)),
          bent(FlatSheet(m, 2.2f, -0.01f, 1.2f)) {}
};

// One scene at a time: the largest holds a few hundred megabytes.
const Scene& TheScene(int n, int m) {
    static std::pair<int, int> key(0, 0);
    static std::unique_ptr<Scene> scene;
    if (!scene || key != std::make_pair(n, m)) {
        scene.reset();
        scene.reset(new Scene(n, m));
        key = std::make_pair(n, m);
    }
    return *scene;
}

}  // namespace

// The bytes per vertex a bound engine holds (its binding), and the most the bind held at once,
// for a bind with the points handed over as the host does.
void CountBoundBytes(benchmark::State& state, const Scene& scene) {
    std::vector<double> points;
    for (const KVector& p : scene.mesh.points) points.insert(points.end(), {p.x, p.y, p.z, 1.0});
    KWrapBindingInput in;
    in.driver = &scene.driver;
    in.points = points.data();
    in.pointCount = scene.mesh.numVertices();
    NullSink sink;
    const std::size_t before = HeapLiveBytes();
    ResetHeapPeak();
    KWrapBinding engine;
    engine.evaluate(in, sink);
    state.counters["bound_bytes_per_vertex"] = static_cast<double>(HeapLiveBytes() - before) / in.pointCount;
    state.counters["peak_bytes_per_vertex"] = static_cast<double>(HeapPeakBytes() - before) / in.pointCount;
}

void Label(benchmark::State& state, const Scene& scene) {
    state.counters["vertices"] = scene.mesh.numVertices();
    state.counters["driver"] = scene.driver.numVertices();
}

static void BM_WrapBind(benchmark::State& state) {
    const Scene& scene = TheScene(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    NullSink sink;
    for (auto _ : state) {
        KWrapBindingAttributes attributes;
        KWrapBinding engine;
        const KWrapBindingResult r = attributes.evaluate(engine, scene.driver, scene.mesh.points, 1.0f, 0, sink);
        benchmark::DoNotOptimize(r.outcome.status);
        benchmark::DoNotOptimize(engine.boundOffsets().data());
    }
    CountBoundBytes(state, scene);
    Label(state, scene);
}
BENCHMARK(BM_WrapBind)
    ->Args({316, 112})
    ->Args({1000, 316})
    ->Args({1000, 1000})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

static void BM_WrapEvaluate(benchmark::State& state) {
    const Scene& scene = TheScene(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    NullSink sink;
    KWrapBindingAttributes attributes;
    KWrapBinding engine;
    attributes.evaluate(engine, scene.driver, scene.mesh.points, 1.0f, 0, sink);  // bind
    for (auto _ : state) {
        const KWrapBindingResult r = attributes.evaluate(engine, scene.bent, scene.mesh.points, 1.0f, 0, sink);
        benchmark::DoNotOptimize(r.outcome.status);
        benchmark::DoNotOptimize(engine.points().data());
    }
    Label(state, scene);
}
BENCHMARK(BM_WrapEvaluate)
    ->Args({316, 112})
    ->Args({1000, 316})
    ->Args({1000, 1000})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
