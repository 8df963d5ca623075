// Triangle mesh, adjacency, polygon meshes and frames.

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "KAxis.h"
#include "KPolyMesh.h"
#include "KTriMeshConnectionInfo.h"

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

struct Rigid {
    float c, s;
    KVector t;
    float scale;
    // Rotation about the axis (1, 2, 2)/3 by the angle whose cosine is c, then translation.
    KVector operator()(const KVector& p) const {
        const KVector k(1.0f / 3, 2.0f / 3, 2.0f / 3);
        const KVector r = p * c + k.cross(p) * s + k * (k.dot(p) * (1 - c));
        return r * scale + t;
    }
    KVector direction(const KVector& v) const { return (*this)(v) - (*this)(KVector()); }
};

}  // namespace

TEST(KTriMesh, NormalsAndCentres) {
    KTriMesh m;
    twoQuads().triangulate(m);
    ASSERT_EQ(m.numTriangles(), 4);
    KVectorArray normals;
    m.getVertexNormals(normals, true);
    ASSERT_EQ(normals.length(), 6);
    for (const KVector& n : normals) EXPECT_EQ(n, KVector(0, 0, 1));

    KVectorArray centres;
    m.getTriangleCenters(centres, true);
    ASSERT_EQ(centres.length(), 4);
    // First triangle of the fan of quad 0: vertices 0, 1, 4.
    EXPECT_FLOAT_EQ(centres[0].x, 2.0f / 3);
    EXPECT_FLOAT_EQ(centres[0].y, 1.0f / 3);

    KTriMesh copy;
    copy = m;
    EXPECT_EQ(copy.points, m.points);
    EXPECT_EQ(copy.triangles, m.triangles);
}

TEST(KTriMeshConnectionInfo, EdgeSlotsAndBorders) {
    KTriMesh single;
    single.points = KVectorArray(3);
    single.triangles.push_back(KInt3{0, 1, 2});
    KTriMeshConnectionInfo one(single);
    EXPECT_TRUE(one.t2t.empty()) << "t2t stays empty until calculate_t2t";
    one.calculate_t2t();
    ASSERT_EQ(one.t2t.length(), 1);
    EXPECT_EQ(one.t2t[0], (KInt3{-1, -1, -1}));

    KTriMesh m;
    twoQuads().triangulate(m);  // (0,1,4) (0,4,3) (1,2,5) (1,5,4)
    KTriMeshConnectionInfo info(m);
    info.calculate_t2t();
    EXPECT_EQ(info.t2t[0], (KInt3{-1, 3, 1})) << "slot s is the edge from corner s to corner s+1";
    EXPECT_EQ(info.t2t[1], (KInt3{0, -1, -1}));
    EXPECT_EQ(info.t2t[2], (KInt3{-1, -1, 3}));
    EXPECT_EQ(info.t2t[3], (KInt3{2, -1, 0}));
}

TEST(KPolyMesh, FanTriangulationKeepsWindingAndEdgeNeighboursSkipDiagonals) {
    const KPolyMesh quads = twoQuads();
    ASSERT_TRUE(quads.valid());
    KTriMesh m;
    quads.triangulate(m);
    EXPECT_EQ(m.triangles[0], (KInt3{0, 1, 4}));
    EXPECT_EQ(m.triangles[1], (KInt3{0, 4, 3}));

    KVertexNeighbours n;
    quads.edgeNeighbours(n);
    ASSERT_TRUE(n.validFor(6));
    EXPECT_EQ(std::vector<int>(n.begin(0), n.end(0)), (std::vector<int>{1, 3}))
        << "the quad's diagonal 0-4 is not an edge";
    EXPECT_EQ(std::vector<int>(n.begin(1), n.end(1)), (std::vector<int>{0, 4, 2}));
    EXPECT_EQ(n.count(4), 3);

    KPolyMesh bad = quads;
    bad.faceVertices[2] = 6;
    EXPECT_FALSE(bad.valid());
    bad = quads;
    bad.faceCounts[1] = 2;
    EXPECT_FALSE(bad.valid());
}

TEST(KAxis, LocalAndWorldAreInverse) {
    KTriMesh m;
    twoQuads().triangulate(m);
    m.points[4].z = 0.4f;
    KAxisArray frames;
    GetTangentSpace(m, frames, true, true);
    ASSERT_EQ(frames.length(), 6);
    const KVector p(0.3f, -1.7f, 2.5f);
    for (const KAxis& f : frames) {
        EXPECT_NEAR(f.xAxis.length(), 1.0f, 1e-6f);
        EXPECT_NEAR(f.xAxis.dot(f.zAxis), 0.0f, 1e-6f);
        EXPECT_NEAR(f.yAxis.dot(f.zAxis), 0.0f, 1e-6f);
        const KVector back = f.localToWorld(f.worldToLocal(p, false, true), false, true);
        EXPECT_NEAR((back - p).length(), 0.0f, 1e-5f);
        const KVector general = f.localToWorld(f.worldToLocal(p, false, false), false, false);
        EXPECT_NEAR((general - p).length(), 0.0f, 1e-5f);
    }
    EXPECT_EQ(frames[2].origin, m.points[2]);
}

TEST(GetTangentSpace, FramesFollowARigidMotion) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> jitter(-0.2f, 0.2f);
    const int n = 12;
    KPolyMesh sheet;
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) sheet.points.push_back(KVector(float(i), float(j), jitter(rng)));
    for (int j = 0; j + 1 < n; ++j)
        for (int i = 0; i + 1 < n; ++i) {
            sheet.faceCounts.push_back(4);
            for (int v : {j * n + i, j * n + i + 1, (j + 1) * n + i + 1, (j + 1) * n + i}) sheet.faceVertices.push_back(v);
        }
    KTriMesh rest, moved;
    sheet.triangulate(rest);
    moved = rest;
    const Rigid motion{0.6f, 0.8f, KVector(3, -2, 5), 1.0f};
    for (KVector& p : moved.points) p = motion(p);

    KAxisArray a, b;
    GetTangentSpace(rest, a, true, true, 1);
    GetTangentSpace(moved, b, true, true, 2);
    for (int v = 0; v < rest.numVertices(); ++v) {
        EXPECT_NEAR((b[v].origin - motion(a[v].origin)).length(), 0.0f, 1e-4f);
        EXPECT_NEAR((b[v].xAxis - motion.direction(a[v].xAxis)).length(), 0.0f, 1e-4f) << v;
        EXPECT_NEAR((b[v].yAxis - motion.direction(a[v].yAxis)).length(), 0.0f, 1e-4f) << v;
        EXPECT_NEAR((b[v].zAxis - motion.direction(a[v].zAxis)).length(), 0.0f, 1e-4f) << v;
        // A point stored in the rest frame lands on the moved point in the moved frame.
        const KVector q(0.5f, 0.25f, -0.75f);
        const KVector local = a[v].worldToLocal(q, false, true);
        EXPECT_NEAR((b[v].localToWorld(local, false, true) - motion(q)).length(), 0.0f, 1e-4f);
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
