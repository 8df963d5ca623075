// All crossings of a ray with a mesh, against hand-worked cases and an analytic sphere.

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "KTriMeshDistTree.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

KTriMesh UnitCube() {
    KTriMesh m;
    for (int i = 0; i < 8; ++i) m.points.push_back(KVector(i & 1 ? 1.f : -1.f, i & 2 ? 1.f : -1.f, i & 4 ? 1.f : -1.f));
    const int faces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    for (const auto& f : faces) {
        m.triangles.push_back(KInt3{f[0], f[1], f[2]});
        m.triangles.push_back(KInt3{f[0], f[2], f[3]});
    }
    return m;
}

// The certificate without leaves: no ray from within the radius crosses the surface.
bool Misses(const KTriMeshDistTree& tree, const KVector& source, const KVector& direction, float reach, float tolerance,
            float radius) {
    return tree.leavesNear(source, direction, reach, tolerance, radius, nullptr, 0) == 0;
}

}  // namespace

TEST(TriMeshRayCast, CubeCrossingsDistancesAndLimits) {
    const KTriMeshDistTree tree(UnitCube(), 2, 10);
    std::vector<float> hits;
    struct Case {
        KVector source, direction;
        float maxDistance;
        std::vector<float> hits;
    } cases[] = {
        {KVector(0.2f, 0.3f, -3), KVector(0, 0, 1), 10, {2, 4}},
        {KVector(0.2f, 0.3f, -3), KVector(0, 0, 7), 10, {2, 4}},  // the direction's length does not matter
        {KVector(0.2f, 0.3f, -3), KVector(0, 0, 1), 3, {2}},      // limited reach
        {KVector(0.2f, 0.3f, 0), KVector(0, 0, 1), 5, {1}},       // from inside
        {KVector(0.2f, 0.3f, 0), KVector(0, 0, -1), 5, {1}},
        {KVector(0.2f, 0.3f, 3), KVector(0, 0, 1), 50, {}},       // pointing away
        {KVector(0, 0, -3), KVector(0, 0, 1), 10, {2, 4}},        // through the faces' diagonals: once each
        {KVector(1, 1, -3), KVector(0, 0, 1), 10, {2, 4}},        // through a corner
        {KVector(0.2f, 0.3f, 1), KVector(0, 0, 1), 10, {0}},      // on the surface
        {KVector(0, 0, -3), KVector(0, 0, 0), 10, {}},            // no direction
        {KVector(0, 0, -3), KVector(0, 0, 1), -1, {}},
    };
    for (const Case& c : cases) {
        const int n = tree.allIntersections(c.source, c.direction, c.maxDistance, 1e-6f, hits);
        EXPECT_EQ(n, static_cast<int>(hits.size()));
        ASSERT_EQ(hits.size(), c.hits.size()) << c.source.x << " " << c.source.z << " reach " << c.maxDistance;
        for (size_t i = 0; i < hits.size(); ++i) EXPECT_NEAR(hits[i], c.hits[i], 1e-6f);
    }
    EXPECT_EQ(KTriMeshDistTree(2, 10).allIntersections(KVector(), KVector(0, 0, 1), 1, 0, hits), 0);
}

TEST(TriMeshRayCast, ParityOfCrossingsTellsInsideFromOutsideOfAClosedSphere) {
    const KPolyMesh sphere = MakeIcosphere(3);
    KTriMesh mesh;
    sphere.triangulate(mesh);
    const KTriMeshDistTree tree(mesh, 10, 10);
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-2.0f, 2.0f);
    std::vector<float> hits;
    int inside = 0, tested = 0;
    while (tested < 2000) {
        const KVector p(u(rng), u(rng), u(rng));
        const float r = p.length();
        if (r > 0.95f && r < 1.05f) continue;  // the faceted sphere lies between 0.98 and 1
        KVector d(u(rng), u(rng), u(rng));
        if (d.length() < 0.1f) continue;
        const int n = tree.allIntersections(p, d, 10.0f, 1e-6f, hits);
        EXPECT_EQ(n % 2 == 1, r < 1.0f) << p.x << " " << p.y << " " << p.z;
        inside += r < 1.0f;
        ++tested;
    }
    EXPECT_GT(inside, 100);
}

