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

#include "InputChecks.h"
#include "KMessageSink.h"
#include "KPolyMesh.h"
#include "ObjIO.h"
#include "PointCache.h"
#include "RunError.h"

namespace Kavrin {

enum ExitCode { kExitSuccess = 0, kExitFailedRun = 1, kExitBadInput = 2 };

// Bad input: a missing or malformed file, meshes that do not match, a bad option, an output
// path that cannot be written. Exit status 2.
using UsageError = KInputError;

// The input was fine but the run failed. Exit status 1.
using RunError = KRunError;

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

// Milliseconds since start.
double MillisecondsSince(std::chrono::steady_clock::time_point start);

// ---- Poses: the meshes a command deforms, in the order given: OBJ files, and the frames of
// point caches (.pc2, .mdd), which hold positions only and take the faces of the command's rest
// mesh (or of --topology).
class PoseSequence {
public:
    std::vector<std::string> files;  // the files given, OBJs and caches
    std::vector<std::string> names;  // each pose as messages name it: its file, or "<cache> frame <k>"
    // The file each pose's result in a folder is named after: the pose's own, or "<cache stem>.<k>.obj"
    // beside the cache (k counting from 0, at least four digits).
    std::vector<std::string> resultNames;
    // The timing of the input when it is one cache, kept by a cache written in the same format.
    bool oneCache = false;
    KPointCacheFormat cacheFormat = KPointCacheFormat::kPC2;
    KPointCache timing;  // without positions

    size_t size() const { return names.size(); }
    // Pose i as a mesh (a cache frame with the faces of its topology).
    KPolyMesh mesh(size_t i) const;
    // The texture coordinates of pose i's corners (those of its topology for a cache frame); empty
    // unless read with them.
    const KCornerUVs& corners(size_t i) const;

private:
    friend PoseSequence LoadPoses(const std::vector<std::string>&, const KPolyMesh*, const std::string&, bool,
                                  const KCornerUVs*);
    struct Pose {
        int mesh = -1;   // index into _meshes for an OBJ pose
        int cache = -1;  // index into _caches for a cache frame
        int frame = 0;
    };
    std::vector<Pose> _poses;
    std::vector<KPolyMesh> _meshes;
    std::vector<KCornerUVs> _corners;
    std::vector<KPointCache> _caches;
    KPolyMesh _topology;
    KCornerUVs _topologyCorners;
};

// Reads the poses at paths, every coordinate within kLargestCoordinate. With sameTopology each must
// have the vertex count and faces of rest (of the first pose when rest is null), as
// RequireSameTopology checks, and the frames of a cache take those faces; without it (meshes that
// may differ) they take rest's. A cache with no faces to take is a UsageError pointing to
// --topology. With restCorners the OBJ poses' texture coordinates are read too, and cache frames
// take restCorners.
PoseSequence LoadPoses(const std::vector<std::string>& paths, const KPolyMesh* rest = nullptr,
                       const std::string& restPath = std::string(), bool sameTopology = true,
                       const KCornerUVs* restCorners = nullptr);

// The help texts of the poses and of -o in every command that deforms poses.
extern const char* const kPosesHelp;
extern const char* const kOutputHelp;

// Where a command's results go: one OBJ file per pose, or every result as one frame of a point
// cache when out names one (.pc2, .mdd).
struct ResultOutputs {
    std::vector<std::string> files;  // one per pose; empty with a cache
    std::string cache;
    KPointCacheFormat format = KPointCacheFormat::kPC2;
    KPointCache timing;  // start frame, sample rate, times of the cache written
};

// Where each pose's result goes: a cache when out ends in .pc2 or .mdd (it keeps the timing of a
// single input cache of the same format; see docs/kavrin.md), else out itself for one pose (or a
// file in it when out is an existing folder or ends in '/'), otherwise a file in the folder out,
// created. The file in the folder is named after the pose (its result name), or, when the result is
// a deformed copy of another mesh, "<resultOf's stem>-from-<the pose's stem>.obj". Checked before
// any work, all as UsageError: an empty out, two poses whose results would have the same name, a
// folder that cannot be created, an output that cannot be written, an output that is one of the
// inputs (poses.files or otherInputs).
ResultOutputs OutputPaths(const std::string& out, const PoseSequence& poses,
                          const std::vector<std::string>& otherInputs = {}, const std::string& resultOf = std::string());

// The command's main loop: for each pose i, deform(i, pose) returns the points of its result, a
// copy of the pose (of onto, when given) with those points, which is written to its output (an OBJ
// with the pose's texture coordinates when withCorners, or the next frame of the cache, written
// once all are made), then one line "[i/n] <pose> -> <output> (<ms> ms)" reports it (the time of
// deform alone). A result with a point that is not finite is a RunError naming the pose and the
// first such vertices; resultOf names onto's file (as for OutputPaths).
void DeformEach(const PoseSequence& poses, const ResultOutputs& outputs,
                const std::function<KVectorArray(size_t, const KPolyMesh&)>& deform, bool withCorners = false,
                const std::string& resultOf = std::string(), const KPolyMesh* onto = nullptr);

// OutputPaths for OBJ results named after poses (file names).
std::vector<std::string> OutputFilePaths(const std::string& out, const std::vector<std::string>& poses,
                                         const std::vector<std::string>& inputs, const std::string& resultOf);

// The output folder out, created when missing; an empty out, a file in its place or a folder that
// cannot be created is a UsageError.
std::string OutputFolder(const std::string& out);

// The same checks as OutputPaths for a command that writes one file, out (not a folder).
std::string OutputFile(const std::string& out, const std::vector<std::string>& inputs);

// ---- Options. Each shows its range in --help; a value outside it ends the parse with exit 2
// and a line naming the option, the value and the range.

// The one line main prints for an error of the command line itself (an unknown option, a missing
// or repeated one, a value that is not a number), in the tool's own words.
std::string ParseErrorText(const CLI::ParseError& error);


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


// The required "-o,--output PATH"; an empty path is refused.
CLI::Option* AddOutputOption(CLI::App* sub, std::string& out, const std::string& description);
// "--topology MESH.obj", for commands without a rest mesh: the mesh whose faces the frames of
// point caches take; an empty path is refused.
CLI::Option* AddTopologyOption(CLI::App* sub, std::string& path, const std::string& description);

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
