// Relaxation solve: passes, lifts, stiffness, weights, envelope, first-run binding and guards.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "RelaxationTestSupport.h"

using namespace Kavrin;
using namespace Kavrin::relaxtest;

namespace {

KRelaxationInput Options(int iterations, bool scaleSafe = false, int threads = 0) {
    KRelaxationInput in;
    in.iterations = iterations;
    in.enableScaleSafe = scaleSafe;
    in.threads = threads;
    return in;
}

}  // namespace

TEST(RelaxationSolver, FirstEvaluationBindsAndNothingMovesWithoutPassesEnvelopeOrFreedom) {
    const KPolyMesh rest = MakeDetailedGrid(9, 4.0f);
    Node node(rest);
    EXPECT_TRUE(node.solver.bindingDue(Options(10)));
    const KRelaxationResult bound = node.run(rest.points);
    ASSERT_TRUE(bound.outcome.deformed()) << bound.outcome.message;
    EXPECT_TRUE(bound.writeBinding && bound.writeStiffness);
    EXPECT_EQ(std::vector<double>(node.store.stiffness), std::vector<double>(81, 0.3));
    EXPECT_TRUE(node.store.binding.connVrtId.size() == 81 && !node.solver.firstRun());

    KVectorArray bumped = rest.points;
    bumped[40].z += 1.0f;
    const struct {
        const char* name;
        int iterations;
        float envelope;
        double stiffness;
        float weight;
    } cases[] = {
        {"iterations 0", 0, 1.0f, 0.3, 1.0f},
        {"envelope 0", 10, 0.0f, 0.3, 1.0f},
        {"stiffness 1", 10, 1.0f, 1.0, 1.0f},
        {"weight 0", 10, 1.0f, 0.3, 0.0f},
        {"weight exactly 0.001", 10, 1.0f, 0.3, 0.001f},
    };
    for (const auto& c : cases) {
        node.store.stiffness.assign(81, c.stiffness);
        KRelaxationInput in = Options(c.iterations);
        in.envelope = c.envelope;
        std::vector<float> weights(81, c.weight);
        in.weights = weights.data();
        const KRelaxationResult r = node.run(bumped, in);
        EXPECT_FALSE(r.writeBinding || r.writeStiffness) << c.name << ": bound once";
        EXPECT_EQ(r.outcome.status, c.envelope == 0.0f ? KOutcome::kUntouched : KOutcome::kDeformed) << c.name;
        if (r.outcome.deformed()) {
            EXPECT_EQ(MaxDistance(node.solver.points(), Widen(bumped)), 0.0) << c.name;
        }
    }
    // Envelope 0 does nothing at all, not even bind.
    Node fresh(rest);
    KRelaxationInput off = Options(10);
    off.envelope = 0.0f;
    EXPECT_FALSE(fresh.run(rest.points, off).writeBinding || !fresh.solver.firstRun() || fresh.store.hasStiffness);
}

// Closed curved meshes relaxed in their rest shape stay put in both modes; scaled by 2, they keep
// the scaled shape with scale-safe on, while with it off the stored heights keep their rest size.
TEST(RelaxationSolver, ClosedCurvedMeshesStayPutAndScaleSafeFollowsAUniformScale) {
    for (const KPolyMesh& mesh : {MakeUVSphere(24, 32), MakeIcosphere(3)}) {
        Node node(mesh);
        ASSERT_TRUE(node.run(mesh.points).outcome.deformed());
        KVectorArray twice = mesh.points;
        for (KVector& p : twice) p *= 2.0f;
        for (bool scaleSafe : {false, true}) {
            ASSERT_TRUE(node.run(mesh.points, Options(10, scaleSafe)).outcome.deformed());
            EXPECT_LT(MaxDistance(node.solver.points(), Widen(mesh.points)), 2e-6)
                << mesh.numVertices() << " vertices, scale-safe " << scaleSafe;
        }
        ASSERT_TRUE(node.run(twice, Options(10, true)).outcome.deformed());
        EXPECT_LT(MaxDistance(node.solver.points(), Widen(twice)), 1e-5);

        // Off, stiffness 0, one pass: each vertex lands on the scaled plane estimate plus its rest
        // height, so it sits |rest height| below where the scaled shape has it.
        node.store.stiffness.assign(mesh.numVertices(), 0.0);
        ASSERT_TRUE(node.run(twice, Options(1, false)).outcome.deformed());
        for (int v = 0; v < mesh.numVertices(); ++v) {
            const KDouble3& p = node.solver.points()[v];
            const double miss = std::hypot(p[0] - twice[v].x, p[1] - twice[v].y, p[2] - twice[v].z);
            EXPECT_NEAR(miss, std::fabs(node.store.binding.b[v]), 1e-5) << v;
        }
    }
}

