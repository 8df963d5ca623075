#pragma once
// Shared pieces of the kavrin subcommands: exit codes, error kinds, checked options, mesh loading,
// output paths and the console. Every command gets the tool's conventions by using them:
// - one line on standard error for any failure, and one exit status: 2 for anything about the
//   input or the output paths (found before any work starts), 1 for a failed run, 0 for success;
// - options whose range --help shows and that refuse, with the reason, values the engine would
//   accept but turn into garbage on a file;
// - the engine's own progress and trace lines only with --verbose, the command's own concise
//   progress (Progress) always.

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "KMessageSink.h"
#include "KPolyMesh.h"
#include "ObjIO.h"

namespace Kavrin {

enum ExitCode { kExitSuccess = 0, kExitFailedRun = 1, kExitBadInput = 2 };

// Bad input: a missing or malformed file, meshes that do not match, a bad option, an output
// path that cannot be written. Exit status 2.
class UsageError : public std::runtime_error {
public:
    explicit UsageError(const std::string& message) : std::runtime_error(message) {}
};

// The input was fine but the run failed. Exit status 1.
class RunError : public std::runtime_error {
public:
    explicit RunError(const std::string& message) : std::runtime_error(message) {}
};

// A subcommand: its parser and what runs when it was chosen.
struct Command {
    CLI::App* app;
    std::function<void()> run;
};

void AddDeltaMushCommand(CLI::App& app, std::vector<Command>& commands);
void AddTransferCommand(CLI::App& app, std::vector<Command>& commands);
void AddJiggleCommand(CLI::App& app, std::vector<Command>& commands);
void AddRelaxCommand(CLI::App& app, std::vector<Command>& commands);
void AddWrapCommand(CLI::App& app, std::vector<Command>& commands);
void AddDemoCommand(CLI::App& app, std::vector<Command>& commands);
void AddOffsetCommand(CLI::App& app, std::vector<Command>& commands);
void AddRenderCommand(CLI::App& app, std::vector<Command>& commands);

// Coordinates the engines compute with safely: their single-precision geometry forms products of
// coordinate differences and squares them (edge cross products, normalised), which overflow for
// coordinates much beyond this.
constexpr double kLargestCoordinate = 1e9;

// Reads an OBJ file (with uvs given, its texture coordinates too); any problem is a KFileError,
// which the tool reports as bad input, and a vertex beyond kLargestCoordinate a UsageError naming
// it.
KPolyMesh LoadMesh(const std::string& path, KCornerUVs* uvs = nullptr);

// ---- Outputs. Every file a run writes goes to a temporary file beside its destination; main
// moves them all into place once the command has succeeded (CommitOutputs) and removes them, with
// the output folders the run created, when it failed (DiscardOutputs). A failed run therefore
// leaves every destination as it was. A destination that is not a regular file (a device, a pipe)
// is written directly, at commit, before the others are moved into place.

// Writes the text as the file at path (as above); a failure is a RunError.
void SaveText(const std::string& path, const std::string& text);
// Writes an OBJ file, with uvs given its texture coordinates too; a failure (including a result
// with points that are not finite) is a RunError.
void SaveMesh(const std::string& path, const KPolyMesh& mesh, const KCornerUVs* uvs = nullptr);
// Where the run's output for path can be read back before CommitOutputs: the temporary file that
// holds it, or path itself when the run saved nothing there.
std::string StagedFile(const std::string& path);
// Moves every output of the run into place; a RunError (after DiscardOutputs) when one cannot be.
void CommitOutputs();
// Removes the run's temporary files and the output folders it created that are left empty.
void DiscardOutputs();

// The command's main loop: for each input i, deform(i) makes the result mesh, which is written to
// outputs[i] (with corners[i] as its texture coordinates when corners is given), then one line
// "[i/n] <input> -> <output> (<ms> ms)" reports it (the time of deform(i) alone). A result with a
// point that is not finite is a RunError naming the input and the first such vertices; resultOf
// names the mesh the result is a deformed copy of when that is not the input (as for OutputPaths).
void DeformEach(const std::vector<std::string>& inputs, const std::vector<std::string>& outputs,
                const std::function<KPolyMesh(size_t)>& deform, const std::vector<KCornerUVs>* corners = nullptr,
                const std::string& resultOf = std::string());
// Milliseconds since start.
double MillisecondsSince(std::chrono::steady_clock::time_point start);

// Throws UsageError unless pose has the vertex count and faces of rest.
void RequireSameTopology(const KPolyMesh& rest, const std::string& restPath, const KPolyMesh& pose,
                         const std::string& posePath);
// Reads the pose meshes at paths; each must have the vertex count and faces of rest (of the first
// pose when rest is null), as RequireSameTopology checks.
std::vector<KPolyMesh> LoadPoses(const std::vector<std::string>& paths, const KPolyMesh* rest = nullptr,
                                 const std::string& restPath = std::string());

// Where each pose's result goes: out itself for one pose (or a file in it when out is an existing
// folder or ends in '/'), otherwise a file in the folder out, created. The file in the folder is
// named after the pose (its file name), or, when the result is a deformed copy of another mesh,
// "<resultOf's stem>-from-<the pose's stem>.obj". Checked before any work, all as UsageError: an
// empty out, two poses whose results would have the same name, a folder that cannot be created,
// an output that cannot be written, an output that is one of the poses or of otherInputs.
std::vector<std::string> OutputPaths(const std::string& out, const std::vector<std::string>& poses,
                                     const std::vector<std::string>& otherInputs = {},
                                     const std::string& resultOf = std::string());

// The output folder out, created when missing; an empty out, a file in its place or a folder that
// cannot be created is a UsageError.
std::string OutputFolder(const std::string& out);

// The same checks as OutputPaths for a command that writes one file, out (not a folder).
std::string OutputFile(const std::string& out, const std::vector<std::string>& inputs);

// Vertices that no face uses, in index order.
std::vector<int> LooseVertices(const KPolyMesh& mesh);

// Throws UsageError "<path>: N vertices are in no face (the first few, counting from 0);
// <consequence>" unless loose
// is empty.
void RefuseLooseVertices(const std::string& path, const std::vector<int>& loose, const std::string& consequence);

// ---- Options. Each shows its range in --help; a value outside it ends the parse with exit 2
// and a line naming the option, the value and the range.

// The one line main prints for an error of the command line itself (an unknown option, a missing
// or repeated one, a value that is not a number), in the tool's own words.
std::string ParseErrorText(const CLI::ParseError& error);

// Most worker threads an option accepts.
constexpr int kMaxThreads = 1024;

// "--threads N": 0 (all cores, the default) to kMaxThreads.
CLI::Option* AddThreadsOption(CLI::App* sub, int& threads);

// A whole-number option limited to [lowest, highest]. whyNotLower says why values below lowest
// are refused (what the engine would make of them); the range is added to the description.
CLI::Option* AddCountOption(CLI::App* sub, const std::string& name, int& value, int lowest, int highest,
                            const std::string& description, const std::string& whyNotLower = std::string());

// A number option limited to [lowest, highest] (finite, within the range of a float); the range is
// added to the description.
CLI::Option* AddNumberOption(CLI::App* sub, const std::string& name, float& value, double lowest, double highest,
                             const std::string& description);
CLI::Option* AddNumberOption(CLI::App* sub, const std::string& name, double& value, double lowest, double highest,
                             const std::string& description);

// An option that takes one of the words in choices, listed in the description.
CLI::Option* AddChoiceOption(CLI::App* sub, const std::string& name, std::string& value,
                             const std::vector<std::string>& choices, const std::string& description);

// The range of the envelope of a deformer in Maya, which every command's --envelope takes.
// Decision (behaviour note "Envelopes on the command line")
constexpr double kEnvelopeLowest = -2.0, kEnvelopeHighest = 2.0;

// The required "-o,--output PATH"; an empty path is refused.
CLI::Option* AddOutputOption(CLI::App* sub, std::string& out, const std::string& description);

// ---- Console.

// Whether --verbose was given: the engine's own progress and trace lines are shown.
bool Verbose();
void SetVerbose(bool verbose);

// The command's own progress: one line on standard output (a line end is added), flushed.
void Progress(const char* format, ...) __attribute__((format(printf, 1, 2)));

// What an engine reports while it runs, for the command line: warnings go to standard error at
// once, one line each; output text (progress, traces) to standard output only with --verbose;
// errors are held (and echoed with --verbose): a failed run reports its one line through the
// exception it ends with, and a run that succeeds all the same prints them at the end.
class ConsoleSink : public KMessageSink {
public:
    explicit ConsoleSink(std::string prefix) : _prefix(std::move(prefix)) {}
    void error(const std::string& message) override;
    void warning(const std::string& message) override;
    void output(const std::string& text) override;

private:
    std::string _prefix;
};

// The errors ConsoleSinks held since the last call, as full lines without line ends.
std::vector<std::string> TakeHeldErrors();

}  // namespace Kavrin
