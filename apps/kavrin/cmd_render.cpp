// kavrin render: draws meshes side by side into a PNG picture, optionally coloured by each
// vertex's distance from a reference mesh.

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "CommandSupport.h"
#include "MeshPicture.h"

namespace Kavrin {

void AddRenderCommand(CLI::App& app, std::vector<Command>& commands) {
    struct Options {
        std::vector<std::string> meshes;
        std::string reference;
        double range = 0.0;
        int width = PictureSettings().width;
        int height = PictureSettings().height;
        std::string up = "y";
        std::string out;
    };
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand(
        "render", "Draw meshes side by side into a PNG picture, optionally coloured by their distance from a reference.");
    sub->footer(
        "The meshes stand in a row, left to right, each one slot to the right of the one before (a slot as wide as "
        "all of them together), seen by a fixed orthographic camera from the front, 30 degrees to the right and 25 "
        "above, framed with a margin of 5% of the shorter side; faces are flat shaded. With --reference, the meshes "
        "of its vertex count are coloured by each vertex's distance from the reference's vertex of the same index: "
        "grey for 0, then yellow and orange, red at the range.");
    sub->add_option("--reference", options->reference,
                    "mesh (OBJ) the distances are measured from; meshes of another vertex count are drawn grey");
    AddNumberOption(sub, "--range", options->range, 0.0, kLargestCoordinate,
                    "the distance drawn red; 0: the largest distance of any vertex");
    // Decision (behaviour note "kavrin render: picture size")
    AddCountOption(sub, "--width", options->width, kPictureMinSize, kPictureMaxSize, "picture width in pixels");
    AddCountOption(sub, "--height", options->height, kPictureMinSize, kPictureMaxSize, "picture height in pixels");
    AddChoiceOption(sub, "--up", options->up, {"y", "z"}, "the meshes' up axis (y as in Maya)");
    sub->add_option("meshes", options->meshes, "meshes (OBJ), drawn left to right")->required();
    AddOutputOption(sub, options->out, "the picture (a .png file)");

    commands.push_back(Command{sub, [options]() {
        const auto start = std::chrono::steady_clock::now();
        std::vector<KPolyMesh> meshes;
        for (const std::string& path : options->meshes) meshes.push_back(LoadMesh(path));
        KPolyMesh reference;
        std::vector<std::string> inputs = options->meshes;
        if (!options->reference.empty()) {
            reference = LoadMesh(options->reference);
            inputs.push_back(options->reference);
            // Decision (behaviour note "kavrin render: colours")
            if (std::none_of(meshes.begin(), meshes.end(),
                             [&](const KPolyMesh& m) { return m.numVertices() == reference.numVertices(); }))
                throw UsageError(options->reference + ": " + std::to_string(reference.numVertices()) +
                                 " vertices, but none of the meshes has that many, so none could be coloured");
        }
        std::string extension = std::filesystem::path(options->out).extension().string();
        std::transform(extension.begin(), extension.end(), extension.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (extension != ".png")
            throw UsageError(options->out + ": the picture is written as PNG; give it the extension .png");
        OutputFile(options->out, inputs);

        PictureSettings settings;
        settings.width = options->width;
        settings.height = options->height;
        settings.zUp = options->up == "z";
        settings.range = options->range;
        settings.reference = options->reference.empty() ? nullptr : &reference;
        std::vector<const KPolyMesh*> drawn;
        long long vertices = 0, faces = 0;
        for (size_t k = 0; k < meshes.size(); ++k) {
            drawn.push_back(&meshes[k]);
            vertices += meshes[k].numVertices();
            faces += meshes[k].numFaces();
            if (settings.reference && meshes[k].numVertices() != reference.numVertices())
                Progress("%s: %d vertices, %s has %d: drawn grey", options->meshes[k].c_str(),
                         meshes[k].numVertices(), options->reference.c_str(), reference.numVertices());
        }
        const Picture picture = DrawMeshes(drawn, settings);
        WritePicture(options->out, picture);
        Progress("drew %zu mesh%s (%lld vertices, %lld faces) in %d x %d pixels -> %s (%.1f ms)", meshes.size(),
                 meshes.size() == 1 ? "" : "es", vertices, faces, picture.width, picture.height,
                 options->out.c_str(), MillisecondsSince(start));
        if (picture.coloured > 0)
            Progress("colours: distance from %s, grey 0 to red %.4g; the largest distance is %.4g",
                     options->reference.c_str(), picture.range, picture.largest);
    }});
}

}  // namespace Kavrin
