// Deformation transfer: the row layout and contents of the source-fitting system, the transfer
// system's handling of unpaired triangles, the triangle pairing and the triplet helpers.

#include <gtest/gtest.h>

#include <cmath>

#include "DeformationTransferTestSupport.h"

using namespace Kavrin;
using namespace Kavrin::dttest;

namespace {

std::vector<std::pair<int, int> > SelfPairs(std::initializer_list<int> ids) {
    std::vector<std::pair<int, int> > p;
    for (int i : ids) p.push_back(std::make_pair(i, i));
    return p;
}

// 3x3 in double, row-major, for the independent gradient computation below.
struct M3 {
    double a[3][3];
};

M3 Inverse(const M3& m) {
    // Gauss-Jordan with partial pivoting.
    double w[3][6];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 6; ++j) w[i][j] = j < 3 ? m.a[i][j] : (j - 3 == i ? 1.0 : 0.0);
    for (int c = 0; c < 3; ++c) {
        int p = c;
        for (int r = c + 1; r < 3; ++r)
            if (std::fabs(w[r][c]) > std::fabs(w[p][c])) p = r;
        for (int j = 0; j < 6; ++j) std::swap(w[c][j], w[p][j]);
        const double d = w[c][c];
        for (int j = 0; j < 6; ++j) w[c][j] /= d;
        for (int r = 0; r < 3; ++r) {
            if (r == c) continue;
            const double f = w[r][c];
            for (int j = 0; j < 6; ++j) w[r][j] -= f * w[c][j];
        }
    }
    M3 out;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) out.a[i][j] = w[i][j + 3];
    return out;
}

// The deformation gradient of triangle t: deformed frame [q2 - q1, q3 - q1, q4 - q1] times the
// inverse of the rest frame [e1, e2, c / |c|^(1/2)].
M3 Gradient(const KTriMesh& rest, int t, const std::vector<KVector>& q, const KVector& q4) {
    const KInt3& tri = rest.triangles[t];
    const KVector p1 = rest.points[tri[0]], p2 = rest.points[tri[1]], p3 = rest.points[tri[2]];
    double e1[3], e2[3], c[3];
    for (int k = 0; k < 3; ++k) {
        e1[k] = p2[k] - p1[k];
        e2[k] = p3[k] - p1[k];
    }
    c[0] = e1[1] * e2[2] - e1[2] * e2[1];
    c[1] = e1[2] * e2[0] - e1[0] * e2[2];
    c[2] = e1[0] * e2[1] - e1[1] * e2[0];
    const double s = std::sqrt(std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]));
    M3 v, d;
    for (int r = 0; r < 3; ++r) {
        v.a[r][0] = e1[r];
        v.a[r][1] = e2[r];
        v.a[r][2] = c[r] / s;
        d.a[r][0] = q[tri[1]][r] - q[tri[0]][r];
        d.a[r][1] = q[tri[2]][r] - q[tri[0]][r];
        d.a[r][2] = q4[r] - q[tri[0]][r];
    }
    const M3 vi = Inverse(v);
    M3 g;
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 3; ++k) g.a[r][k] = d.a[r][0] * vi.a[0][k] + d.a[r][1] * vi.a[1][k] + d.a[r][2] * vi.a[2][k];
    return g;
}

int EmptySlotZeroCount(const KTriMesh& m) {
    KTriMeshConnectionInfo info(m);
    info.calculate_t2t();
    int n = 0;
    for (const KInt3& s : info.t2t)
        if (s[0] == -1) ++n;
    return n;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Row budgets

TEST(DeformationTransferRows, ClosedManifoldUsesExactlyTheBudget) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    const KTriMesh sphere = Icosphere(2);
    access.load(sphere, sphere, SelfPairs({0, 5, 9}));
    for (bool closest : {false, true}) {
        const auto a = access.assemble(closest);
        EXPECT_EQ(a.rows, a.budgetRows);
        EXPECT_EQ(a.tripletRows, a.budgetRows);
        EXPECT_EQ(a.budgetRows, (closest ? 3 * (162 - 3) : 0) + 9 * (3 * 320 + 320));
        EXPECT_EQ(a.nCols, 3 * (162 - 3 + 320));
    }
    EXPECT_TRUE(sink.entries.empty());
}

