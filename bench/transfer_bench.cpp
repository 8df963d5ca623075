// Deformation transfer on the cat and lion meshes (7,207 -> 5,000 vertices, 55 markers) when the
// shared data is present, else on generated spheres of similar size:
//   BM_TransferCorrespondence  the correspondence search (fit with 5 iterations, then pairing);
//   BM_TransferFactor          building and factoring the transfer system;
//   BM_TransferSolvePose       one transfer pass for a new source pose, as the node runs it.
// The thread count is the benchmark argument.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <sys/stat.h>

#include "../tests/core/DeformationTransferTestSupport.h"
#include "MarkerFile.h"
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

TransferData LoadData() {
    TransferData d;
    const std::string dir = std::string(KAVRIN_DATA_DIR) + "/cat-lion/";
    if (Exists(dir + "markers.txt")) {
        ReadObj(dir + "cat-reference.obj").triangulate(d.source);
        ReadObj(dir + "lion-reference.obj").triangulate(d.target);
        ReadObj(dir + "cat-05.obj").triangulate(d.pose);
        d.markers = ReadMarkers(dir + "markers.txt", d.source.numVertices(), d.target.numVertices());
        d.origin = "cat-lion";
        return d;
    }
    // Generated: a bumpy sphere of 10,242 vertices onto a stretched sphere of 2,562 vertices,
    // the same order of size as the cat and the lion.
    d.source = dttest::Icosphere(5);
    dttest::Bump(d.source, 0.03f, 1);
    d.target = dttest::Icosphere(4);
    for (KVector& p : d.target.points) p = KVector(1.4f * p.x, 0.8f * p.y, p.z);
    d.pose = d.source;
    for (KVector& p : d.pose.points) p = KVector(p.x, p.y + 0.3f * p.x * p.x, p.z);
    for (int i = 0; i < 12; ++i) {
        d.markers.push_back(i);
        d.markers.push_back(i);
    }
    d.origin = "generated";
    return d;
}

const TransferData& Data() {
    static const TransferData data = LoadData();
    return data;
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

}  // namespace

// The "Wrap Deformer" aim runs the correspondence search with the pairing and builds nothing.
static void BM_TransferCorrespondence(benchmark::State& state) {
    const TransferData& d = Data();
    const KDeformationTransferInput in = Input(d, true, 3, int(state.range(0)));
    for (auto _ : state) {
        KDeformationTransferSolver solver;
        KRecordingSink sink;
        const KDeformationTransferResult r = solver.compute(in, sink);
        if (r.outcome.failed()) state.SkipWithError(r.outcome.message.c_str());
    }
    Label(state, d);
}
BENCHMARK(BM_TransferCorrespondence)->Arg(2)->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);

static void BM_TransferFactor(benchmark::State& state) {
    const TransferData& d = Data();
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    solver.compute(Input(d, true, 3, int(state.range(0))), sink);
    const KInt4Array pairing = solver.triCorres();
    for (auto _ : state) {
        KDeformationTransferTestAccess access(solver, sink);
        if (access.build(d.source, d.target, pairing) != 1) state.SkipWithError("build failed");
    }
    Label(state, d);
}
BENCHMARK(BM_TransferFactor)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_TransferSolvePose(benchmark::State& state) {
    const TransferData& d = Data();
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
BENCHMARK(BM_TransferSolvePose)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
