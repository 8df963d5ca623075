#include "KTriMeshDistTree.h"
#include "MeshGenerators.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

using namespace Kavrin;

namespace {

// Independent reference: the nearest of the three edges, or the plane projection when it falls
// inside the triangle (products in double).
double Dot(const KVector& u, const KVector& v) { return double(u.x) * v.x + double(u.y) * v.y + double(u.z) * v.z; }
double Len(const KVector& u, double s, const KVector& v, double t = 0, const KVector& w = KVector()) {
    return std::sqrt(std::pow(u.x - s * v.x - t * w.x, 2) + std::pow(u.y - s * v.y - t * w.y, 2) +
                     std::pow(u.z - s * v.z - t * w.z, 2));
}
double SegmentDist(const KVector& p, const KVector& a, const KVector& b) {
    const double len2 = Dot(b - a, b - a);
    return Len(p - a, len2 > 0 ? std::min(1.0, std::max(0.0, Dot(p - a, b - a) / len2)) : 0.0, b - a);
}
double TriDist(const KTriMesh& m, int t, const KVector& p) {
    const KVector a = m.points[m.triangles[t][0]], b = m.points[m.triangles[t][1]], c = m.points[m.triangles[t][2]];
    double best = std::min({SegmentDist(p, a, b), SegmentDist(p, b, c), SegmentDist(p, c, a)});
    const KVector e0 = b - a, e1 = c - a, r = p - a;
    const double A = Dot(e0, e0), B = Dot(e0, e1), C = Dot(e1, e1), D = Dot(e0, r), E = Dot(e1, r), det = A * C - B * B;
    if (det > 1e-12 * A * C) {
        const double s = (C * D - B * E) / det, u = (A * E - B * D) / det;
        if (s >= 0 && u >= 0 && s + u <= 1) best = std::min(best, Len(r, s, e0, u, e1));
    }
    return best;
}
double BruteForce(const KTriMesh& m, const KVector& p) {
    double best = std::numeric_limits<double>::infinity();
    for (int t = 0; t < m.numTriangles(); ++t) best = std::min(best, TriDist(m, t, p));
    return best;
}

std::vector<KVector> RandomPoints(std::mt19937& rng, int count, float extent) {
    std::uniform_real_distribution<float> u(-extent, extent);
    std::vector<KVector> pts;
    for (int i = 0; i < count; ++i) pts.push_back(KVector(u(rng), u(rng), u(rng)));
    return pts;
}
KTriMesh RandomSoup(std::mt19937& rng, int count, float extent, float size) {
    KTriMesh m;
    const std::vector<KVector> centres = RandomPoints(rng, count, extent), offsets = RandomPoints(rng, 3 * count, size);
    for (int t = 0; t < count; ++t) {
        for (int k = 0; k < 3; ++k) m.points.push_back(centres[t] + offsets[3 * t + k]);
        m.triangles.push_back(KInt3{3 * t, 3 * t + 1, 3 * t + 2});
    }
    return m;
}
// A wavy sheet of n x n vertices: shared vertices and edges, no two triangles in one plane.
KTriMesh Sheet(int n, float size) {
    KTriMesh m;
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const float x = size * (2.0f * i / (n - 1) - 1), y = size * (2.0f * j / (n - 1) - 1);
            m.points.push_back(KVector(x, y, 0.3f * size * std::sin(3 * x / size) * std::cos(2 * y / size)));
        }
    for (int j = 0; j + 1 < n; ++j)
        for (int a = j * n; a + 1 < (j + 1) * n; ++a)
            m.triangles.insert(m.triangles.end(), {KInt3{a, a + 1, a + n + 1}, KInt3{a, a + n + 1, a + n}});
    return m;
}

// A point, a collinear triangle with mixed vertex order, two coincident corners and a needle;
// with `only` >= 0, just that one of them.
KTriMesh Degenerate(int only = -1) {
    KTriMesh m;
    m.points.assign({KVector(1, 1, 1), KVector(1, 1, 1), KVector(1, 1, 1), KVector(0, 0, 0), KVector(2, 0, 0),
                     KVector(5, 0, 0), KVector(0, 3, 0), KVector(0, 3, 0), KVector(0, 5, 2), KVector(-3, 0, 0),
                     KVector(-1, 1e-7f, 0), KVector(1, 3e-7f, 0)});
    m.triangles.assign({KInt3{0, 1, 2}, KInt3{5, 3, 4}, KInt3{6, 7, 8}, KInt3{9, 11, 10}});
    if (only >= 0) m.triangles.assign(1, KInt3(m.triangles[only]));
    return m;
}

