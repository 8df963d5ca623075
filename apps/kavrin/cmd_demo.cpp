// kavrin demo: generates its own meshes, runs the engines on them and writes the results.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "CommandSupport.h"
#include "MeshGenerators.h"
#include "TransferRun.h"

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

int nearestVertex(const KPolyMesh& mesh, const KVector& p) {
    int best = 0;
    for (int i = 1; i < mesh.numVertices(); ++i)
        if ((mesh.points[i] - p).squaredLength() < (mesh.points[best] - p).squaredLength()) best = i;
    return best;
}

double diagonal(const KPolyMesh& mesh) {
    KVector lo = mesh.points[0], hi = mesh.points[0];
    for (const KVector& p : mesh.points)
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], p[k]);
            hi[k] = std::max(hi[k], p[k]);
        }
    return (hi - lo).length();
}

void transferDemo(const std::string& folder, int threads) {
    // A limb-like ellipsoid as a latitude-longitude sphere, and a slightly different one built
    // from a subdivided icosahedron: same kind of shape, unrelated triangles.
    KPolyMesh source = MakeUVSphere(24, 48);
    ScalePoints(source, 2.0f, 0.5f, 0.5f);
    KPolyMesh target = MakeIcosphere(4);
    ScalePoints(target, 2.0f, 0.55f, 0.45f);
    SaveMesh((fs::path(folder) / "transfer-source-rest.obj").string(), source);
    SaveMesh((fs::path(folder) / "transfer-target-rest.obj").string(), target);

    // Markers: the vertices nearest to the same landmarks on both shapes, starting with the tip
    // that the bends leave in place, which also serves as the fixed vertex.
    const KVector landmarks[] = {KVector(-2, 0, 0),     KVector(2, 0, 0),       KVector(0, 0.5f, 0),
                                 KVector(0, -0.5f, 0),  KVector(0, 0, 0.5f),    KVector(0, 0, -0.5f),
                                 KVector(1, 0.43f, 0),  KVector(1, -0.43f, 0),  KVector(-1, 0, 0.43f),
                                 KVector(-1, 0, -0.43f), KVector(1.5f, 0, 0.33f), KVector(-1.5f, 0.33f, 0)};
    TransferSettings settings;
    for (const KVector& l : landmarks) {
        settings.markers.push_back(nearestVertex(source, l));
        settings.markers.push_back(nearestVertex(target, l));
    }
    settings.fixedSource = settings.markers[0];
    settings.fixedTarget = settings.markers[1];
    settings.threads = threads;
    std::printf("Deformation transfer: source %d vertices (latitude-longitude), target %d vertices "
                "(subdivided icosahedron), %d marker pairs.\n",
                source.numVertices(), target.numVertices(), settings.markers.length() / 2);

    ConsoleSink sink("kavrin demo");
    const auto start = std::chrono::steady_clock::now();
    TransferRun run(source, target, settings, sink);
    std::printf("  correspondence and factorisation: %.2f s\n",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());

    // The same bend applied to the target directly is what a perfect transfer would give.
    const double diag = diagonal(target);
    const float angles[] = {30.0f, 60.0f, 90.0f};
    for (float degrees : angles) {
        const float radians = degrees * 3.14159265f / 180.0f;
        KPolyMesh result = target;
        const KPolyMesh pose = BendAroundY(source, radians);
        const auto t0 = std::chrono::steady_clock::now();
        result.points = run.transfer(pose);
        const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
        const KPolyMesh expected = BendAroundY(target, radians);
        double sum = 0.0;
        for (int i = 0; i < result.numVertices(); ++i) sum += (result.points[i] - expected.points[i]).length();
        char name[64];
        std::snprintf(name, sizeof(name), "transfer-source-bend%02d.obj", static_cast<int>(degrees));
        SaveMesh((fs::path(folder) / name).string(), pose);
        std::snprintf(name, sizeof(name), "transfer-target-bend%02d.obj", static_cast<int>(degrees));
        SaveMesh((fs::path(folder) / name).string(), result);
        std::printf("  bend %3.0f deg: %5.2f ms, mean distance to the target bent directly %.2f%% of its size -> %s\n",
                    degrees, ms, 100.0 * sum / result.numVertices() / diag, name);
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
        transferDemo(options->folder, options->threads);
        std::printf("Done. Open the OBJ files in %s/ to compare poses and results.\n", options->folder.c_str());
    }});
}

}  // namespace Kavrin
