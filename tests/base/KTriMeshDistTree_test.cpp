#include "KTriMeshDistTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

using namespace Kavrin;

namespace {

const double kPi = 3.14159265358979323846;

// ---- Independent reference: plane projection when it falls inside, else the nearest edge. ----

struct Ref {
    double d2 = std::numeric_limits<double>::infinity();
    int tri = -1;
};

double SegmentDist2(const KVector& p, const KVector& a, const KVector& b) {
    const double ab[3] = {double(b.x) - a.x, double(b.y) - a.y, double(b.z) - a.z};
    const double ap[3] = {double(p.x) - a.x, double(p.y) - a.y, double(p.z) - a.z};
    const double len2 = ab[0] * ab[0] + ab[1] * ab[1] + ab[2] * ab[2];
    double t = len2 > 0 ? (ap[0] * ab[0] + ap[1] * ab[1] + ap[2] * ab[2]) / len2 : 0.0;
    t = std::min(1.0, std::max(0.0, t));
    double d2 = 0;
    for (int k = 0; k < 3; ++k) d2 += (ap[k] - t * ab[k]) * (ap[k] - t * ab[k]);
    return d2;
}

double TriangleDist2(const KVector& p, const KVector& a, const KVector& b, const KVector& c) {
    double best = std::min(SegmentDist2(p, a, b), std::min(SegmentDist2(p, b, c), SegmentDist2(p, c, a)));
    // Solve the 2x2 normal equations for the plane projection.
    const double e0[3] = {double(b.x) - a.x, double(b.y) - a.y, double(b.z) - a.z};
    const double e1[3] = {double(c.x) - a.x, double(c.y) - a.y, double(c.z) - a.z};
    const double r[3] = {double(p.x) - a.x, double(p.y) - a.y, double(p.z) - a.z};
    auto dot = [](const double* u, const double* v) { return u[0] * v[0] + u[1] * v[1] + u[2] * v[2]; };
    const double A = dot(e0, e0), B = dot(e0, e1), C = dot(e1, e1), D = dot(e0, r), E = dot(e1, r);
    const double det = A * C - B * B;
    if (det > 1e-12 * A * C) {
        const double s = (C * D - B * E) / det, t = (A * E - B * D) / det;
        if (s >= 0 && t >= 0 && s + t <= 1) {
            double d2 = 0;
            for (int k = 0; k < 3; ++k) {
                const double x = r[k] - s * e0[k] - t * e1[k];
                d2 += x * x;
            }
            best = std::min(best, d2);
        }
    }
    return best;
}

double TriDist2(const KTriMesh& m, int t, const KVector& p) {
    const KInt3& tr = m.triangles[t];
    return TriangleDist2(p, m.points[tr[0]], m.points[tr[1]], m.points[tr[2]]);
}

Ref BruteForce(const KTriMesh& m, const KVector& p) {
    Ref r;
    for (int t = 0; t < m.numTriangles(); ++t) {
        const double d2 = TriDist2(m, t, p);
        if (d2 < r.d2) {
            r.d2 = d2;
            r.tri = t;
        }
    }
    return r;
}

// ---- Test meshes ----

KTriMesh RandomSoup(std::mt19937& rng, int count, float extent, float size) {
    std::uniform_real_distribution<float> centre(-extent, extent), offset(-size, size);
    KTriMesh m;
    for (int t = 0; t < count; ++t) {
        const KVector c(centre(rng), centre(rng), centre(rng));
        for (int k = 0; k < 3; ++k) m.points.push_back(c + KVector(offset(rng), offset(rng), offset(rng)));
        m.triangles.push_back(KInt3{3 * t, 3 * t + 1, 3 * t + 2});
    }
    return m;
}

// Closed latitude-longitude sphere with single pole vertices.
KTriMesh Sphere(int rings, int segments, float radius) {
    KTriMesh m;
    m.points.push_back(KVector(0, 0, radius));
    for (int r = 1; r < rings; ++r) {
        const double th = kPi * r / rings;
        for (int s = 0; s < segments; ++s) {
            const double ph = 2 * kPi * s / segments;
            m.points.push_back(KVector(float(radius * std::sin(th) * std::cos(ph)),
                                       float(radius * std::sin(th) * std::sin(ph)), float(radius * std::cos(th))));
        }
    }
    m.points.push_back(KVector(0, 0, -radius));
    const int south = m.numVertices() - 1;
    auto ring = [segments](int r, int s) { return 1 + (r - 1) * segments + (s % segments); };
    for (int s = 0; s < segments; ++s) m.triangles.push_back(KInt3{0, ring(1, s), ring(1, s + 1)});
    for (int r = 1; r + 1 < rings; ++r)
        for (int s = 0; s < segments; ++s) {
            m.triangles.push_back(KInt3{ring(r, s), ring(r + 1, s), ring(r + 1, s + 1)});
            m.triangles.push_back(KInt3{ring(r, s), ring(r + 1, s + 1), ring(r, s + 1)});
        }
    for (int s = 0; s < segments; ++s) m.triangles.push_back(KInt3{ring(rings - 1, s), south, ring(rings - 1, s + 1)});
    return m;
}

std::vector<KVector> RandomPoints(std::mt19937& rng, int count, float extent) {
    std::uniform_real_distribution<float> u(-extent, extent);
    std::vector<KVector> pts;
    for (int i = 0; i < count; ++i) pts.push_back(KVector(u(rng), u(rng), u(rng)));
    return pts;
}

// Checks both query forms at p against the brute force: same distance, a point on the returned
// triangle, weights that rebuild it.
// extent: the size of the mesh's coordinates, which with |p| sets the single-precision tolerance.
void ExpectExact(const KTriMeshDistTree& tree, const KTriMesh& m, const KVector& p, float extent) {
    const Ref ref = BruteForce(m, p);
    KVector closest;
    int tri = -2;
    ASSERT_TRUE(tree.getClosestPoint(p, closest, tri, 1e30f));
    ASSERT_GE(tri, 0);
    ASSERT_LT(tri, m.numTriangles());
    const double tol = 4e-6 * (extent + p.length());
    const double dist = (closest - p).length();
    EXPECT_NEAR(dist, std::sqrt(ref.d2), tol) << "tree triangle " << tri << " reference " << ref.tri;
    EXPECT_NEAR(std::sqrt(TriDist2(m, tri, closest)), 0.0, tol);  // the point lies on its triangle

    int tri2 = -2;
    float a = -1, b = -1;
    ASSERT_TRUE(tree.getClosestPoint(p, tri2, a, b, 1e30f));
    EXPECT_EQ(tri2, tri);
    const float c = 1.0f - a - b;
    for (float w : {a, b, c}) {
        EXPECT_GE(w, -1e-6f);
        EXPECT_LE(w, 1.0f + 1e-6f);
    }
    const KInt3& t = m.triangles[tri2];
    const KVector rebuilt = m.points[t[0]] * a + m.points[t[1]] * b + m.points[t[2]] * c;
    EXPECT_NEAR((rebuilt - closest).length(), 0.0, tol);
}

}  // namespace

