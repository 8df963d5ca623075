// kavrin relax, run as a process: results, colliders and their maps, exit statuses and messages.

#include <gtest/gtest.h>

#include "KavrinCliSupport.h"
#include "core/RelaxationTestSupport.h"

using namespace Kavrin;
using KavrinCliTest::Outcome;
namespace fs = std::filesystem;

namespace {

class KavrinRelaxCli : public KavrinCliTest::KavrinCliFixture {
protected:
    KavrinRelaxCli() { command = "relax "; }
    std::string values(const std::string& name, int n, double value) const {
        std::ofstream f(path(name));
        for (int i = 0; i < n; ++i) f << value << "\n";
        return path(name);
    }
};

// A ball of radius 1 centred 0.5 below the sheet's centre: the sheet cuts it.
KPolyMesh Ball() {
    KPolyMesh ball = MakeIcosphere(3);
    for (KVector& p : ball.points) p.z -= 0.5f;
    return ball;
}

}  // namespace

TEST_F(KavrinRelaxCli, RelaxesPosesAndKeepsTheRestShape) {
    const KPolyMesh rest = MakeDetailedGrid(20, 4.0f);
    KPolyMesh bumped = rest;
    bumped.points[210].z += 0.5f;
    const std::string restFile = save("rest.obj", rest);
    Outcome r = run("--rest " + restFile + " --scale-safe " + save("same.obj", rest) + " " + save("bumped.obj", bumped) +
                    " -o " + path("out"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    EXPECT_NE(r.out.find("[2/2]"), std::string::npos);
    const KPolyMesh same = ReadObj(path("out/same.obj"));
    EXPECT_EQ(same.faceVertices, rest.faceVertices);
    EXPECT_LT(relaxtest::MaxDistance(relaxtest::Widen(same.points), relaxtest::Widen(rest.points)), 1e-5);
    const KPolyMesh relaxed = ReadObj(path("out/bumped.obj"));
    EXPECT_LT(std::fabs(relaxed.points[210].z - rest.points[210].z), 0.25) << "the bump is pulled back";

    // Stiffness 1 (here as a map) and envelope 0 leave the pose as it is.
    for (const std::string& options : {" --stiffness-map " + values("stiff.txt", 400, 1.0), std::string(" --envelope 0")}) {
        r = run("--rest " + restFile + options + " " + path("bumped.obj") + " -o " + path("o.obj"));
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(ReadObj(path("o.obj")).points, bumped.points) << options;
    }
}

TEST_F(KavrinRelaxCli, ColliderWithoutMapPushesFullyAndMapsScaleThePush) {
    const KPolyMesh sheet = MakeDetailedGrid(21, 4.0f);
    const std::string rest = save("rest.obj", sheet), ball = save("ball.obj", Ball());
    const int centre = 220;
    auto centreHeight = [&](const std::string& options) {
        const Outcome r = run("--rest " + rest + " --iterations 3 --stiffness 1 " + options + " " + rest + " -o " +
                              path("o.obj"));
        EXPECT_EQ(r.status, 0) << options << ": " << r.err;
        return ReadObj(path("o.obj")).points[centre].z - sheet.points[centre].z;
    };
    // Stiffness 1 keeps the relaxation still, so only the collisions move the centre: onto the
    // ball's top (0.5 above the sheet, to the facets' accuracy), half-way each pass with 0.5.
    EXPECT_NEAR(centreHeight("--collider " + ball), 0.5, 0.02);
    EXPECT_NEAR(centreHeight("--collider " + ball + " --collider-map " + values("zero.txt", 441, 0.0)), 0.0, 1e-6);
    EXPECT_NEAR(centreHeight("--collider " + ball + " --no-collisions"), 0.0, 1e-6);
    EXPECT_NEAR(centreHeight("--collider " + ball + " --collider-map " + values("half.txt", 441, 0.5)),
                0.5 * (1 - 0.125), 0.02)
        << "three passes, each half of the remaining way";
    EXPECT_NEAR(centreHeight("--collider " + ball + " --weights " + values("w.txt", 441, 0.0)), 0.0, 1e-6);
}

TEST_F(KavrinRelaxCli, BadInputAndFailedBindsAreOneLine) {
    const KPolyMesh sheet = MakeDetailedGrid(6, 1.0f);
    const std::string rest = save("rest.obj", sheet), ball = save("ball.obj", Ball()), o = " -o " + path("o.obj");
    struct Case {
        std::string args;
        int status;
        std::string message;
    } cases[] = {
        {"--rest " + rest + " --collider-map " + values("m.txt", 36, 1) + " " + rest + o, 2, "1 collider maps for 0"},
        {"--rest " + rest + " --collider " + ball + " --collider-map " + values("short.txt", 35, 1) + " " + rest + o, 2,
         "short.txt"},
        {"--rest " + rest + " --stiffness 0.5 --stiffness-map " + values("s.txt", 36, 1) + " " + rest + o, 2,
         "give --stiffness or --stiffness-map, not both"},
        {"--rest " + rest + " --iterations -1 " + rest + o, 2, "--iterations"},
        {"--rest " + rest + " --collision-steps 0 " + rest + o, 2, "--collision-steps"},
        {"--rest " + rest + " " + save("other.obj", MakeDetailedGrid(5, 1.0f)) + o, 2, "vertices"},
        {"--rest " + save("fan.obj", relaxtest::Fan(129)) + " " + path("fan.obj") + o, 1, kRelaxTooManyNeighbours},
    };
    for (const Case& c : cases) {
        const Outcome r = run(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.err;
        EXPECT_EQ(r.errLines(), 1) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_FALSE(fs::exists(path("o.obj")));
    }
    const Outcome help = run("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("pushes every vertex fully"), std::string::npos) << help.out;
}
