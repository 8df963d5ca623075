// Face-mean vertex normals of polygon meshes.

#include <gtest/gtest.h>

#include "KVertexNormals.h"

using namespace Kavrin;

namespace {

void ExpectNormal(const KVector& n, float x, float y, float z, const char* what) {
    EXPECT_NEAR(n.x, x, 1e-6f) << what;
    EXPECT_NEAR(n.y, y, 1e-6f) << what;
    EXPECT_NEAR(n.z, z, 1e-6f) << what;
}

}  // namespace

TEST(FaceMeanVertexNormals, EveryFaceCountsTheSameAndNonPlanarFacesUseNewell) {
    KPolyMesh m;
    // 0-3: a large quad in z = 0 (area 100); 4, 5: a small triangle in the plane x = 0 hanging
    // from vertex 0 (area 0.5); 6-9: a skew quad whose corners alternate +-0.5 in z; 10: unused.
    const KVector points[] = {{0, 0, 0},  {10, 0, 0},   {10, 10, 0}, {0, 10, 0},   {0, 1, 0},  {0, 0, 1},
                              {21, 0, 0.5f}, {20, 1, -0.5f}, {19, 0, 0.5f}, {20, -1, -0.5f}, {5, 5, 5}};
    for (const KVector& p : points) m.points.push_back(p);
    m.faceCounts = KIntArray{4, 3, 4};
    m.faceVertices = KIntArray{0, 1, 2, 3, 0, 4, 5, 6, 7, 8, 9};
    ASSERT_TRUE(m.valid());
    KVectorArray n;
    FaceMeanVertexNormals(m, n);
    ASSERT_EQ(n.length(), 11);
    const float h = 0.70710678f;
    ExpectNormal(n[0], h, 0, h, "(0,0,1) and (1,0,0) count the same, whatever the areas");
    ExpectNormal(n[2], 0, 0, 1, "large quad only");
    ExpectNormal(n[5], 1, 0, 0, "small triangle only");
    for (int v = 6; v <= 9; ++v) ExpectNormal(n[v], 0, 0, 1, "the skew quad's best-fit plane, not its fan triangles");
    ExpectNormal(n[10], 0, 0, 0, "a vertex in no face");
}

TEST(FaceMeanVertexNormals, SkipsFacesWithoutAreaOrOutsideTheMesh) {
    KPolyMesh m;
    for (const KVector& p : {KVector(0, 0, 0), KVector(1, 0, 0), KVector(0, 1, 0), KVector(2, 0, 0)}) m.points.push_back(p);
    // A good triangle, a collinear one, one naming vertex 7, and a count running past the list.
    m.faceCounts = KIntArray{3, 3, 3, 5};
    m.faceVertices = KIntArray{0, 1, 2, 0, 1, 3, 0, 1, 7, 0, 1};
    KVectorArray n;
    FaceMeanVertexNormals(m, n);
    ASSERT_EQ(n.length(), 4);
    ExpectNormal(n[0], 0, 0, 1, "only the good triangle");
    ExpectNormal(n[1], 0, 0, 1, "only the good triangle");
    ExpectNormal(n[3], 0, 0, 0, "only in the collinear triangle");
}
