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

// Reads an OBJ file; any problem is a KFileError, which the tool reports as bad input.
KPolyMesh LoadMesh(const std::string& path);
// Writes an OBJ file, with uvs given its texture coordinates too; a failure (including a result
// with points that are not finite) is a RunError.
void SaveMesh(const std::string& path, const KPolyMesh& mesh, const KCornerUVs* uvs = nullptr);

// The command's main loop: for each input i, deform(i) makes the result mesh, which is written to
// outputs[i] (with corners[i] as its texture coordinates when corners is given), then one line
// "[i/n] <input> -> <output> (<ms> ms)" reports it (the time of deform(i) alone).
void DeformEach(const std::vector<std::string>& inputs, const std::vector<std::string>& outputs,
                const std::function<KPolyMesh(size_t)>& deform, const std::vector<KCornerUVs>* corners = nullptr);
// Milliseconds since start.
double MillisecondsSince(std::chrono::steady_clock::time_point start);

// Throws UsageError unless pose has the vertex count and faces of rest.
void RequireSameTopology(const KPolyMesh& rest, const std::string& restPath, const KPolyMesh& pose,
                         const std::string& posePath);
// Reads the pose meshes at paths; each must have the vertex count and faces of rest (of the first
// pose when rest is null), as RequireSameTopology checks.
std::vector<KPolyMesh> LoadPoses(const std::vector<std::string>& paths, const KPolyMesh* rest = nullptr,
                                 const std::string& restPath = std::string());

// Where each pose's result goes: out itself for one pose (or out/<name> when out is an existing
// folder or ends in '/'), otherwise out/<name> with the folder created. Checked before any work, all as
// UsageError: an empty out, two poses with the same file name (one result would overwrite the
// other), a folder that cannot be created, an output that cannot be written, an output that is
// one of the poses or of otherInputs.
std::vector<std::string> OutputPaths(const std::string& out, const std::vector<std::string>& poses,
                                     const std::vector<std::string>& otherInputs = {});

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
// and a line naming the option and the reason.

// Most worker threads an option accepts.
constexpr int kMaxThreads = 1024;

// "--threads N": 0 (all cores, the default) to kMaxThreads.
CLI::Option* AddThreadsOption(CLI::App* sub, int& threads);

// A whole-number option limited to [lowest, highest]. whyNotLower says why values below lowest
// are refused (what the engine would make of them); the range is added to the description.
CLI::Option* AddCountOption(CLI::App* sub, const std::string& name, int& value, int lowest, int highest,
                            const std::string& description, const std::string& whyNotLower = std::string());

// A number option that must be finite and within the range of a float.
CLI::Option* AddFiniteOption(CLI::App* sub, const std::string& name, float& value, const std::string& description);
CLI::Option* AddFiniteOption(CLI::App* sub, const std::string& name, double& value, const std::string& description);

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
