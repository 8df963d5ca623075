// kavrin deltamush: binds delta mush to a rest mesh and deforms each pose with it.

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
    sub->add_option("--rest", options->rest, "rest mesh (OBJ) the deltas are computed from")->required();
    // Decision (behaviour note "Delta mush sweeps on the command line"): a sweep of 200,000
    // vertices takes about 5 ms (2 cores), and the rest mesh and every pose take all of them.
    AddCountOption(sub, "--iterations", options->iterations, 1, 10000, "smoothing sweeps",
                   "0 sweeps leave the smoothed mesh at the origin, so every vertex would be written there");
    AddNumberOption(sub, "--envelope", options->envelope, kEnvelopeLowest, kEnvelopeHighest,
                    "on/off switch: below 1e-30 leaves the poses untouched, any other value deforms fully");
    AddThreadsOption(sub, options->threads);
    sub->add_option("poses", options->poses, kPosesHelp)->required();
    AddOutputOption(sub, options->out, kOutputHelp);

    commands.push_back(Command{sub, [options]() {
        const KPolyMesh rest = LoadMesh(options->rest);
        DeltaMushRun::RefuseLooseVertices(rest, options->rest);
        const PoseSequence poses = LoadPoses(options->poses, &rest, options->rest);
        const ResultOutputs outputs = OutputPaths(options->out, poses, {options->rest});

        DeltaMushRun run(rest, options->iterations, options->threads);
        DeformEach(poses, outputs, [&](size_t, const KPolyMesh& pose) { return run.deform(pose, options->envelope); });
    }});
}

}  // namespace Kavrin