// Both query forms at p agree with the brute force: the same distance, a point on the returned
// triangle, and weights in [0, 1] that rebuild that point. tol scales with the coordinates.
void ExpectExact(const KTriMeshDistTree& tree, const KTriMesh& m, const KVector& p, float extent) {
    KVector closest;
    int tri = -2, tri2 = -2;
    float a = -1, b = -1;
    ASSERT_TRUE(tree.getClosestPoint(p, closest, tri, 1e30f));
    ASSERT_TRUE(tree.getClosestPoint(p, tri2, a, b, 1e30f));
    ASSERT_TRUE(tri >= 0 && tri < m.numTriangles() && tri2 == tri) << tri << " " << tri2;
    const double tol = 4e-6 * (extent + p.length());
    EXPECT_NEAR((closest - p).length(), BruteForce(m, p), tol);
    EXPECT_NEAR(TriDist(m, tri, closest), 0.0, tol);
    for (float w : {a, b, 1.0f - a - b}) EXPECT_TRUE(w >= -1e-6f && w <= 1.0f + 1e-6f) << w;
    const KInt3& t = m.triangles[tri];
    const KVector rebuilt = m.points[t[0]] * a + m.points[t[1]] * b + m.points[t[2]] * (1.0f - a - b);
    EXPECT_NEAR((rebuilt - closest).length(), 0.0, tol);
}

}  // namespace

TEST(KTriMeshDistTree, MatchesBruteForce) {
    // Overlapping soup, sparse small triangles, long triangles, a connected sheet, a closed
    // sphere far from the origin (queries inside and outside a curved surface, float rounding at a
    // large scale) and degenerate triangles (which must never give NaN); the two tree parameters
    // (including the fallbacks below 1) only change the layout. The queries run concurrently, as
    // the nodes run them.
    std::mt19937 rng(7);
    KTriMesh farSphere;
    MakeIcosphere(3).triangulate(farSphere);
    for (KVector& p : farSphere.points) p = p * 3.0f + KVector(1000.0f, -500.0f, 250.0f);
    const struct {
        KTriMesh mesh;
        int leaf, depth;
    } cases[] = {{RandomSoup(rng, 300, 1.0f, 0.3f), 10, 10}, {RandomSoup(rng, 2000, 10.0f, 0.5f), 10, 10},
                 {RandomSoup(rng, 50, 100.0f, 40.0f), 10, 10}, {Sheet(25, 2.0f), 10, 10},
                 {RandomSoup(rng, 700, 5.0f, 1.0f), 1, 32}, {RandomSoup(rng, 700, 5.0f, 1.0f), 1, 1},
                 {RandomSoup(rng, 700, 5.0f, 1.0f), 3, 2}, {RandomSoup(rng, 700, 5.0f, 1.0f), -4, 0},
                 {farSphere, 10, 10}, {farSphere, 2, 20},
                 {Degenerate(), 10, 10}, {Degenerate(0), 10, 10}, {Degenerate(1), 10, 10},
                 {Degenerate(2), 10, 10}, {Degenerate(3), 10, 10}};
    for (const auto& c : cases) {
        // Rebuilt over a copy that then goes away: the tree keeps what it needs.
        KTriMeshDistTree tree(cases[0].mesh, c.leaf, c.depth);
        KTriMesh copy = c.mesh;
        tree.set(copy);
        copy = KTriMesh();
        float extent = 1;
        for (const KVector& v : c.mesh.points)
            extent = std::max({extent, std::fabs(v.x), std::fabs(v.y), std::fabs(v.z)});
        // Points around the mesh, far outside it, on its vertices, and on or just off its surface.
        std::vector<KVector> queries = RandomPoints(rng, 200, extent * 1.1f);
        for (const KVector& q : RandomPoints(rng, 30, extent * 50.0f)) queries.push_back(q);
        queries.insert(queries.end(), c.mesh.points.begin(),
                       c.mesh.points.begin() + std::min(c.mesh.numVertices(), 50));
        std::uniform_real_distribution<float> w(0, 1);
        for (const KVector& off : RandomPoints(rng, 150, 0.01f * extent)) {
            const KInt3& t = c.mesh.triangles[rng() % c.mesh.numTriangles()];
            const float a = w(rng), b = w(rng) * (1 - a);
            queries.push_back(c.mesh.points[t[0]] * a + c.mesh.points[t[1]] * b + c.mesh.points[t[2]] * (1 - a - b) +
                              off);
        }
#pragma omp parallel for schedule(static) num_threads(2)
        for (int i = 0; i < int(queries.size()); ++i) ExpectExact(tree, c.mesh, queries[i], extent);
    }
}

