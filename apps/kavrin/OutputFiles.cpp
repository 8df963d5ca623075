// Where a command's results go and how they get there: output paths checked before any work,
// results written to temporary files beside their destinations and moved into place only when the
// whole run has succeeded.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>

#include "CommandSupport.h"
#include "ObjIO.h"
#include "TextFields.h"

namespace fs = std::filesystem;

namespace Kavrin {

namespace {

// A result written aside: its destination and the temporary file that holds it, or, for a
// destination that is not a regular file (a device, a pipe), the text itself, written at commit.
struct PendingOutput {
    std::string destination;
    std::string temporary;
    std::string text;
};

std::vector<PendingOutput> gPending;
std::vector<std::string> gCreatedFolders;  // parents before their children

std::string Reason(int error) { return std::strerror(error); }

// The file a result for path goes to: a link is followed, so that the file it names gets the
// result and the link stays.
fs::path Destination(const std::string& path) {
    std::error_code ec;
    fs::path destination = path;
    if (fs::is_symlink(path, ec) && fs::exists(path, ec)) destination = fs::canonical(path, ec);
    return destination.empty() ? fs::path(path) : destination;
}

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
        // The result is written beside a regular file and renamed over it.
        struct stat existing;
        const std::string folder = parent.empty() ? "." : parent.string();
        if (::stat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode) && ::access(folder.c_str(), W_OK) != 0)
            throw UsageError(path + ": cannot write the file (its folder is not writable: " + Reason(errno) + ")");
        return;
    }
    throw UsageError(path + ": cannot write the file (" + Reason(errno) + ")");
}

// Throws UsageError when output names the same file as one of the inputs.
void RefuseOverwritingInputs(const std::string& output, const std::vector<std::string>& inputs) {
    for (const std::string& input : inputs) {
        std::error_code ec;
        if (fs::equivalent(output, input, ec))
            throw UsageError(output + ": is also an input; kavrin does not write over its inputs");
    }
}

// A new file at path (0666 less the umask, or mode when not 0) that takes pieces of text; a failed
// open or write leaves errno set, and nothing is left at path then.
class NewFile {
public:
    NewFile(const std::string& path, mode_t mode) : _path(path) {
        _fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (_fd >= 0 && mode != 0 && ::fchmod(_fd, mode) != 0) _fail(errno);
    }
    ~NewFile() {
        if (_fd >= 0) _fail(EIO);  // not closed: the run ended early
    }
    bool opened() const { return _fd >= 0; }
    bool write(std::string_view text) {
        for (size_t at = 0; _fd >= 0 && at < text.size();) {
            const ssize_t n = ::write(_fd, text.data() + at, text.size() - at);
            if (n > 0)
                at += static_cast<size_t>(n);
            else if (n == 0 || errno != EINTR)
                _fail(n == 0 ? EIO : errno);
        }
        return _fd >= 0;
    }
    bool close() {
        if (_fd < 0) return false;
        const int fd = _fd;
        _fd = -1;
        if (::close(fd) == 0) return true;
        const int error = errno;
        ::unlink(_path.c_str());
        errno = error;
        return false;
    }

private:
    void _fail(int error) {
        ::close(_fd);
        _fd = -1;
        ::unlink(_path.c_str());
        errno = error;
    }

    std::string _path;
    int _fd = -1;
};

// Writes text over the existing special file at path (a device or a pipe).
bool WriteOver(const std::string& path, const std::string& text) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) return false;
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    const int error = errno;
    const bool closed = std::fclose(file) == 0;
    if (!written) errno = error;
    return written && closed;
}

}  // namespace

