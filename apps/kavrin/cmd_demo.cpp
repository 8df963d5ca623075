// kavrin demo: generates its own meshes, runs the engines on them and writes the results.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "CommandSupport.h"
#include "MeshGenerators.h"

namespace fs = std::filesystem;

namespace Kavrin {

namespace {

double maxDistance(const KVectorArray& a, const KVectorArray& b) {
    double worst = 0.0;
    for (int i = 0; i < a.length(); ++i) worst = std::max(worst, static_cast<double>((a[i] - b[i]).length()));
    return worst;
}

void deltaMushDemo(const std::string& folder, int threads) {
    const int n = 200;
    const int iterations = 15;
    const KPolyMesh rest = MakeDetailedGrid(n, 10.0f);
    SaveMesh((fs::path(folder) / "deltamush-rest.obj").string(), rest);
    std::printf("Delta mush: a %d x %d sheet (%d vertices, %d quads) with surface bumps, %d sweeps.\n", n, n,
                rest.numVertices(), rest.numFaces(), iterations);

    KDeltaMushMemoryStore store;
    store.onlyOnceValue = false;
    store.numIterValue = iterations;
    rest.triangulate(store.restMesh);
    rest.edgeNeighbours(store.restNeighbours);
    KDeltaMushSolver solver;
    solver.setThreads(threads);
    ConsoleSink sink("kavrin demo");

    // The rest shape itself must come back unchanged: smoothing removes the bumps and the deltas
    // put them back.
    const KPolyMesh same = DeltaMushPose(solver, store, store.restMesh, store.restNeighbours, rest, 1.0f, sink);
    std::printf("  rest pose reproduced to within %.2g (sheet size 10)\n", maxDistance(same.points, rest.points));

    const float angles[] = {30.0f, 60.0f, 90.0f};
    for (float degrees : angles) {
        const KPolyMesh pose = BendAroundY(rest, degrees * 3.14159265f / 180.0f);
        const auto start = std::chrono::steady_clock::now();
        const KPolyMesh result = DeltaMushPose(solver, store, store.restMesh, store.restNeighbours, pose, 1.0f, sink);
        const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        if (sink.hadError()) throw RunError("delta mush failed on the generated poses");
        char name[64];
        std::snprintf(name, sizeof(name), "deltamush-bend%02d.obj", static_cast<int>(degrees));
        SaveMesh((fs::path(folder) / name).string(), pose);
        std::snprintf(name, sizeof(name), "deltamush-bend%02d-result.obj", static_cast<int>(degrees));
        SaveMesh((fs::path(folder) / name).string(), result);
        std::printf("  bend %3.0f deg: %6.2f ms, largest correction %.3g -> %s\n", degrees, ms,
                    maxDistance(result.points, pose.points), name);
    }
}

}  // namespace

void AddDemoCommand(CLI::App& app, std::vector<Command>& commands) {
    struct Options {
        std::string folder = "kavrin-demo";
        int threads = 0;
    };
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand("demo", "Run the engines on generated meshes and write the results to a folder.");
    sub->add_option("-o,--output", options->folder, "folder for the results")->capture_default_str();
    sub->add_option("--threads", options->threads, "worker threads (0: all cores)")->capture_default_str();
    commands.push_back(Command{sub, [options]() {
        std::error_code ec;
        fs::create_directories(options->folder, ec);
        if (!fs::is_directory(options->folder, ec)) throw UsageError(options->folder + ": cannot create the folder");
        std::printf("kavrin demo: writing to %s/\n", options->folder.c_str());
        deltaMushDemo(options->folder, options->threads);
        std::printf("Done. Open the OBJ files in %s/ to compare poses and results.\n", options->folder.c_str());
    }});
}

}  // namespace Kavrin