TEST(KTriMeshDistTree, VertexQueriesReturnTheVertexWithFullWeight) {
    // Among the triangles that use the vertex the lowest index wins.
    const KTriMesh m = Sheet(13, 1.5f);
    const KTriMeshDistTree tree(m, 10, 10);
    for (int v = 0; v < m.numVertices(); ++v) {
        int lowest = 0;
        while (m.triangles[lowest][0] != v && m.triangles[lowest][1] != v && m.triangles[lowest][2] != v) ++lowest;
        KVector closest;
        int tri = -1, tri2 = -1;
        float a = -1, b = -1;
        ASSERT_TRUE(tree.getClosestPoint(m.points[v], closest, tri, 1e30f));
        ASSERT_TRUE(tree.getClosestPoint(m.points[v], tri2, a, b, 1e30f));
        EXPECT_EQ(closest, m.points[v]);
        ASSERT_TRUE(tri == lowest && tri2 == lowest) << v;
        const float w[3] = {a, b, 1.0f - a - b};
        for (int k = 0; k < 3; ++k) EXPECT_EQ(w[k], m.triangles[tri][k] == v ? 1.0f : 0.0f) << "vertex " << v;
    }
}

TEST(KTriMeshDistTree, MaxDistanceNothingFoundAndLeftOutTriangles) {
    KTriMesh m;
    m.points.assign({KVector(0, 0, 0), KVector(1, 0, 0), KVector(0, 1, 0)});
    m.triangles.push_back(KInt3{0, 1, 2});
    const KTriMeshDistTree tree(m, 10, 10), fresh(10, 10), fromEmpty(KTriMesh(), 10, 10);
    const KVector p(0.25f, 0.25f, 2.0f);  // exactly 2 above the face
    const float inf = std::numeric_limits<float>::infinity();
    // Nothing found: triangle -1, the other outputs untouched.
    const struct {
        const KTriMeshDistTree* tree;
        KVector p;
        float limit;
    } misses[] = {{&tree, p, 1.99f}, {&tree, p, -1.0f}, {&tree, p, NAN}, {&tree, KVector(NAN, 0, 0), 1e30f},
                  {&tree, KVector(0, inf, 0), 1e30f}, {&fresh, p, 1e30f}, {&fromEmpty, p, 1e30f}};
    for (const auto& c : misses) {
        KVector closest(7, 8, 9);
        int tri = 5, tri2 = 5;
        float a = 0.5f, b = 0.5f;
        EXPECT_FALSE(c.tree->getClosestPoint(c.p, closest, tri, c.limit));
        EXPECT_FALSE(c.tree->getClosestPoint(c.p, tri2, a, b, c.limit));
        EXPECT_TRUE(tri == -1 && tri2 == -1 && closest == KVector(7, 8, 9) && a == 0.5f && b == 0.5f);
    }
    EXPECT_TRUE(fresh.empty() && fromEmpty.empty());
    KVector closest;
    int tri = -1;
    for (float limit : {2.0f, inf}) {  // the limit is inclusive
        EXPECT_TRUE(tree.getClosestPoint(p, closest, tri, limit));
        EXPECT_TRUE(tri == 0 && closest == KVector(0.25f, 0.25f, 0.0f));
    }
    // Triangles with an index out of range or a non-finite corner are left out; a rebuild over no
    // triangles empties the tree.
    KTriMesh bad = m;
    bad.points.push_back(KVector(NAN, 1, 0));
    bad.triangles.assign({KInt3{0, 1, 4}, KInt3{-1, 0, 1}, KInt3{0, 1, 3}});
    KTriMeshDistTree rebuilt(bad, 10, 10);
    EXPECT_TRUE(rebuilt.empty());
    bad.points.push_back(KVector(0, 1, 0));  // index 4 now exists
    rebuilt.set(bad);
    EXPECT_TRUE(rebuilt.getClosestPoint(p, closest, tri, 1e30f) && tri == 0);
    rebuilt.set(KTriMesh());
    EXPECT_TRUE(rebuilt.empty());
    EXPECT_FALSE(rebuilt.getClosestPoint(p, closest, tri, 1e30f));
    // On a soup: found exactly when the true distance is within the limit.
    std::mt19937 rng(5);
    const KTriMesh soup = RandomSoup(rng, 400, 10.0f, 0.5f);
    const KTriMeshDistTree st(soup, 10, 10);
    for (const KVector& q : RandomPoints(rng, 400, 12.0f)) {
        const double d = BruteForce(soup, q);
        if (std::fabs(d - 1.0) < 1e-4) continue;
        ASSERT_EQ(st.getClosestPoint(q, closest, tri, 1.0f), d <= 1.0);
        if (d <= 1.0) {
            EXPECT_NEAR((closest - q).length(), d, 1e-5);
        }
    }
}

