#include "CommandSupport.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>

#include "ObjIO.h"
#include "TextFields.h"

namespace fs = std::filesystem;

namespace Kavrin {

namespace {

bool gVerbose = false;
std::vector<std::string> gHeldErrors;

// Throws UsageError unless path can be written as a file: a missing file is created and removed
// again, an existing one opened for writing without being changed.
void RequireWritableFile(const std::string& path) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) throw UsageError(path + ": is a folder, not a file to write");
    const fs::path parent = fs::path(path).parent_path();
    if (!parent.empty() && !fs::is_directory(parent, ec))
        throw UsageError(path + ": cannot write the file (the folder " + parent.string() + " does not exist)");
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NONBLOCK | O_CLOEXEC, 0666);
    if (fd >= 0) {
        ::close(fd);
        ::unlink(path.c_str());
        return;
    }
    if (errno == EEXIST) fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) {
        ::close(fd);
        return;
    }
    throw UsageError(path + ": cannot write the file (" + std::strerror(errno) + ")");
}

// Throws UsageError when output names the same file as one of the inputs.
void RefuseOverwritingInputs(const std::string& output, const std::vector<std::string>& inputs) {
    for (const std::string& input : inputs) {
        std::error_code ec;
        if (fs::equivalent(output, input, ec))
            throw UsageError(output + ": is also an input; kavrin does not write over its inputs");
    }
}

std::string RangeText(int lowest, int highest) { return std::to_string(lowest) + " to " + std::to_string(highest); }

}  // namespace

KPolyMesh LoadMesh(const std::string& path) { return ReadObj(path); }

void SaveMesh(const std::string& path, const KPolyMesh& mesh, const KCornerUVs* uvs) {
    try {
        WriteObj(path, mesh, uvs);
    } catch (const KFileError& e) {
        throw RunError(e.what());
    }
}

double MillisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

void DeformEach(const std::vector<std::string>& inputs, const std::vector<std::string>& outputs,
                const std::function<KPolyMesh(size_t)>& deform, const std::vector<KCornerUVs>* corners) {
    for (size_t i = 0; i < inputs.size(); ++i) {
        const auto start = std::chrono::steady_clock::now();
        const KPolyMesh result = deform(i);
        const double ms = MillisecondsSince(start);
        SaveMesh(outputs[i], result, corners ? &(*corners)[i] : nullptr);
        Progress("[%zu/%zu] %s -> %s (%.1f ms)", i + 1, inputs.size(), inputs[i].c_str(), outputs[i].c_str(), ms);
    }
}

void RequireSameTopology(const KPolyMesh& rest, const std::string& restPath, const KPolyMesh& pose,
                         const std::string& posePath) {
    if (pose.numVertices() != rest.numVertices())
        throw UsageError(posePath + ": " + std::to_string(pose.numVertices()) + " vertices, but " + restPath +
                         " has " + std::to_string(rest.numVertices()));
    if (pose.numFaces() != rest.numFaces())
        throw UsageError(posePath + ": " + std::to_string(pose.numFaces()) + " faces, but " + restPath + " has " +
                         std::to_string(rest.numFaces()));
    if (pose.faceCounts != rest.faceCounts || pose.faceVertices != rest.faceVertices)
        throw UsageError(posePath + ": its faces differ from those of " + restPath);
}

std::vector<KPolyMesh> LoadPoses(const std::vector<std::string>& paths, const KPolyMesh* rest,
                                 const std::string& restPath) {
    std::vector<KPolyMesh> poses;
    for (const std::string& path : paths) {
        poses.push_back(LoadMesh(path));
        if (rest)
            RequireSameTopology(*rest, restPath, poses.back(), path);
        else
            RequireSameTopology(poses.front(), paths.front(), poses.back(), path);
    }
    return poses;
}

// Decision (behaviour note "Output paths checked before any work")
std::vector<std::string> OutputPaths(const std::string& out, const std::vector<std::string>& poses,
                                     const std::vector<std::string>& otherInputs) {
    if (out.empty()) throw UsageError("the output path (-o) is empty");
    std::vector<std::string> inputs = poses;
    inputs.insert(inputs.end(), otherInputs.begin(), otherInputs.end());
    std::vector<std::string> paths;
    std::error_code ec;
    // A path ending in a slash names a folder, also for one pose.
    const bool folder = out.back() == '/' || fs::is_directory(out, ec);
    if (poses.size() == 1 && !folder) {
        paths.push_back(out);
    } else {
        std::set<std::string> names;
        for (const std::string& pose : poses) {
            const std::string name = fs::path(pose).filename().string();
            if (!names.insert(name).second)
                throw UsageError("two poses are named " + name + "; their results would overwrite each other in " +
                                 out);
            paths.push_back((fs::path(out) / name).string());
        }
        if (fs::exists(out, ec) && !fs::is_directory(out, ec))
            throw UsageError(out + ": is a file; with several poses -o names a folder");
        OutputFolder(out);
    }
    for (const std::string& path : paths) {
        RefuseOverwritingInputs(path, inputs);
        RequireWritableFile(path);
    }
    return paths;
}

