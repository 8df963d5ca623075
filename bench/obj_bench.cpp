// OBJ files of an n x n sheet bent around Y (1,000 x 1,000: about 62 MB): reading one with
// ReadObj and writing one with WriteObj, in a temporary folder; MB/s counts the file's bytes
// (10^6 a megabyte).

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <filesystem>
#include <string>

#include "MeshGenerators.h"
#include "ObjIO.h"

using namespace Kavrin;
namespace fs = std::filesystem;

namespace {

std::string BenchFile(const char* what) {
    return (fs::temp_directory_path() / ("kavrin-bench-" + std::to_string(::getpid()) + "-" + what + ".obj")).string();
}

void Throughput(benchmark::State& state, const std::string& path) {
    const double megabytes = static_cast<double>(fs::file_size(path)) / 1e6;
    state.counters["MB/s"] = benchmark::Counter(megabytes, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["MB"] = megabytes;
}

}  // namespace

static void BM_ObjRead(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const std::string path = BenchFile("read");
    WriteObj(path, BendAroundY(MakeDetailedGrid(n, 10.0f), 1.2f));
    for (auto _ : state) {
        const KPolyMesh mesh = ReadObj(path);
        benchmark::DoNotOptimize(mesh.points.data());
    }
    Throughput(state, path);
    fs::remove(path);
}
BENCHMARK(BM_ObjRead)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_ObjWrite(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const std::string path = BenchFile("write");
    const KPolyMesh mesh = BendAroundY(MakeDetailedGrid(n, 10.0f), 1.2f);
    for (auto _ : state) WriteObj(path, mesh);
    Throughput(state, path);
    fs::remove(path);
}
BENCHMARK(BM_ObjWrite)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();
