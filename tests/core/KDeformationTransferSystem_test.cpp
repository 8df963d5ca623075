// Deformation transfer, piece by piece: the rows of the source-fitting system, unpaired triangles
// in the transfer system and the triangle pairing.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "DeformationTransferTestSupport.h"
#include "KTriMeshConnectionInfo.h"

using namespace Kavrin;
using namespace Kavrin::dttest;

namespace {

struct Access {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access{solver, sink};
};

}  // namespace

TEST(DeformationTransferRows, BudgetsAndColumns) {
    const KTriMesh sphere = Icosphere(2), grid = Grid(5);  // 162 vertices, 320 triangles; 25, 32 (40 inner edges)
    KTriMesh small = Icosphere(1), bumped = Icosphere(1);  // 42, 80
    Bump(bumped, 0.1f, 4);
    std::vector<int> all(42);
    std::iota(all.begin(), all.end(), 0);
    const int closed = 3 * 159 + 9 * (3 * 320 + 320);
    const struct {
        const KTriMesh *source, *target;
        std::vector<int> pins;
        int budget, rows, cols;
        std::vector<std::string> errors;
    } cases[] = {
        // Closed manifold: exactly the budget (closest rows, then smooth and identity rows).
        {&sphere, &sphere, {0, 5, 9}, closed, closed, 3 * (159 + 320), {}},
        // Open sheet, first solve: the 4 triangles whose slot-0 edge lies on the border (y = -1)
        // add 9 rows each, past the right-hand side, which the sparse library then rejects.
        {&grid, &grid, {0}, 9 * (2 * 40 + 32), 9 * (2 * 40 + 32) + 9 * 4, 3 * (24 + 32), {"cholmod error!"}},
        // Every vertex pinned: only fourth-vertex columns and no closest rows.
        {&small, &bumped, all, 9 * (3 * 80 + 80), 9 * (3 * 80 + 80), 3 * 80, {}}};
    for (const auto& c : cases) {
        Access x;
        EXPECT_EQ(x.access.fit(*c.source, *c.target, c.pins), c.errors.empty() ? 1 : 0);
        EXPECT_EQ(x.access.nRows(), c.budget);
        EXPECT_EQ(x.access.rowsUsed(), c.rows);
        EXPECT_EQ(x.access.nCols(), c.cols);
        EXPECT_EQ(x.access.errors(x.sink), c.errors);
    }
    // With every vertex pinned a smooth row keeps the fourth vertices of its two triangles and an
    // identity row that of its own; the corners moved to the right-hand side.
    Access x;
    x.access.load(small, bumped, all);
    const auto a = x.access.assemble(false);
    std::vector<int> perRow(a.rows);
    for (size_t e = 0; e < a.row.size(); ++e) {
        ASSERT_LT(a.col[e], 3 * 80);
        ++perRow[a.row[e]];
    }
    for (int r = 0; r < a.rows; ++r) ASSERT_EQ(perRow[r], r < 9 * 240 ? 2 : 1) << "row " << r;
}

TEST(DeformationTransferRows, RowsStateTheSmoothIdentityAndClosestEquations) {
    // For arbitrary unknowns X the residual A X - b of the identity rows of triangle t must be
    // wi (G - I), where G maps the rest frame V = [e1, e2, c / |c|^(1/2)] onto the deformed frame
    // D = [q2 - q1, q3 - q1, q4 - q1]: G V = D. Smooth rows must hold G_t - G_u for each neighbour
    // u, closest rows wc (q - closest).
    Access x;
    KTriMesh rest = Icosphere(1), target = Icosphere(1);
    Bump(rest, 0.08f, 5);
    Bump(target, 0.1f, 6);
    const std::vector<int> pins = {2, 7, 30};
    x.access.load(rest, target, pins);
    const double wi = 0.01, wc = 3.0;
    const auto a = x.access.assemble(true, wc);
    const int nV = 42, nT = 80, nFree = nV - 3;

    std::vector<double> X(a.nCols);
    for (int c = 0; c < a.nCols; ++c) X[c] = float(std::sin(0.7 * c + 0.3));
    std::vector<KVector> q(nV + nT);  // vertices, then the fourth vertices
    for (int v = 0, f = 0; v < nV + nT; ++v) {
        const bool pinned = v < nV && std::count(pins.begin(), pins.end(), v);
        // Columns: free vertices in index order, then one fourth vertex per triangle.
        const int col = pinned ? -1 : 3 * (v < nV ? f++ : nFree + v - nV);
        for (int k = 0; k < 3; ++k) ASSERT_EQ(x.access.srcCols(v, k), pinned ? -1 : col + k) << v;
        q[v] = pinned ? target.points[v] : KVector(float(X[col]), float(X[col + 1]), float(X[col + 2]));
    }
    std::vector<double> res(a.rows);
    for (size_t e = 0; e < a.row.size(); ++e) res[a.row[e]] += a.value[e] * X[a.col[e]];
    for (int r = 0; r < a.rows; ++r) res[r] -= a.b[r];

    auto G = [&](int t, int r, int k) { return res[9 * 3 * nT + 9 * t + 3 * r + k] / wi + (r == k); };
    for (int t = 0; t < nT; ++t) {
        const KInt3& tri = rest.triangles[t];
        const KVector e1 = rest.points[tri[1]] - rest.points[tri[0]], e2 = rest.points[tri[2]] - rest.points[tri[0]];
        const KVector c = e1.cross(e2);
        const KVector V[3] = {e1, e2, c / std::sqrt(c.length())};
        const KVector D[3] = {q[tri[1]] - q[tri[0]], q[tri[2]] - q[tri[0]], q[nV + t] - q[tri[0]]};
        for (int r = 0; r < 3; ++r)
            for (int col = 0; col < 3; ++col)
                ASSERT_NEAR(G(t, r, 0) * V[col][0] + G(t, r, 1) * V[col][1] + G(t, r, 2) * V[col][2], D[col][r], 1e-5)
                    << "identity rows of " << t;
    }
    KTriMeshConnectionInfo info(rest);
    info.calculate_t2t();
    for (int t = 0; t < nT; ++t)
        for (int s = 0; s < 3; ++s)
            for (int e = 0; e < 9; ++e)
                ASSERT_NEAR(res[27 * t + 9 * s + e], G(t, e / 3, e % 3) - G(info.t2t[t][s], e / 3, e % 3), 1e-9)
                    << "smooth rows of " << t << ", slot " << s;
    for (int v = 0, row = 9 * 4 * nT; v < nV; ++v) {
        if (std::count(pins.begin(), pins.end(), v)) continue;
        const KVector closest = rest.points[v] + KVector(0.5f, -0.25f, 0.125f);
        for (int r = 0; r < 3; ++r) ASSERT_NEAR(res[row++], wc * (q[v][r] - closest[r]), 1e-6) << v;
    }
}