TEST(KTriMeshDistTree, MatchesBruteForceOnSoupsAndClosedMesh) {
    std::mt19937 rng(7);
    std::vector<KTriMesh> meshes;
    meshes.push_back(RandomSoup(rng, 300, 1.0f, 0.3f));   // overlapping, crossing triangles
    meshes.push_back(RandomSoup(rng, 2000, 10.0f, 0.5f));  // sparse small triangles
    meshes.push_back(RandomSoup(rng, 50, 100.0f, 40.0f));  // large, long triangles
    meshes.push_back(Sphere(24, 32, 2.0f));
    for (const KTriMesh& m : meshes) {
        KTriMeshDistTree tree(m, 10, 10);
        ASSERT_FALSE(tree.empty());
        float extent = 0;
        for (const KVector& v : m.points) extent = std::max(extent, std::max(std::fabs(v.x), std::max(std::fabs(v.y), std::fabs(v.z))));
        // Points inside the mesh's extent, far outside it, and on or just off the surface.
        std::vector<KVector> queries = RandomPoints(rng, 300, extent * 1.1f);
        for (const KVector& q : RandomPoints(rng, 40, extent * 50.0f)) queries.push_back(q);
        std::uniform_real_distribution<float> w(0, 1), off(-0.01f * extent, 0.01f * extent);
        for (int i = 0; i < 200; ++i) {
            const KInt3& t = m.triangles[rng() % m.numTriangles()];
            float a = w(rng), b = w(rng);
            if (a + b > 1) { a = 1 - a; b = 1 - b; }
            queries.push_back(m.points[t[0]] * a + m.points[t[1]] * b + m.points[t[2]] * (1 - a - b) +
                              KVector(off(rng), off(rng), off(rng)));
        }
        for (const KVector& q : queries) ExpectExact(tree, m, q, extent);
    }
}

