// Relaxation collisions: the inside test, the push and its multiplier, which passes collide, and
// the painting redirection's decisions.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "KColliderPainting.h"
#include "RelaxationTestSupport.h"

using namespace Kavrin;
using namespace Kavrin::relaxtest;

namespace {

// One collision pass of points with upward normals against the cube [-1, 1]^3.
struct Pass {
    KTriMesh cube = Cube();
    KRelaxationCollider collider;
    KRelaxationCollisions collisions;
    Pass() { collider.mesh = &cube; }

    KArray<KDouble3> run(KArray<KDouble3> points, std::vector<double> multipliers, std::vector<float> weights = {}) {
        const int n = points.length();
        KVectorArray normals;
        normals.setLengthWithValue(n, KVector(0, 0, 1));
        if (weights.empty()) weights.assign(n, 1.0f);
        collisions.prepare(points.data(), n, &collider, 1);
        collisions.collide(points.data(), n, weights.data(), multipliers.data(), normals.data(), 0);
        return points;
    }
};

}  // namespace

// Multiplier, weight threshold (strict: 0.001 collides) and the odd-crossings inside test.
TEST(RelaxationCollisions, InsideVerticesMoveByTheirMultiplierAndWeight) {
    Pass pass;
    const KArray<KDouble3> in = {KDouble3{0, 0, 0.8},  KDouble3{0, 0, 0.8},      KDouble3{0, 0, 0.8},
                                 KDouble3{0.5, 0, 1.5}, KDouble3{0.2, 0.1, 1.0}, KDouble3{-0.9, 0.3, 0.0},
                                 KDouble3{0, 0, 0.5},  KDouble3{0, 0, 0.5},      KDouble3{0, 0.5, -1.5}};
    const KArray<KDouble3> out =
        pass.run(in, {1.0, 0.5, 0.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0}, {1, 1, 1, 1, 1, 1, 0.001f, 0.0009f, 1});
    EXPECT_NEAR(out[0][2], 1.0, 1e-6) << "onto the nearest face";
    EXPECT_NEAR(out[1][2], 0.9, 1e-6) << "multiplier 0.5: half-way";
    EXPECT_EQ(out[2], in[2]) << "multiplier 0: left alone";
    EXPECT_EQ(out[3], in[3]) << "outside: no crossing above it";
    EXPECT_NEAR(out[4][2], 1.0, 1e-6) << "on the surface: one crossing, snapped onto it";
    // The push goes to the closest point, whatever the ray's direction was.
    EXPECT_NEAR(out[5][0], -1.0, 1e-6);
    EXPECT_NEAR(out[5][1], 0.3, 1e-6);
    EXPECT_NEAR(out[6][2], 1.0, 1e-6) << "weight exactly 0.001 is collided";
    EXPECT_EQ(out[7], in[7]) << "weight below 0.001 is not";
    EXPECT_EQ(out[8], in[8]) << "outside below: two crossings";
}

TEST(RelaxationCollisions, CollidersThatCannotTouchAreSkipped) {
    KTriMesh far = Cube(0.5f);
    for (KVector& p : far.points) p.x += 10.0f;
    KTriMesh open = Cube();
    open.triangles.resize(2);  // only the bottom face z = -1: a vertex above it sees one crossing
    const KArray<KDouble3> points = {KDouble3{0, 0, 0.5}, KDouble3{0.1, 0.2, -2.0}};
    KRelaxationCollider colliders[4];
    colliders[0].mesh = nullptr;  // not a mesh
    KTriMesh cube = Cube();
    colliders[1].mesh = &cube;
    colliders[1].connected = false;
    colliders[2].mesh = &far;
    colliders[3].mesh = &open;
    KRelaxationCollisions collisions;
    collisions.prepare(points.data(), 2, colliders, 4);
    EXPECT_EQ(collisions.activeColliders(), 1);
    KArray<KDouble3> moved = points;
    const std::vector<double> multipliers(8, 1.0);
    KVectorArray normals;
    normals.setLengthWithValue(2, KVector(0, 0, 1));
    collisions.collide(moved.data(), 2, nullptr, multipliers.data(), normals.data(), 1);
    EXPECT_EQ(moved[0], points[0]) << "the open face lies below: no crossing upwards";
    EXPECT_NEAR(moved[1][2], -1.0, 1e-6) << "an open collider pulls a vertex below it onto its face";
}

