// Relaxation on n x n sheets (316: 99,856 vertices; 1000: 1,000,000), 10 x 10 wide:
//   BM_RelaxationBind      binding the rest sheet (the host's neighbour rings given), with the
//                          bytes per vertex the bound engine holds;
//   BM_VertexRings         the neighbour rings in cyclic order, as the command line makes them;
//   BM_RelaxationEvaluate  one evaluation of the bound sheet bent, 10 passes, scale-safe on;
//   BM_RelaxationCollide   the same with one closed collider colliding after every pass: a ball of
//                          radius 5 (5,120 triangles) pressed up into the sheet from below, its
//                          cross-section with the sheet's plane covering a third of the sheet.

#include <benchmark/benchmark.h>

#include "HeapCounter.h"
#include "KRelaxationSolver.h"
#include "KVertexRings.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

struct Scene {
    KPolyMesh rest, pose;
    KVertexNeighbours rings;
    KArray<KDouble3> points;
    KTriMesh sphere;
    KRelaxationCollider collider;
    KArray<double> multipliers;
    KVectorArray normals;
    KRelaxationAttributes attributes;
    KRelaxationSolver solver;
    int inside = 0;  // pose vertices that start inside the ball

    explicit Scene(int n) : rest(MakeDetailedGrid(n, 10.0f)), pose(BendAroundY(rest, 1.2f)) {
        VertexRings(rest, rings);
        KRelaxationInput bind;
        KArray<KDouble3> restPoints;
        for (const KVector& p : rest.points) restPoints.push_back(KDouble3{p.x, p.y, p.z});
        bind.points = restPoints.data();
        bind.count = restPoints.length();
        bind.rings = &rings;
        bind.iterations = 0;
        attributes.evaluate(solver, bind);
        for (const KVector& p : pose.points) points.push_back(KDouble3{p.x, p.y, p.z});

        KPolyMesh ball = MakeIcosphere(4);
        ScalePoints(ball, 5.0f, 5.0f, 5.0f);
        for (KVector& p : ball.points) p += KVector(-1.7f, 0.0f, -3.79f);  // cross-section radius 3.26
        ball.triangulate(sphere);
        for (const KVector& p : pose.points) inside += (p - KVector(-1.7f, 0.0f, -3.79f)).length() < 5.0f;
        collider.mesh = &sphere;
        multipliers.setLengthWithValue(pose.numVertices(), 1.0);
        KTriMesh tri;
        pose.triangulate(tri);
        tri.getVertexNormals(normals, true);
    }

    KRelaxationInput input(bool collide) const {
        KRelaxationInput in;
        in.points = points.data();
        in.count = points.length();
        in.iterations = 10;
        in.enableScaleSafe = true;
        in.threads = 0;
        if (collide) {
            in.colliders = &collider;
            in.numColliders = 1;
            in.multipliers = &multipliers;
            in.normals = normals.data();
            in.collisionSteps = 1;
        }
        return in;
    }
};

void Run(benchmark::State& state, bool collide) {
    Scene scene(static_cast<int>(state.range(0)));
    const KRelaxationInput in = scene.input(collide);
    for (auto _ : state) {
        const KRelaxationResult r = scene.attributes.evaluate(scene.solver, in);
        benchmark::DoNotOptimize(r.outcome.status);
        benchmark::DoNotOptimize(scene.solver.points().data());
    }
    state.counters["vertices"] = scene.pose.numVertices();
    if (collide) state.counters["inside"] = scene.inside;
}

}  // namespace

static void BM_RelaxationEvaluate(benchmark::State& state) { Run(state, false); }
static void BM_RelaxationCollide(benchmark::State& state) { Run(state, true); }
BENCHMARK(BM_RelaxationEvaluate)->Arg(316)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RelaxationCollide)->Arg(316)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_RelaxationBind(benchmark::State& state) {
    const KPolyMesh rest = MakeDetailedGrid(static_cast<int>(state.range(0)), 10.0f);
    KVertexNeighbours rings;
    VertexRings(rest, rings);
    KArray<KDouble3> points;
    for (const KVector& p : rest.points) points.push_back(KDouble3{p.x, p.y, p.z});
    KRelaxationInput in;
    in.points = points.data();
    in.count = points.length();
    in.rings = &rings;
    in.iterations = 0;
    std::size_t peak = 0;
    for (auto _ : state) {
        const std::size_t before = HeapLiveBytes();
        ResetHeapPeak();
        KRelaxationSolver solver;
        const KRelaxationResult r = solver.evaluate(in);
        peak = HeapPeakBytes() - before;
        benchmark::DoNotOptimize(r.outcome.status);
    }
    // What a bound engine holds once it has also evaluated (10 passes: both working arrays), and
    // the most the bind held at once.
    const std::size_t before = HeapLiveBytes();
    KRelaxationSolver solver;
    solver.evaluate(in);
    KRelaxationInput pose = in;
    pose.iterations = 10;
    pose.stiffness = &solver.stiffness();
    solver.evaluate(pose);
    state.counters["bound_bytes_per_vertex"] = static_cast<double>(HeapLiveBytes() - before) / points.length();
    state.counters["peak_bytes_per_vertex"] = static_cast<double>(peak) / points.length();
    state.counters["vertices"] = points.length();
}
BENCHMARK(BM_RelaxationBind)->Arg(316)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_VertexRings(benchmark::State& state) {
    const KPolyMesh rest = MakeDetailedGrid(static_cast<int>(state.range(0)), 10.0f);
    KVertexNeighbours rings;
    for (auto _ : state) {
        VertexRings(rest, rings, 0);
        benchmark::DoNotOptimize(rings.indices.data());
    }
    state.counters["vertices"] = rest.numVertices();
}
BENCHMARK(BM_VertexRings)->Arg(316)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();
