// kavrin offset, run as a process: displacement by an image or a constant red, weights, kept
// texture coordinates, and bad input refused before anything is written.

#include <gtest/gtest.h>

#include "KavrinCliSupport.h"
#include "ObjIO.h"
#include "TextureImage.h"

using namespace Kavrin;
using KavrinCliTest::Slurp;
using Result = KavrinCliTest::Outcome;
namespace fs = std::filesystem;

namespace {

// A 4 x 2 image whose red texel (x, y) is (10 y + x + 1) / 64 (exact in every format used).
float Red(int x, int y) { return float(10 * y + x + 1) / 64.0f; }

class KavrinOffset : public KavrinCliTest::KavrinCliFixture {
protected:
    KavrinOffset() { command = "offset "; }
    std::string image(const std::string& name) const {
        std::vector<float> pixels;
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 4; ++x) {
                pixels.push_back(Red(x, y));
                pixels.push_back(0.75f);  // green and blue: ignored
                pixels.push_back(float(x) / 4.0f);
            }
        WriteImage(path(name), 4, 2, 3, pixels, 32);
        return path(name);
    }
    // Vertex (x, y) of a 4 x 2 sheet in z = 0 (three quads facing +z) sits at the centre of texel
    // (x, y): u = (x + 0.5) / 4, v = 1 - (y + 0.5) / 2. withUVs false: no "vt" at all.
    std::string sheet(const std::string& name, bool withUVs = true) const {
        std::string text;
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 4; ++x) text += "v " + std::to_string(x) + " " + std::to_string(y) + " 0\n";
        if (withUVs)
            for (int y = 0; y < 2; ++y)
                for (int x = 0; x < 4; ++x)
                    text += "vt " + std::to_string((x + 0.5) / 4) + " " + std::to_string(1 - (y + 0.5) / 2) + "\n";
        for (int x = 0; x < 3; ++x) {
            text += "f";
            for (int c : {x, x + 1, 5 + x, 4 + x}) text += " " + std::to_string(c + 1) + (withUVs ? "/" + std::to_string(c + 1) : "");
            text += "\n";
        }
        return write(name, text);
    }
};

}  // namespace

