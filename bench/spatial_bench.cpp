// Spatial search: exact closest point on a ~100K-triangle mesh, its build (also of a 2M-triangle
// mesh, on the parallel team), and nearest point among ~100K points. Queries run on one thread.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "KPointsDistTree.h"
#include "KTriMeshDistTree.h"

using namespace Kavrin;

namespace {

// An n x n vertex grid over [0, 1]^2 displaced by a few overlapping waves (2 (n-1)^2 triangles).
KTriMesh DisplacedGrid(int n) {
    KTriMesh m;
    m.points.setLength(n * n, false);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const float x = float(i) / (n - 1), y = float(j) / (n - 1);
            const float z = 0.05f * std::sin(12.0f * x) * std::cos(9.0f * y) + 0.02f * std::sin(31.0f * (x + y));
            m.points[j * n + i] = KVector(x, y, z);
        }
    for (int j = 0; j + 1 < n; ++j)
        for (int i = 0; i + 1 < n; ++i) {
            const int v = j * n + i;
            m.triangles.push_back(KInt3{v, v + 1, v + n + 1});
            m.triangles.push_back(KInt3{v, v + n + 1, v + n});
        }
    return m;
}

// Points on random triangles of the mesh pushed off the surface by up to offset.
std::vector<KVector> NearSurface(const KTriMesh& m, int count, float offset, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0, 1), o(-offset, offset);
    std::vector<KVector> q;
    for (int i = 0; i < count; ++i) {
        const KInt3& t = m.triangles[rng() % m.numTriangles()];
        float a = u(rng), b = u(rng);
        if (a + b > 1) {
            a = 1 - a;
            b = 1 - b;
        }
        q.push_back(m.points[t[0]] * a + m.points[t[1]] * b + m.points[t[2]] * (1 - a - b) +
                    KVector(o(rng), o(rng), o(rng)));
    }
    return q;
}

const KTriMesh& Grid() {
    static const KTriMesh mesh = DisplacedGrid(224);
    return mesh;
}

void BM_TriMeshDistTreeBuild(benchmark::State& state) {
    const KTriMesh mesh = state.range(0) == 224 ? Grid() : DisplacedGrid(static_cast<int>(state.range(0)));
    KTriMeshDistTree tree(10, 10);
    for (auto _ : state) {
        tree.set(mesh, 0);
        benchmark::DoNotOptimize(tree.empty());
    }
    state.SetItemsProcessed(state.iterations() * mesh.numTriangles());
    state.counters["triangles"] = mesh.numTriangles();
}
BENCHMARK(BM_TriMeshDistTreeBuild)->Arg(224)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TriMeshDistTreeClosest(benchmark::State& state) {
    const KTriMesh& mesh = Grid();
    const KTriMeshDistTree tree(mesh, 10, 10);
    const std::vector<KVector> queries = NearSurface(mesh, 4096, 0.01f, 1);
    size_t i = 0;
    for (auto _ : state) {
        KVector c;
        int t;
        benchmark::DoNotOptimize(tree.getClosestPoint(queries[i], c, t, 1e30f));
        benchmark::DoNotOptimize(c);
        i = (i + 1) & 4095;
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["triangles"] = mesh.numTriangles();
}
BENCHMARK(BM_TriMeshDistTreeClosest);

// The same queries made in vertex order, as a deformer walks its points: each query lands near
// the previous one, so the tree's data stays in cache.
void BM_TriMeshDistTreeClosestVertexOrder(benchmark::State& state) {
    const KTriMesh& mesh = Grid();
    const KTriMeshDistTree tree(mesh, 10, 10);
    std::mt19937 rng(4);
    std::uniform_real_distribution<float> o(-0.01f, 0.01f);
    std::vector<KVector> queries;
    for (const KVector& v : mesh.points) queries.push_back(v + KVector(o(rng), o(rng), o(rng)));
    size_t i = 0;
    for (auto _ : state) {
        KVector c;
        int t;
        benchmark::DoNotOptimize(tree.getClosestPoint(queries[i], c, t, 1e30f));
        benchmark::DoNotOptimize(c);
        if (++i == queries.size()) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TriMeshDistTreeClosestVertexOrder);

// The barycentric form with a radius, as the jiggle and wrap deformers use it.
void BM_TriMeshDistTreeClosestBarycentric(benchmark::State& state) {
    const KTriMesh& mesh = Grid();
    const KTriMeshDistTree tree(mesh, 10, 10);
    const std::vector<KVector> queries = NearSurface(mesh, 4096, 0.01f, 2);
    size_t i = 0;
    for (auto _ : state) {
        int t;
        float a, b;
        benchmark::DoNotOptimize(tree.getClosestPoint(queries[i], t, a, b, 0.05f));
        benchmark::DoNotOptimize(a);
        i = (i + 1) & 4095;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TriMeshDistTreeClosestBarycentric);

void BM_PointsDistTreeNearest(benchmark::State& state) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(0, 1);
    KVectorArray points;
    for (int i = 0; i < 100000; ++i) points.push_back(KVector(u(rng), u(rng), u(rng)));
    KPointsDistTree tree;
    tree.setPoints(points);
    std::vector<KVector> queries;
    for (int i = 0; i < 4096; ++i) queries.push_back(KVector(u(rng), u(rng), u(rng)));
    size_t i = 0;
    for (auto _ : state) {
        int index;
        float d;
        benchmark::DoNotOptimize(tree.findClosestPoint(queries[i], index, d));
        benchmark::DoNotOptimize(index);
        i = (i + 1) & 4095;
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["points"] = points.length();
}
BENCHMARK(BM_PointsDistTreeNearest);

}  // namespace