TEST(RelaxationSolver, BumpOnAFlatGridRelaxesBackToFlat) {
    const KPolyMesh grid = FlatGrid(11, 0.2f);
    Node node(grid);
    ASSERT_TRUE(node.run(grid.points).outcome.deformed());
    KVectorArray bumped = grid.points;
    for (int v : {48, 49, 50, 59, 60, 61, 70, 71, 72}) bumped[v].z += 0.3f;
    for (bool scaleSafe : {false, true}) {
        ASSERT_TRUE(node.run(bumped, Options(200, scaleSafe)).outcome.deformed());
        double lo = 1e9, hi = -1e9;
        for (const KDouble3& p : node.solver.points()) lo = std::min(lo, p[2]), hi = std::max(hi, p[2]);
        EXPECT_LT(hi - lo, 0.003) << "scale-safe " << scaleSafe;
    }
    // Stiffness 0, scale-safe off: one pass puts every free vertex on its neighbours' target;
    // the raised centre's four neighbours are raised too, so it stays at their height.
    node.store.stiffness.assign(121, 0.0);
    ASSERT_TRUE(node.run(bumped, Options(1)).outcome.deformed());
    EXPECT_NEAR(node.solver.points()[60][2], 0.3, 1e-6);
    EXPECT_NEAR(node.solver.points()[27][2], 0.0, 1e-12) << "far from the bump nothing moves";
}

// Neighbouring vertices of the same valence are relaxed two at a time; each must get the bits it
// gets alone. A vertex in no face put first shifts every index by one, so that every vertex is
// paired differently (or not at all), and the passes must give the same bits; the meshes cover
// valences 2 to 6, the weights leave some vertices out, and both lifts are used.
TEST(RelaxationSolver, PassesGiveTheSameBitsWhateverTheVertexPairing) {
    KPolyMesh sphere = MakeIcosphere(2);
    for (KVector& p : sphere.points) p.z *= 1.3f;
    const KPolyMesh grid = MakeDetailedGrid(13, 3.0f);
    KPolyMesh fan = Fan(5, 0.4f);
    for (const KPolyMesh* rest : {static_cast<const KPolyMesh*>(&sphere), &grid, static_cast<const KPolyMesh*>(&fan)}) {
        KPolyMesh shifted = *rest;
        shifted.points.insert(shifted.points.begin(), KVector(9.0f, 9.0f, 9.0f));
        for (int& v : shifted.faceVertices) ++v;
        KVectorArray pose = rest->points;
        for (int v = 0; v < pose.length(); ++v) pose[v] += KVector(0.05f * std::sin(3.0f * v), 0.0f, 0.1f * std::cos(v));
        KVectorArray shiftedPose = pose;
        shiftedPose.insert(shiftedPose.begin(), KVector(9.0f, 9.0f, 9.0f));
        std::vector<float> weights, shiftedWeights(1, 1.0f);
        for (int v = 0; v < pose.length(); ++v) weights.push_back(v % 7 == 3 ? 0.0005f : (v % 5 == 1 ? 0.6f : 1.0f));
        shiftedWeights.insert(shiftedWeights.end(), weights.begin(), weights.end());
        for (bool scaleSafe : {true, false}) {
            Node a(*rest), b(shifted);
            ASSERT_TRUE(a.run(rest->points).outcome.deformed());
            ASSERT_TRUE(b.run(shifted.points).outcome.deformed());
            KRelaxationInput in = Options(4, scaleSafe);
            in.weights = weights.data();
            ASSERT_TRUE(a.run(pose, in).outcome.deformed());
            in.weights = shiftedWeights.data();
            ASSERT_TRUE(b.run(shiftedPose, in).outcome.deformed());
            int moved = 0;
            for (int v = 0; v < pose.length(); ++v) {
                ASSERT_EQ(a.solver.points()[v], b.solver.points()[v + 1]) << "vertex " << v << " scale-safe " << scaleSafe;
                moved += !(a.solver.points()[v] == Widen(pose)[v]);
            }
            EXPECT_GT(moved, pose.length() / 2);
        }
    }
}

