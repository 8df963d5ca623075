// Delta mush on a bound n x n sheet bent around Y, 15 sweeps: one evaluation, and a fresh engine's
// first evaluation (topology tables, the bind to the rest sheet, then the pose).

#include <benchmark/benchmark.h>

#include <memory>

#include "HeapCounter.h"
#include "KDeltaMushSolver.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

KDeltaMushAttributes Unbound(const KPolyMesh& rest) {
    KDeltaMushAttributes attributes;
    attributes.onlyOnce = false;
    attributes.numIter = 15;
    attributes.restMesh = rest;
    attributes.hasRestMesh = true;
    return attributes;
}

}  // namespace

static void BM_DeltaMushEvaluate(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const KPolyMesh rest = MakeDetailedGrid(n, 10.0f);
    const KPolyMesh pose = BendAroundY(rest, 1.2f);

    KDeltaMushAttributes attributes = Unbound(rest);
    const std::size_t before = HeapLiveBytes();
    KDeltaMushSolver solver;
    attributes.evaluate(solver, pose, 1.0f, 0);  // bind
    attributes.evaluate(solver, pose, 1.0f, 0);
    // What a bound engine holds between evaluations, with the stored deltas it wrote back.
    state.counters["bound_bytes_per_vertex"] =
        static_cast<double>(HeapLiveBytes() - before) / pose.numVertices();
    for (auto _ : state) {
        const KDeltaMushResult r = attributes.evaluate(solver, pose, 1.0f, 0);
        benchmark::DoNotOptimize(r.outcome.status);
        benchmark::DoNotOptimize(solver.points().data());
    }
    state.counters["vertices"] = pose.numVertices();
}
BENCHMARK(BM_DeltaMushEvaluate)->Arg(316)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_DeltaMushBind(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const KPolyMesh rest = MakeDetailedGrid(n, 10.0f);
    const KPolyMesh pose = BendAroundY(rest, 1.2f);
    std::size_t peak = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto attributes = std::make_unique<KDeltaMushAttributes>(Unbound(rest));
        auto solver = std::make_unique<KDeltaMushSolver>();
        ResetHeapPeak();
        const std::size_t before = HeapLiveBytes();
        state.ResumeTiming();
        const KDeltaMushResult r = attributes->evaluate(*solver, pose, 1.0f, 0);
        benchmark::DoNotOptimize(r.outcome.status);
        benchmark::DoNotOptimize(solver->points().data());
        state.PauseTiming();
        peak = HeapPeakBytes() - before;
        solver.reset();
        attributes.reset();
        state.ResumeTiming();
    }
    // The most the first evaluation held on the heap at once, beyond the meshes handed in.
    state.counters["peak_bytes_per_vertex"] = static_cast<double>(peak) / pose.numVertices();
    state.counters["vertices"] = pose.numVertices();
}
BENCHMARK(BM_DeltaMushBind)->Arg(316)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();
