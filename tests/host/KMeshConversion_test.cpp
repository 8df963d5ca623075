// Texture coordinates per triangle corner from a face-vertex UV assignment: seams, faces
// without UVs, triangulations other than the fan, and arrays that do not agree.

#include <gtest/gtest.h>

#include <vector>

#include "KMeshConversion.h"

using namespace Kavrin;

namespace {

// Two quads 0-1-4-3 and 1-2-5-4 with a UV seam along the shared edge 1-4: the left face uses
// UVs 0..3, the right face its own 4..7; triangles as the fan split. Each test edits one array
// and converts.
struct MeshConversion : ::testing::Test {
    KIntArray faceCounts{4, 4}, faceVertices{0, 1, 4, 3, 1, 2, 5, 4}, perFace{2, 2};
    KIntArray uvCounts{4, 4}, uvIds{0, 1, 2, 3, 4, 5, 6, 7};
    KInt3Array triangles;
    KArray<KFloat2> setUVs, uvs;
    MeshConversion() {
        for (const KInt3& t : {KInt3{0, 1, 4}, KInt3{0, 4, 3}, KInt3{1, 2, 5}, KInt3{1, 5, 4}}) triangles.push_back(t);
        for (int i = 0; i < 8; ++i) setUVs.push_back(KFloat2{0.1f * i, 1.0f + i});
    }
    bool convert() {
        return TriangleCornerUVs(faceCounts, faceVertices, perFace, triangles, uvCounts, uvIds, setUVs, uvs);
    }
    // UV set indices expected per corner; -1 for (0, 0).
    void expectCorners(const std::vector<int>& expected) {
        ASSERT_EQ(uvs.length(), static_cast<int>(expected.size()));
        for (size_t i = 0; i < expected.size(); ++i) {
            const KFloat2 want = expected[i] < 0 ? KFloat2{0.0f, 0.0f} : setUVs[expected[i]];
            EXPECT_TRUE(uvs[i][0] == want[0] && uvs[i][1] == want[1]) << i;
        }
    }
};

}  // namespace

TEST_F(MeshConversion, FanCornersTakeTheirFaceUVs) {
    KIntArray counts;
    FanTriangleCounts(KIntArray{4, 3, 2, 5}, counts);
    EXPECT_EQ(counts, (KIntArray{2, 1, 0, 3}));
    // Vertex 1 lies on the seam: UV 1 in face 0, UV 4 in face 1.
    ASSERT_TRUE(convert());
    expectCorners({0, 1, 2, 0, 2, 3, 4, 5, 6, 4, 6, 7});
}

TEST_F(MeshConversion, OtherTriangulationAndUnmappedFace) {
    triangles[0] = KInt3{0, 1, 3};  // face 0 split along its other diagonal, face 1 without UVs
    triangles[1] = KInt3{1, 4, 3};
    uvCounts = KIntArray{4, 0};
    uvIds = KIntArray{0, 1, 2, 3};
    ASSERT_TRUE(convert());
    expectCorners({0, 1, 3, 1, 2, 3, -1, -1, -1, -1, -1, -1});
}

TEST_F(MeshConversion, UVIdsOutsideTheSetGiveZero) {
    uvIds = KIntArray{0, 99, 2, -1, 4, 5, 6, 7};
    ASSERT_TRUE(convert());
    expectCorners({0, -1, 2, 0, 2, -1, 4, 5, 6, 4, 6, 7});
}

TEST_F(MeshConversion, DisagreeingArraysAreRefused) {
    const auto refused = [&](KIntArray& field, const KIntArray& value) {
        const KIntArray kept = field;
        field = value;
        uvs.push_back(KFloat2{1.0f, 1.0f});
        const bool ok = convert();
        field = kept;
        return !ok && uvs.empty();
    };
    EXPECT_TRUE(refused(uvIds, {0, 1, 2}));
    EXPECT_TRUE(refused(perFace, {3, 2}));
    EXPECT_TRUE(refused(uvCounts, {4}));
    EXPECT_TRUE(refused(faceCounts, {-4, 8}));
    ASSERT_TRUE(convert());
}
