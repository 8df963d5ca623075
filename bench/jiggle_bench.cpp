// Jiggle: one simulation step of an n x n sheet under a travelling wave, normal strength 0.5,
// direction bias 0.3; with "moreAccurateTangent" the surface tree is rebuilt and searched at every
// step. The inputs of a cycle of frames (points, normals, triangles) are prepared beforehand, as
// the host hands them over.

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "HeapCounter.h"
#include "KJiggleSolver.h"
#include "KVertexNormals.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

struct Frame {
    KArray<KDouble3> points;
    KVectorArray normals;
    KTriMesh triangles;
};

// The sheet with a wave (amplitude 0.4, wavelength 7) running along x: `count` frames of one period.
std::vector<Frame> WaveFrames(int n, int count) {
    const KPolyMesh rest = MakeDetailedGrid(n, 10.0f);
    std::vector<Frame> frames(static_cast<size_t>(count));
    for (int f = 0; f < count; ++f) {
        KPolyMesh pose = rest;
        for (KVector& p : pose.points) p.z += 0.4f * std::sin(0.9f * p.x + 6.2831853f * f / count);
        Frame& frame = frames[static_cast<size_t>(f)];
        for (const KVector& p : pose.points) frame.points.push_back(KDouble3{p.x, p.y, p.z});
        FaceMeanVertexNormals(pose, frame.normals);
        pose.triangulate(frame.triangles);
    }
    return frames;
}

// Frames in one period of the wave: 32 up to 100,000 vertices (the crests move about 2.5 vertex
// spacings a frame at their fastest); 8 beyond, so that the prepared frames stay within memory.
int FramesFor(int n) { return n <= 316 ? 32 : 8; }

void RunSteps(benchmark::State& state, bool accurateTangent) {
    const int n = static_cast<int>(state.range(0));
    const int period = FramesFor(n);
    const std::vector<Frame> frames = WaveFrames(n, period);
    const int nv = n * n;
    KIntArray indices(nv);
    for (int v = 0; v < nv; ++v) indices[v] = v;
    KArray<float> weights;
    weights.setLengthWithValue(nv, 1.0f);

    KJiggleInput in;
    in.normalStrength = 0.5f;
    in.directionBias = 0.3f;
    in.moreAccurateTangent = accurateTangent;
    in.numVertices = nv;
    in.indices = &indices;
    in.weights = &weights;
    in.threads = 0;
    const std::size_t before = HeapLiveBytes();
    KJiggleSolver solver;
    int frame = 0;
    const auto evaluate = [&]() {
        const Frame& f = frames[static_cast<size_t>(frame % frames.size())];
        in.time = frame;
        in.points = &f.points;
        in.meshPoints = &f.points;
        in.normals = &f.normals;
        in.tangentMesh = &f.triangles;
        ++frame;
        return solver.evaluate(in);
    };
    // Time 0 starts the simulation; half a period of motion brings the lag to its usual size.
    for (int warmUp = 0; warmUp <= period / 2; ++warmUp) evaluate();
    // What the engine holds between steps: the simulation state, its output and the full-weight map.
    state.counters["bound_bytes_per_vertex"] = static_cast<double>(HeapLiveBytes() - before) / nv;
    for (auto _ : state) {
        const KJiggleResult r = evaluate();
        benchmark::DoNotOptimize(r.outcome.status);
        benchmark::DoNotOptimize(solver.points().data());
    }
    state.counters["vertices"] = nv;
}

void BM_JiggleStep(benchmark::State& state) { RunSteps(state, false); }
void BM_JiggleStepAccurateTangent(benchmark::State& state) { RunSteps(state, true); }

}  // namespace

BENCHMARK(BM_JiggleStep)->Arg(316)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_JiggleStepAccurateTangent)->Arg(316)->Unit(benchmark::kMillisecond)->UseRealTime();
