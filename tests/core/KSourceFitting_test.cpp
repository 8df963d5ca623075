// Source fit: the rows of its system (closed and open meshes, pins), what the rows state, how
// marker pairs pin vertices, and the singular fits it names.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "KDeformationTransferMessages.h"
#include "KSourceFitting.h"
#include "KTriMeshConnectionInfo.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

KInt2Array Pairs(std::initializer_list<KInt2> pairs) {
    KInt2Array out;
    for (const KInt2& p : pairs) out.push_back(p);
    return out;
}

}  // namespace

TEST(SourceFitting, RowsAndUnknownsOfClosedAndOpenMeshes) {
    // Every neighbour slot gives 3 smooth rows (9 over the coordinates), every triangle 3 identity
    // rows, every free vertex one closest row; open meshes add nothing for their border.
    const KTriMesh sphere = TriangulatedIcosphere(2), small = TriangulatedIcosphere(1), grid = Triangulated(MakeDetailedGrid(5, 2.0f));
    const KTriMesh cap = Triangulated(KeepFaces(MakeIcosphere(2), [](const KVector& c) { return c.z < 0.6f; }));
    const KTriMesh slit = Triangulated(CutSlit(MakeDetailedGrid(6, 2.0f), {13, 14, 15, 16},
                                               [](const KVector& c) { return c.y > -0.2f; }));
    KInt2Array all;
    for (int v = 0; v < 42; ++v) all.push_back(KInt2{v, v});
    const struct {
        const KTriMesh* mesh;
        KInt2Array pairs;
        int slots, freeVertices;
    } cases[] = {{&sphere, Pairs({{0, 0}, {5, 5}, {9, 9}}), 3 * 320, 159},
                 {&grid, Pairs({{0, 0}}), 2 * 40, 24},
                 {&cap, Pairs({{0, 0}, {1, 1}}), 756, cap.numVertices() - 2},
                 {&slit, Pairs({{0, 0}}), 124, 37},
                 // A vertex in two pairs is pinned once.
                 {&sphere, Pairs({{0, 0}, {5, 5}, {0, 7}, {9, 9}, {5, 5}}), 3 * 320, 159},
                 // Every vertex pinned: only fourth-vertex columns.
                 {&small, all, 3 * 80, 0}};
    for (const auto& c : cases) {
        KSourceFitting fit;
        ASSERT_TRUE(fit.prepare(*c.mesh, sphere, c.pairs, 2)) << fit.failure();
        const int nT = c.mesh->numTriangles();
        EXPECT_EQ(fit.neighbourPairs(), c.slots);
        EXPECT_EQ(fit.freeVertices(), c.freeVertices);
        EXPECT_EQ(fit.rows(), 3 * c.slots + 3 * nT + c.freeVertices);
        EXPECT_EQ(fit.unknowns(), c.freeVertices + nT);
        EXPECT_TRUE(fit.assemble(KSourceFitting::Weights()));
        // Without free vertices a smooth row holds the fourth vertices of its two triangles, an
        // identity row that of its own.
        for (int r = 0; c.freeVertices == 0 && r < fit.rows(); ++r)
            ASSERT_EQ(fit.rowStart()[r + 1] - fit.rowStart()[r], r < 3 * c.slots ? 2 : 1) << "row " << r;
        EXPECT_TRUE(fit.solve()) << fit.failure();
    }
}