TEST(DeformationTransferRows, EmptySlotZeroAddsNineRows) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    const KTriMesh grid = Grid(5);
    const int extra = EmptySlotZeroCount(grid);
    ASSERT_GT(extra, 0);
    access.load(grid, grid, SelfPairs({0}));
    const auto a = access.assemble(true);
    EXPECT_EQ(a.rows, a.budgetRows + 9 * extra);
    EXPECT_EQ(a.tripletRows, a.rows) << "the triplet grows past its allocated rows";
    EXPECT_EQ(static_cast<int>(a.b.size()), a.budgetRows) << "the right-hand side keeps the budgeted size";

    // Hand-made adjacency on two triangles, slot by slot.
    KTriMesh two;
    two.points = grid.points;
    two.triangles.push_back(grid.triangles[0]);
    two.triangles.push_back(grid.triangles[1]);
    struct Case {
        KInt3 slots;
        int rows;
    } cases[] = {{KInt3{-1, -1, -1}, 9},  {KInt3{1, -1, -1}, 9},  {KInt3{-1, 1, -1}, 18},
                 {KInt3{-1, -1, 1}, 18},  {KInt3{1, 1, -1}, 18},  {KInt3{1, -1, 1}, 18},
                 {KInt3{-1, 1, 1}, 27},   {KInt3{1, 1, 1}, 27}};
    for (const Case& c : cases) {
        KInt3Array t2t;
        t2t.push_back(c.slots);
        t2t.push_back(KInt3{-1, -1, -1});  // the second triangle: one unpaired block
        EXPECT_EQ(access.smoothRows(two, t2t), c.rows + 9)
            << c.slots[0] << " " << c.slots[1] << " " << c.slots[2];
    }
}

TEST(DeformationTransferRows, AllVerticesPinnedLeavesOnlyFourthVertexColumns) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    const KTriMesh sphere = Icosphere(1);
    KTriMesh target = sphere;
    Bump(target, 0.1f, 4);
    std::vector<std::pair<int, int> > all;
    for (int i = 0; i < sphere.numVertices(); ++i) all.push_back(std::make_pair(i, i));
    access.load(sphere, target, all);
    const auto a = access.assemble(true);
    EXPECT_EQ(a.nCols, 3 * sphere.numTriangles());
    EXPECT_EQ(a.budgetRows, 9 * (3 * 80 + 80)) << "no closest rows";
    EXPECT_EQ(a.rows, a.budgetRows);
    for (int v = 0; v < sphere.numVertices(); ++v) EXPECT_EQ(access.srcCols(v, 0), -1);
    for (const auto& e : a.entries) {
        ASSERT_GE(e.col, 0);
        ASSERT_LT(e.col, 3 * sphere.numTriangles());
    }
    // Each row holds exactly the fourth-vertex coefficient; the three corners moved to b.
    std::vector<int> perRow(a.rows, 0);
    for (const auto& e : a.entries) ++perRow[e.row];
    for (int r = 0; r < 9 * 80 * 3; ++r) ASSERT_EQ(perRow[r], 2) << "smooth row " << r;
    for (int r = 9 * 80 * 3; r < a.rows; ++r) ASSERT_EQ(perRow[r], 1) << "identity row " << r;
}

// ---------------------------------------------------------------------------------------------
// Row contents against independently computed deformation gradients

