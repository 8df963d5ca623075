// Texture coordinates per triangle corner from a face-vertex UV assignment: seams, faces
// without UVs, triangulations other than the fan, and arrays that do not agree.

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "KMeshConversion.h"

using namespace Kavrin;

namespace {

// Two quads 0-1-4-3 and 1-2-5-4 with a UV seam along the shared edge 1-4: the left face uses
// UVs 0..3, the right face its own 4..7; triangles as the fan split.
struct Mesh {
    KIntArray faceCounts{4, 4}, faceVertices{0, 1, 4, 3, 1, 2, 5, 4}, perFace{2, 2};
    KIntArray uvCounts{4, 4}, uvIds{0, 1, 2, 3, 4, 5, 6, 7};
    KInt3Array triangles;
    Mesh() {
        for (const KInt3& t : {KInt3{0, 1, 4}, KInt3{0, 4, 3}, KInt3{1, 2, 5}, KInt3{1, 5, 4}}) triangles.push_back(t);
    }
};

}  // namespace

TEST(MeshConversion, CornersTakeTheirFaceUVsAndDisagreeingArraysAreRefused) {
    KIntArray counts;
    FanTriangleCounts(KIntArray{4, 3, 2, 5}, counts);
    EXPECT_EQ(counts, (KIntArray{2, 1, 0, 3}));
    KArray<KFloat2> setUVs;
    for (int i = 0; i < 8; ++i) setUVs.push_back(KFloat2{0.1f * i, 1.0f + i});
    const struct {
        std::function<void(Mesh&)> edit;
        std::vector<int> corners;  // UV set index per corner, -1 for (0, 0); none: refused
    } cases[] = {
        // Vertex 1 lies on the seam: UV 1 in face 0, UV 4 in face 1.
        {[](Mesh&) {}, {0, 1, 2, 0, 2, 3, 4, 5, 6, 4, 6, 7}},
        // Face 0 split along its other diagonal, face 1 without UVs.
        {[](Mesh& m) {
             m.triangles[0] = KInt3{0, 1, 3};
             m.triangles[1] = KInt3{1, 4, 3};
             m.uvCounts = KIntArray{4, 0};
             m.uvIds = KIntArray{0, 1, 2, 3};
         },
         {0, 1, 3, 1, 2, 3, -1, -1, -1, -1, -1, -1}},
        // Face 0 without UVs, face 1 with them: face 1 reads its own ids from the start.
        {[](Mesh& m) {
             m.uvCounts = KIntArray{0, 4};
             m.uvIds = KIntArray{4, 5, 6, 7};
         },
         {-1, -1, -1, -1, -1, -1, 4, 5, 6, 4, 6, 7}},
        {[](Mesh& m) { m.uvIds = KIntArray{0, 99, 2, -1, 4, 5, 6, 7}; }, {0, -1, 2, 0, 2, -1, 4, 5, 6, 4, 6, 7}},
        {[](Mesh& m) { m.uvIds = KIntArray{0, 1, 2}; }, {}},
        {[](Mesh& m) { m.perFace = KIntArray{3, 2}; }, {}},
        {[](Mesh& m) { m.uvCounts = KIntArray{4}; }, {}},
        {[](Mesh& m) { m.faceCounts = KIntArray{-4, 8}; }, {}},
    };
    for (const auto& c : cases) {
        Mesh m;
        c.edit(m);
        KArray<KFloat2> uvs{KFloat2{1.0f, 1.0f}};
        const bool ok = TriangleCornerUVs(m.faceCounts, m.faceVertices, m.perFace, m.triangles, m.uvCounts, m.uvIds,
                                          setUVs, uvs);
        EXPECT_EQ(ok, !c.corners.empty()) << &c - cases;
        ASSERT_EQ(uvs.length(), static_cast<int>(c.corners.size())) << &c - cases;
        for (size_t i = 0; i < c.corners.size(); ++i) {
            const KFloat2 want = c.corners[i] < 0 ? KFloat2{0.0f, 0.0f} : setUVs[c.corners[i]];
            EXPECT_TRUE(uvs[i][0] == want[0] && uvs[i][1] == want[1]) << &c - cases << " corner " << i;
        }
    }
}
