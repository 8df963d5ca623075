// Deformation transfer on the cat and lion meshes (7,207 -> 5,000 vertices, 55 markers) when the
// shared data is present, else on generated spheres of similar size. The second argument is how
// many times every target triangle is split into four: 0 the lion, 1 (19,994 vertices) to see how
// each stage grows with the target, 3 (319,874 vertices) a production-size target.
//   BM_TransferBuild           the whole recalculation (correspondence search, then building and
//                              factoring the transfer system), as the node runs it;
//   BM_TransferCorrespondence  the correspondence search (fit with 5 iterations, then pairing);
//   BM_TransferFactor          building and factoring the transfer system;
//   BM_TransferSolvePose       one transfer pass for a new source pose, as the node runs it.
// The first argument is the thread count. The heap's peak during the stage (and the sparse
// library's own, which the heap counter does not see) is reported in bytes per target vertex.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <string>
#include <sys/stat.h>

#include "HeapCounter.h"
#include "KDeformationTransferSolver.h"
#include "KTransferSystem.h"
#include "MarkerFile.h"
#include "MeshGenerators.h"
#include "ObjIO.h"

using namespace Kavrin;

namespace {

struct TransferData {
    KTriMesh source, target, pose;
    KIntArray markers;
    std::string origin;
};

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// The target with every triangle split into four, levels times.
KPolyMesh Split(KPolyMesh mesh, int levels) {
    for (int i = 0; i < levels; ++i) mesh = SplitIntoFour(mesh);
    return mesh;
}

TransferData LoadData(int levels) {
    TransferData d;
    const std::string dir = std::string(KAVRIN_DATA_DIR) + "/cat-lion/";
    const std::string times = levels > 0 ? " x" + std::to_string(1 << (2 * levels)) : "";
    if (Exists(dir + "markers.txt")) {
        const KPolyMesh lion = ReadObj(dir + "lion-reference.obj");
        d.source = Triangulated(ReadObj(dir + "cat-reference.obj"));
        d.target = Triangulated(Split(lion, levels));
        d.pose = Triangulated(ReadObj(dir + "cat-05.obj"));
        // Split meshes keep the original vertices' indices, so the markers hold.
        d.markers = ReadMarkers(dir + "markers.txt", d.source.numVertices(), lion.numVertices());
        d.origin = "cat-lion" + times;
        return d;
    }
    // Generated: a bumpy sphere of 10,242 vertices onto a stretched sphere of 2,562 vertices
    // (split as the lion is), the same order of size as the cat and the lion.
    KPolyMesh target = MakeIcosphere(4);
    ScalePoints(target, 1.4f, 0.8f, 1.0f);
    d.source = TriangulatedIcosphere(5, 0.03f, 1);
    d.target = Triangulated(Split(target, levels));
    d.pose = d.source;
    for (KVector& p : d.pose.points) p = KVector(p.x, p.y + 0.3f * p.x * p.x, p.z);
    for (int i = 0; i < 12; ++i) d.markers.insert(d.markers.end(), {i, i});
    d.origin = "generated" + times;
    return d;
}

const TransferData& Data(int64_t levels) {
    static std::map<int64_t, TransferData> data;
    auto it = data.find(levels);
    if (it == data.end()) it = data.emplace(levels, LoadData(static_cast<int>(levels))).first;
    return it->second;
}

KDeformationTransferInput Input(const TransferData& d, bool recalc, short aim, int threads) {
    KDeformationTransferInput in;
    in.reCalculate = recalc;
    in.aim = aim;
    in.calcMode = 2;
    in.iterCount = 5;
    in.sourceMesh = d.source;
    in.targetMesh = d.target;
    in.vertCorres = d.markers;
    in.srcFixPNum = KIntArray{d.markers[0]};
    in.trgFixPNum = KIntArray{d.markers[1]};
    in.threads = threads;
    return in;
}

void Label(benchmark::State& state, const TransferData& d) {
    state.SetLabel(d.origin);
    state.counters["threads"] = double(state.range(0));
    state.counters["srcVerts"] = d.source.numVertices();
    state.counters["trgVerts"] = d.target.numVertices();
}

// The heap's peak since `before` was taken (with ResetHeapPeak), per target vertex.
void HeapPeak(benchmark::State& state, const TransferData& d, std::size_t before) {
    state.counters["peak_bytes_per_vertex"] = static_cast<double>(HeapPeakBytes() - before) / d.target.numVertices();
}

}  // namespace

static void BM_TransferBuild(benchmark::State& state) {
    const TransferData& d = Data(state.range(1));
    const KDeformationTransferInput in = Input(d, true, 2, int(state.range(0)));
    const std::size_t before = HeapLiveBytes();
    ResetHeapPeak();
    for (auto _ : state) {
        KDeformationTransferSolver solver;
        KRecordingSink sink;
        const KDeformationTransferResult r = solver.compute(in, sink);
        if (r.outcome.failed()) state.SkipWithError(r.outcome.message.c_str());
    }
    HeapPeak(state, d, before);
    Label(state, d);
}
BENCHMARK(BM_TransferBuild)->Args({2, 3})->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);