TEST(RelaxationCollisions, CollisionPassesFollowTheSteps) {
    const struct {
        int iterations, steps;
        std::vector<int> passes;
    } cases[] = {
        {10, 3, {0, 3, 6, 9}}, {10, 4, {0, 4, 8, 9}}, {3, 1, {0, 1, 2}}, {1, 5, {0}}, {0, 1, {}}, {4, 0, {0, 1, 2, 3}},
    };
    for (const auto& c : cases) {
        std::vector<int> due;
        for (int pass = 0; pass < c.iterations; ++pass)
            if (KRelaxationSolver::CollisionDue(pass, c.iterations, c.steps)) due.push_back(pass);
        EXPECT_EQ(due, c.passes) << c.iterations << " passes, steps " << c.steps;
    }

    // The solver collides at those passes (none with collisions off): the centre vertex starts
    // inside the cube and ends on its nearest face, the top.
    const KPolyMesh grid = FlatGrid(5);
    KTriMesh cube = Cube(0.5f);
    for (KVector& p : cube.points) p += KVector(2, 2, -0.2f);
    Node node(grid);
    ASSERT_TRUE(node.run(grid.points).outcome.deformed());
    KRelaxationCollider collider;
    collider.mesh = &cube;
    KArray<double> multipliers;
    multipliers.setLengthWithValue(25, 1.0);
    KVectorArray normals;
    normals.setLengthWithValue(25, KVector(0, 0, 1));
    KRelaxationInput in;
    in.iterations = 10;
    in.collisionSteps = 4;
    in.colliders = &collider;
    in.numColliders = 1;
    in.multipliers = &multipliers;
    in.normals = normals.data();
    ASSERT_TRUE(node.run(grid.points, in).outcome.deformed());
    EXPECT_EQ(std::vector<int>(node.solver.collisionPasses().begin(), node.solver.collisionPasses().end()),
              (std::vector<int>{0, 4, 8, 9}));
    EXPECT_NEAR(node.solver.points()[12][2], 0.3, 1e-6);
    in.doCollisions = false;
    ASSERT_TRUE(node.run(grid.points, in).outcome.deformed());
    EXPECT_TRUE(node.solver.collisionPasses().empty());

    // The normals come in object space and are turned by the world matrix: with object +y turned
    // to world +z, the rays from the sheet (world y = 0, z = object y) go up through an open roof
    // at world z = 3.5, so the rows below it are pushed onto it and the top row stays; unturned,
    // the rays would run along the roof and meet nothing.
    in.doCollisions = true;
    in.iterations = 1;
    const double turn[4][4] = {{1, 0, 0, 0}, {0, 0, 1, 0}, {0, -1, 0, 0}, {0, 0, 0, 1}};
    const double back[4][4] = {{1, 0, 0, 0}, {0, 0, -1, 0}, {0, 1, 0, 0}, {0, 0, 0, 1}};
    std::copy(&turn[0][0], &turn[0][0] + 16, &in.worldMatrix[0][0]);
    std::copy(&back[0][0], &back[0][0] + 16, &in.inverseWorldMatrix[0][0]);
    normals.setLengthWithValue(25, KVector(0, 1, 0));
    KTriMesh roof;
    for (const KVector& p : {KVector(-10, -10, 3.5f), KVector(10, -10, 3.5f), KVector(10, 10, 3.5f), KVector(-10, 10, 3.5f)})
        roof.points.push_back(p);
    roof.triangles.push_back(KInt3{0, 1, 2});
    roof.triangles.push_back(KInt3{0, 2, 3});
    collider.mesh = &roof;
    ASSERT_TRUE(node.run(grid.points, in).outcome.deformed());
    for (int v = 0; v < 25; ++v) EXPECT_NEAR(node.solver.points()[v][1], v < 20 ? 3.5 : 4.0, 1e-6) << v;
}