TEST(SourceFitting, RowsStateTheSmoothIdentityAndClosestEquations) {
    // For arbitrary unknowns X the residual A X - b of triangle t's identity rows must be
    // wi (G - I), where G maps the rest frame V = [e1, e2, c / |c|^(1/2)] onto the deformed frame
    // D = [q2 - q1, q3 - q1, q4 - q1]: G V = D. Smooth rows hold ws (G_t - G_u) for each neighbour u
    // in slot order, closest rows wc (q - closest).
    const KTriMesh rest = TriangulatedIcosphere(1, 0.08f, 5), target = TriangulatedIcosphere(1, 0.1f, 6);
    const std::vector<int> pins = {2, 7, 30};
    KSourceFitting fit;
    // Pair direction: (source vertex, target vertex); each pin lands on target vertex v + 1.
    ASSERT_TRUE(fit.prepare(rest, target, Pairs({{2, 3}, {7, 8}, {30, 31}}), 1));
    const int nV = 42, nT = 80, nFree = nV - 3;
    for (int v = 0; v < nV; ++v) fit.closestPoints()[v] = rest.points[v] + KVector(0.5f, -0.25f, 0.125f);
    const double ws = 1.5, wi = 0.01, wc = 3.0;
    ASSERT_TRUE(fit.assemble(KSourceFitting::Weights{ws, wi, wc}));

    // Arbitrary values of the unknowns: free vertices in index order, then the fourth vertices;
    // q: the frame vertices they stand for.
    std::vector<KVector> unknown(fit.unknowns()), q(nV + nT);
    for (size_t c = 0; c < unknown.size(); ++c)
        unknown[c] = KVector(float(std::sin(0.7 * c + 0.3)), float(std::cos(0.2 * c)), float(std::sin(0.9 * c + 1.0)));
    for (int v = 0, f = 0; v < nV + nT; ++v) {
        const bool pinned = v < nV && std::count(pins.begin(), pins.end(), v);
        const int col = pinned ? -1 : (v < nV ? f++ : nFree + v - nV);
        ASSERT_EQ(v < nV ? fit.column(v) : fit.fourthColumn(v - nV), col) << v;
        q[v] = pinned ? target.points[v + 1] : unknown[col];
    }
    auto residual = [&](int row, int r) {
        double s = -fit.rhs(r)[row];
        for (int p = fit.rowStart()[row]; p < fit.rowStart()[row + 1]; ++p)
            s += fit.values()[p] * unknown[fit.colIndex()[p]][r];
        return s;
    };
    const int identity = 3 * fit.neighbourPairs();
    auto G = [&](int t, int r, int k) { return residual(identity + 3 * t + k, r) / wi + (r == k); };
    for (int t = 0; t < nT; ++t) {
        const KInt3& tri = rest.triangles[t];
        const KVector e1 = rest.points[tri[1]] - rest.points[tri[0]], e2 = rest.points[tri[2]] - rest.points[tri[0]];
        const KVector c = e1.cross(e2);
        const KVector V[3] = {e1, e2, c / std::sqrt(c.length())};
        const KVector D[3] = {q[tri[1]] - q[tri[0]], q[tri[2]] - q[tri[0]], q[nV + t] - q[tri[0]]};
        for (int r = 0; r < 3; ++r)
            for (int col = 0; col < 3; ++col)
                ASSERT_NEAR(G(t, r, 0) * V[col][0] + G(t, r, 1) * V[col][1] + G(t, r, 2) * V[col][2], D[col][r], 1e-4)
                    << "identity rows of " << t;
    }
    KTriMeshConnectionInfo info(rest);
    info.calculate_t2t();
    for (int t = 0, pair = 0; t < nT; ++t)
        for (int s = 0; s < 3; ++s, ++pair)
            for (int e = 0; e < 9; ++e)
                ASSERT_NEAR(residual(3 * pair + e % 3, e / 3) / ws, G(t, e / 3, e % 3) - G(info.t2t[t][s], e / 3, e % 3),
                            1e-8)
                    << "smooth rows of " << t << ", slot " << s;
    for (int v = 0, row = identity + 3 * nT; v < nV; ++v) {
        if (std::count(pins.begin(), pins.end(), v)) continue;
        const KVector closest = rest.points[v] + KVector(0.5f, -0.25f, 0.125f);
        for (int r = 0; r < 3; ++r) ASSERT_NEAR(residual(row, r), wc * (q[v][r] - closest[r]), 1e-6) << v;
        ++row;
    }
}

TEST(SourceFitting, PinsTakeTheTargetVertexOfTheirLastPair) {
    // Source vertex s sits on target vertex t for a pair (s, t); a vertex in two pairs takes the
    // later one. The target has more vertices than the source, so swapped roles would miss.
    const KTriMesh source = TriangulatedIcosphere(1, 0.05f, 2), target = TriangulatedIcosphere(2, 0.05f, 3);
    KSourceFitting fit;
    ASSERT_TRUE(fit.fit(source, target, Pairs({{3, 150}, {10, 40}, {3, 7}, {41, 100}}), 2, 2, nullptr));
    EXPECT_EQ(fit.points()[3], target.points[7]);
    EXPECT_EQ(fit.points()[10], target.points[40]);
    EXPECT_EQ(fit.points()[41], target.points[100]);
}

