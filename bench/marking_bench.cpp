// Marking tool: setting the tool up on two meshes (copying their points and building both
// nearest-vertex trees) and one click pair (two snaps, two markers, the list republished), on
// generated grids of 100K and 500K vertices per mesh. One thread.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "KMarkingSession.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

// A scene with one node and no stored pairs that answers every command at once.
class QuietScene : public KMarkingCommands, public KMessageSink {
public:
    void run(const std::string&) override {}
    std::vector<std::string> runForStrings(const std::string& c) override {
        if (c == kMarkingListNodes) return {"KDeformationTransfer1"};
        return {"KDTPoint1"};
    }
    KIntArray runForInts(const std::string&) override { return {}; }
    void error(const std::string&) override {}
    void warning(const std::string&) override {}
    void output(const std::string&) override {}
};

KVectorArray GridPoints(int n) { return MakeDetailedGrid(n, 4.0f).points; }

void BM_MarkingSessionSetUp(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const KVectorArray source = GridPoints(n), target = GridPoints(n);
    QuietScene scene;
    KMarkingSession session;
    for (auto _ : state) benchmark::DoNotOptimize(session.setUp(2, &source, &target, scene, scene));
    state.SetLabel(std::to_string(source.length()) + " vertices per mesh");
}

void BM_MarkingSessionClickPair(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const KVectorArray source = GridPoints(n), target = GridPoints(n);
    QuietScene scene;
    KMarkingSession session;
    session.setUp(2, &source, &target, scene, scene);
    KMarkingHit onSource, onTarget;
    onSource.source = true;
    onTarget.target = true;
    int i = 0;
    for (auto _ : state) {
        // Fresh vertices each time, so that no click is a duplicate.
        onSource.sourcePoint = source[(i * 7919) % source.length()];
        onTarget.targetPoint = target[(i * 7919) % target.length()];
        ++i;
        session.press(true);
        session.release(onSource, scene);
        session.press(true);
        benchmark::DoNotOptimize(session.release(onTarget, scene));
        if (session.sourceIds().length() >= 64) {  // keep the list at a marking session's size
            state.PauseTiming();
            session.setUp(2, &source, &target, scene, scene);
            state.ResumeTiming();
        }
    }
}

}  // namespace

BENCHMARK(BM_MarkingSessionSetUp)->Arg(317)->Arg(708)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MarkingSessionClickPair)->Arg(317)->Arg(708)->Unit(benchmark::kMicrosecond)->UseRealTime();