TEST(DeformationTransferRows, RowsStateTheSmoothIdentityAndClosestEquations) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    KTriMesh rest = Icosphere(1);
    Bump(rest, 0.08f, 5);
    KTriMesh target = rest;
    Bump(target, 0.1f, 6);
    const auto pins = SelfPairs({2, 7, 30});
    access.load(rest, target, pins);
    const double wc = 3.0;
    const auto a = access.assemble(true, wc);
    const int nV = rest.numVertices(), nT = rest.numTriangles();

    // An arbitrary value for every unknown; pinned vertices sit on their target positions.
    std::vector<double> X(a.nCols);
    for (int c = 0; c < a.nCols; ++c) X[c] = std::sin(0.7 * c + 0.3) * 0.5 + 0.1 * (c % 3);
    std::vector<KVector> q(nV);
    std::vector<bool> pinned(nV, false);
    for (const auto& p : pins) pinned[p.first] = true;
    for (int v = 0; v < nV; ++v) {
        if (pinned[v])
            q[v] = target.points[v];
        else
            q[v] = KVector(float(X[access.srcCols(v, 0)]), float(X[access.srcCols(v, 1)]), float(X[access.srcCols(v, 2)]));
    }
    // The solver's columns of a free vertex must be consecutive, in index order.
    int f = 0;
    for (int v = 0; v < nV; ++v)
        if (!pinned[v]) {
            EXPECT_EQ(access.srcCols(v, 0), 3 * f);
            ++f;
        }
    std::vector<M3> g(nT);
    for (int t = 0; t < nT; ++t) {
        const int c0 = 3 * (f + t);
        for (int k = 0; k < 3; ++k) EXPECT_EQ(access.srcCols(nV + t, k), c0 + k);
        // The fourth vertex is an unknown like the others.
        const KVector q4(float(X[c0]), float(X[c0 + 1]), float(X[c0 + 2]));
        std::vector<KVector> qd(q.begin(), q.end());
        g[t] = Gradient(rest, t, qd, q4);
    }
    // Residual A X - b; the float rounding of X above is mirrored here so that both sides use
    // the same positions.
    for (int c = 0; c < a.nCols; ++c) X[c] = float(X[c]);
    std::vector<double> res(a.rows, 0.0);
    for (const auto& e : a.entries) res[e.row] += e.value * X[e.col];
    for (int r = 0; r < a.rows; ++r) res[r] -= a.b[r];

    KTriMeshConnectionInfo info(rest);
    info.calculate_t2t();
    int row = 0;
    for (int t = 0; t < nT; ++t) {
        for (int s = 0; s < 3; ++s) {
            const int u = info.t2t[t][s];
            ASSERT_NE(u, -1);
            for (int r = 0; r < 3; ++r)
                for (int k = 0; k < 3; ++k)
                    ASSERT_NEAR(res[row + 3 * r + k], g[t].a[r][k] - g[u].a[r][k], 1e-6)
                        << "smooth pair " << t << "-" << u << " entry " << r << k;
            row += 9;
        }
    }
    for (int t = 0; t < nT; ++t) {
        for (int r = 0; r < 3; ++r)
            for (int k = 0; k < 3; ++k)
                ASSERT_NEAR(res[row + 3 * r + k], 0.01 * (g[t].a[r][k] - (r == k ? 1.0 : 0.0)), 1e-6)
                    << "identity " << t << " entry " << r << k;
        row += 9;
    }
    for (int v = 0; v < nV; ++v) {
        if (pinned[v]) continue;
        const KVector closest = rest.points[v] + KVector(0.5f, -0.25f, 0.125f);
        for (int r = 0; r < 3; ++r) ASSERT_NEAR(res[row + r], wc * (q[v][r] - closest[r]), 1e-6);
        row += 3;
    }
    EXPECT_EQ(row, a.rows);
}

// ---------------------------------------------------------------------------------------------
// Transfer system

TEST(DeformationTransferSystem, UnpairedTrianglesKeepTheirRestShape) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    KTriMesh source = Icosphere(1);
    KTriMesh target = Icosphere(2);
    Bump(target, 0.07f, 8);
    const int nTT = target.numTriangles();

    KInt4Array none;
    none.setLengthWithValue(nTT, KInt4{-1, -1, -1, 0});
    ASSERT_EQ(access.build(source, target, none), 1);
    EXPECT_EQ(access.nRows(), 9 * nTT);
    EXPECT_EQ(access.rowsUsed(), 9 * nTT);
    // Whatever the source does, identity gradients give back the rest target up to a translation.
    KTriMesh posed = source;
    for (KVector& p : posed.points) p = KVector(p.x * 2.0f, p.y, -p.z);
    ASSERT_EQ(access.transfer(posed), 1);
    const KTriMesh& out = access.target();
    double worst = 0;
    for (int i = 0; i < target.numVertices(); ++i)
        worst = std::max(worst, double(((out.points[i] - out.points[0]) - (target.points[i] - target.points[0])).length()));
    EXPECT_LT(worst, 1e-5);
    EXPECT_TRUE(sink.entries.empty());
}

TEST(DeformationTransferSystem, NegativeCountAddsNoRowsAndLeavesTheSystemSingular) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    const KTriMesh mesh = Icosphere(1);
    KInt4Array pairing;
    pairing.setLengthWithValue(mesh.numTriangles(), KInt4{-1, -1, -1, 0});
    pairing[4] = KInt4{-1, -1, -1, -1};
    pairing[9] = KInt4{3, -1, -1, 1};
    EXPECT_EQ(access.build(mesh, mesh, pairing), 0);
    EXPECT_EQ(access.nRows(), 9 * mesh.numTriangles()) << "the budget counts every triangle at least once";
    EXPECT_EQ(access.rowsUsed(), 9 * (mesh.numTriangles() - 1));
    // Triangle 4's fourth vertex appears in no row.
    EXPECT_EQ(sink.errors(), std::vector<std::string>{"KDeformationTransfer: the normal equations of the transfer "
                                                      "system are singular; the transfer system was not built."});
}

TEST(DeformationTransferSystem, PairingThatNamesMissingSourceTrianglesIsRefused) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    const KTriMesh mesh = Icosphere(1);
    KInt4Array pairing;
    pairing.setLengthWithValue(mesh.numTriangles(), KInt4{-1, -1, -1, 0});
    pairing[6] = KInt4{80, -1, -1, 1};
    EXPECT_EQ(access.build(mesh, mesh, pairing), 0);
    EXPECT_EQ(sink.errors(), std::vector<std::string>{"KDeformationTransfer: the triangle correspondence of target "
                                                      "triangle 6 names a source triangle the source mesh does not "
                                                      "have; the transfer system was not built."});
}

