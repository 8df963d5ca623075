// Triangle pairing: which source triangle a target triangle takes in both modes, the 90 degree
// limit and the search radius, each just inside and just outside.

#include <gtest/gtest.h>

#include <cmath>

#include "KTrianglePairing.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

// One triangle with centre c and unit normal turned by `degrees` from +Z about the X axis.
void AddTriangle(KTriMesh& m, const KVector& c, float degrees, float size = 0.1f) {
    const float a = degrees * 3.14159265f / 180.0f;
    const KVector u(size, 0, 0), v(0, size * std::cos(a), size * std::sin(a));
    const int n = m.points.length();
    m.points.push_back(c - u - v * (1.0f / 3.0f));
    m.points.push_back(c + u - v * (1.0f / 3.0f));
    m.points.push_back(c + v * (2.0f / 3.0f));
    m.triangles.push_back(KInt3{n, n + 1, n + 2});
}

}  // namespace

TEST(TrianglePairing, SameTopologyChecksTheNearestCentresTriangleAndPairsItsOwnIndex) {
    // The target is the source turned about Z, so that some target triangle's nearest source
    // centre is a neighbour's; that neighbour is flipped on the source. Target triangles whose
    // nearest centre is the flipped one lose their pair, whatever their own index; target triangle
    // 7 faces inward and loses its pair (count 0: the initial -1 plus one).
    const KTriMesh plain = TriangulatedIcosphere(1);
    KTriMesh target = plain;
    for (KVector& p : target.points) p = KVector(0.9f * p.x - 0.436f * p.y, 0.436f * p.x + 0.9f * p.y, p.z);
    std::swap(target.triangles[7][1], target.triangles[7][2]);
    KVectorArray sc, tc;
    plain.getTriangleCenters(sc, true);
    target.getTriangleCenters(tc, true);
    std::vector<int> nearest(80, 0);
    int flipped = -1;
    for (int i = 0; i < 80; ++i) {
        for (int s = 1; s < 80; ++s)
            if ((sc[s] - tc[i]).length() < (sc[nearest[i]] - tc[i]).length()) nearest[i] = s;
        if (flipped < 0 && i != 7 && nearest[i] != i && nearest[i] != 7) flipped = nearest[i];
    }
    ASSERT_GE(flipped, 0) << "the scene must tell the nearest centre's triangle from the own index";
    KTriMesh source = plain;
    std::swap(source.triangles[flipped][1], source.triangles[flipped][2]);
    KInt4Array pairs;
    ASSERT_TRUE(PairTriangles(source, target, 1, 2, pairs));
    ASSERT_EQ(pairs.length(), 80);
    for (int i = 0; i < 80; ++i) {
        const bool faces = i != 7 && nearest[i] != flipped;
        EXPECT_TRUE(pairs[i] == (faces ? KInt4{i, -1, -1, 1} : KInt4{-1, -1, -1, 0})) << i;
    }
}

TEST(TrianglePairing, DifferentTopologyTakesTheNearestCentreThatFacesTheSameWay) {
    const KTriMesh source = TriangulatedIcosphere(2);
    KTriMesh target = TriangulatedIcosphere(1);
    std::swap(target.triangles[3][1], target.triangles[3][2]);  // faces away
    // Triangle 5 moved far off: no source centre within the radius.
    for (int k = 0; k < 3; ++k) {
        target.points.push_back(target.points[target.triangles[5][k]] * 50.0f);
        target.triangles[5][k] = target.points.length() - 1;
    }
    KInt4Array pairs;
    ASSERT_TRUE(PairTriangles(source, target, 2, 2, pairs));
    KVectorArray sc, tc;
    source.getTriangleCenters(sc, true);
    target.getTriangleCenters(tc, true);
    for (int i = 0; i < 80; ++i) {
        int best = 0;
        for (int s = 1; s < sc.length(); ++s)
            if ((sc[s] - tc[i]).length() < (sc[best] - tc[i]).length()) best = s;
        EXPECT_TRUE(pairs[i] == (i == 3 || i == 5 ? KInt4{-1, -1, -1, 0} : KInt4{best, -1, -1, 1})) << i;
    }
    // Any other mode fills every entry with -1 and pairs nothing.
    EXPECT_FALSE(PairTriangles(source, target, 3, 2, pairs));
    EXPECT_EQ(pairs.length(), 80);
    for (const KInt4& p : pairs) EXPECT_TRUE(p == (KInt4{-1, -1, -1, -1}));
}

TEST(TrianglePairing, AngleLimitAndRadiusJustInsideAndJustOutside) {
    // Source: a far anchor triangle (it sets the bounding box) and one probe triangle at the
    // origin. Target: one small triangle below the probe, far from the anchor. Both boxes are known, so the radius is
    // worked out by hand: source box 10 x 10 x 10 (two triangles): sqrt(4 * 300 / 2) = 24.49;
    // the target box is smaller.
    const float radius = std::sqrt(4.0f * 300.0f / 2.0f);
    const struct {
        float degrees, distance;
        int count;
    } cases[] = {{89.5f, 1.0f, 1},  {90.5f, 1.0f, 0},  {0.0f, 0.99f * radius, 1}, {0.0f, 1.01f * radius, 0},
                 {-89.5f, 1.0f, 1}, {179.0f, 1.0f, 0}, {45.0f, 0.5f * radius, 1}};
    for (const auto& c : cases) {
        KTriMesh source, target;
        for (const KVector& p : {KVector(-5, -5, -5), KVector(5, 5, 5), KVector(5, -5, 5)}) source.points.push_back(p);
        source.triangles.push_back(KInt3{0, 1, 2});
        AddTriangle(source, KVector(0, 0, 0), c.degrees);
        // The anchor's centre (5/3, -5/3, 5/3) is farther from the target's than the probe's.
        AddTriangle(target, KVector(0, 0, -c.distance), 0.0f, 0.01f);
        EXPECT_NEAR(PairingRadius(source, target), radius, 1e-4f);
        KInt4Array pairs;
        for (short mode : {short(1), short(2)}) {
            ASSERT_TRUE(PairTriangles(source, target, mode, 1, pairs));
            const int expected = mode == 1 ? 0 : 1;  // the target's own index, or the probe
            EXPECT_TRUE(pairs[0] == (c.count ? KInt4{expected, -1, -1, 1} : KInt4{-1, -1, -1, 0}))
                << c.degrees << " degrees at " << c.distance << ", mode " << mode;
        }
    }
}

TEST(TrianglePairing, TheLogSelectsEachTargetFaceWithItsSourceFace) {
    KInt4Array pairing;
    for (const KInt4& entry : {KInt4{5, -1, -1, 1}, KInt4{-1, -1, -1, 0}, KInt4{12, -1, -1, 1}}) pairing.push_back(entry);
    EXPECT_EQ(TriangleCorrespondenceLog(pairing),
              "select -r young.f[0] old.f[5];\nselect -r young.f[1] old.f[-1];\nselect -r young.f[2] old.f[12];\n");
    EXPECT_EQ(TriangleCorrespondenceLog(KInt4Array()), "");
}