TEST(KTriMeshDistTree, ParametersOnlyChangeTheLayout) {
    // Single-triangle leaves, a depth cap that forces big leaves, and the fallbacks for values < 1.
    std::mt19937 rng(11);
    const KTriMesh m = RandomSoup(rng, 700, 5.0f, 1.0f);
    const int params[][2] = {{1, 32}, {1, 1}, {3, 2}, {10, 10}, {0, 0}, {-4, -1}, {1000, 10}};
    const std::vector<KVector> queries = RandomPoints(rng, 150, 6.0f);
    for (const auto& pr : params) {
        KTriMeshDistTree tree(m, pr[0], pr[1]);
        for (const KVector& q : queries) ExpectExact(tree, m, q, 6.0f);
    }
}

TEST(KTriMeshDistTree, VertexQueriesReturnTheVertexWithFullWeight) {
    const KTriMesh m = Sphere(12, 16, 1.5f);
    KTriMeshDistTree tree(m, 10, 10);
    for (int v = 0; v < m.numVertices(); ++v) {
        // Among the triangles using the vertex (all at distance 0) the lowest index wins.
        int lowest = -1;
        for (int t = 0; t < m.numTriangles() && lowest < 0; ++t)
            for (int k = 0; k < 3; ++k)
                if (m.triangles[t][k] == v) lowest = t;
        KVector closest;
        int tri = -1;
        ASSERT_TRUE(tree.getClosestPoint(m.points[v], closest, tri, 1e30f));
        EXPECT_EQ(closest, m.points[v]);
        EXPECT_EQ(tri, lowest);
        float a = -1, b = -1;
        ASSERT_TRUE(tree.getClosestPoint(m.points[v], tri, a, b, 1e30f));
        EXPECT_EQ(tri, lowest);
        const float w[3] = {a, b, 1.0f - a - b};
        for (int k = 0; k < 3; ++k) EXPECT_EQ(w[k], m.triangles[tri][k] == v ? 1.0f : 0.0f) << "vertex " << v;
    }
}

TEST(KTriMeshDistTree, DegenerateTrianglesNeverGiveNaN) {
    KTriMesh m;
    m.points = KVectorArray(12);
    const KVector pts[] = {
        {1, 1, 1},  {1, 1, 1},    {1, 1, 1},     // a point
        {0, 0, 0},  {2, 0, 0},    {5, 0, 0},     // collinear, vertex order mixed
        {0, 3, 0},  {0, 3, 0},    {0, 5, 2},     // two coincident corners
        {-3, 0, 0}, {-1, 1e-7f, 0}, {1, 3e-7f, 0}};  // needle, almost collinear
    for (int i = 0; i < 12; ++i) m.points[i] = pts[i];
    m.triangles.push_back(KInt3{0, 1, 2});
    m.triangles.push_back(KInt3{5, 3, 4});
    m.triangles.push_back(KInt3{6, 7, 8});
    m.triangles.push_back(KInt3{9, 11, 10});
    KTriMeshDistTree tree(m, 10, 10);
    std::mt19937 rng(3);
    std::vector<KVector> queries = RandomPoints(rng, 500, 6.0f);
    for (const KVector& v : pts) queries.push_back(v);
    queries.push_back(KVector(3, 0, 0));   // inside the collinear triangle's span
    queries.push_back(KVector(3, 1, 0));   // above the middle of it
    for (const KVector& q : queries) {
        KVector c;
        int tri = -1;
        ASSERT_TRUE(tree.getClosestPoint(q, c, tri, 1e30f));
        EXPECT_TRUE(std::isfinite(c.x) && std::isfinite(c.y) && std::isfinite(c.z));
        float a = NAN, b = NAN;
        ASSERT_TRUE(tree.getClosestPoint(q, tri, a, b, 1e30f));
        EXPECT_TRUE(std::isfinite(a) && std::isfinite(b));
        ExpectExact(tree, m, q, 6.0f);
    }
    // Each degenerate triangle alone, queried on and off its span.
    for (int t = 0; t < 4; ++t) {
        KTriMesh one;
        one.points = m.points;
        one.triangles.push_back(m.triangles[t]);
        KTriMeshDistTree single(one, 10, 10);
        for (const KVector& q : queries) ExpectExact(single, one, q, 6.0f);
    }
}

