// The kavrin command line, run as a process: outputs, exit statuses and one-line errors.

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "MeshGenerators.h"
#include "ObjIO.h"

using namespace Kavrin;
namespace fs = std::filesystem;

namespace {

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

std::string slurp(const fs::path& file) {
    std::ifstream in(file);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class KavrinCli : public ::testing::Test {
protected:
    fs::path dir;
    void SetUp() override {
        dir = fs::temp_directory_path() /
              (std::string("kavrin-cli-") + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }

    Outcome run(const std::string& args) {
        const fs::path out = dir / "stdout.txt", err = dir / "stderr.txt";
        const std::string command = std::string(KAVRIN_BINARY_DIR) + "/apps/kavrin/kavrin " + args + " >" +
                                    out.string() + " 2>" + err.string();
        const int raw = std::system(command.c_str());
        return Outcome{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(out), slurp(err)};
    }
    std::string path(const std::string& name) const { return (dir / name).string(); }
    std::string save(const std::string& name, const KPolyMesh& mesh) const {
        WriteObj(path(name), mesh);
        return path(name);
    }
};

int lines(const std::string& text) {
    int n = 0;
    for (char c : text) n += c == '\n';
    return n;
}

}  // namespace

TEST_F(KavrinCli, DeltaMushWritesOnePosePerInput) {
    const KPolyMesh rest = MakeDetailedGrid(30, 4.0f);
    const std::string restFile = save("rest.obj", rest);
    const std::string bent = save("bent.obj", BendAroundY(rest, 1.0f));
    const std::string same = save("same.obj", rest);

    Outcome r = run("deltamush --rest " + restFile + " --iterations 10 " + bent + " " + same + " -o " + path("out"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    EXPECT_NE(r.out.find("[2/2]"), std::string::npos) << "progress per pose";
    const KPolyMesh back = ReadObj(path("out/same.obj"));
    EXPECT_EQ(back.faceVertices, rest.faceVertices) << "the original faces are written back";
    for (int i = 0; i < rest.numVertices(); ++i) EXPECT_NEAR((back.points[i] - rest.points[i]).length(), 0.0f, 1e-5f);
    EXPECT_TRUE(fs::exists(path("out/bent.obj")));

    // One pose: the output is a file.
    r = run("deltamush --rest " + restFile + " " + bent + " -o " + path("single.obj"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ReadObj(path("single.obj")).numVertices(), rest.numVertices());

    // Envelope 0 leaves the pose untouched.
    r = run("deltamush --rest " + restFile + " --envelope 0 " + bent + " -o " + path("off.obj"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ReadObj(path("off.obj")).points, ReadObj(bent).points);
}

TEST_F(KavrinCli, BadInputExitsWithStatusTwoAndOneLine) {
    const KPolyMesh rest = MakeDetailedGrid(6, 1.0f);
    const std::string restFile = save("rest.obj", rest);
    const std::string small = save("small.obj", MakeDetailedGrid(5, 1.0f));
    std::ofstream(path("broken.obj")) << "v 0 0 0\nf 1 2 3\n";

    struct Case {
        std::string args;
        std::string expected;
    } cases[] = {
        {"deltamush --rest " + restFile + " " + small + " -o " + path("o.obj"),
         "kavrin deltamush: " + small + ": 25 vertices, but " + restFile + " has 36\n"},
        {"deltamush --rest " + restFile + " " + path("broken.obj") + " -o " + path("o.obj"),
         "kavrin deltamush: " + path("broken.obj") + ": a face refers to a vertex that does not exist\n"},
        {"deltamush --rest " + restFile + " " + path("missing.obj") + " -o " + path("o.obj"), ""},
        {"deltamush " + restFile + " -o " + path("o.obj"), ""},
        {"", ""},
        {"frobnicate", ""},
    };
    for (const Case& c : cases) {
        const Outcome r = run(c.args);
        EXPECT_EQ(r.status, 2) << c.args;
        EXPECT_EQ(lines(r.err), 1) << c.args << "\n" << r.err;
        if (!c.expected.empty()) {
            EXPECT_EQ(r.err, c.expected);
        }
    }
    EXPECT_FALSE(fs::exists(path("o.obj")));

    // Two poses with one file name would overwrite each other.
    fs::create_directories(dir / "a");
    fs::create_directories(dir / "b");
    WriteObj(path("a/p.obj"), rest);
    WriteObj(path("b/p.obj"), rest);
    const Outcome dup = run("deltamush --rest " + restFile + " " + path("a/p.obj") + " " + path("b/p.obj") + " -o " +
                            path("out"));
    EXPECT_EQ(dup.status, 2);
    EXPECT_NE(dup.err.find("two poses are named p.obj"), std::string::npos) << dup.err;
}

TEST_F(KavrinCli, FailedRunExitsWithStatusOne) {
    // Rest mesh vertices with no edges leave the smoothing undefined (NaN), but that is not a
    // failure; an output file that cannot be written is.
    const KPolyMesh rest = MakeDetailedGrid(6, 1.0f);
    const std::string restFile = save("rest.obj", rest);
    const Outcome r = run("deltamush --rest " + restFile + " " + restFile + " -o " + path("no/such/dir/x.obj"));
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(lines(r.err), 1) << r.err;
}

TEST_F(KavrinCli, TransferPlacesTheTargetOnTheSourcePosesFixedVertex) {
    KPolyMesh source = MakeUVSphere(8, 12);
    ScalePoints(source, 2.0f, 0.5f, 0.5f);
    KPolyMesh target = MakeIcosphere(2);
    ScalePoints(target, 2.0f, 0.6f, 0.4f);
    // Tips, belly and back: vertex 0 of the UV sphere is its +z pole.
    std::ofstream(path("markers.txt")) << "# source target\n"
                                       << "0 " << 0 << "\n\n"
                                       << source.numVertices() - 1 << " 3\n";
    KPolyMesh moved = source;
    for (KVector& p : moved.points) p += KVector(1.0f, 2.0f, 3.0f);
    const std::string args = "transfer --source-rest " + save("s.obj", source) + " --target " + save("t.obj", target) +
                             " --markers " + path("markers.txt") + " --iterations 1 ";

    Outcome r = run(args + save("moved.obj", moved) + " -o " + path("out.obj"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("0KDeformationTransfer: Coefficient Matrix Created!"), std::string::npos) << r.out;
    const KPolyMesh out = ReadObj(path("out.obj"));
    ASSERT_EQ(out.numVertices(), target.numVertices());
    EXPECT_EQ(out.faceVertices, target.faceVertices);
    EXPECT_NEAR((out.points[0] - moved.points[0]).length(), 0.0f, 1e-4f) << "fixed vertex on the pose's";

    r = run(args + "--aim source-to-target -o " + path("fit.obj"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ReadObj(path("fit.obj")).numVertices(), source.numVertices());

    std::ofstream(path("bad.txt")) << "0 0\n1 two\n";
    std::ofstream(path("far.txt")) << "0 0\n5 9999\n";
    const std::string common = " --source-rest " + path("s.obj") + " --target " + path("t.obj") + " ";
    struct Case {
        std::string args, expected;
    } cases[] = {
        {"--markers " + path("bad.txt") + " " + path("moved.obj") + " -o " + path("x.obj"),
         path("bad.txt") + ":2: expected a source and a target vertex index"},
        {"--markers " + path("far.txt") + " " + path("moved.obj") + " -o " + path("x.obj"),
         path("far.txt") + ":2: target vertex 9999 is outside the target mesh (162 vertices)"},
        {"--markers " + path("markers.txt") + " --mode same " + path("moved.obj") + " -o " + path("x.obj"),
         "--mode same needs meshes with the same vertices; the source has 98, the target 162"},
        {"--markers " + path("markers.txt") + " --fixed 0 500 " + path("moved.obj") + " -o " + path("x.obj"),
         "--fixed: target vertex 500 is outside the target mesh"},
        {"--markers " + path("markers.txt") + " " + path("s.obj") + " " + path("t.obj") + " -o " + path("x"),
         path("t.obj") + ": 162 vertices, but " + path("s.obj") + " has 98"},
    };
    for (const Case& c : cases) {
        r = run("transfer" + common + c.args);
        EXPECT_EQ(r.status, 2) << c.args;
        EXPECT_EQ(r.err, "kavrin transfer: " + c.expected + "\n");
    }
}

TEST_F(KavrinCli, HelpOnEveryCommand) {
    for (const std::string command : {"", "deltamush ", "transfer ", "demo "}) {
        const Outcome r = run(command + "--help");
        EXPECT_EQ(r.status, 0) << command;
        EXPECT_NE(r.out.find("Usage"), std::string::npos) << command << r.out;
    }
}

TEST_F(KavrinCli, DemoWritesItsResults) {
    const Outcome r = run("demo -o " + path("demo"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::exists(path("demo/deltamush-rest.obj")));
    EXPECT_TRUE(fs::exists(path("demo/deltamush-bend90-result.obj")));
    EXPECT_TRUE(fs::exists(path("demo/transfer-target-bend90.obj")));
    EXPECT_NE(r.out.find("rest pose reproduced"), std::string::npos) << r.out;
}
