// Triangle mesh, adjacency, polygon meshes and frames.

#include <gtest/gtest.h>

#include <cmath>

#include "KAxis.h"
#include "KPolyMesh.h"
#include "KTriMeshConnectionInfo.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

// Two quads side by side:  3--4--5
//                          |  |  |
//                          0--1--2
KPolyMesh twoQuads() {
    KPolyMesh m;
    for (int j = 0; j < 2; ++j)
        for (int i = 0; i < 3; ++i) m.points.push_back(KVector(float(i), float(j), 0));
    m.faceCounts = KIntArray{4, 4};
    m.faceVertices = KIntArray{0, 1, 4, 3, 1, 2, 5, 4};
    return m;
}

// Rotation about the axis (1, 2, 2)/3 by the angle whose cosine is 0.6, then translation.
KVector rotate(const KVector& p) {
    const KVector k(1.0f / 3, 2.0f / 3, 2.0f / 3);
    return p * 0.6f + k.cross(p) * 0.8f + k * (k.dot(p) * 0.4f);
}
KVector motion(const KVector& p) { return rotate(p) + KVector(3, -2, 5); }

TEST(KPolyMesh, FanTriangulationEdgeNeighboursAndSlots) {
    const KPolyMesh quads = twoQuads();
    ASSERT_TRUE(quads.valid());
    KTriMesh m;
    quads.triangulate(m);
    const KInt3 fan[4] = {{0, 1, 4}, {0, 4, 3}, {1, 2, 5}, {1, 5, 4}};
    ASSERT_EQ(m.numTriangles(), 4);
    for (int t = 0; t < 4; ++t) EXPECT_EQ(m.triangles[t], fan[t]);

    KVertexNeighbours n;
    quads.edgeNeighbours(n);
    ASSERT_TRUE(n.validFor(6));
    EXPECT_EQ(std::vector<int>(n.begin(0), n.end(0)), (std::vector<int>{1, 3})) << "the diagonal 0-4 is not an edge";
    EXPECT_EQ(std::vector<int>(n.begin(1), n.end(1)), (std::vector<int>{0, 4, 2}));
    EXPECT_EQ(n.count(4), 3);

    KPolyMesh bad = quads;
    bad.faceVertices[2] = 6;
    EXPECT_FALSE(bad.valid());
    bad = quads;
    bad.faceCounts[1] = 2;
    EXPECT_FALSE(bad.valid());

    // Triangle neighbours: slot s is the edge from corner s to s + 1, -1 on the border.
    KTriMeshConnectionInfo info(m);
    EXPECT_TRUE(info.t2t.empty()) << "t2t stays empty until calculate_t2t";
    info.calculate_t2t();
    ASSERT_EQ(info.t2t.length(), 4);
    const KInt3 expected[4] = {{-1, 3, 1}, {0, -1, -1}, {-1, -1, 3}, {2, -1, 0}};
    for (int t = 0; t < 4; ++t) EXPECT_EQ(info.t2t[t], expected[t]) << t;
}

// A roof of two triangles meeting along the edge 0-1:  T0 = (0, 1, 2), T1 = (0, 3, 1).
KTriMesh roof() {
    KTriMesh m;
    m.points = KVectorArray(4);
    m.points[1] = KVector(1, 0, 0);
    m.points[2] = KVector(0, 1, 1);
    m.points[3] = KVector(0, -1, 1);
    m.triangles.push_back(KInt3{0, 1, 2});
    m.triangles.push_back(KInt3{0, 3, 1});
    return m;
}

void ExpectNear(const KVector& a, const KVector& b, const char* what) {
    EXPECT_NEAR((a - b).length(), 0.0f, 1e-6f) << what << " (" << a.x << ", " << a.y << ", " << a.z << ")";
}

}  // namespace

TEST(KTriMesh, VertexNormalsAndCentresOnACurvedMeshByHand) {
    // Face normals (unnormalised): T0 (1,0,0) x (0,1,1) = (0,-1,1); T1 (0,-1,1) x (1,0,0) = (0,1,1).
    const KTriMesh m = roof();
    KVectorArray normals, centres;
    m.getVertexNormals(normals, true);
    const float h = 0.70710678f;
    ExpectNear(normals[0], KVector(0, 0, 1), "shared vertex: (0,0,2) normalised");
    ExpectNear(normals[1], KVector(0, 0, 1), "shared vertex");
    ExpectNear(normals[2], KVector(0, -h, h), "T0 only");
    ExpectNear(normals[3], KVector(0, h, h), "T1 only");
    m.getTriangleCenters(centres, true);
    ExpectNear(centres[0], KVector(1.0f / 3, 1.0f / 3, 1.0f / 3), "T0 centre");
    ExpectNear(centres[1], KVector(1.0f / 3, -1.0f / 3, 1.0f / 3), "T1 centre");
}