// Decision (behaviour note "Output paths checked before any work")
std::vector<std::string> OutputFilePaths(const std::string& out, const std::vector<std::string>& poses,
                                         const std::vector<std::string>& inputs, const std::string& resultOf) {
    if (out.empty()) throw UsageError("the output path (-o) is empty");
    std::vector<std::string> paths;
    std::error_code ec;
    // A path ending in a slash names a folder, also for one pose.
    const bool folder = out.back() == '/' || fs::is_directory(out, ec);
    if (poses.size() == 1 && !folder) {
        paths.push_back(out);
    } else {
        std::map<std::string, std::string> poseOf;  // result name -> the pose it comes from
        for (const std::string& pose : poses) {
            // Decision (behaviour note "Result names")
            const std::string name = resultOf.empty() ? fs::path(pose).filename().string()
                                                      : fs::path(resultOf).stem().string() + "-from-" +
                                                            fs::path(pose).stem().string() + ".obj";
            const auto named = poseOf.emplace(name, pose);
            if (!named.second)
                throw UsageError("the results of " + named.first->second + " and " + pose + " would both be " +
                                 (fs::path(out) / name).string());
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
    // The folders this creates, so that a failed run can remove them again.
    std::vector<std::string> missing;
    for (fs::path p = fs::path(out).lexically_normal(); !p.empty() && !fs::exists(p, ec); p = p.parent_path()) {
        missing.push_back(p.string());
        if (p == p.parent_path()) break;
    }
    fs::create_directories(out, ec);
    if (!fs::is_directory(out, ec))
        throw UsageError(out + ": cannot create the output folder" + (ec ? " (" + ec.message() + ")" : ""));
    gCreatedFolders.insert(gCreatedFolders.end(), missing.rbegin(), missing.rend());
    return out;
}

std::string OutputFile(const std::string& out, const std::vector<std::string>& inputs) {
    if (out.empty()) throw UsageError("the output path (-o) is empty");
    RefuseOverwritingInputs(out, inputs);
    RequireWritableFile(out);
    return out;
}

// Writes the text produce hands to its writer, piece by piece, as the output for path (see
// SaveText); produce returns false when the writer refused a piece. A KFileError produce throws
// before its first piece leaves everything as it was.
// Decision (behaviour note "Nothing half-written")
void SavePieces(const std::string& path,
                const std::function<bool(const std::function<bool(std::string_view)>&)>& produce) {
    const fs::path destination = Destination(path);
    // Everything happens with the first piece, once the content has passed its checks.
    bool started = false;
    std::string held;  // the text for a destination that is not a regular file
    std::unique_ptr<NewFile> file;
    std::string temporary;
    int error = 0;
    const auto start = [&]() {
        started = true;
        for (auto it = gPending.begin(); it != gPending.end(); ++it)
            if (it->destination == destination.string()) {
                // Written twice in one run: the later text wins.
                if (!it->temporary.empty()) ::unlink(it->temporary.c_str());
                gPending.erase(it);
                break;
            }
        struct stat existing;
        const bool exists = ::stat(destination.c_str(), &existing) == 0;
        if (exists && !S_ISREG(existing.st_mode)) return;
        // Beside the destination, so that moving it into place is a rename within one folder.
        static int counter = 0;
        const fs::path folder = destination.parent_path();
        for (;;) {
            const std::string name = "." + destination.filename().string() + ".kavrin-" + std::to_string(::getpid()) +
                                     "-" + std::to_string(++counter);
            temporary = (folder / name).string();
            file.reset(new NewFile(temporary, exists ? existing.st_mode & 07777 : 0));
            if (file->opened() || errno != EEXIST) break;
        }
        if (!file->opened()) error = errno;
    };
    const bool produced = produce([&](std::string_view piece) {
        if (!started) start();
        if (error != 0) return false;
        if (!file) {
            held.append(piece);
            return true;
        }
        if (!file->write(piece)) error = errno;
        return error == 0;
    });
    if (!started) start();
    if (produced && error == 0 && file && !file->close()) error = errno;
    if (error != 0 || !produced) {
        file.reset();
        throw RunError(path + ": cannot write the file (" + Reason(error ? error : EIO) + "); nothing was written");
    }
    gPending.push_back(file ? PendingOutput{destination.string(), temporary, std::string()}
                            : PendingOutput{destination.string(), std::string(), std::move(held)});
}

void SaveText(const std::string& path, const std::string& text) {
    SavePieces(path, [&text](const std::function<bool(std::string_view)>& write) { return write(text); });
}

void SaveMesh(const std::string& path, const KPolyMesh& mesh, const KCornerUVs* uvs) {
    try {
        // Formatted a piece at a time into the file: the whole text is never held.
        SavePieces(path, [&](const std::function<bool(std::string_view)>& write) {
            return FormatObjPieces(mesh, uvs, write);
        });
    } catch (const KFileError& e) {
        throw RunError(path + ": " + e.what());
    }
}

std::string StagedFile(const std::string& path) {
    const std::string destination = Destination(path).string();
    for (const PendingOutput& p : gPending)
        if (p.destination == destination && !p.temporary.empty()) return p.temporary;
    return path;
}

void CommitOutputs() {
    // Special files first: they cannot be written aside, and a failure there still changes no
    // regular file.
    for (const PendingOutput& p : gPending)
        if (p.temporary.empty() && !WriteOver(p.destination, p.text)) {
            const int error = errno;
            DiscardOutputs();
            throw RunError(p.destination + ": cannot write the file (" + Reason(error) + "); nothing was written");
        }
    for (size_t i = 0; i < gPending.size(); ++i) {
        const PendingOutput& p = gPending[i];
        if (p.temporary.empty() || ::rename(p.temporary.c_str(), p.destination.c_str()) == 0) continue;
        const std::string message = p.destination + ": cannot move the written file into place (" + Reason(errno) +
                                    "); " + std::to_string(i) + " of " + std::to_string(gPending.size()) +
                                    " outputs were written";
        gPending.erase(gPending.begin(), gPending.begin() + static_cast<long>(i));
        DiscardOutputs();
        throw RunError(message);
    }
    gPending.clear();
    gCreatedFolders.clear();
}

void DiscardOutputs() {
    for (const PendingOutput& p : gPending)
        if (!p.temporary.empty()) ::unlink(p.temporary.c_str());
    gPending.clear();
    // Deepest first; a folder that is not empty (it held something already) stays.
    for (auto it = gCreatedFolders.rbegin(); it != gCreatedFolders.rend(); ++it) ::rmdir(it->c_str());
    gCreatedFolders.clear();
}

}  // namespace Kavrin