// A collider removed between evaluations: the multiplier table then has one column fewer, and
// the pass must read it with that stride (and no further than its end), exactly as an instance
// that never saw the second collider.
TEST(RelaxationCollisions, RemovingAColliderBetweenEvaluations) {
    KTriMesh inner = Cube(), outer = Cube(2.0f);
    KRelaxationCollider two[2];
    two[0].mesh = &inner;
    two[1].mesh = &outer;
    const KArray<KDouble3> points = {KDouble3{0, 0, 0.8}, KDouble3{0, 0, 0.6}, KDouble3{0, 0, 0.4},
                                     KDouble3{0, 0, 0.2}, KDouble3{0, 0, 0.0}};
    KVectorArray normals;
    normals.setLengthWithValue(5, KVector(0, 0, 1));
    KRelaxationCollisions used, fresh;
    KArray<KDouble3> first = points;
    const std::vector<double> twoColumns(10, 0.5);
    used.prepare(first.data(), 5, two, 2);
    used.collide(first.data(), 5, nullptr, twoColumns.data(), normals.data(), 1);

    const std::vector<double> oneColumn = {1.0, 0.5, 0.0, 0.25, 1.0};
    KArray<KDouble3> after = points, expected = points;
    used.prepare(after.data(), 5, two, 1);
    used.collide(after.data(), 5, nullptr, oneColumn.data(), normals.data(), 1);
    fresh.prepare(expected.data(), 5, two, 1);
    fresh.collide(expected.data(), 5, nullptr, oneColumn.data(), normals.data(), 1);
    EXPECT_EQ(after, expected);
    EXPECT_NEAR(after[1][2], 0.8, 1e-6) << "multiplier 0.5: half-way to the top";
    EXPECT_EQ(after[2], points[2]) << "multiplier 0";
}

TEST(RelaxationCollisions, EvaluationRefusesCollisionInputsThatDoNotFit) {
    const KPolyMesh grid = FlatGrid(3);
    Node node(grid);
    ASSERT_TRUE(node.run(grid.points).outcome.deformed());
    KTriMesh cube = Cube();
    KRelaxationCollider collider;
    collider.mesh = &cube;
    KArray<double> shortTable(8);
    KVectorArray normals(9);
    KRelaxationInput in;
    in.numColliders = 1;
    EXPECT_EQ(node.run(grid.points, in).outcome.message, kRelaxNoNormals);
    in.normals = normals.data();
    EXPECT_EQ(node.run(grid.points, in).outcome.message, kRelaxNoColliders);
    in.colliders = &collider;
    in.multipliers = &shortTable;
    EXPECT_EQ(node.run(grid.points, in).outcome.message, kRelaxBadMultipliers);
    in.multipliers = nullptr;  // no multipliers at all: every one reads 0
    EXPECT_TRUE(node.run(grid.points, in).outcome.deformed());
}

TEST(ColliderPainting, FindsTheColliderAndReportsBadTags) {
    KRecordingSink sink;
    int index = -1;
    std::vector<KColliderTag> tags = {{0, 1, false}, {2, 0, false}, {3, 2, true}, {5, 1, true}, {6, 1, true}};
    ASSERT_TRUE(FindColliderIndex(tags, sink, index));
    EXPECT_EQ(index, 5);
    EXPECT_EQ(sink.errors(), (std::vector<std::string>{"Invalid collider connections.",
                                                       "Invalid collider connections."}));
    tags.resize(2);
    EXPECT_FALSE(FindColliderIndex(tags, sink, index));
    EXPECT_EQ(index, 5) << "unchanged when not found";
}

TEST(ColliderPainting, WeightsClampingAndChangedValuesOnly) {
    const std::vector<KMultiplierElement> list = {
        {0, {{0, 0.2}, {1, 0.7}}}, {3, {{1, 0.4}}}, {4, {{0, 0.9}, {1, 0.0}}}, {6, {{2, 1.0}}}};
    KArray<double> weights;
    ColliderWeights(list, 1, weights);
    EXPECT_EQ(weights, (KArray<double>{0.7, 0.0, 0.0, 0.4})) << "only as long as the last non-zero vertex";
    ColliderWeights(list, 0, weights);
    EXPECT_EQ(weights, (KArray<double>{0.2, 0.0, 0.0, 0.0, 0.9}));
    ColliderWeights(list, 7, weights);
    EXPECT_TRUE(weights.empty());

    for (const auto& c : {std::make_pair(1.3, 1.0), std::make_pair(-0.2, 0.0), std::make_pair(0.25, 0.25),
                          std::make_pair(std::nan(""), 0.0)})
        EXPECT_EQ(ClampMultiplier(c.first), c.second) << c.first;

    const KArray<double> painted = {1.3, 0.0, -0.2, 0.4, 0.5, 0.0};
    ColliderWeights(list, 1, weights);  // 0.7, 0, 0, 0.4
    std::vector<KMultiplierWrite> writes;
    PaintedMultiplierWrites(painted, weights, writes);
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_TRUE(writes[0].vertex == 0 && writes[0].value == 1.0 && writes[1].vertex == 4 && writes[1].value == 0.5);

    KArray<double> table;
    MultiplierTable(list, 5, 2, table);
    EXPECT_EQ(table, (KArray<double>{0.2, 0.7, 0, 0, 0, 0, 0, 0.4, 0.9, 0.0}))
        << "vertex 6 and collider 2 lie outside the table";
}

