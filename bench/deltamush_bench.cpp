// Delta mush: one evaluation of a bound 316 x 316 sheet (99,856 vertices), 15 sweeps.

#include <benchmark/benchmark.h>

#include "KDeltaMushMemoryStore.h"
#include "MeshGenerators.h"

using namespace Kavrin;

static void BM_DeltaMushEvaluate(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const KPolyMesh rest = MakeDetailedGrid(n, 10.0f);
    const KPolyMesh pose = BendAroundY(rest, 1.2f);

    KDeltaMushMemoryStore store;
    store.onlyOnceValue = false;
    store.numIterValue = 15;
    rest.triangulate(store.restMesh);
    rest.edgeNeighbours(store.restNeighbours);
    KTriMesh current = store.restMesh;
    current.points = pose.points;

    KDeltaMushSolver solver;
    solver.setThreads(0);
    KRecordingSink sink;
    solver.deform(current, store.restNeighbours, current.numVertices(), 1.0f, store, sink);  // bind
    for (auto _ : state) {
        const KDeltaMushSolver::Result r =
            solver.deform(current, store.restNeighbours, current.numVertices(), 1.0f, store, sink);
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(solver.result().data());
    }
    state.counters["vertices"] = current.numVertices();
}
BENCHMARK(BM_DeltaMushEvaluate)->Arg(316)->Unit(benchmark::kMillisecond)->UseRealTime();
