// The poses a command deforms (OBJ files and the frames of point caches) and where their results
// go (OBJ files or the frames of one point cache).

#include <cmath>
#include <cstdio>
#include <filesystem>

#include "CommandSupport.h"
#include "TextFields.h"

namespace fs = std::filesystem;

namespace Kavrin {

const char* const kPosesHelp = "posed meshes: OBJ files with the rest mesh's vertices and faces, or point caches "
                                "(.pc2, .mdd)";
const char* const kOutputHelp =
    "output file for one pose, else output folder; a name ending in .pc2 or .mdd writes every result into that point "
    "cache";

namespace {

// "<stem>.0007.obj" beside the cache: the name a frame's result takes in a folder.
std::string FrameFile(const std::string& cache, int frame) {
    char number[16];
    std::snprintf(number, sizeof number, "%04d", frame);
    return (fs::path(cache).parent_path() / (fs::path(cache).stem().string() + "." + number + ".obj")).string();
}

}  // namespace

KPolyMesh PoseSequence::mesh(size_t i) const {
    const Pose& p = _poses[i];
    if (p.mesh >= 0) return _meshes[static_cast<size_t>(p.mesh)];
    KPolyMesh m = _topology;
    const KPointCache& c = _caches[static_cast<size_t>(p.cache)];
    const float* xyz = c.frame(p.frame);
    for (int v = 0; v < c.points; ++v) m.points[v] = KVector(xyz[3 * v], xyz[3 * v + 1], xyz[3 * v + 2]);
    return m;
}

const KCornerUVs& PoseSequence::corners(size_t i) const {
    const Pose& p = _poses[i];
    return p.mesh >= 0 ? _corners[static_cast<size_t>(p.mesh)] : _topologyCorners;
}

PoseSequence LoadPoses(const std::vector<std::string>& paths, const KPolyMesh* rest, const std::string& restPath,
                       bool sameTopology, const KCornerUVs* restCorners) {
    PoseSequence s;
    s.files = paths;
    std::string topologyPath = restPath;
    bool haveTopology = rest != nullptr;
    if (rest) s._topology = *rest;
    if (restCorners) s._topologyCorners = *restCorners;
    for (const std::string& path : paths) {
        KPointCacheFormat format;
        if (!PointCacheFormatOf(path, format)) {
            s._corners.emplace_back();
            s._meshes.push_back(LoadMesh(path, restCorners ? &s._corners.back() : nullptr));
            const KPolyMesh& mesh = s._meshes.back();
            // Decision (behaviour note "Point caches on the command line"): meshes that may differ
            // never lend a cache their faces.
            if (sameTopology && !haveTopology) {
                s._topology = mesh;
                s._topologyCorners = s._corners.back();
                topologyPath = path;
                haveTopology = true;
            } else if (sameTopology) {
                RequireSameTopology(s._topology, topologyPath, mesh, path);
            }
            PoseSequence::Pose pose;
            pose.mesh = static_cast<int>(s._meshes.size()) - 1;
            s._poses.push_back(pose);
            s.names.push_back(path);
            s.resultNames.push_back(path);
            continue;
        }
        if (!haveTopology)
            throw UsageError(path + ": a point cache holds positions only; give the mesh whose faces its frames take "
                                    "with --topology");
        s._caches.push_back(ReadPointCache(path));
        const KPointCache& cache = s._caches.back();
        RequireVertexCount(cache.points, path, s._topology.numVertices(), topologyPath);
        for (int f = 0; f < cache.frames(); ++f) {
            const std::string name = path + " frame " + std::to_string(f);
            RequireComputablePoints(cache.frame(f), cache.points, name);
            PoseSequence::Pose pose;
            pose.cache = static_cast<int>(s._caches.size()) - 1;
            pose.frame = f;
            s._poses.push_back(pose);
            s.names.push_back(name);
            s.resultNames.push_back(FrameFile(path, f));
        }
        if (paths.size() == 1) {
            s.oneCache = true;
            s.cacheFormat = format;
            s.timing.startFrame = cache.startFrame;
            s.timing.sampleRate = cache.sampleRate;
            s.timing.times = cache.times;
        }
    }
    return s;
}

ResultOutputs OutputPaths(const std::string& out, const PoseSequence& poses, const std::vector<std::string>& otherInputs,
                          const std::string& resultOf) {
    std::vector<std::string> inputs = poses.files;
    inputs.insert(inputs.end(), otherInputs.begin(), otherInputs.end());
    ResultOutputs r;
    std::error_code ec;
    if (!out.empty() && out.back() != '/' && !fs::is_directory(out, ec) && PointCacheFormatOf(out, r.format)) {
        r.cache = OutputFile(out, inputs);
        // Decision (behaviour note "Point caches on the command line")
        if (poses.oneCache && poses.cacheFormat == r.format) r.timing = poses.timing;
        return r;
    }
    r.files = OutputFilePaths(out, poses.resultNames, inputs, resultOf);
    return r;
}

void DeformEach(const PoseSequence& poses, const ResultOutputs& outputs,
                const std::function<KVectorArray(size_t, const KPolyMesh&)>& deform, bool withCorners,
                const std::string& resultOf, const KPolyMesh* onto) {
    KPointCache cache = outputs.timing;
    for (size_t i = 0; i < poses.size(); ++i) {
        KPolyMesh result = poses.mesh(i);
        const auto start = std::chrono::steady_clock::now();
        KVectorArray points = deform(i, result);
        const double ms = MillisecondsSince(start);
        if (onto) result = *onto;
        result.points = std::move(points);
        const std::string& name = poses.names[i];
        RequireFiniteResult(result.points, name, resultOf, "; nothing was written");
        if (outputs.cache.empty()) {
            SaveMesh(outputs.files[i], result, withCorners ? &poses.corners(i) : nullptr);
            Progress("[%zu/%zu] %s -> %s (%.1f ms)", i + 1, poses.size(), name.c_str(), outputs.files[i].c_str(), ms);
            continue;
        }
        if (i == 0) cache.points = result.numVertices();
        // Guard (behaviour note "Point caches on the command line")
        if (result.numVertices() != cache.points)
            throw RunError(name + ": its result has " + std::to_string(result.numVertices()) + " vertices, but the " +
                           "cache's frames have " + std::to_string(cache.points) + "; a point cache holds one mesh");
        for (const KVector& p : result.points) cache.xyz.insert(cache.xyz.end(), {p.x, p.y, p.z});
        Progress("[%zu/%zu] %s -> %s frame %zu (%.1f ms)", i + 1, poses.size(), name.c_str(), outputs.cache.c_str(), i,
                 ms);
    }
    if (outputs.cache.empty()) return;
    try {
        SaveText(outputs.cache, FormatPointCache(cache, outputs.format));
    } catch (const KFileError& e) {
        throw RunError(outputs.cache + ": " + e.what());
    }
}

}  // namespace Kavrin
