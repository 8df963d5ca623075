#pragma once
// Shared pieces of the kavrin subcommands: exit codes, error kinds, mesh loading and output paths.

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "KMessageSink.h"
#include "KPolyMesh.h"

namespace Kavrin {

enum ExitCode { kExitSuccess = 0, kExitFailedRun = 1, kExitBadInput = 2 };

// Bad input: a missing or malformed file, meshes that do not match. Exit status 2.
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
void AddWrapCommand(CLI::App& app, std::vector<Command>& commands);
void AddDemoCommand(CLI::App& app, std::vector<Command>& commands);

// Reads an OBJ file; any problem is a KFileError, which the tool reports as bad input.
KPolyMesh LoadMesh(const std::string& path);
// Writes an OBJ file; a failure is a RunError.
void SaveMesh(const std::string& path, const KPolyMesh& mesh);

// Throws UsageError unless pose has the vertex count and faces of rest.
void RequireSameTopology(const KPolyMesh& rest, const std::string& restPath, const KPolyMesh& pose,
                         const std::string& posePath);

// Where each pose's result goes: out itself for one pose (or out/<name> when out is an existing
// folder), otherwise out/<name> with the folder created. Two poses with the same file name are
// a UsageError, since one result would overwrite the other.
std::vector<std::string> OutputPaths(const std::string& out, const std::vector<std::string>& poses);

// Prints the messages an engine sends while it runs: errors and warnings on standard error,
// output on standard output. A failed run's message comes back in the engine's outcome instead.
class ConsoleSink : public KMessageSink {
public:
    explicit ConsoleSink(std::string prefix) : _prefix(std::move(prefix)) {}
    void error(const std::string& message) override;
    void warning(const std::string& message) override;
    void output(const std::string& text) override;

private:
    std::string _prefix;
};

}  // namespace Kavrin