TEST(RelaxationSolver, WeightsEnvelopeMatrixAndThreadsBlendAsDescribed) {
    const KPolyMesh rest = MakeDetailedGrid(12, 4.0f);
    const KVectorArray bent = BendAroundY(rest, 1.0f).points;
    const KArray<KDouble3> input = Widen(bent);
    Node node(rest);
    ASSERT_TRUE(node.run(rest.points).outcome.deformed());
    ASSERT_TRUE(node.run(bent, Options(5, false, 1)).outcome.deformed());
    const KArray<KDouble3> full = node.solver.points();
    ASSERT_TRUE(node.run(bent, Options(5, false, 2)).outcome.deformed());
    EXPECT_EQ(node.solver.points(), full) << "thread count does not change the result";

    KRelaxationInput in = Options(5);
    in.envelope = 0.5f;
    std::vector<float> weights(rest.numVertices(), 0.5f);
    weights[3] = 1.0f;
    in.weights = weights.data();
    ASSERT_TRUE(node.run(bent, in).outcome.deformed());
    for (int v : {3, 50})
        for (int a = 0; a < 3; ++a)  // weight x envelope: 1 x 0.5 at vertex 3, 0.5 x 0.5 elsewhere
            EXPECT_NEAR(node.solver.points()[v][a], input[v][a] + (full[v][a] - input[v][a]) * (v == 3 ? 0.5 : 0.25), 1e-9);

    // A world matrix (scale 2 and a translation) and its inverse: the result comes back in object
    // space, the same as without the matrix up to rounding (with scale-safe on, the relaxation
    // follows the scale).
    Node moved(rest);
    KRelaxationInput world = Options(0);
    for (int a = 0; a < 3; ++a) world.worldMatrix[a][a] = 2.0, world.inverseWorldMatrix[a][a] = 0.5;
    world.worldMatrix[3][0] = 10.0, world.inverseWorldMatrix[3][0] = -5.0;
    ASSERT_TRUE(moved.run(rest.points, world).outcome.deformed());
    world.iterations = 5;
    world.enableScaleSafe = true;
    ASSERT_TRUE(moved.run(bent, world).outcome.deformed());
    ASSERT_TRUE(node.run(bent, Options(5, true)).outcome.deformed());
    EXPECT_LT(MaxDistance(moved.solver.points(), node.solver.points()), 1e-5);
}

TEST(RelaxationSolver, BadInputFailsAndLeavesEverythingAsItWas) {
    const KPolyMesh grid = FlatGrid(5);
    Node node(grid);
    KVectorArray broken = grid.points;
    broken[7].y = std::numeric_limits<float>::quiet_NaN();
    KRelaxationResult r = node.run(broken);
    EXPECT_EQ(r.outcome.message, kRelaxNotFinite);
    EXPECT_FALSE(r.writeBinding || r.writeStiffness || node.store.binding.connVrtId.size() != 0);

    // A vertex with 129 neighbours: the message, the partial lists written, no stiffness.
    const KPolyMesh fan = Fan(129);
    Node many(fan);
    r = many.run(fan.points);
    EXPECT_EQ(r.outcome.message, kRelaxTooManyNeighbours);
    EXPECT_TRUE(r.writeBinding && !r.writeStiffness && !many.store.hasStiffness && many.store.binding.connVrtId.size() == 1);

    // A new vertex count re-binds, but the running node keeps the caches of its first run, which
    // do not fit the larger mesh: refused rather than read past them.
    ASSERT_TRUE(node.run(grid.points).outcome.deformed());
    const KPolyMesh larger = FlatGrid(6);
    node.rings = KVertexNeighbours();
    VertexRings(larger, node.rings);
    r = node.run(larger.points);
    EXPECT_EQ(r.outcome.message, kRelaxCachesDoNotFit);
    EXPECT_TRUE(r.writeBinding && r.writeStiffness && node.store.stiffness.length() == 36);
    // A node created anew (a scene reload) loads the stored binding and runs.
    Node reloaded(larger);
    reloaded.store = node.store;
    KRelaxationInput in = Options(3);
    in.count = 36;
    in.stiffness = &reloaded.store.stiffness;
    EXPECT_TRUE(reloaded.solver.storedBindingNeeded(in));
    EXPECT_TRUE(reloaded.run(larger.points).outcome.deformed());

    // A bind without neighbour lists.
    KRelaxationInput none = Options(1);
    const KArray<KDouble3> points = Widen(grid.points);
    none.points = points.data();
    none.count = 25;
    EXPECT_EQ(KRelaxationSolver().evaluate(none).outcome.message, kRelaxNoRings);
}