// The "Wrap Deformer" aim runs the correspondence search with the pairing and builds nothing.
static void BM_TransferCorrespondence(benchmark::State& state) {
    const TransferData& d = Data(state.range(1));
    const KDeformationTransferInput in = Input(d, true, 3, int(state.range(0)));
    for (auto _ : state) {
        KDeformationTransferSolver solver;
        KRecordingSink sink;
        const KDeformationTransferResult r = solver.compute(in, sink);
        if (r.outcome.failed()) state.SkipWithError(r.outcome.message.c_str());
    }
    Label(state, d);
}
BENCHMARK(BM_TransferCorrespondence)
    ->Args({2, 0})
    ->Args({2, 1})
    ->Args({2, 3})
    ->Unit(benchmark::kSecond)
    ->UseRealTime()
    ->Iterations(1);

static void BM_TransferFactor(benchmark::State& state) {
    const TransferData& d = Data(state.range(1));
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    solver.compute(Input(d, true, 3, int(state.range(0))), sink);
    const KInt4Array pairing = solver.triCorres();
    const std::size_t before = HeapLiveBytes();
    ResetHeapPeak();
    std::size_t held = 0, libraryHeld = 0, libraryPeak = 0;
    for (auto _ : state) {
        KTransferSystem system;
        if (!system.build(d.source, d.target, pairing, int(state.range(0))))
            state.SkipWithError(system.failure().c_str());
        held = HeapLiveBytes() - before;
        libraryHeld = system.libraryBytes();
        libraryPeak = system.libraryPeakBytes();
    }
    // What the built system holds on the heap and in the sparse library, and the most of each.
    const double nv = d.target.numVertices();
    HeapPeak(state, d, before);
    state.counters["bound_bytes_per_vertex"] = static_cast<double>(held) / nv;
    state.counters["library_bytes_per_vertex"] = static_cast<double>(libraryHeld) / nv;
    state.counters["library_peak_bytes_per_vertex"] = static_cast<double>(libraryPeak) / nv;
    Label(state, d);
}
BENCHMARK(BM_TransferFactor)
    ->Args({2, 0})
    ->Args({2, 1})
    ->Args({2, 3})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

static void BM_TransferSolvePose(benchmark::State& state) {
    const TransferData& d = Data(state.range(1));
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    solver.compute(Input(d, true, 2, int(state.range(0))), sink);
    KDeformationTransferInput in = Input(d, false, 2, int(state.range(0)));
    in.sourceMesh = d.pose;
    for (auto _ : state) {
        const KDeformationTransferResult r = solver.compute(in, sink);
        if (r.outcome.failed()) state.SkipWithError(r.outcome.message.c_str());
        benchmark::DoNotOptimize(solver.outPoints().data());
    }
    Label(state, d);
}
BENCHMARK(BM_TransferSolvePose)
    ->Args({1, 0})
    ->Args({2, 0})
    ->Args({1, 1})
    ->Args({2, 1})
    ->Args({2, 3})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The mesh of bench/python_bench.py, built there by the same arithmetic (so the points are the same
// floats), to set its Python figure for one transfer pose beside the engine's own: a grid of 100 x
// 100 vertices (quads) with a smooth bump, onto itself scaled by 1.5 in the same-topology mode,
// one fit iteration, five marker pairs, the pose bent up along x. The argument is the thread count.
//   BM_TransferSolvePoseGrid  one transfer pass for the pose, as the node runs it.
namespace {

KPolyMesh PythonBenchGrid(int n) {
    KPolyMesh mesh;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) {
            const double u = i / double(n), v = j / double(n);
            mesh.points.push_back(KVector(float(u), float(0.8 * u * (1 - u) * v * (1 - v)), float(v)));
        }
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const int a = j * (n + 1) + i;
            mesh.faceCounts.push_back(4);
            mesh.faceVertices.insert(mesh.faceVertices.end(), {a, a + 1, a + n + 2, a + n + 1});
        }
    return mesh;
}

}  // namespace

static void BM_TransferSolvePoseGrid(benchmark::State& state) {
    const KPolyMesh grid = PythonBenchGrid(99);
    KPolyMesh target = grid;
    for (KVector& p : target.points) p = KVector(p.x * 1.5f, p.y * 1.5f, p.z * 1.5f);
    KDeformationTransferInput in;
    grid.triangulate(in.sourceMesh);
    target.triangulate(in.targetMesh);
    in.vertCorres = KIntArray{0, 0, 99, 99, 9900, 9900, 9999, 9999, 5000, 5000};
    in.srcFixPNum = KIntArray{0};
    in.trgFixPNum = KIntArray{0};
    in.calcMode = KDeformationTransferSolver::kSameTopology;
    in.iterCount = 1;
    in.aim = KDeformationTransferSolver::kTransfer;
    in.threads = int(state.range(0));
    in.reCalculate = true;
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    const KDeformationTransferResult built = solver.compute(in, sink);
    if (built.outcome.failed()) state.SkipWithError(built.outcome.message.c_str());
    in.reCalculate = false;
    for (KVector& p : in.sourceMesh.points) p.y += 0.3f * (p.x * p.x);
    for (auto _ : state) {
        const KDeformationTransferResult r = solver.compute(in, sink);
        if (r.outcome.failed()) state.SkipWithError(r.outcome.message.c_str());
        benchmark::DoNotOptimize(solver.outPoints().data());
    }
    state.SetLabel("python_bench grid");
    state.counters["threads"] = double(state.range(0));
    state.counters["trgVerts"] = in.targetMesh.numVertices();
}
BENCHMARK(BM_TransferSolvePoseGrid)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
