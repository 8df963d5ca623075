// kavrin transfer: carries source poses onto a target mesh of the same or another topology.

#include <chrono>

#include "CommandSupport.h"
#include "MarkerFile.h"
#include "TransferRun.h"

namespace Kavrin {

void AddTransferCommand(CLI::App& app, std::vector<Command>& commands) {
    struct Options {
        std::string sourceRest, target, markers, mode = "different", aim = "transfer", out;
        std::pair<int, int> fixed{0, 0};
        int iterations = 5;
        int threads = 0;
        std::vector<std::string> poses;
    };
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand(
        "transfer",
        "Transfer the deformation of source poses onto a target mesh. The correspondence and the factorisation run "
        "once; each pose is one solve.");
    sub->add_option("--source-rest", options->sourceRest, "source mesh in its rest pose (OBJ)")->required();
    sub->add_option("--target", options->target, "target mesh in its rest pose (OBJ)")->required();
    sub->add_option("--markers", options->markers,
                    "marker pairs: one 'source-index target-index' pair a line, zero-based")
        ->required();
    CLI::Option* fixed =
        sub->add_option("--fixed", options->fixed, "fixed source and target vertex (default: the first marker pair)");
    sub->add_option("--mode", options->mode, "'same' or 'different' topology")
        ->check(CLI::IsMember({"same", "different"}))
        ->capture_default_str();
    AddCountOption(sub, "--iterations", options->iterations, 0, 32767,
                   "closest-point iterations of the fitting; 1 or more with --aim source-to-target");
    sub->add_option("--aim", options->aim,
                    "'transfer' the poses, or write the source fitted onto the target ('source-to-target')")
        ->check(CLI::IsMember({"transfer", "source-to-target"}))
        ->capture_default_str();
    AddThreadsOption(sub, options->threads);
    sub->add_option("poses", options->poses, "source poses (OBJ), same vertices and faces as the rest source");
    AddOutputOption(sub, options->out, "output file for one result, else output folder");

    commands.push_back(Command{sub, [options, fixed]() {
        const KPolyMesh source = LoadMesh(options->sourceRest);
        const KPolyMesh target = LoadMesh(options->target);
        TransferSettings settings;
        settings.markers = ReadMarkers(options->markers, source.numVertices(), target.numVertices());
        settings.fixedSource = fixed->count() == 0 ? settings.markers[0] : options->fixed.first;
        settings.fixedTarget = fixed->count() == 0 ? settings.markers[1] : options->fixed.second;
        if (settings.fixedSource < 0 || settings.fixedSource >= source.numVertices())
            throw UsageError("--fixed: source vertex " + std::to_string(settings.fixedSource) +
                             " is outside the source mesh");
        if (settings.fixedTarget < 0 || settings.fixedTarget >= target.numVertices())
            throw UsageError("--fixed: target vertex " + std::to_string(settings.fixedTarget) +
                             " is outside the target mesh");
        settings.mode = options->mode == "same" ? KDeformationTransferSolver::kSameTopology
                                                : KDeformationTransferSolver::kDifferentTopology;
        if (settings.mode == KDeformationTransferSolver::kSameTopology && source.numVertices() != target.numVertices())
            throw UsageError("--mode same needs meshes with the same vertices; the source has " +
                             std::to_string(source.numVertices()) + ", the target " +
                             std::to_string(target.numVertices()));
        settings.iterations = static_cast<short>(options->iterations);
        const bool fitOnly = options->aim == "source-to-target";
        // Decision (behaviour note "Transfer options on the command line")
        if (fitOnly && options->iterations == 0)
            throw UsageError("--iterations: 0 with --aim source-to-target: the fitted source is only written after "
                             "an iteration, so the file would have no vertices; use 1 to 32767");
        // Decision (behaviour note "Vertices in no face")
        std::vector<int> unplaced;
        std::vector<char> marked(static_cast<size_t>(source.numVertices()), 0);
        for (int i = 0; i < settings.markers.length(); i += 2) marked[static_cast<size_t>(settings.markers[i])] = 1;
        for (int v : LooseVertices(source))
            if (!marked[static_cast<size_t>(v)]) unplaced.push_back(v);
        RefuseLooseVertices(options->sourceRest, unplaced,
                            "the fit cannot place such a vertex unless it is marked (its equations would be "
                            "singular)");
        if (!fitOnly)
            RefuseLooseVertices(options->target, LooseVertices(target),
                                "the transfer cannot place such a vertex (its equations would be singular)");
        const std::vector<std::string> inputs = {options->sourceRest, options->target, options->markers};
        settings.threads = options->threads;
        ConsoleSink sink("kavrin transfer");

        if (fitOnly) {
            if (!options->poses.empty()) throw UsageError("--aim source-to-target takes no poses");
            const std::string out = OutputFile(options->out, inputs);
            KPolyMesh fitted = source;
            fitted.points = TransferRun::FitSource(source, target, settings, sink);
            SaveMesh(out, fitted);
            Progress("fitted source -> %s", out.c_str());
            return;
        }
        if (options->poses.empty()) throw UsageError("no poses to transfer");
        const std::vector<KPolyMesh> poses = LoadPoses(options->poses, &source, options->sourceRest);
        const std::vector<std::string> outputs = OutputPaths(options->out, options->poses, inputs);

        const auto start = std::chrono::steady_clock::now();
        Progress("fitting the source onto the target, pairing triangles, factoring ...");
        TransferRun run(source, target, settings, sink);
        Progress("built in %.2f s", MillisecondsSince(start) / 1000.0);
        DeformEach(options->poses, outputs, [&](size_t i) {
            KPolyMesh result = target;
            result.points = run.transfer(poses[i]);
            return result;
        });
    }});
}

}  // namespace Kavrin
