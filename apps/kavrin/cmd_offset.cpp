// kavrin offset: pushes every vertex along its averaged normal by the red channel of an image at
// the vertex's UV (or by a constant red), times the scale, the envelope and the weight.

#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "CommandSupport.h"
#include "OffsetRun.h"
#include "ValueFile.h"
#include "VertexNormalsUVs.h"

namespace Kavrin {

namespace {

// The name Maya gives the one UV set an OBJ file holds.
const char* const kObjUVSet = "map1";

// Silences standard error while it lives. Image libraries print their own complaints about a
// broken file (libpng's "libpng error: ..."), which the tool reports itself in one line.
class QuietStderr {
public:
    QuietStderr() {
        std::fflush(stderr);
        _saved = dup(STDERR_FILENO);
        const int null = open("/dev/null", O_WRONLY);
        if (_saved >= 0 && null >= 0) dup2(null, STDERR_FILENO);
        if (null >= 0) close(null);
    }
    ~QuietStderr() {
        std::fflush(stderr);
        if (_saved < 0) return;
        dup2(_saved, STDERR_FILENO);
        close(_saved);
    }
    QuietStderr(const QuietStderr&) = delete;
    QuietStderr& operator=(const QuietStderr&) = delete;

private:
    int _saved = -1;
};

KTextureImage ReadTexture(const std::string& path) {
    // Decision (behaviour note "Offset command: one line per bad image")
    QuietStderr quiet;
    return ReadTextureRed(path);
}

}  // namespace

void AddOffsetCommand(CLI::App& app, std::vector<Command>& commands) {
    struct Options {
        std::string texture;
        float red = 0.0f;
        double scale = 1.0;
        float envelope = 1.0f;
        int threads = 0;
        std::string weights;
        std::string uvSet = kObjUVSet;
        std::vector<std::string> meshes;
        std::string topology;
        std::string out;
    };
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand(
        "offset", "Push every vertex along its averaged normal by the red channel of an image at the vertex's UV "
                  "(or by a constant red), times scale, envelope and weight.");
    CLI::Option* texture = sub->add_option(
        "--texture", options->texture,
        "image (PNG, TIFF, OpenEXR, ...) whose red channel is sampled at each vertex's UV, bilinearly, repeating");
    // Decision (behaviour note "Offset command: option ranges")
    CLI::Option* red = AddNumberOption(sub, "--red", options->red, -kLargestCoordinate, kLargestCoordinate,
                                       "one red value for every vertex instead of an image");
    AddNumberOption(sub, "--scale", options->scale, -kLargestCoordinate, kLargestCoordinate,
                    "displacement per unit of red (negative pushes inwards)");
    AddNumberOption(sub, "--envelope", options->envelope, kEnvelopeLowest, kEnvelopeHighest,
                    "multiplies the displacement");
    sub->add_option("--weights", options->weights, "per-vertex weights, one value a line");
    sub->add_option("--uv-set", options->uvSet, "UV set to sample (an OBJ file holds one, map1)")
        ->capture_default_str();
    AddThreadsOption(sub, options->threads);
    AddTopologyOption(sub, options->topology,
                      "mesh (OBJ) whose faces and texture coordinates the frames of point caches take");
    sub->add_option("meshes", options->meshes, "meshes: OBJ files, or point caches (.pc2, .mdd) with --topology")
        ->required();
    AddOutputOption(sub, options->out, kOutputHelp);

    commands.push_back(Command{sub, [options, texture, red]() {
        const bool useTexture = texture->count() > 0;
        if (useTexture == (red->count() > 0)) throw UsageError("give one of --texture IMAGE and --red VALUE");
        // Decision (behaviour note "Offset command: one UV set")
        if (options->uvSet != kObjUVSet)
            throw UsageError("--uv-set " + options->uvSet + ": an OBJ file holds one UV set, named " + kObjUVSet);

        // Everything is read and checked before anything is written.
        KPolyMesh topology;
        KCornerUVs topologyCorners;
        if (!options->topology.empty()) topology = LoadMesh(options->topology, &topologyCorners);
        const PoseSequence meshes = LoadPoses(options->meshes, options->topology.empty() ? nullptr : &topology,
                                              options->topology, false, &topologyCorners);
        // The texture coordinates of each mesh; a cache's frames share those of --topology, checked
        // once under its name.
        std::vector<KVertexUVs> uvs;
        std::vector<std::string> uvNames;
        for (size_t i = 0; i < meshes.size(); ++i) {
            const bool frame = meshes.names[i] != meshes.resultNames[i];
            uvs.push_back(i > 0 && frame && uvNames.back() == options->topology
                              ? uvs.back()
                              : VertexUVs(meshes.mesh(i), meshes.corners(i)));
            uvNames.push_back(frame ? options->topology : meshes.names[i]);
            if (useTexture && uvs.back().missing == meshes.mesh(i).numVertices())
                throw UsageError(uvNames.back() + ": the mesh has no texture coordinates; --texture samples the "
                                                  "image at each vertex's UV");
        }
        KFloatArray weights;
        if (!options->weights.empty()) {
            const KArray<double> values = ReadValues(options->weights, -1);
            for (size_t i = 0; i < meshes.size(); ++i)
                if (values.length() != uvs[i].uvs.length())
                    throw UsageError(options->weights + ": " + std::to_string(values.length()) + " weights, but " +
                                     meshes.names[i] + " has " + std::to_string(uvs[i].uvs.length()) + " vertices");
            for (double w : values) weights.push_back(static_cast<float>(w));
        }
        const ResultOutputs outputs =
            OutputPaths(options->out, meshes, {options->weights, options->texture, options->topology});
        for (size_t i = 1; !outputs.cache.empty() && i < meshes.size(); ++i)
            if (uvs[i].uvs.length() != uvs[0].uvs.length())
                throw UsageError(outputs.cache + ": a point cache holds one mesh, but " + meshes.names[0] + " has " +
                                 std::to_string(uvs[0].uvs.length()) + " vertices and " + meshes.names[i] + " " +
                                 std::to_string(uvs[i].uvs.length()));
        KTextureImage image;
        if (useTexture) image = ReadTexture(options->texture);

        // Decision (behaviour note "Offset command: vertices without UVs")
        ConsoleSink console("kavrin offset");
        for (size_t i = 0; useTexture && i < meshes.size(); ++i) {
            const KVertexUVs& u = uvs[i];
            if (u.missing > 0 && (i == 0 || uvNames[i] != uvNames[i - 1]))
                console.warning(uvNames[i] + ": " + std::to_string(u.missing) + " of " +
                                std::to_string(u.uvs.length()) + " vertices have no texture coordinate " +
                                "(the first is vertex " + std::to_string(u.firstMissing) +
                                "); they sample the image at UV (0, 0)");
        }

        OffsetRun run(useTexture ? &image : nullptr, options->red, options->scale, options->envelope, options->threads);
        DeformEach(
            meshes, outputs,
            [&](size_t i, const KPolyMesh& pose) { return run.deform(pose, uvs[i].uvs, weights); },
            true);
    }});
}

}  // namespace Kavrin
