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
    sub->add_option("meshes", options->meshes, "meshes (OBJ)")->required();
    AddOutputOption(sub, options->out, "output file for one mesh, else output folder");

    commands.push_back(Command{sub, [options, texture, red]() {
        const bool useTexture = texture->count() > 0;
        if (useTexture == (red->count() > 0)) throw UsageError("give one of --texture IMAGE and --red VALUE");
        // Decision (behaviour note "Offset command: one UV set")
        if (options->uvSet != kObjUVSet)
            throw UsageError("--uv-set " + options->uvSet + ": an OBJ file holds one UV set, named " + kObjUVSet);

        // Everything is read and checked before anything is written.
        std::vector<KPolyMesh> meshes;
        std::vector<KCornerUVs> corners;
        std::vector<KVertexUVs> uvs;
        for (const std::string& path : options->meshes) {
            corners.emplace_back();
            meshes.push_back(LoadMesh(path, &corners.back()));
            uvs.push_back(VertexUVs(meshes.back(), corners.back()));
            if (useTexture && uvs.back().missing == meshes.back().numVertices())
                throw UsageError(path + ": the mesh has no texture coordinates; --texture samples the image at each "
                                        "vertex's UV");
        }
        KFloatArray weights;
        if (!options->weights.empty()) {
            const KArray<double> values = ReadValues(options->weights, -1);
            for (size_t i = 0; i < meshes.size(); ++i)
                if (values.length() != meshes[i].numVertices())
                    throw UsageError(options->weights + ": " + std::to_string(values.length()) + " weights, but " +
                                     options->meshes[i] + " has " + std::to_string(meshes[i].numVertices()) +
                                     " vertices");
            for (double w : values) weights.push_back(static_cast<float>(w));
        }
        const std::vector<std::string> outputs =
            OutputPaths(options->out, options->meshes, {options->weights, options->texture});
        KTextureImage image;
        if (useTexture) image = ReadTexture(options->texture);

        // Decision (behaviour note "Offset command: vertices without UVs")
        ConsoleSink console("kavrin offset");
        for (size_t i = 0; useTexture && i < meshes.size(); ++i) {
            const KVertexUVs& u = uvs[i];
            if (u.missing > 0)
                console.warning(options->meshes[i] + ": " + std::to_string(u.missing) + " of " +
                                std::to_string(meshes[i].numVertices()) + " vertices have no texture coordinate " +
                                "(the first is vertex " + std::to_string(u.firstMissing) +
                                "); they sample the image at UV (0, 0)");
        }

        OffsetRun run(useTexture ? &image : nullptr, options->red, options->scale, options->envelope, options->threads);
        DeformEach(
            options->meshes, outputs,
            [&](size_t i) {
                KPolyMesh result = meshes[i];
                result.points = run.deform(meshes[i], uvs[i].uvs, weights);
                return result;
            },
            &corners);
    }});
}

}  // namespace Kavrin
