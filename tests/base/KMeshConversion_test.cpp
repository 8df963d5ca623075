// Texture coordinates per triangle corner from a face-vertex UV assignment: seams, faces
// without UVs, triangulations other than the fan, and arrays that do not agree.

#include <gtest/gtest.h>

#include "KMeshConversion.h"
#include "KPolyMesh.h"

using namespace Kavrin;

namespace {

// Two quads 0-1-4-3 and 1-2-5-4 with a UV seam along the shared edge 1-4: the left face uses
// UVs 0..3, the right face its own 4..7.
struct SeamedQuads {
    KPolyMesh poly;
    KIntArray uvCounts{4, 4};
    KIntArray uvIds{0, 1, 2, 3, 4, 5, 6, 7};
    KArray<KFloat2> setUVs;
    SeamedQuads() {
        poly.points.setLength(6, true);
        poly.faceCounts = KIntArray{4, 4};
        poly.faceVertices = KIntArray{0, 1, 4, 3, 1, 2, 5, 4};
        for (int i = 0; i < 8; ++i) setUVs.push_back(KFloat2{0.1f * i, 1.0f + i});
    }
};

bool SameUV(const KFloat2& a, const KFloat2& b) { return a[0] == b[0] && a[1] == b[1]; }

}  // namespace

TEST(MeshConversion, FanCornersTakeTheirFaceUVs) {
    SeamedQuads q;
    KTriMesh mesh;
    q.poly.triangulate(mesh);
    KIntArray perFace;
    FanTriangleCounts(q.poly.faceCounts, perFace);
    EXPECT_EQ(perFace, (KIntArray{2, 2}));
    KArray<KFloat2> uvs;
    ASSERT_TRUE(TriangleCornerUVs(q.poly.faceCounts, q.poly.faceVertices, perFace, mesh.triangles, q.uvCounts,
                                  q.uvIds, q.setUVs, uvs));
    ASSERT_EQ(uvs.length(), 12);
    // Fan of face 0: (0,1,4) (0,4,3) -> UV ids (0,1,2) (0,2,3); face 1: (1,2,5) (1,5,4) -> (4,5,6) (4,6,7).
    const int expected[12] = {0, 1, 2, 0, 2, 3, 4, 5, 6, 4, 6, 7};
    for (int i = 0; i < 12; ++i) EXPECT_TRUE(SameUV(uvs[i], q.setUVs[expected[i]])) << i;
    // Vertex 1 lies on the seam: its corners carry a different UV in each face.
    EXPECT_FALSE(SameUV(uvs[1], uvs[6]));
}

TEST(MeshConversion, OtherTriangulationAndUnmappedFace) {
    SeamedQuads q;
    // A host split along the other diagonal of face 0, and face 1 without UVs.
    KInt3Array tris;
    tris.push_back(KInt3{0, 1, 3});
    tris.push_back(KInt3{1, 4, 3});
    tris.push_back(KInt3{1, 2, 5});
    tris.push_back(KInt3{1, 5, 4});
    KIntArray perFace{2, 2}, uvCounts{4, 0}, uvIds{0, 1, 2, 3};
    KArray<KFloat2> uvs;
    ASSERT_TRUE(TriangleCornerUVs(q.poly.faceCounts, q.poly.faceVertices, perFace, tris, uvCounts, uvIds, q.setUVs,
                                  uvs));
    const int expected[6] = {0, 1, 3, 1, 2, 3};
    for (int i = 0; i < 6; ++i) EXPECT_TRUE(SameUV(uvs[i], q.setUVs[expected[i]])) << i;
    for (int i = 6; i < 12; ++i) EXPECT_TRUE(SameUV(uvs[i], KFloat2{0.0f, 0.0f})) << i;
}

TEST(MeshConversion, BadAssignmentsNeverReadPastTheArrays) {
    SeamedQuads q;
    KTriMesh mesh;
    q.poly.triangulate(mesh);
    KIntArray perFace{2, 2};
    KArray<KFloat2> uvs;
    // UV ids beyond the set and a negative id: those corners get (0, 0).
    KIntArray wildIds{0, 99, 2, -1, 4, 5, 6, 7};
    ASSERT_TRUE(TriangleCornerUVs(q.poly.faceCounts, q.poly.faceVertices, perFace, mesh.triangles, q.uvCounts,
                                  wildIds, q.setUVs, uvs));
    EXPECT_TRUE(SameUV(uvs[1], KFloat2{0.0f, 0.0f}));
    EXPECT_TRUE(SameUV(uvs[5], KFloat2{0.0f, 0.0f}));
    EXPECT_TRUE(SameUV(uvs[0], q.setUVs[0]));
    // Arrays that do not describe the same faces.
    KIntArray shortIds{0, 1, 2};
    EXPECT_FALSE(TriangleCornerUVs(q.poly.faceCounts, q.poly.faceVertices, perFace, mesh.triangles, q.uvCounts,
                                   shortIds, q.setUVs, uvs));
    EXPECT_TRUE(uvs.empty());
    KIntArray tooMany{3, 2};
    EXPECT_FALSE(TriangleCornerUVs(q.poly.faceCounts, q.poly.faceVertices, tooMany, mesh.triangles, q.uvCounts,
                                   q.uvIds, q.setUVs, uvs));
    KIntArray oneFace{4};
    EXPECT_FALSE(TriangleCornerUVs(q.poly.faceCounts, q.poly.faceVertices, perFace, mesh.triangles, oneFace,
                                   q.uvIds, q.setUVs, uvs));
    KIntArray negative{-4, 8};
    EXPECT_FALSE(TriangleCornerUVs(negative, q.poly.faceVertices, perFace, mesh.triangles, q.uvCounts, q.uvIds,
                                   q.setUVs, uvs));
}
