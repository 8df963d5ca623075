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