// update(): an animated mesh refits the kept hierarchy, and every query answers bit for bit as a
// tree built afresh on the moved mesh; anything else rebuilds.
TEST(KTriMeshDistTree, UpdateRefitsAMovedMeshAndAnswersAsAFreshBuild) {
    std::mt19937 rng(11);
    const KTriMesh rest = Sheet(40, 2.0f);
    const auto moved = [&rest](float t) {
        KTriMesh m = rest;
        for (KVector& p : m.points) p += KVector(0.3f * t, 0, 0.4f * std::sin(2 * p.x + t));
        return m;
    };
    KTriMesh changed = moved(1.0f);
    changed.triangles[5] = KInt3{0, 1, 42};
    KTriMesh nan = moved(1.0f);
    nan.points[7].z = std::numeric_limits<float>::quiet_NaN();
    KTriMesh scrambled = moved(1.0f);
    std::shuffle(scrambled.points.begin(), scrambled.points.end(), rng);
    KTriMesh fewer = moved(1.0f);
    fewer.points.pop_back();
    const struct {
        KTriMesh mesh;
        bool refits;
        const char* what;
    } steps[] = {
        {moved(0.5f), true, "moved"},
        {moved(1.5f), true, "moved again"},
        {changed, false, "other triangles"},
        {moved(2.0f), false, "triangles as the last set(), which were others"},
        {moved(2.5f), true, "moved after a rebuild"},
        {nan, false, "a corner turned NaN: its triangles are left out"},
        {moved(3.0f), false, "the last build left triangles out"},
        {scrambled, false, "boxes that overlap far more than a fresh build's"},
        {fewer, false, "fewer vertices"},
    };
    KTriMeshDistTree tree(rest, 10, 10);
    const std::vector<KVector> queries = RandomPoints(rng, 300, 3.0f);
    for (const auto& s : steps) {
        EXPECT_EQ(tree.update(s.mesh), s.refits) << s.what;
        const KTriMeshDistTree fresh(s.mesh, 10, 10);
        for (const KVector& q : queries) {
            KVector c1(9, 9, 9), c2(9, 9, 9);
            int t1 = -2, t2 = -2;
            const bool f1 = tree.getClosestPoint(q, c1, t1, 0.8f), f2 = fresh.getClosestPoint(q, c2, t2, 0.8f);
            ASSERT_EQ(f1, f2) << s.what;
            ASSERT_EQ(t1, t2) << s.what;
            ASSERT_EQ(c1, c2) << s.what;
        }
    }
}

// A hint only bounds the search from the start: with any hint (a near or far triangle, one left
// out of the tree, an index out of range) both query forms answer bit for bit as without one,
// inside a radius as well as unbounded.
TEST(KTriMeshDistTree, HintsNeverChangeTheAnswer) {
    std::mt19937 rng(3);
    KTriMesh sheet = Sheet(30, 2.0f);
    sheet.points.push_back(KVector(NAN, 0, 0));
    sheet.triangles.push_back(KInt3{0, 1, sheet.numVertices() - 1});  // left out: a NaN corner
    const int leftOut = sheet.numTriangles() - 1;
    const KTriMesh soup = RandomSoup(rng, 500, 3.0f, 0.6f);
    for (const KTriMesh* mesh : {static_cast<const KTriMesh*>(&sheet), &soup}) {
        const KTriMeshDistTree tree(*mesh, 10, 10);
        const int nt = mesh->numTriangles();
        std::vector<KVector> queries = RandomPoints(rng, 300, 3.0f);
        queries.insert(queries.end(), mesh->points.begin(), mesh->points.begin() + 40);
        for (const KVector& q : queries) {
            if (!std::isfinite(q.x)) continue;
            for (float radius : {1e30f, 0.3f, 0.0f}) {
                KVector c0(7, 7, 7);
                int t0 = -2;
                float a0 = 2, b0 = 2;
                const bool f0 = tree.getClosestPoint(q, c0, t0, radius);
                int tb0 = -2;
                tree.getClosestPoint(q, tb0, a0, b0, radius);
                const int nearby = t0 >= 0 ? t0 : 0;
                for (int hint : {nearby, std::max(nearby - 1, 0), std::min(nearby + 1, nt - 1),
                                 static_cast<int>(rng() % nt), leftOut, nt, -5, -1}) {
                    KVector c1(7, 7, 7);
                    int t1 = -2, tb1 = -2;
                    float a1 = 2, b1 = 2;
                    ASSERT_EQ(tree.getClosestPoint(q, c1, t1, radius, hint), f0) << hint;
                    tree.getClosestPoint(q, tb1, a1, b1, radius, hint);
                    ASSERT_TRUE(t1 == t0 && c1 == c0 && tb1 == tb0 && a1 == a0 && b1 == b0)
                        << "hint " << hint << " radius " << radius << ": " << t1 << " vs " << t0;
                }
            }
        }
    }
}