TEST(KTriMeshDistTree, MaxDistanceLimitsTheSearch) {
    KTriMesh m;
    m.points.push_back(KVector(0, 0, 0));
    m.points.push_back(KVector(1, 0, 0));
    m.points.push_back(KVector(0, 1, 0));
    m.triangles.push_back(KInt3{0, 1, 2});
    KTriMeshDistTree tree(m, 10, 10);
    const KVector p(0.25f, 0.25f, 2.0f);  // exactly 2 above the face
    const KVector untouched(7, 8, 9);
    KVector c = untouched;
    int tri = 5;
    EXPECT_FALSE(tree.getClosestPoint(p, c, tri, 1.99f));
    EXPECT_EQ(tri, -1);
    EXPECT_EQ(c, untouched);
    float a = 0.5f, b = 0.5f;
    EXPECT_FALSE(tree.getClosestPoint(p, tri, a, b, 1.99f));
    EXPECT_EQ(tri, -1);
    EXPECT_EQ(a, 0.5f);
    EXPECT_EQ(b, 0.5f);
    EXPECT_TRUE(tree.getClosestPoint(p, c, tri, 2.0f));  // inclusive
    EXPECT_EQ(tri, 0);
    EXPECT_EQ(c, KVector(0.25f, 0.25f, 0.0f));
    EXPECT_TRUE(tree.getClosestPoint(p, c, tri, std::numeric_limits<float>::infinity()));
    // Bad limits and bad query points find nothing.
    EXPECT_FALSE(tree.getClosestPoint(p, c, tri, -1.0f));
    EXPECT_FALSE(tree.getClosestPoint(p, c, tri, NAN));
    EXPECT_FALSE(tree.getClosestPoint(KVector(NAN, 0, 0), c, tri, 1e30f));
    EXPECT_FALSE(tree.getClosestPoint(KVector(0, std::numeric_limits<float>::infinity(), 0), c, tri, 1e30f));
    EXPECT_EQ(tri, -1);

    // On a soup: found exactly when the true distance is within the limit.
    std::mt19937 rng(5);
    const KTriMesh soup = RandomSoup(rng, 400, 10.0f, 0.5f);
    KTriMeshDistTree st(soup, 10, 10);
    for (const KVector& q : RandomPoints(rng, 400, 12.0f)) {
        const Ref ref = BruteForce(soup, q);
        const float limit = 1.0f;
        const double d = std::sqrt(ref.d2);
        if (std::fabs(d - limit) < 1e-4) continue;
        KVector cl;
        int t = -3;
        const bool found = st.getClosestPoint(q, cl, t, limit);
        EXPECT_EQ(found, d <= limit);
        if (found) {
            EXPECT_NEAR((cl - q).length(), d, 1e-5);
        } else {
            EXPECT_EQ(t, -1);
        }
    }
}

