// The kavrin command line, run as a process: what each command writes, its progress and help.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "KavrinCliSupport.h"
#include "MeshGenerators.h"
#include "ObjIO.h"

using namespace Kavrin;
namespace fs = std::filesystem;

using namespace KavrinCliTest;
using KavrinCli = KavrinCliFixture;

TEST_F(KavrinCli, DeltaMushWritesOnePosePerInput) {
    const KPolyMesh rest = MakeDetailedGrid(30, 4.0f);
    const std::string restFile = save("rest.obj", rest), bent = save("bent.obj", BendAroundY(rest, 1.0f));
    Outcome r = run("deltamush --rest " + restFile + " --iterations 10 " + bent + " " + save("same.obj", rest) +
                    " -o " + path("out"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty() && r.out.find("[2/2]") != std::string::npos) << "progress per pose: " << r.out << r.err;
    const KPolyMesh back = ReadObj(path("out/same.obj"));
    EXPECT_EQ(back.faceVertices, rest.faceVertices) << "the original faces are written back";
    for (int i = 0; i < rest.numVertices(); ++i) EXPECT_NEAR((back.points[i] - rest.points[i]).length(), 0.0f, 1e-5f);
    EXPECT_TRUE(fs::exists(path("out/bent.obj")));

    // One pose: the output is a file. Envelope 0 leaves the pose untouched.
    r = run("deltamush --rest " + restFile + " --envelope 0 " + bent + " -o " + path("off.obj"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ReadObj(path("off.obj")).points, ReadObj(bent).points);
}

TEST_F(KavrinCli, TransferPlacesTheTargetOnTheSourcePosesFixedVertex) {
    KPolyMesh source = MakeUVSphere(8, 12), target = MakeIcosphere(2);
    ScalePoints(source, 2.0f, 0.5f, 0.5f);
    ScalePoints(target, 2.0f, 0.6f, 0.4f);
    // Tips, belly and back: vertex 0 of the UV sphere is its +z pole.
    write("markers.txt", "# source target\n0 0\n\n" + std::to_string(source.numVertices() - 1) + " 3\n");
    KPolyMesh moved = source;
    for (KVector& p : moved.points) p += KVector(1.0f, 2.0f, 3.0f);
    const std::string s = save("s.obj", source), t = save("t.obj", target), m = save("moved.obj", moved);
    const std::string args = "transfer --source-rest " + s + " --target " + t + " --markers " + path("markers.txt") +
                             " --iterations 1 ";

    // The engine's own progress lines only with --verbose; the command's own always.
    Outcome r = run(args + "--pairing-log " + path("pairs.txt") + " " + m + " -o " + path("out.obj"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.find("Current time:"), std::string::npos) << r.out;
    // The pairing log: one MEL selection per target triangle, in order, of its source triangle.
    std::istringstream log(Slurp(path("pairs.txt")));
    std::string line;
    int lines = 0, paired = 0;
    const int sourceTriangles = Triangulated(source).numTriangles();
    while (std::getline(log, line)) {
        const std::string head = "select -r young.f[" + std::to_string(lines++) + "] old.f[";
        ASSERT_EQ(line.rfind(head, 0), 0u) << line;
        ASSERT_EQ(line.substr(line.size() - 2), "];") << line;
        const int s = std::stoi(line.substr(head.size()));
        EXPECT_TRUE(s >= -1 && s < sourceTriangles) << line;
        paired += s >= 0;
    }
    EXPECT_EQ(lines, Triangulated(target).numTriangles());
    EXPECT_GT(paired, lines * 9 / 10) << "nearly every triangle finds its partner";
    EXPECT_NE(r.out.find("built in "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("[1/1] " + m + " -> " + path("out.obj")), std::string::npos) << r.out;
    r = run(args + "--verbose " + m + " -o " + path("out.obj"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("0KDeformationTransfer: Coefficient Matrix Created!"), std::string::npos) << r.out;
    const KPolyMesh out = ReadObj(path("out.obj"));
    ASSERT_EQ(out.numVertices(), target.numVertices());
    EXPECT_EQ(out.faceVertices, target.faceVertices);
    EXPECT_NEAR((out.points[0] - moved.points[0]).length(), 0.0f, 1e-4f) << "fixed vertex on the pose's";

    r = run(args + "--aim source-to-target -o " + path("fit.obj"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ReadObj(path("fit.obj")).numVertices(), source.numVertices());
}

TEST_F(KavrinCli, HelpOnEveryCommandShowsRangesAndDemoSaysWhatItMeasures) {
    // Every command (this list grows with the tool) shows --verbose and the range of its
    // thread count.
    const std::string help = run("--help").out;
    for (const std::string command : {"deltamush", "transfer", "wrap", "jiggle", "relax", "offset", "render", "demo"}) {
        EXPECT_NE(help.find("  " + command), std::string::npos) << command << " is listed";
        const Outcome r = run(command + " --help");
        EXPECT_EQ(r.status, 0) << command;
        for (const char* text : {"Usage", "--verbose", "worker threads, 0 for all cores (0 to 1024)"}) {
            if (command == "render" && text[0] == 'w') continue;  // it runs no engine
            EXPECT_NE(r.out.find(text), std::string::npos) << command << ": " << text << "\n" << r.out;
        }
    }
    // Every number option shows its range.
    const struct {
        const char* command;
        const char* text;
    } ranges[] = {{"deltamush", "smoothing sweeps (1 to 10000)"},
                  {"deltamush", "deforms fully (-2 to 2)"},
                  {"transfer", "source-to-target (0 to 30)"},
                  {"transfer", "(same or different)"},
                  {"jiggle", "distance limit (0 to 1e9)"},
                  {"jiggle", "(-1000000 to 1000000)"},
                  {"relax", "does not move (0 to 1)"},
                  {"offset", "inwards) (-1e9 to 1e9)"},
                  {"render", "picture width in pixels (16 to 2048)"}};
    for (const auto& r : ranges) EXPECT_NE(run(std::string(r.command) + " --help").out.find(r.text), std::string::npos) << r.text;
    EXPECT_EQ(run("--version").out, "kavrin " KAVRIN_VERSION "\n");  // its status is in the status table

    const Outcome r = run("demo -o " + path("demo"));
    ASSERT_TRUE(r.status == 0 && r.err.empty()) << r.err;
    for (const char* file : {"deltamush-rest.obj", "deltamush-elbow110-result.obj", "transfer-target-bend90.obj",
                             "transfer-markers.txt", "wrap-sheet-dome.obj", "jiggle-frame40.obj",
                             "jiggle-frame40-result.obj", "jiggle-weights.txt", "relax-collide-result.obj",
                             "offset-sphere-out.obj", "offset-pattern.png"})
        EXPECT_TRUE(fs::exists(dir / "demo" / file)) << file;
    // index.html shows a picture per engine, each written beside it.
    const std::string html = Slurp(dir / "demo" / "index.html");
    std::vector<std::string> pictures;
    for (size_t at = html.find("<img src=\""); at != std::string::npos; at = html.find("<img src=\"", at + 1)) {
        const size_t from = at + 10;
        pictures.push_back(html.substr(from, html.find('"', from) - from));
        EXPECT_TRUE(fs::exists(dir / "demo" / pictures.back())) << pictures.back();
    }
    EXPECT_EQ(pictures, (std::vector<std::string>{"deltamush.png", "transfer.png", "wrap.png", "jiggle.png",
                                                  "relax.png", "relax-collider.png", "offset.png"}));
    // Every figure says what it measures and which way is better.
    EXPECT_NE(r.out.find("rest pose reproduced: largest distance from the rest mesh"), std::string::npos) << r.out;
    size_t better = 0;
    for (size_t at = r.out.find("smaller is better"); at != std::string::npos; at = r.out.find("smaller is better", at + 1))
        ++better;
    EXPECT_EQ(better, 14u) << r.out;
    EXPECT_NE(r.out.find("swings"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Current time:"), std::string::npos) << "engine trace only with --verbose";
}

TEST_F(KavrinCli, JiggleWritesOneMeshPerFrameThatLagsAndOvershoots) {
    // A sheet that slides 0.5 along x per frame for three frames, then stops.
    const KPolyMesh sheet = MakeDetailedGrid(6, 2.0f);
    std::string frames;
    for (int f = 0; f < 6; ++f) {
        KPolyMesh pose = sheet;
        for (KVector& p : pose.points) p.x += 0.5f * std::min(f, 3);
        frames += save("f" + std::to_string(f) + ".obj", pose) + " ";
    }
    Outcome r = run("jiggle " + frames + "-o " + path("out"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    EXPECT_NE(r.out.find("[6/6]"), std::string::npos) << r.out;
    std::vector<double> offsets;
    for (int f = 0; f < 6; ++f) {
        const KPolyMesh in = ReadObj(path("f" + std::to_string(f) + ".obj"));
        const KPolyMesh out = ReadObj(path("out/f" + std::to_string(f) + ".obj"));
        ASSERT_EQ(out.faceVertices, sheet.faceVertices);
        offsets.push_back(out.points[0].x - in.points[0].x);
    }
    EXPECT_EQ(offsets[0], 0.0) << "the first frame starts the simulation";
    EXPECT_NEAR(offsets[1], -0.35, 1e-6) << "0.3 of the way: 0.15 instead of 0.5";
    EXPECT_LT(offsets[3], 0.0) << "still trailing when it stops";
    EXPECT_GT(*std::max_element(offsets.begin() + 4, offsets.end()), 0.0) << "then swings past";

    // Zero weights keep the input; a unit spring with full normal strength lands on it.
    std::string zeros;
    for (int v = 0; v < sheet.numVertices(); ++v) zeros += "0\n";
    write("zeros.txt", zeros);
    for (const std::string& options : {"--weights " + path("zeros.txt"), std::string("--stiffness 1 --damping 0")}) {
        r = run("jiggle " + options + " " + frames + "-o " + path("same"));
        ASSERT_EQ(r.status, 0) << options << r.err;
        for (int f = 0; f < 6; ++f)
            EXPECT_EQ(ReadObj(path("same/f" + std::to_string(f) + ".obj")).points,
                      ReadObj(path("f" + std::to_string(f) + ".obj")).points)
                << options << " frame " << f;
    }
    // Every option is taken.
    r = run("jiggle --stiffness 0.5 --damping 0.2 --normal-strength 0.5 --scale 2 --distance-limit 0.3 "
            "--direction-bias 0.4 --time-scale 0.8 --start-frame 1 --more-accurate-tangent --stiffness-map " +
            path("zeros.txt") + " --damping-map " + path("zeros.txt") + " --normal-strength-map " +
            path("zeros.txt") + " --envelope 0.5 --threads 2 " + frames + "-o " + path("all"));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::exists(path("all/f5.obj")));
}

TEST_F(KavrinCli, JiggleRefusesBadInputWithOneLine) {
    const KPolyMesh sheet = MakeDetailedGrid(4, 1.0f);
    const std::string a = save("a.obj", sheet), b = save("b.obj", sheet), small = save("small.obj", MakeDetailedGrid(3, 1.0f));
    write("short.txt", "1\n1\n");
    write("bad.txt", "1\nx\n");
    const std::string o = " -o " + path("out");
    const struct {
        std::string args, expected;
    } cases[] = {
        {"--stiffness-map " + path("short.txt") + " " + a + " " + b + o,
         "kavrin jiggle: " + path("short.txt") + ": 2 values for 16 vertices"},
        {"--weights " + path("short.txt") + " " + a + " " + b + o, path("short.txt") + ": 2 values"},
        {"--damping-map " + path("bad.txt") + " " + a + o, path("bad.txt") + ":2:"},
        {"--normal-strength-map " + path("missing.txt") + " " + a + o, "missing.txt"},
        {a + " " + small + o, small + ": 9 vertices, but " + a + " has 16"},
        {"--stiffness 2 " + a + o, "--stiffness"},
        {"--direction-bias -1.5 " + a + o, "--direction-bias"},
        {"--time-scale -1 " + a + o, "--time-scale"},
        {a, ""},
    };
    for (const auto& c : cases) {
        const Outcome r = run("jiggle " + c.args);
        EXPECT_EQ(r.status, 2) << c.args;
        EXPECT_EQ(r.errLines(), 1) << c.args << "\n" << r.err;
        EXPECT_NE(r.err.find(c.expected), std::string::npos) << r.err;
    }
    EXPECT_FALSE(fs::exists(path("out")));
}