TEST(SourceFitting, SingularFitsNameTheirCause) {
    const std::string search = "; the correspondence search was abandoned.";
    KTriMesh isolated = TriangulatedIcosphere(1);
    isolated.points.push_back(KVector(3, 0, 0));  // vertex 42, in no triangle
    KTriMesh collapsed = TriangulatedIcosphere(1);
    collapsed.points[collapsed.triangles[9][2]] = collapsed.points[collapsed.triangles[9][1]];
    KTriMesh flat = TriangulatedIcosphere(1);
    const KInt3 t9 = flat.triangles[9];
    flat.points[t9[1]] = flat.points[t9[0]] + KVector(0.25f, 0, 0);  // three corners on one line
    flat.points[t9[2]] = flat.points[t9[0]] + KVector(0.5f, 0, 0);
    const KTriMesh target = TriangulatedIcosphere(1);
    {
        KSourceFitting fit;
        EXPECT_FALSE(fit.fit(isolated, target, Pairs({{0, 0}}), 1, 1, nullptr));
        EXPECT_EQ(fit.failure(), "KDeformationTransfer: source vertex 42 lies in no triangle and no marker pins it, "
                                 "so the source fit is singular" + search);
        EXPECT_TRUE(fit.fit(isolated, target, Pairs({{0, 0}, {42, 5}}), 1, 1, nullptr)) << "a pinned one needs none";
        EXPECT_FALSE(fit.fit(isolated, target, Pairs({{0, 0}, {43, 1}}), 1, 1, nullptr));
        EXPECT_EQ(fit.failure(), "KDeformationTransfer: correspondence pair 1 (43, 1) names a vertex outside the "
                                 "meshes (source 43 vertices, target 42); nothing was recalculated.");
    }
    for (const KTriMesh* m : {&collapsed, &flat}) {
        // The lowest-numbered triangle without area is named, with its corners.
        int first = -1;
        for (int t = 0; t < m->numTriangles() && first < 0; ++t) {
            const KInt3& tri = m->triangles[t];
            if ((m->points[tri[1]] - m->points[tri[0]]).cross(m->points[tri[2]] - m->points[tri[0]]).length() < 1e-6f)
                first = t;
        }
        ASSERT_GE(first, 0);
        const KInt3& tri = m->triangles[first];
        KSourceFitting fit;
        EXPECT_FALSE(fit.fit(*m, target, Pairs({{0, 0}}), 1, 1, nullptr));
        EXPECT_EQ(fit.failure(), "KDeformationTransfer: source triangle " + std::to_string(first) + " (vertices " +
                                     std::to_string(tri[0]) + ", " + std::to_string(tri[1]) + ", " +
                                     std::to_string(tri[2]) + ") has no area, so the source fit is singular" + search);
        EXPECT_TRUE(fit.libraryReport().empty());
    }
    // A source 1e20 across: no triangle lacks area, but every edge cross product overflows a
    // float, so the first triangle is named as too large, not as flat.
    KTriMesh huge = TriangulatedIcosphere(1);
    for (KVector& p : huge.points) p *= 1e20f;
    KSourceFitting fit;
    EXPECT_FALSE(fit.fit(huge, target, Pairs({{0, 0}}), 1, 1, nullptr));
    const KInt3& t0 = huge.triangles[0];
    EXPECT_EQ(fit.failure(), "KDeformationTransfer: source triangle 0 (vertices " + std::to_string(t0[0]) + ", " +
                                 std::to_string(t0[1]) + ", " + std::to_string(t0[2]) +
                                 ") is too large to compute with (its edges' cross product overflows single "
                                 "precision), so the source fit cannot be formed" + search);
}

TEST(SourceFitting, PartsWithoutAMarkerStayWhereTheyAreUntilTheClosestPointsPull) {
    // A sphere with two pairs, plus two shells no pair touches: one triangle (vertices 42-44) and
    // a flat pentagon split into a fan (45-49). Without a pin the first solve would leave each
    // shell's place open; its lowest vertex holds it where it is.
    KTriMesh source = TriangulatedIcosphere(1);
    for (const KVector& p : {KVector(3, 0, 0), KVector(3.5f, 0, 0), KVector(3, 0.5f, 0)}) source.points.push_back(p);
    for (int k = 0; k < 5; ++k)
        source.points.push_back(KVector(0.3f * std::cos(1.2566371f * k), 0.3f * std::sin(1.2566371f * k), 4.0f));
    source.triangles.push_back(KInt3{42, 43, 44});
    for (int k = 1; k < 4; ++k) source.triangles.push_back(KInt3{45, 45 + k, 46 + k});
    const KTriMesh target = TriangulatedIcosphere(2, 0.05f, 3);
    const KInt2Array pairs = Pairs({{0, 0}, {11, 11}});

    KSourceFitting fit;
    ASSERT_TRUE(fit.prepare(source, target, pairs, 1)) << fit.failure();
    EXPECT_EQ(fit.anchors(), (KIntArray{42, 45}));
    KSourceFitting::Weights first;
    first.anchor = 1.0;
    ASSERT_TRUE(fit.assemble(first) && fit.solve()) << fit.failure();
    for (int v = 42; v < 50; ++v) EXPECT_LT((fit.points()[v] - source.points[v]).length(), 1e-5f) << v;
    // The whole fit then pulls them onto the target like any other vertex.
    ASSERT_TRUE(fit.fit(source, target, pairs, 3, 1, nullptr)) << fit.failure();
    for (int v = 42; v < 50; ++v) EXPECT_LT(fit.points()[v].length(), 1.2f) << v;
}