// The leaves-near certificate: for every source within the radius, up to the corners of the
// radius's cube and along axis-parallel rays, the listed leaves give exactly the crossings of the
// whole tree, and none at all where it lists no leaf; near the surface a certificate without leaves
// is refused.
TEST(TriMeshRayCast, LeavesNearHoldForEverySourceWithinTheRadius) {
    KTriMesh sphere;
    MakeIcosphere(3).triangulate(sphere);
    KTriMesh far = sphere;
    for (KVector& p : far.points) p = p * 2.0f + KVector(300.0f, -200.0f, 50.0f);
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::vector<float> hits;
    for (const KTriMesh* mesh : {&sphere, &far}) {
        const KTriMeshDistTree tree(*mesh, 2, 20);
        const KVector centre = mesh->points[0] - sphere.points[0] * (mesh == &far ? 2.0f : 1.0f);
        const float size = mesh == &far ? 2.0f : 1.0f, reach = 8.0f * size, radius = 0.02f * size;
        int certified = 0, refused = 0, crossedInLeaves = 0;
        for (int i = 0; i < 400; ++i) {
            const KVector source = centre + KVector(u(rng), u(rng), u(rng)) * (2.5f * size);
            KVector direction(u(rng), u(rng), u(rng));
            if (i % 4 == 0) direction = KVector(0, 0, i % 8 == 0 ? 1.0f : -1.0f);  // parallel to two slabs
            KTriMeshDistTree::LeafRun leaves[8];
            const int n = tree.leavesNear(source, direction, reach, 1e-6f, radius, leaves, 8);
            if (n >= 0) {
                certified += n == 0;
                for (int k = 0; k < 40; ++k) {
                    // Random offsets, the cube's corners and faces.
                    KVector offset(u(rng), u(rng), u(rng));
                    if (k < 8) offset = KVector(k & 1 ? 1.0f : -1.0f, k & 2 ? 1.0f : -1.0f, k & 4 ? 1.0f : -1.0f);
                    if (k >= 8 && k < 14) offset = KVector(k == 8 ? 1.0f : k == 9 ? -1.0f : 0.0f,
                                                           k == 10 ? 1.0f : k == 11 ? -1.0f : 0.0f,
                                                           k == 12 ? 1.0f : k == 13 ? -1.0f : 0.0f);
                    const KVector near = source + offset * radius;
                    const int expected = tree.allIntersections(near, direction, reach, 1e-6f, hits);
                    std::vector<float> listed;
                    ASSERT_EQ(tree.intersectionsInLeaves(near, direction, reach, 1e-6f, leaves, n, listed), expected)
                        << i << " " << k;
                    ASSERT_EQ(listed, hits) << i << " " << k;
                    ASSERT_TRUE(n > 0 || expected == 0) << i << " " << k;
                    crossedInLeaves += expected > 0;
                }
            } else if (tree.allIntersections(source, direction, reach, 1e-6f, hits) > 0) {
                ++refused;
            }
        }
        EXPECT_GT(certified, 100);
        EXPECT_GT(crossedInLeaves, 200);
        EXPECT_GT(refused, 20);
        // On the surface, or with the radius reaching it, there is no certificate.
        EXPECT_FALSE(Misses(tree, mesh->points[3], KVector(1, 0, 0), reach, 1e-6f, 0.0f));
        const KVector outside = centre + (mesh->points[5] - centre) * 1.01f;
        EXPECT_FALSE(Misses(tree, outside, mesh->points[5] - centre, reach, 1e-6f, 0.05f * size));
    }
    // Rays past a cube's edge, closer and closer: the boxes of the side faces are the faces
    // themselves, so a certificate given too close would let the sources nearer the cube cross its
    // top and bottom.
    const KTriMeshDistTree cube(UnitCube(), 2, 10);
    const float radius = 0.01f;
    int certified = 0;
    for (const KVector& direction : {KVector(0, 0, 1), KVector(0.001f, -0.002f, 1), KVector(0, 1, 0)}) {
        for (int step = 40; step >= 0; --step) {
            const float gap = radius * 0.1f * step;  // from 4 radii down to 0
            const KVector source = direction.y == 1 ? KVector(1 + gap, -3, 0.3f) : KVector(1 + gap, 0.3f, -3);
            if (!Misses(cube, source, direction, 10.0f, 1e-6f, radius)) continue;
            ++certified;
            EXPECT_GE(gap, radius) << "certified " << gap << " from the cube";
            for (float dx : {-radius, -0.5f * radius, 0.0f})
                EXPECT_EQ(cube.allIntersections(source + KVector(dx, 0, 0), direction, 10.0f, 1e-6f, hits), 0);
        }
    }
    EXPECT_GE(certified, 3 * 15);

    // More leaves than room: no certificate. Runs that are not the tree's are skipped.
    const KTriMeshDistTree tree(sphere, 2, 20), empty(2, 20);
    KTriMeshDistTree::LeafRun one[1];
    EXPECT_EQ(tree.leavesNear(KVector(0, 0, -3), KVector(0, 0, 1), 6.0f, 1e-6f, 0.5f, one, 1), -1);
    const KTriMeshDistTree::LeafRun foreign[] = {{-1, 2}, {1 << 30, 2}, {0, 1 << 30}, {0, -2}};
    EXPECT_EQ(tree.intersectionsInLeaves(KVector(), KVector(0, 0, 1), 5.0f, 1e-6f, foreign, 4, hits), 0);

    // Nothing to find whatever the source: an empty tree, no direction, a negative reach.
    EXPECT_TRUE(Misses(empty, KVector(), KVector(0, 0, 1), 5.0f, 1e-6f, 1.0f));
    EXPECT_TRUE(Misses(tree, KVector(), KVector(0, 0, 0), 5.0f, 1e-6f, 1.0f));
    EXPECT_TRUE(Misses(tree, KVector(), KVector(0, 0, 1), -1.0f, 1e-6f, 1.0f));
    EXPECT_FALSE(Misses(tree, KVector(NAN, 0, 0), KVector(0, 0, 1), 5.0f, 1e-6f, 1.0f));
    EXPECT_FALSE(Misses(tree, KVector(), KVector(0, 0, 1), 5.0f, 1e-6f, NAN));
}