// Each vertex moves by the red texel at its UV times the scale, and the texture coordinates are
// written back. A mesh whose last quad lost its UVs (vertices 3 and 7, in no other face, have
// none) is named once, and those vertices sample UV (0, 0), between the four corner texels.
TEST_F(KavrinOffset, TextureRedAtEachVertexUVTimesScaleAlongTheNormal) {
    const std::string a = sheet("a.obj"), text = Slurp(a);
    const std::string partial = write("partial.obj", text.substr(0, text.rfind("f ")) + "f 3 4 8 7\n");
    const Result r = run("--texture " + image("map.exr") + " --scale 0.5 " + a + " " + partial + " -o " + path("out"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "kavrin offset: warning: " + partial +
                         ": 2 of 8 vertices have no texture coordinate (the first is vertex 3); they sample the "
                         "image at UV (0, 0)\n");
    EXPECT_NE(r.out.find("[2/2]"), std::string::npos) << r.out;
    KCornerUVs before, uvs;
    const KPolyMesh in = ReadObj(a, &before), out = ReadObj(path("out/a.obj"), &uvs);
    ASSERT_EQ(out.numVertices(), 8);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(out.points[i], KVector(float(i % 4), float(i / 4), 0.5f * Red(i % 4, i / 4))) << i;
    EXPECT_EQ(out.faceVertices, in.faceVertices);
    EXPECT_EQ(uvs.corners, before.corners) << "the texture coordinates are written back";
    EXPECT_EQ(uvs.uvs, before.uvs);
    const KPolyMesh half = ReadObj(path("out/partial.obj"));
    EXPECT_EQ(half.points[0].z, 0.5f * Red(0, 0));
    EXPECT_FLOAT_EQ(half.points[3].z, 0.5f * (Red(0, 0) + Red(3, 0) + Red(0, 1) + Red(3, 1)) / 4);
}

TEST_F(KavrinOffset, ConstantRedWithWeightsAndEnvelopeNeedsNoUVs) {
    const std::string plain = sheet("plain.obj", false);
    const std::string weights = write("w.txt", "# one a vertex\n1\n0.5\n0\n-1\n2\n0.25\n1\n1\n");
    // Weights times red times scale times envelope; a negative scale pushes inwards (against the
    // normal); scale 0 leaves the sheet in place.
    const struct {
        std::string options;
        float z[8];
    } cases[] = {
        {"--red 0.25 --scale 2 --envelope 0.5 --weights " + weights, {0.25f, 0.125f, 0, -0.25f, 0.5f, 0.0625f, 0.25f, 0.25f}},
        {"--red 1 --scale -0.5", {-0.5f, -0.5f, -0.5f, -0.5f, -0.5f, -0.5f, -0.5f, -0.5f}},
        {"--red 1 --scale 0", {0, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        const Result r = run(c.options + " " + plain + " -o " + path("o.obj"));
        ASSERT_EQ(r.status, 0) << r.err;
        const KPolyMesh out = ReadObj(path("o.obj"));
        for (int i = 0; i < 8; ++i) EXPECT_EQ(out.points[i], KVector(float(i % 4), float(i / 4), c.z[i])) << c.options << ", " << i;
    }
}

TEST_F(KavrinOffset, BadInputIsOneLineExitTwoAndNothingIsWritten) {
    const std::string mesh = sheet("m.obj"), plain = sheet("plain.obj", false), map = image("map.exr");
    const std::string text = write("text.png", "not an image\n");
    {
        std::vector<float> pixels(3 * 64 * 64, 0.5f);
        WriteImage(path("big.png"), 64, 64, 3, pixels, 8);
        fs::copy_file(path("big.png"), path("truncated.png"));
        fs::resize_file(path("truncated.png"), fs::file_size(path("big.png")) / 2);
    }
    const std::string three = write("three.txt", "1\n1\n1\n");
    const std::string o = " -o " + path("o.obj");
    const struct {
        std::string args, expected;
    } cases[] = {
        {mesh + o, "give one of --texture IMAGE and --red VALUE"},
        {"--texture " + map + " --red 1 " + mesh + o, "give one of --texture IMAGE and --red VALUE"},
        {"--texture " + map + " " + plain + o,
         plain + ": the mesh has no texture coordinates; --texture samples the image at each vertex's UV"},
        {"--texture " + map + " " + mesh + " " + plain + " -o " + path("out"), plain + ": the mesh has no texture"},
        {"--texture " + text + " " + mesh + o, text + ": not an image file that can be read"},
        {"--texture " + path("truncated.png") + " " + mesh + o, path("truncated.png") + ": the image could not be read"},
        {"--texture " + path("missing.png") + " " + mesh + o, path("missing.png") + ": cannot open the file"},
        {"--red 1 --weights " + three + " " + mesh + o, three + ": 3 weights, but " + mesh + " has 8 vertices"},
        {"--red 1 --uv-set uv2 " + mesh + o, "--uv-set uv2: an OBJ file holds one UV set, named map1"},
        {"--red 1 --scale nan " + mesh + o, "--scale: 'nan' is not a finite number"},
        {"--red inf " + mesh + o, "--red: 'inf' is not a finite number"},
        {"--red 1 " + path("missing.obj") + o, ""},
    };
    for (const auto& c : cases) {
        const Result r = run(c.args);
        EXPECT_EQ(r.status, 2) << c.args;
        EXPECT_EQ(r.errLines(), 1) << c.args << "\n" << r.err;
        EXPECT_EQ(r.err.rfind(c.expected.empty() ? "kavrin" : "kavrin offset: " + c.expected, 0), 0u)
            << c.args << "\n" << r.err;
        EXPECT_FALSE(fs::exists(path("o.obj"))) << c.args;
        EXPECT_FALSE(fs::exists(path("out/m.obj"))) << c.args;
    }
    const Result help = run("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("--texture"), std::string::npos);
}
