// Per-vertex normals and texture coordinates read from a polygon mesh.

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "VertexNormalsUVs.h"

using namespace Kavrin;

namespace {

KPolyMesh Mesh(std::initializer_list<KVector> points, KIntArray counts, KIntArray vertices) {
    KPolyMesh mesh;
    for (const KVector& p : points) mesh.points.push_back(p);
    mesh.faceCounts = counts;
    mesh.faceVertices = vertices;
    return mesh;
}

}  // namespace

TEST(VertexNormals, AverageOfUnitFaceNormalsWhateverTheFaceSizes) {
    const double s = 1.0 / std::sqrt(3.0), h = 1.0 / std::sqrt(2.0);
    const struct {
        const char* what;
        KPolyMesh mesh;
        std::vector<std::pair<int, KDouble3>> normals;  // vertex, expected normal
    } cases[] = {
        {"the unit cube, quads wound outwards",
         Mesh({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}}, {4, 4, 4, 4, 4, 4},
              {0, 3, 2, 1, 4, 5, 6, 7, 0, 1, 5, 4, 2, 3, 7, 6, 1, 2, 6, 5, 0, 4, 7, 3}),
         {{0, {-s, -s, -s}}, {6, {s, s, s}}}},
        // Along the edge a small square in z = 0 shares with a long strip standing on it, the
        // normal is halfway between +z and +y however large the strip is (an area-weighted normal
        // would lean towards the strip); the square alone, the strip alone, a vertex in no face.
        {"square and strip",
         Mesh({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {1, 0, 10}, {0, 0, 10}, {5, 5, 5}}, {4, 4}, {0, 1, 2, 3, 1, 0, 5, 4}),
         {{0, {0, h, h}}, {2, {0, 0, 1}}, {4, {0, 1, 0}}, {6, {0, 0, 0}}}},
        // Two corners lifted: Newell's normal, not the first corner's cross product.
        {"non-planar quad", Mesh({{0, 0, 0}, {1, 0, 1}, {1, 1, 0}, {0, 1, 1}}, {4}, {0, 1, 2, 3}), {{0, {0, 0, 1}}}},
        // A degenerate face adds nothing (vertex 2); faces that cancel leave zero, never NaN.
        {"degenerate and opposite faces",
         Mesh({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {0, 1, 0}}, {3, 3, 3}, {0, 1, 2, 0, 1, 3, 0, 3, 1}),
         {{2, {0, 0, 0}}, {0, {0, 0, 0}}}},
    };
    for (const auto& c : cases) {
        KArray<KDouble3> normals;
        AveragedVertexNormals(c.mesh, normals);
        for (const auto& [v, n] : c.normals)
            for (int k = 0; k < 3; ++k) EXPECT_NEAR(normals[v][k], n[k], 1e-12) << c.what << ", vertex " << v;
    }
}

TEST(VertexUVs, FirstCornerWithACoordinateWins) {
    // Two quads side by side sharing vertices 1 and 4; the seam gives vertex 1 two coordinates.
    const KPolyMesh mesh = Mesh({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {0, 1, 0}, {1, 1, 0}, {2, 1, 0}, {9, 9, 9}}, {4, 4},
                                {0, 1, 4, 3, 1, 2, 5, 4});
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
