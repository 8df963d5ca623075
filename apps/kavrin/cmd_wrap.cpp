// kavrin wrap: binds a mesh to a driver mesh at rest and makes it follow each driver pose.

#include <chrono>

#include "CommandSupport.h"
#include "WrapRun.h"

namespace Kavrin {

void AddWrapCommand(CLI::App& app, std::vector<Command>& commands) {
    struct Options {
        std::string driver;
        std::string mesh;
        int threads = 0;
        std::vector<std::string> poses;
        std::string out;
    };
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand(
        "wrap",
        "Bind a mesh to the closest triangles of a driver mesh at rest, then make it follow each driver pose; "
        "the poses share the driver's faces.");
    sub->add_option("--driver", options->driver, "driver mesh (OBJ) in its rest pose")->required();
    sub->add_option("--mesh", options->mesh, "mesh (OBJ) that follows the driver, bound where it lies")->required();
    AddThreadsOption(sub, options->threads);
    sub->add_option("poses", options->poses,
                    "posed driver meshes: OBJ files with the driver's vertices and faces, or point caches (.pc2, .mdd)")
        ->required();
    AddOutputOption(sub, options->out, kOutputHelp);

    commands.push_back(Command{sub, [options]() {
        const KPolyMesh driver = LoadMesh(options->driver);
        if (driver.numFaces() == 0) throw UsageError(options->driver + ": the driver has no faces to bind to");
        const KPolyMesh mesh = LoadMesh(options->mesh);
        const PoseSequence poses = LoadPoses(options->poses, &driver, options->driver);
        const ResultOutputs outputs = OutputPaths(options->out, poses, {options->driver, options->mesh}, options->mesh);

        ConsoleSink sink("kavrin wrap");
        const auto start = std::chrono::steady_clock::now();
        WrapRun run(driver, mesh, options->threads, sink);
        Progress("bound %d points to %d driver triangles (%.1f ms)", run.boundPoints(), run.driverTriangles(),
                 MillisecondsSince(start));
        DeformEach(
            poses, outputs, [&](size_t, const KPolyMesh& pose) { return run.deform(pose); }, false, options->mesh,
            &mesh);
    }});
}

}  // namespace Kavrin