TEST(KTriMeshDistTree, EmptyTrees) {
    KTriMeshDistTree fresh(10, 10);
    EXPECT_TRUE(fresh.empty());
    KVector c(1, 2, 3);
    int tri = 4;
    EXPECT_FALSE(fresh.getClosestPoint(KVector(), c, tri, 1e30f));
    EXPECT_EQ(tri, -1);
    EXPECT_EQ(c, KVector(1, 2, 3));

    KTriMesh none;
    KTriMeshDistTree fromEmpty(none, 10, 10);
    EXPECT_TRUE(fromEmpty.empty());
    float a = 0, b = 0;
    EXPECT_FALSE(fromEmpty.getClosestPoint(KVector(), tri, a, b, 1e30f));
    EXPECT_EQ(tri, -1);

    // Triangles with indices out of range or non-finite corners are left out.
    KTriMesh bad;
    bad.points.push_back(KVector(0, 0, 0));
    bad.points.push_back(KVector(1, 0, 0));
    bad.points.push_back(KVector(NAN, 1, 0));
    bad.triangles.push_back(KInt3{0, 1, 3});
    bad.triangles.push_back(KInt3{-1, 0, 1});
    bad.triangles.push_back(KInt3{0, 1, 2});
    KTriMeshDistTree badTree(bad, 10, 10);
    EXPECT_TRUE(badTree.empty());
    bad.points.push_back(KVector(0, 1, 0));  // index 3 now exists
    badTree.set(bad);
    EXPECT_FALSE(badTree.empty());
    ASSERT_TRUE(badTree.getClosestPoint(KVector(0.5f, 0.5f, 3), c, tri, 1e30f));
    EXPECT_EQ(tri, 0);

    // A tree emptied by a rebuild.
    badTree.set(none);
    EXPECT_TRUE(badTree.empty());
    EXPECT_FALSE(badTree.getClosestPoint(KVector(), c, tri, 1e30f));
    EXPECT_EQ(tri, -1);
}

TEST(KTriMeshDistTree, RebuildAndIndependenceFromTheMesh) {
    std::mt19937 rng(9);
    KTriMesh first = RandomSoup(rng, 500, 4.0f, 1.0f);
    const KTriMesh firstCopy = first;
    const KTriMesh second = Sphere(10, 20, 3.0f);
    const std::vector<KVector> queries = RandomPoints(rng, 200, 5.0f);

    KTriMeshDistTree tree(first, 10, 10);
    // Changing or dropping the mesh after set() does not reach the tree.
    for (KVector& v : first.points) v = v * 3.0f + KVector(1, 1, 1);
    first.triangles.setLength(3, false);
    for (const KVector& q : queries) ExpectExact(tree, firstCopy, q, 5.0f);

    tree.set(second);
    for (const KVector& q : queries) ExpectExact(tree, second, q, 5.0f);
    tree.set(firstCopy);
    for (const KVector& q : queries) ExpectExact(tree, firstCopy, q, 5.0f);
}

TEST(KTriMeshDistTree, ConcurrentQueriesMatchSerial) {
    std::mt19937 rng(13);
    const KTriMesh m = RandomSoup(rng, 3000, 10.0f, 0.8f);
    KTriMeshDistTree tree(m, 10, 10);
    const std::vector<KVector> queries = RandomPoints(rng, 4000, 11.0f);
    const int n = static_cast<int>(queries.size());
    std::vector<KVector> serialC(n), parallelC(n);
    std::vector<int> serialT(n), parallelT(n), serialT2(n), parallelT2(n);
    std::vector<float> serialA(n), parallelA(n), serialB(n), parallelB(n);
    for (int i = 0; i < n; ++i) {
        tree.getClosestPoint(queries[i], serialC[i], serialT[i], 2.0f);
        tree.getClosestPoint(queries[i], serialT2[i], serialA[i], serialB[i], 1e30f);
    }
#pragma omp parallel for schedule(static) num_threads(4)
    for (int i = 0; i < n; ++i) {
        tree.getClosestPoint(queries[i], parallelC[i], parallelT[i], 2.0f);
        tree.getClosestPoint(queries[i], parallelT2[i], parallelA[i], parallelB[i], 1e30f);
    }
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(serialT[i], parallelT[i]);
        if (serialT[i] >= 0) {
            EXPECT_EQ(serialC[i], parallelC[i]);
        }
        EXPECT_EQ(serialT2[i], parallelT2[i]);
        EXPECT_EQ(serialA[i], parallelA[i]);
        EXPECT_EQ(serialB[i], parallelB[i]);
    }
}
