// kavrin transfer: carries source poses onto a target mesh of the same or another topology.

#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "CommandSupport.h"
#include "KTrianglePairing.h"
#include "MarkerFile.h"
#include "TextFields.h"
#include "TransferRun.h"

namespace Kavrin {

namespace {

// Closest-point iterations of the fit. Each refactors and solves the fit's equations, 7 to 11 s on
// a source of 200,000 vertices (2 cores), so 30 take about five minutes there; more would add
// little, since the closest points are found once and the iterations only pull harder towards
// them (the pull at iteration i is 10 i).
// Decision (behaviour note "Transfer options on the command line")
const int kMaxFitIterations = 30;

// The transfer's console: the fit's iterations also as the command's own progress lines, and the
// engine's warning about the calculation mode with the command line's advice.
class TransferConsole : public ConsoleSink {
public:
    explicit TransferConsole(int iterations)
        : ConsoleSink("kavrin transfer"), _iterations(iterations), _start(std::chrono::steady_clock::now()) {}

    void warning(const std::string& message) override {
        ConsoleSink::warning(message == kDtModeMayBeInaccurate
                                 ? message + " The meshes have the same vertex count; --mode same may fit better."
                                 : message);
    }

    void output(const std::string& text) override {
        ConsoleSink::output(text);
        const size_t at = text.find(kDtIterationCount);
        if (at == std::string::npos) return;
        const int iteration = std::atoi(text.c_str() + at + std::char_traits<char>::length(kDtIterationCount));
        Progress("fit iteration %d of %d (%.1f s)", iteration, _iterations, MillisecondsSince(_start) / 1000.0);
    }

private:
    int _iterations;
    std::chrono::steady_clock::time_point _start;
};

// Whether two paths name the same place (also when neither exists yet).
bool SamePlace(const std::string& a, const std::string& b) {
    namespace fs = std::filesystem;
    return fs::absolute(a).lexically_normal() == fs::absolute(b).lexically_normal();
}

}  // namespace

void AddTransferCommand(CLI::App& app, std::vector<Command>& commands) {
    struct Options {
        std::string sourceRest, target, markers, mode = "different", aim = "transfer", out, pairingLog;
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
    const CLI::Validator vertexIndex(
        [](std::string& text) -> std::string {
            long long v = 0;
            std::string why;
            if (!ParseIntegerWord(text, "vertex index", v, why) || v < 0)
                return (why.empty() ? Quoted(text) + " is not a vertex index" : why) + " (--fixed takes two, SRC TRG)";
            return std::string();
        },
        "");
    CLI::Option* fixed =
        sub->add_option("--fixed", options->fixed,
                        "fixed source and target vertex (each 0 to its mesh's vertex count - 1; default: the first "
                        "marker pair)")
            ->check(vertexIndex);
    AddChoiceOption(sub, "--mode", options->mode, {"same", "different"}, "topology of the meshes");
    AddCountOption(sub, "--iterations", options->iterations, 0, kMaxFitIterations,
                   "closest-point iterations of the fitting; 1 or more with --aim source-to-target");
    AddChoiceOption(sub, "--aim", options->aim, {"transfer", "source-to-target"},
                    "transfer the poses, or write the source fitted onto the target");
    sub->add_option("--pairing-log", options->pairingLog,
                    "also write the triangle pairing there, as the lines 'select -r young.f[T] old.f[S];' (T a "
                    "target triangle, S its source triangle or -1)");
    AddThreadsOption(sub, options->threads);
    sub->add_option("poses", options->poses,
                    "source poses: OBJ files with the rest source's vertices and faces, or point caches (.pc2, .mdd)");
    AddOutputOption(sub, options->out, kOutputHelp);

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
                             "an iteration, so the file would have no vertices; use 1 to " +
                             std::to_string(kMaxFitIterations));
        if (fitOnly && !options->pairingLog.empty())
            throw UsageError("--pairing-log: --aim source-to-target pairs no triangles");
        TransferRun::RefuseUnplaceable(source, options->sourceRest, target, options->target, settings.markers,
                                       !fitOnly);
        const std::vector<std::string> inputs = {options->sourceRest, options->target, options->markers};
        settings.threads = options->threads;
        TransferConsole console(options->iterations);

        if (fitOnly) {
            if (!options->poses.empty()) throw UsageError("--aim source-to-target takes no poses");
            KPointCacheFormat format;
            // Decision (behaviour note "Point caches on the command line")
            if (PointCacheFormatOf(options->out, format))
                throw UsageError(options->out + ": --aim source-to-target writes the fitted source as a mesh (OBJ), "
                                                "not a point cache");
            const std::string out = OutputFile(options->out, inputs);
            KPolyMesh fitted = source;
            fitted.points = TransferRun::FitSource(source, target, settings, console);
            SaveMesh(out, fitted);
            Progress("fitted source -> %s", out.c_str());
            return;
        }
        if (options->poses.empty()) throw UsageError("no poses to transfer");
        const PoseSequence poses = LoadPoses(options->poses, &source, options->sourceRest);
        const ResultOutputs outputs = OutputPaths(options->out, poses, inputs, options->target);
        if (!options->pairingLog.empty()) {
            std::vector<std::string> notOver = inputs;
            notOver.insert(notOver.end(), options->poses.begin(), options->poses.end());
            OutputFile(options->pairingLog, notOver);
            std::vector<std::string> results = outputs.files;
            if (!outputs.cache.empty()) results.push_back(outputs.cache);
            for (const std::string& output : results)
                if (SamePlace(output, options->pairingLog))
                    throw UsageError("--pairing-log: " + options->pairingLog + " is also where a result goes");
        }

        const auto start = std::chrono::steady_clock::now();
        Progress("fitting the source onto the target, pairing triangles, factoring ...");
        TransferRun run(source, target, settings, console);
        Progress("built in %.2f s", MillisecondsSince(start) / 1000.0);
        if (!options->pairingLog.empty()) {
            SaveText(options->pairingLog, TriangleCorrespondenceLog(run.pairing()));
            Progress("triangle pairing -> %s", options->pairingLog.c_str());
        }
        DeformEach(
            poses, outputs, [&](size_t, const KPolyMesh& pose) { return run.transfer(pose); }, false, options->target,
            &target);
    }});
}

}  // namespace Kavrin
