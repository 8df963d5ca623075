// kavrin deltamush: binds delta mush to a rest mesh and deforms each pose with it.

#include <chrono>
#include <cstdio>

#include "CommandSupport.h"
#include "DeltaMushRun.h"

namespace Kavrin {

void AddDeltaMushCommand(CLI::App& app, std::vector<Command>& commands) {
    struct Options {
        std::string rest;
        int iterations = 15;
        float envelope = 1.0f;
        int threads = 0;
        std::vector<std::string> poses;
        std::string out;
    };
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand(
        "deltamush", "Bind delta mush to a rest mesh and deform each pose; the poses share the rest mesh's faces.");
    sub->add_option("--rest", options->rest, "rest mesh (OBJ) the deltas are computed from")
        ->required()
        ->check(CLI::ExistingFile);
    sub->add_option("--iterations", options->iterations, "smoothing sweeps")->capture_default_str();
    sub->add_option("--envelope", options->envelope,
                    "on/off switch: below 1e-30 leaves the poses untouched, any other value deforms fully")->capture_default_str();
    sub->add_option("--threads", options->threads, "worker threads (0: all cores)")->capture_default_str();
    sub->add_option("poses", options->poses, "posed meshes (OBJ)")->required()->check(CLI::ExistingFile);
    sub->add_option("-o,--output", options->out, "output file for one pose, else output folder")->required();

    commands.push_back(Command{sub, [options]() {
        const KPolyMesh rest = LoadMesh(options->rest);
        std::vector<KPolyMesh> poses;
        for (const std::string& path : options->poses) {
            poses.push_back(LoadMesh(path));
            RequireSameTopology(rest, options->rest, poses.back(), path);
        }
        const std::vector<std::string> outputs = OutputPaths(options->out, options->poses);

        DeltaMushRun run(rest, options->iterations, options->threads);
        for (size_t i = 0; i < poses.size(); ++i) {
            const auto start = std::chrono::steady_clock::now();
            KPolyMesh result = poses[i];
            result.points = run.deform(poses[i], options->envelope);
            const double ms =
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
            SaveMesh(outputs[i], result);
            std::printf("[%zu/%zu] %s -> %s (%.1f ms)\n", i + 1, poses.size(), options->poses[i].c_str(),
                        outputs[i].c_str(), ms);
            std::fflush(stdout);
        }
    }});
}

}  // namespace Kavrin