TEST(DeformationTransferSystem, UnpairedTriangles) {
    const KTriMesh source = Icosphere(1);  // 80 triangles
    KTriMesh target = Icosphere(2);        // 320 triangles
    Bump(target, 0.07f, 8);
    KInt4Array none;
    none.setLengthWithValue(320, KInt4{-1, -1, -1, 0});
    {
        // Count 0 everywhere: identity gradients give back the rest target up to a translation,
        // whatever the source does.
        Access x;
        ASSERT_EQ(x.access.build(source, target, none), 1);
        EXPECT_EQ(x.access.nRows(), 9 * 320);
        EXPECT_EQ(x.access.rowsUsed(), 9 * 320);
        KTriMesh posed = source;
        for (KVector& p : posed.points) p = KVector(p.x * 2.0f, p.y, -p.z);
        ASSERT_EQ(x.access.transfer(posed), 1);
        const KTriMesh& out = x.access.target();
        for (int i = 0; i < target.numVertices(); ++i)
            ASSERT_LT(((out.points[i] - out.points[0]) - (target.points[i] - target.points[0])).length(), 1e-5f) << i;
        EXPECT_TRUE(x.sink.entries.empty());
    }
    // Count < 0 adds no rows (the budget still counts 9): that triangle's fourth vertex is in no
    // row, so the system is singular. A source triangle the source does not have is refused.
    const struct {
        int triangle;
        KInt4 entry;
        int rows;
        const char* error;
    } cases[] = {{4, KInt4{-1, -1, -1, -1}, 9 * 319,
                  "KDeformationTransfer: the normal equations of the transfer system are singular; the transfer "
                  "system was not built."},
                 {6, KInt4{80, -1, -1, 1}, 0,
                  "KDeformationTransfer: the triangle correspondence of target triangle 6 names a source triangle "
                  "the source mesh does not have; the transfer system was not built."}};
    for (const auto& c : cases) {
        Access x;
        KInt4Array pairing = none;
        pairing[c.triangle] = c.entry;
        EXPECT_EQ(x.access.build(source, target, pairing), 0);
        EXPECT_EQ(x.access.rowsUsed(), c.rows);
        EXPECT_EQ(x.access.errors(x.sink), std::vector<std::string>{c.error});
        EXPECT_FALSE(x.solver.ready());
    }
}

TEST(DeformationTransferPairing, SameTopologyPairsEachTriangleWithItselfUnlessItFacesAway) {
    // The target is turned so that the nearest source centre is often a neighbour's; the pair is
    // still the target's own index. Triangle 7 faces inward: count 0 (the initial -1 plus one).
    Access x;
    const KTriMesh source = Icosphere(1);
    KTriMesh target = source;
    for (KVector& p : target.points) p = KVector(0.97f * p.x - 0.24f * p.y, 0.24f * p.x + 0.97f * p.y, p.z);
    std::swap(target.triangles[7][1], target.triangles[7][2]);
    const KInt4Array& tc = x.access.pair(source, target, 1);
    ASSERT_EQ(tc.length(), 80);
    for (int i = 0; i < 80; ++i) EXPECT_TRUE(tc[i] == (i == 7 ? KInt4{-1, -1, -1, 0} : KInt4{i, -1, -1, 1})) << i;
    EXPECT_TRUE(x.sink.outputs().empty()) << "no \"Found\" line in this mode";
}

TEST(DeformationTransferPairing, DifferentTopologyTakesTheNearestCentreThatFacesTheSameWay) {
    Access x;
    const KTriMesh source = Icosphere(2);
    KTriMesh target = Icosphere(1);
    std::swap(target.triangles[3][1], target.triangles[3][2]);  // faces away
    // Triangle 5 moved far off: no source centre within the radius.
    for (int k = 0; k < 3; ++k) {
        target.points.push_back(target.points[target.triangles[5][k]] * 50.0f);
        target.triangles[5][k] = target.points.length() - 1;
    }
    const KInt4Array& tc = x.access.pair(source, target, 2);
    KVectorArray srcCentres, trgCentres;
    source.getTriangleCenters(srcCentres, true);
    target.getTriangleCenters(trgCentres, true);
    for (int i = 0; i < 80; ++i) {
        int best = 0;
        for (int s = 1; s < srcCentres.length(); ++s)
            if ((srcCentres[s] - trgCentres[i]).length() < (srcCentres[best] - trgCentres[i]).length()) best = s;
        EXPECT_TRUE(tc[i] == (i == 3 || i == 5 ? KInt4{-1, -1, -1, 0} : KInt4{best, -1, -1, 1})) << i;
    }
    EXPECT_EQ(x.sink.outputs().size(), 1u);
}
