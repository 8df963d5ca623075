// Per-vertex normals and texture coordinates read from a polygon mesh.

#include <gtest/gtest.h>

#include <cmath>

#include "VertexNormalsUVs.h"

using namespace Kavrin;

namespace {

KPolyMesh Mesh(std::initializer_list<KVector> points, std::initializer_list<int> counts,
               std::initializer_list<int> vertices) {
    KPolyMesh mesh;
    for (const KVector& p : points) mesh.points.push_back(p);
    mesh.faceCounts = KIntArray(counts);
    mesh.faceVertices = KIntArray(vertices);
    return mesh;
}

void ExpectNear(const KDouble3& got, double x, double y, double z, const char* what) {
    EXPECT_NEAR(got[0], x, 1e-12) << what;
    EXPECT_NEAR(got[1], y, 1e-12) << what;
    EXPECT_NEAR(got[2], z, 1e-12) << what;
}

}  // namespace

TEST(VertexNormals, AverageOfUnitFaceNormalsWhateverTheFaceSizes) {
    // Unit cube, quads wound outwards.
    const KPolyMesh cube = Mesh({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}},
                                {4, 4, 4, 4, 4, 4},
                                {0, 3, 2, 1, 4, 5, 6, 7, 0, 1, 5, 4, 2, 3, 7, 6, 1, 2, 6, 5, 0, 4, 7, 3});
    KArray<KDouble3> normals;
    AveragedVertexNormals(cube, normals);
    const double s = 1.0 / std::sqrt(3.0);
    ExpectNear(normals[0], -s, -s, -s, "corner 0");
    ExpectNear(normals[6], s, s, s, "corner 6");

    // A small square in z = 0 and a long strip standing on its edge y = 0: along the shared edge
    // the normal is halfway between +z and +y however large the strip is (an area-weighted normal
    // would lean towards the strip). Vertex 6 touches no face.
    const KPolyMesh ell = Mesh({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {1, 0, 10}, {0, 0, 10}, {5, 5, 5}},
                               {4, 4}, {0, 1, 2, 3, 1, 0, 5, 4});
    AveragedVertexNormals(ell, normals);
    const double h = 1.0 / std::sqrt(2.0);
    ExpectNear(normals[0], 0, h, h, "shared edge");
    ExpectNear(normals[2], 0, 0, 1, "square only");
    ExpectNear(normals[4], 0, 1, 0, "strip only");
    ExpectNear(normals[6], 0, 0, 0, "vertex in no face");

    // A non-planar quad (two corners lifted): Newell's normal, not the first corner's cross product.
    const KPolyMesh bent = Mesh({{0, 0, 0}, {1, 0, 1}, {1, 1, 0}, {0, 1, 1}}, {4}, {0, 1, 2, 3});
    AveragedVertexNormals(bent, normals);
    ExpectNear(normals[0], 0, 0, 1, "saddle");

    // A degenerate face adds nothing; faces that cancel leave zero, never NaN.
    const KPolyMesh flat = Mesh({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {0, 1, 0}}, {3, 3, 3},
                                {0, 1, 2, 0, 1, 3, 0, 3, 1});
    AveragedVertexNormals(flat, normals);
    ExpectNear(normals[2], 0, 0, 0, "collinear face only");
    ExpectNear(normals[0], 0, 0, 0, "opposite faces cancel");
}

TEST(VertexUVs, FirstCornerWithACoordinateWins) {
    // Two quads side by side sharing vertices 1 and 4; the seam gives vertex 1 two coordinates.
    const KPolyMesh mesh = Mesh({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {0, 1, 0}, {1, 1, 0}, {2, 1, 0}, {9, 9, 9}},
                                {4, 4}, {0, 1, 4, 3, 1, 2, 5, 4});
    KCornerUVs corners;
    corners.uvs = {{0.0f, 0.0f}, {0.5f, 0.0f}, {0.5f, 1.0f}, {0.0f, 1.0f}, {0.6f, 0.0f}, {1.0f, 0.0f}, {1.0f, 1.0f}};
    // Face 0 has all its corners; in face 1 vertex 1 has another coordinate (a seam) and vertex 2 none.
    corners.corners = {0, 1, 2, 3, 4, -1, 6, 2};
    const KVertexUVs uvs = VertexUVs(mesh, corners);
    EXPECT_EQ(uvs.uvs[1], (KFloat2{0.5f, 0.0f})) << "face 0 comes first";
    EXPECT_EQ(uvs.uvs[4], (KFloat2{0.5f, 1.0f}));
    EXPECT_EQ(uvs.uvs[5], (KFloat2{1.0f, 1.0f}));
    EXPECT_EQ(uvs.uvs[2], (KFloat2{0.0f, 0.0f})) << "no coordinate";
    EXPECT_EQ(uvs.missing, 2) << "vertex 2 and the unused vertex 6";
    EXPECT_EQ(uvs.firstMissing, 2);

    // A later corner fills a vertex whose first corner has none.
    corners.corners = {0, -1, 2, 3, 4, 5, 6, 2};
    EXPECT_EQ(VertexUVs(mesh, corners).uvs[1], (KFloat2{0.6f, 0.0f}));

    // No coordinates at all, a corner list that does not belong to these faces, an index past the
    // coordinates.
    const std::pair<KIntArray, int> cases[] = {
        {KIntArray{-1, -1, -1, -1, -1, -1, -1, -1}, 7},
        {KIntArray{0, 1, 2}, 7},
        {KIntArray{0, 1, 2, 3, 4, 70, 6, 2}, 2},
    };
    for (const auto& c : cases) {
        corners.corners = c.first;
        const KVertexUVs got = VertexUVs(mesh, corners);
        EXPECT_EQ(got.missing, c.second) << c.first.length();
        EXPECT_EQ(got.uvs.length(), 7);
    }
}
