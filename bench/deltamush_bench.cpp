// Delta mush: one evaluation of a bound 316 x 316 sheet (99,856 vertices), 15 sweeps.

#include <benchmark/benchmark.h>

#include "HeapCounter.h"
#include "KDeltaMushSolver.h"
#include "MeshGenerators.h"

using namespace Kavrin;

static void BM_DeltaMushEvaluate(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const KPolyMesh rest = MakeDetailedGrid(n, 10.0f);
    const KPolyMesh pose = BendAroundY(rest, 1.2f);

    KDeltaMushAttributes attributes;
    attributes.onlyOnce = false;
    attributes.numIter = 15;
    attributes.restMesh = rest;
    attributes.hasRestMesh = true;
    const std::size_t before = HeapLiveBytes();
    KDeltaMushSolver solver;
    attributes.evaluate(solver, pose, 1.0f, 0);  // bind
    // What the bind left on the heap: the engine's arrays and the stored deltas it wrote back.
    state.counters["bound_bytes_per_vertex"] =
        static_cast<double>(HeapLiveBytes() - before) / pose.numVertices();
    for (auto _ : state) {
        const KDeltaMushResult r = attributes.evaluate(solver, pose, 1.0f, 0);
        benchmark::DoNotOptimize(r.outcome.status);
        benchmark::DoNotOptimize(solver.points().data());
    }
    state.counters["vertices"] = pose.numVertices();
}
BENCHMARK(BM_DeltaMushEvaluate)->Arg(316)->Unit(benchmark::kMillisecond)->UseRealTime();