std::string OutputFolder(const std::string& out) {
    if (out.empty()) throw UsageError("the output path (-o) is empty");
    std::error_code ec;
    if (fs::exists(out, ec) && !fs::is_directory(out, ec)) throw UsageError(out + ": is a file, not a folder");
    fs::create_directories(out, ec);
    if (!fs::is_directory(out, ec))
        throw UsageError(out + ": cannot create the output folder" + (ec ? " (" + ec.message() + ")" : ""));
    return out;
}

std::string OutputFile(const std::string& out, const std::vector<std::string>& inputs) {
    if (out.empty()) throw UsageError("the output path (-o) is empty");
    RefuseOverwritingInputs(out, inputs);
    RequireWritableFile(out);
    return out;
}

std::vector<int> LooseVertices(const KPolyMesh& mesh) {
    std::vector<char> used(static_cast<size_t>(mesh.numVertices()), 0);
    for (int v : mesh.faceVertices)
        if (v >= 0 && v < mesh.numVertices()) used[static_cast<size_t>(v)] = 1;
    std::vector<int> loose;
    for (int v = 0; v < mesh.numVertices(); ++v)
        if (!used[static_cast<size_t>(v)]) loose.push_back(v);
    return loose;
}

void RefuseLooseVertices(const std::string& path, const std::vector<int>& loose, const std::string& consequence) {
    if (loose.empty()) return;
    throw UsageError(path + ": " + std::to_string(loose.size()) + (loose.size() == 1 ? " vertex is" : " vertices are") +
                     " in no face (" + FirstFew(loose) + ", counting from 0); " + consequence);
}

// Decision (behaviour note "Thread counts on the command line")
CLI::Option* AddThreadsOption(CLI::App* sub, int& threads) {
    return AddCountOption(sub, "--threads", threads, 0, kMaxThreads, "worker threads, 0 for all cores");
}

CLI::Option* AddCountOption(CLI::App* sub, const std::string& name, int& value, int lowest, int highest,
                            const std::string& description, const std::string& whyNotLower) {
    const std::string range = RangeText(lowest, highest);
    const CLI::Validator check(
        [lowest, highest, range, whyNotLower](std::string& text) -> std::string {
            long long v = 0;
            std::string why;
            if (!ParseIntegerWord(text, "whole number", v, why)) return why;
            if (v < lowest && !whyNotLower.empty()) return whyNotLower + "; use " + range;
            if (v < lowest || v > highest) return text + " is outside " + range;
            return std::string();
        },
        "");
    return sub->add_option(name, value, description + " (" + range + ")")->check(check)->capture_default_str();
}

namespace {

const CLI::Validator kFiniteNumber(
    [](std::string& text) -> std::string {
        double v = 0.0;
        std::string why;
        return ParseFloatWord(text, v, why) ? std::string() : why;
    },
    "");

}  // namespace

CLI::Option* AddFiniteOption(CLI::App* sub, const std::string& name, float& value, const std::string& description) {
    return sub->add_option(name, value, description)->check(kFiniteNumber)->capture_default_str();
}

CLI::Option* AddFiniteOption(CLI::App* sub, const std::string& name, double& value, const std::string& description) {
    return sub->add_option(name, value, description)->check(kFiniteNumber)->capture_default_str();
}

CLI::Option* AddOutputOption(CLI::App* sub, std::string& out, const std::string& description) {
    const CLI::Validator check(
        [](std::string& text) -> std::string { return text.empty() ? "the output path is empty" : std::string(); },
        "");
    return sub->add_option("-o,--output", out, description)->required()->check(check);
}

bool Verbose() { return gVerbose; }
void SetVerbose(bool verbose) { gVerbose = verbose; }

void Progress(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// Decision (behaviour note "Engine errors on the command line")
void ConsoleSink::error(const std::string& message) {
    if (gVerbose) {
        std::printf("%s: error: %s\n", _prefix.c_str(), message.c_str());
        std::fflush(stdout);
    }
    gHeldErrors.push_back(_prefix + ": error: " + message);
}

void ConsoleSink::warning(const std::string& message) {
    std::fprintf(stderr, "%s: warning: %s\n", _prefix.c_str(), message.c_str());
}

void ConsoleSink::output(const std::string& text) {
    if (!gVerbose) return;
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

std::vector<std::string> TakeHeldErrors() {
    std::vector<std::string> held;
    held.swap(gHeldErrors);
    return held;
}

}  // namespace Kavrin