// ---------------------------------------------------------------------------------------------
// Triangle pairing

TEST(DeformationTransferPairing, SameTopologyPairsEachTriangleWithItselfUnlessItFacesAway) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    const KTriMesh source = Icosphere(1);
    KTriMesh target = source;
    std::swap(target.triangles[7][1], target.triangles[7][2]);  // faces inward
    KInt4Array before;
    ASSERT_EQ(access.pair(source, target, 1, before), 1);
    const KInt4Array& tc = access.triCorres();
    ASSERT_EQ(tc.length(), target.numTriangles());
    for (int i = 0; i < tc.length(); ++i) {
        if (i == 7)
            EXPECT_TRUE(tc[i] == (KInt4{-1, -1, -1, 0})) << "the initial -1 incremented by one";
        else
            EXPECT_TRUE(tc[i] == (KInt4{i, -1, -1, 1}));
    }
    EXPECT_TRUE(sink.outputs().empty()) << "no \"Found\" line in this mode";
}

TEST(DeformationTransferPairing, DifferentTopologyTakesTheNearestCentreThatFacesTheSameWay) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    const KTriMesh source = Icosphere(2);
    KTriMesh target = Icosphere(1);
    const int nT = target.numTriangles();
    std::swap(target.triangles[3][1], target.triangles[3][2]);  // faces away from its neighbour
    // Triangle 5 moved far off: no source centre within the radius.
    KTriMesh far = target;
    for (int k = 0; k < 3; ++k) far.points.push_back(target.points[target.triangles[5][k]] * 50.0f);
    far.triangles[5] = KInt3{far.points.length() - 3, far.points.length() - 2, far.points.length() - 1};
    ASSERT_EQ(access.pair(source, far, 2, KInt4Array()), 1);
    KVectorArray srcCenters, trgCenters;
    source.getTriangleCenters(srcCenters, true);
    far.getTriangleCenters(trgCenters, true);
    const KInt4Array& tc = access.triCorres();
    for (int i = 0; i < nT; ++i) {
        if (i == 3 || i == 5) {
            EXPECT_TRUE(tc[i] == (KInt4{-1, -1, -1, 0})) << i;
            continue;
        }
        // Brute-force nearest source centre.
        int best = -1;
        float bestD = 1e30f;
        for (int s = 0; s < srcCenters.length(); ++s) {
            const float d = (srcCenters[s] - trgCenters[i]).length();
            if (d < bestD) {
                bestD = d;
                best = s;
            }
        }
        EXPECT_TRUE(tc[i] == (KInt4{best, -1, -1, 1})) << i;
    }
    EXPECT_EQ(sink.outputs().size(), 1u);
}

TEST(DeformationTransferPairing, InvalidModeClearsThePairingAndFails) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    const KTriMesh mesh = Icosphere(1);
    KInt4Array old;
    old.push_back(KInt4{1, 2, 3, 1});
    EXPECT_EQ(access.pair(mesh, mesh, 5, old), 0);
    EXPECT_EQ(sink.errors(), std::vector<std::string>{"Invalid value of calc mode."});
    ASSERT_EQ(access.triCorres().length(), mesh.numTriangles());
    for (const KInt4& t : access.triCorres()) EXPECT_TRUE(t == (KInt4{-1, -1, -1, -1}));
}

// ---------------------------------------------------------------------------------------------
// Triplet helpers

TEST(DeformationTransferTriplet, EntriesGrowStorageByDoublingAndStretchTheShape) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    size_t nzmax = 0, nrow = 0, ncol = 0;
    access.growTriplet(5, nzmax, nrow, ncol);
    EXPECT_EQ(nzmax, 8u) << "1, 2, 4, 8";
    EXPECT_EQ(nrow, 5u);
    EXPECT_EQ(ncol, 9u);
    access.growTriplet(1, nzmax, nrow, ncol);
    EXPECT_EQ(nzmax, 1u);
    EXPECT_EQ(nrow, 2u) << "an entry inside the shape leaves it";
    EXPECT_EQ(ncol, 2u);
}

TEST(DeformationTransferTriplet, PrintListsTheHeaderAndEveryEntry) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    access.printTriplet({{0, 1, 2.5}, {3, 0, -1.0}}, 4, 2);
    EXPECT_EQ(sink.outputs(), std::vector<std::string>{"triplet M print\nM->xtype? 1\nM->stype(upper/lower)? 0\n"
                                                       "M->dtype? 0\nM->nnz? 2\nM(0, 1) = 2.5\nM(3, 0) = -1\n"});
}
