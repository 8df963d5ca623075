#include "CommandSupport.h"

#include <cstdio>
#include <filesystem>
#include <set>

#include "ObjIO.h"

namespace fs = std::filesystem;

namespace Kavrin {

KPolyMesh LoadMesh(const std::string& path) { return ReadObj(path); }

void SaveMesh(const std::string& path, const KPolyMesh& mesh) {
    try {
        WriteObj(path, mesh);
    } catch (const KFileError& e) {
        throw RunError(e.what());
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

std::vector<std::string> OutputPaths(const std::string& out, const std::vector<std::string>& poses) {
    std::vector<std::string> paths;
    std::error_code ec;
    if (poses.size() == 1 && !fs::is_directory(out, ec)) {
        paths.push_back(out);
        return paths;
    }
    std::set<std::string> names;
    for (const std::string& pose : poses) {
        const std::string name = fs::path(pose).filename().string();
        if (!names.insert(name).second)
            throw UsageError("two poses are named " + name + "; their results would overwrite each other in " + out);
        paths.push_back((fs::path(out) / name).string());
    }
    fs::create_directories(out, ec);
    if (!fs::is_directory(out, ec)) throw UsageError(out + ": cannot create the output folder");
    return paths;
}

void ConsoleSink::error(const std::string& message) {
    std::fprintf(stderr, "%s: error: %s\n", _prefix.c_str(), message.c_str());
}

void ConsoleSink::warning(const std::string& message) {
    std::fprintf(stderr, "%s: warning: %s\n", _prefix.c_str(), message.c_str());
}

void ConsoleSink::output(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace Kavrin