TEST(RelaxationCollisions, ParallelBoundedPassEqualsTheSerialUnboundedOne) {
    // A bumpy sheet pressed by a ball from below, several passes: the pass (in parallel, with its
    // closest-point searches started from earlier finds, and its ray casts spared for sources that
    // have not moved or whose rays were certified clear of the ball) must give exactly what the
    // plain serial pass gives. Between passes the sheet sags back, as a relax pass would move it:
    // by more than the certificates' radius, by less, or not at all.
    KPolyMesh ballMesh = MakeIcosphere(3);
    for (KVector& p : ballMesh.points) p = p * 1.5f + KVector(2.0f, 2.0f, -1.0f);
    const KTriMesh ball = Triangulated(ballMesh);
    const KTriMeshDistTree reference(ball, 4, 20);
    const KPolyMesh sheet = MakeDetailedGrid(60, 4.0f);
    KArray<KDouble3> points;
    for (const KVector& p : sheet.points) points.push_back(KDouble3{p.x + 2.0, p.y + 2.0, p.z});
    KVectorArray normals;
    Triangulated(sheet).getVertexNormals(normals, true);
    std::vector<double> multipliers(points.size());
    for (size_t v = 0; v < multipliers.size(); ++v) multipliers[v] = v % 3 == 0 ? 1.0 : (v % 3 == 1 ? 0.5 : 0.8);

    KRelaxationCollider collider;
    collider.mesh = &ball;
    KBox sheetBox, ballBox;
    for (const KDouble3& p : points) sheetBox.expand(p[0], p[1], p[2]);
    for (const KVector& p : ball.points) ballBox.expand(p.x, p.y, p.z);
    const float reach = static_cast<float>(std::sqrt(std::pow(sheetBox.width() + ballBox.width(), 2) +
                                                     std::pow(sheetBox.height() + ballBox.height(), 2) +
                                                     std::pow(sheetBox.depth() + ballBox.depth(), 2)));
    for (double sag : {0.01, 1e-4, 0.0}) {
        KRelaxationCollisions collisions;
        collisions.prepare(points.data(), points.length(), &collider, 1);
        KArray<KDouble3> fast = points, slow = points;
        std::vector<float> hits;
        int moved = 0;
        for (int pass = 0; pass < 4; ++pass) {
            collisions.collide(fast.data(), fast.length(), nullptr, multipliers.data(), normals.data(), 2);
            for (int v = 0; v < slow.length(); ++v) {
                KDouble3& p = slow[v];
                const KVector source(static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2]));
                if (reference.allIntersections(source, normals[v] * reach, reach, 1e-6f, hits) % 2 == 0) continue;
                KVector q;
                int t;
                ASSERT_TRUE(reference.getClosestPoint(source, q, t, std::numeric_limits<float>::infinity()));
                const double e[3] = {q.x - p[0], q.y - p[1], q.z - p[2]};
                const double len = std::sqrt(e[0] * e[0] + e[1] * e[1] + e[2] * e[2]);
                const double m = multipliers[v];
                const double step = static_cast<double>(static_cast<float>(len)) * m;
                for (int a = 0; a < 3; ++a)
                    p[a] = m == 1.0 ? double((&q.x)[a]) : p[a] + (len > 0 ? e[a] / len : 0.0) * step;
                moved += pass == 0;
            }
            for (int v = 0; v < slow.length(); ++v) {
                slow[v][2] -= sag;
                fast[v][2] -= sag;
            }
        }
        EXPECT_GT(moved, 100);
        EXPECT_TRUE(fast == slow) << "sag " << sag;
    }
}
