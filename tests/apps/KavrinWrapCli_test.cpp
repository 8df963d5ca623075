// kavrin wrap, run as a process: outputs, progress, exit statuses and one-line errors.

#include <cstdio>

#include "KavrinCliSupport.h"
#include "MeshGenerators.h"

using namespace Kavrin;
namespace fs = std::filesystem;

namespace {

using KavrinWrapCli = KavrinCliTest::KavrinCliFixture;
using KavrinCliTest::Outcome;

// A flat n x n sheet of the given size at height z.
KPolyMesh FlatSheet(int n, float size, float z) {
    KPolyMesh m = MakeDetailedGrid(n, size);
    for (KVector& p : m.points) p.z = z;
    return m;
}

}  // namespace

TEST_F(KavrinWrapCli, FollowsEachDriverPose) {
    const KPolyMesh mesh = MakeDetailedGrid(25, 2.0f), driver = FlatSheet(6, 2.2f, -0.1f);
    KPolyMesh lifted = driver;
    for (KVector& p : lifted.points) p.z += 0.5f;
    const std::string driverFile = save("driver.obj", driver), meshFile = save("mesh.obj", mesh);
    const std::string rest = save("rest.obj", driver), up = save("up.obj", lifted);
    Outcome r = run("wrap --driver " + driverFile + " --mesh " + meshFile + " --threads 2 " + rest + " " + up +
                    " -o " + path("out"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    EXPECT_EQ(r.out.rfind("bound 625 points to 50 driver triangles (", 0), 0u) << r.out;
    // The results are the mesh, named after it and the driver pose.
    EXPECT_NE(r.out.find("[2/2] " + up + " -> " + path("out/mesh-from-up.obj")), std::string::npos) << r.out;
    const Outcome verbose = run("wrap --verbose --driver " + driverFile + " --mesh " + meshFile + " " + rest + " -o " +
                                path("verbose.obj"));
    EXPECT_EQ(verbose.out.rfind("0\nbound 625 points", 0), 0u) << "with --verbose, the bind's trace comes first"
                                                                << verbose.out;

    const KPolyMesh same = ReadObj(path("out/mesh-from-rest.obj")), moved = ReadObj(path("out/mesh-from-up.obj"));
    EXPECT_EQ(same.faceVertices, mesh.faceVertices) << "the mesh's own faces are written";
    ASSERT_EQ(moved.numVertices(), mesh.numVertices());
    for (int i = 0; i < mesh.numVertices(); ++i) {
        EXPECT_NEAR((same.points[i] - mesh.points[i]).length(), 0.0f, 1e-6f) << i;
        EXPECT_NEAR((moved.points[i] - (mesh.points[i] + KVector(0, 0, 0.5f))).length(), 0.0f, 1e-6f) << i;
    }

    // One pose: -o names the file.
    r = run("wrap --driver " + driverFile + " --mesh " + meshFile + " " + up + " -o " + path("one.obj"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ReadObj(path("one.obj")).points, moved.points) << "the thread count does not change the result";
}

TEST_F(KavrinWrapCli, BadInputExitsWithTwoAndOneLine) {
    const KPolyMesh mesh = MakeDetailedGrid(6, 1.0f), driver = FlatSheet(4, 1.2f, -0.1f);
    const std::string d = save("driver.obj", driver), m = save("mesh.obj", mesh);
    const std::string fewer = save("fewer.obj", FlatSheet(3, 1.2f, 0.0f));
    KPolyMesh flipped = driver;
    std::swap(flipped.faceVertices[0], flipped.faceVertices[1]);
    const std::string other = save("flipped.obj", flipped);
    std::ofstream(path("points.obj")) << "v 0 0 0\nv 1 0 0\nv 0 1 0\n";
    std::ofstream(path("huge.obj")) << "v 0 0 0\nv 1e39 0 0\nv 0 1 0\nf 1 2 3\n";
    const std::string o = " -o " + path("o.obj"), common = "wrap --driver " + d + " --mesh " + m + " ";

    const struct {
        std::string args, expected;
    } cases[] = {
        {common + fewer + o, "kavrin wrap: " + fewer + ": 9 vertices, but " + d + " has 16\n"},
        {common + other + o, "kavrin wrap: " + other + ": its faces differ from those of " + d + "\n"},
        {"wrap --driver " + path("points.obj") + " --mesh " + m + " " + d + o,
         "kavrin wrap: " + path("points.obj") + ": the driver has no faces to bind to\n"},
        {"wrap --driver " + d + " --mesh " + path("huge.obj") + " " + d + o, path("huge.obj")},
        {common + path("missing.obj") + o, ""},
        {"wrap --mesh " + m + " " + d + o, "--driver"},
        {"wrap --driver " + d + " " + d + o, "--mesh"},
        {common + o, ""},
    };
    for (const auto& c : cases) {
        const Outcome r = run(c.args);
        EXPECT_EQ(r.status, 2) << c.args;
        EXPECT_EQ(r.errLines(), 1) << c.args << "\n" << r.err;
        if (!c.expected.empty() && c.expected.back() == '\n') {
            EXPECT_EQ(r.err, c.expected);
        }
        EXPECT_NE(r.err.find(c.expected), std::string::npos) << r.err;
        EXPECT_TRUE(r.out.empty()) << c.args << ": nothing runs before the input is checked";
    }
    EXPECT_FALSE(fs::exists(path("o.obj")));
}