TEST(GetTangentSpace, RightHandedFramesWhoseFirstTangentPointsToTheNextCorner) {
    // Vertex 0 and 2 first appear in T0 at corners 0 and 2: their next corners are 1 and 0.
    // Vertex 2: n = (0,-1,1)/sqrt2, edge to vertex 0 = (0,-1,-1), already in the tangent plane.
    const KTriMesh m = roof();
    KAxisArray frames;
    GetTangentSpace(m, frames, true, true);
    const float h = 0.70710678f;
    const struct {
        int v;
        KVector x, y, z;
    } rows[] = {{0, KVector(1, 0, 0), KVector(0, 1, 0), KVector(0, 0, 1)},
                {2, KVector(0, -h, -h), KVector(1, 0, 0), KVector(0, -h, h)}};
    for (const auto& r : rows) {
        ExpectNear(frames[r.v].xAxis, r.x, "x");
        ExpectNear(frames[r.v].yAxis, r.y, "y = normal x tangent");
        ExpectNear(frames[r.v].zAxis, r.z, "z = vertex normal");
    }
    // Every frame of a curved mesh: orthonormal, right-handed, z the vertex normal.
    KTriMesh sphere;
    MakeIcosphere(2).triangulate(sphere);
    for (KVector& p : sphere.points) p = KVector(1.5f * p.x, p.y, 0.7f * p.z);
    GetTangentSpace(sphere, frames, true, true);
    KVectorArray normals;
    sphere.getVertexNormals(normals, true);
    for (int v = 0; v < sphere.numVertices(); ++v) {
        const KAxis& f = frames[v];
        EXPECT_NEAR(f.xAxis.length(), 1.0f, 1e-6f);
        EXPECT_NEAR(f.yAxis.length(), 1.0f, 1e-6f);
        EXPECT_NEAR(f.xAxis.dot(f.yAxis), 0.0f, 1e-6f);
        ExpectNear(f.xAxis.cross(f.yAxis), f.zAxis, "x cross y = z");
        ExpectNear(f.zAxis, normals[v], "z is the vertex normal");
    }
}

TEST(GetTangentSpace, FramesAreInvertibleAndFollowARigidMotion) {
    KTriMesh rest, moved;
    MakeDetailedGrid(12, 4.0f).triangulate(rest);
    moved = rest;
    for (KVector& p : moved.points) p = motion(p);
    KAxisArray a, b;
    GetTangentSpace(rest, a, true, true, 1);
    GetTangentSpace(moved, b, true, true, 2);
    ASSERT_EQ(a.length(), rest.numVertices());
    const KVector q(0.5f, 0.25f, -0.75f);
    for (int v = 0; v < rest.numVertices(); ++v) {
        const KAxis& f = a[v];
        EXPECT_EQ(f.origin, rest.points[v]);
        for (bool orthonormal : {true, false})
            EXPECT_NEAR((f.localToWorld(f.worldToLocal(q, false, orthonormal), false, orthonormal) - q).length(), 0,
                        1e-5f);
        EXPECT_NEAR((b[v].xAxis - rotate(f.xAxis)).length(), 0.0f, 1e-4f) << v;
        EXPECT_NEAR((b[v].yAxis - rotate(f.yAxis)).length(), 0.0f, 1e-4f) << v;
        EXPECT_NEAR((b[v].zAxis - rotate(f.zAxis)).length(), 0.0f, 1e-4f) << v;
        // A point stored in the rest frame lands on the moved point in the moved frame.
        EXPECT_NEAR((b[v].localToWorld(f.worldToLocal(q, false, true), false, true) - motion(q)).length(), 0, 1e-4f);
    }
}

TEST(GetTangentSpace, DegenerateInputGivesFiniteFrames) {
    KTriMesh m;
    m.points = KVectorArray(4);  // all at the origin, as after zero smoothing sweeps
    m.triangles.push_back(KInt3{0, 1, 2});
    KAxisArray frames;
    GetTangentSpace(m, frames, true, true);
    ASSERT_EQ(frames.length(), 4);
    for (const KAxis& f : frames)
        for (const KVector& v : {f.xAxis, f.yAxis, f.zAxis})
            for (int k = 0; k < 3; ++k) EXPECT_FALSE(std::isnan(v[k]));
    EXPECT_EQ(frames[3].zAxis, KVector(0, 0, 1)) << "a vertex in no triangle gets the world axes";
}
