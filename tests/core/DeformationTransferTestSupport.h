#pragma once
// Shared by the deformation-transfer tests: generated meshes, a reader for the solver's private
// stages, and small geometry helpers.

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <map>
#include <utility>
#include <vector>

#include "KDeformationTransferInternal.h"
#include "KMessageSink.h"
#include "KTriMeshConnectionInfo.h"

namespace Kavrin {

// Reaches the solver's private stages and state so that the row layout and the pairing can be
// checked piece by piece.
struct KDeformationTransferTestAccess {
    struct Entry {
        int row, col;
        double value;
    };
    struct Assembly {
        int budgetRows = 0;  // _nRows
        int rows = 0;        // _row after the terms
        int tripletRows = 0; // T->nrow
        int nCols = 0;       // _nCols
        std::vector<Entry> entries;
        std::vector<double> b;
    };

    KDeformationTransferSolver& s;
    KActiveSolverScope scope;

    KDeformationTransferTestAccess(KDeformationTransferSolver& solver, KMessageSink& sink)
        : s(solver), scope(&solver) {
        s._sink = &sink;
        s._aborted = false;
    }
    ~KDeformationTransferTestAccess() { s._sink = nullptr; }

    void load(const KTriMesh& src, const KTriMesh& trg, const std::vector<std::pair<int, int> >& pairs,
              short calcMode = 1, short aim = 2) {
        s._srcMesh = src;
        s._trgMesh = trg;
        s._refSrcMesh = src;
        s._calcMode = calcMode;
        s._aim = aim;
        s._vertCorres.clear();
        for (const auto& p : pairs) s._vertCorres.push_back(KInt2{p.first, p.second});
    }

    bool prepare(int& nFree, int& nAdj) { return s._prepareFitting(nFree, nAdj); }

    // Assembles the source-fitting system on the current source points with the budget of the
    // first (closest = false) or of the later solves, the way one solve does, and reads it back.
    Assembly assemble(bool closest, double wClosest = 1.0) {
        int nFree = 0, nAdj = 0;
        Assembly a;
        if (!prepare(nFree, nAdj)) return a;
        const int nTris = s._srcMesh.numTriangles();
        const int nVerts = s._srcMesh.numVertices();
        s._nCols = 3 * (nTris + nFree);
        s._nRows = (closest ? 3 * nFree : 0) + 9 * (nAdj + nTris);
        s._startCholmod();
        cholmod_common* cm = s._common.get();
        s._T = cholmod_allocate_triplet(s._nRows, s._nCols, 0, 0, CHOLMOD_REAL, cm);
        s._b = cholmod_zeros(s._nRows, 1, CHOLMOD_REAL, cm);
        s._row = 0;
        s._wSmooth = 1.0;
        s._wIdentity = 0.01;
        s._wClosest = wClosest;
        if (closest) {
            s._closestPts.setLength(nVerts, false);
            for (int i = 0; i < nVerts; ++i)
                s._closestPts[i] = s._srcMesh.points[i] + KVector(0.5f, -0.25f, 0.125f);
        }
        s._createElementaryMatrix(nTris, s._srcMesh.points, s._srcMesh.triangles);
        s._appendSmoothTerm(nTris, nVerts, s._srcMesh.triangles);
        s._appendIdentityTerm(nTris, nVerts, s._srcMesh.triangles);
        if (closest) s._appendClosestTerm(nVerts);
        a.budgetRows = s._nRows;
        a.rows = s._row;
        a.tripletRows = static_cast<int>(s._T->nrow);
        a.nCols = s._nCols;
        const int* ti = static_cast<const int*>(s._T->i);
        const int* tj = static_cast<const int*>(s._T->j);
        const double* tx = static_cast<const double*>(s._T->x);
        for (size_t k = 0; k < s._T->nnz; ++k) a.entries.push_back(Entry{ti[k], tj[k], tx[k]});
        const double* bx = static_cast<const double*>(s._b->x);
        a.b.assign(bx, bx + s._b->nrow);
        cholmod_free_triplet(&s._T, cm);
        cholmod_free_dense(&s._b, cm);
        s._finishCholmod();
        return a;
    }

    void setT2t(const KInt3Array& t2t) { s._t2t = t2t; }

    // Smooth rows only, over a hand-made adjacency table (nothing pinned).
    int smoothRows(const KTriMesh& src, const KInt3Array& t2t) {
        load(src, src, {});
        int nFree = 0, nAdj = 0;
        prepare(nFree, nAdj);
        s._t2t = t2t;
        s._nCols = 3 * (src.numTriangles() + nFree);
        s._nRows = 0;
        s._startCholmod();
        cholmod_common* cm = s._common.get();
        s._T = cholmod_allocate_triplet(0, s._nCols, 0, 0, CHOLMOD_REAL, cm);
        s._b = cholmod_zeros(0, 1, CHOLMOD_REAL, cm);
        s._row = 0;
        s._wSmooth = 1.0;
        s._appendSmoothTerm(src.numTriangles(), src.numVertices(), src.triangles);
        const int rows = s._row;
        cholmod_free_triplet(&s._T, cm);
        cholmod_free_dense(&s._b, cm);
        s._finishCholmod();
        return rows;
    }

    // Builds the transfer system for target with a hand-made pairing against the rest source.
    int build(const KTriMesh& src, const KTriMesh& trg, const KInt4Array& triCorres) {
        load(src, trg, {});
        s._triCorres = triCorres;
        return s._createCoefficientMatrix();
    }
    int transfer(const KTriMesh& posedSource) {
        s._srcMesh = posedSource;
        return s._deformationTransfer();
    }
    int rowsUsed() const { return s._row; }
    int nRows() const { return s._nRows; }
    const KTriMesh& target() const { return s._trgMesh; }
    const KTriMesh& source() const { return s._srcMesh; }
    bool aborted() const { return s._aborted; }

    int pair(const KTriMesh& fittedSource, const KTriMesh& trg, short calcMode, const KInt4Array& before) {
        s._srcMesh = fittedSource;
        s._trgMesh = trg;
        s._calcMode = calcMode;
        s._triCorres = before;
        return s._pairTriangles();
    }
    const KInt4Array& triCorres() const { return s._triCorres; }
    void setTriCorres(const KInt4Array& t) { s._triCorres = t; }
    int vertCorresCount() const { return s._vertCorres.length(); }
    int srcCols(int v, int k) const { return s._srcCols[v][k]; }

    void writeLog() { s._writeTriCorresLog(); }

    // Objects the solver's sparse-library context holds (counted since its last start).
    long cholmodObjects() const { return static_cast<long>(s._common->malloc_count); }

    void printTriplet(const std::vector<Entry>& entries, int nrow, int ncol) {
        s._startCholmod();
        cholmod_common* cm = s._common.get();
        cholmod_triplet* T = cholmod_allocate_triplet(nrow, ncol, 0, 0, CHOLMOD_REAL, cm);
        for (const Entry& e : entries) s.CHOLMOD_entry(T, e.row, e.col, e.value);
        s._printTriplet(T);
        cholmod_free_triplet(&T, cm);
        s._finishCholmod();
    }
    // Appends n entries to an empty triplet and reports its final capacity and shape.
    void growTriplet(int n, size_t& nzmax, size_t& nrow, size_t& ncol) {
        s._startCholmod();
        cholmod_common* cm = s._common.get();
        cholmod_triplet* T = cholmod_allocate_triplet(2, 2, 0, 0, CHOLMOD_REAL, cm);
        for (int k = 0; k < n; ++k) s.CHOLMOD_entry(T, k, 2 * k, 1.0 + k);
        nzmax = T->nzmax;
        nrow = T->nrow;
        ncol = T->ncol;
        cholmod_free_triplet(&T, cm);
        s._finishCholmod();
    }
};

namespace dttest {

// A fixed clock (Tue Nov 14 22:13:20 2023 UTC) and the time zone that makes its text known.
inline std::time_t FixedClock() { return 1700000000; }
inline void UseUtc() {
    setenv("TZ", "UTC", 1);
    tzset();
}
const char* const kFixedDate = "Tue Nov 14 22:13:20 2023\n";

// Unit icosphere: the icosahedron split `levels` times, every new vertex pushed onto the sphere.
// Closed and manifold; winding outward.
inline KTriMesh Icosphere(int levels) {
    const float t = (1.0f + std::sqrt(5.0f)) / 2.0f;
    KTriMesh m;
    const float v[12][3] = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0}, {0, -1, t}, {0, 1, t},
                            {0, -1, -t}, {0, 1, -t}, {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
    for (const auto& p : v) m.points.push_back(KVector(p[0], p[1], p[2]).normalized());
    const int f[20][3] = {{0, 11, 5}, {0, 5, 1}, {0, 1, 7}, {0, 7, 10}, {0, 10, 11}, {1, 5, 9}, {5, 11, 4},
                          {11, 10, 2}, {10, 7, 6}, {7, 1, 8}, {3, 9, 4}, {3, 4, 2}, {3, 2, 6}, {3, 6, 8},
                          {3, 8, 9}, {4, 9, 5}, {2, 4, 11}, {6, 2, 10}, {8, 6, 7}, {9, 8, 1}};
    for (const auto& tri : f) m.triangles.push_back(KInt3{tri[0], tri[1], tri[2]});
    for (int l = 0; l < levels; ++l) {
        std::map<std::pair<int, int>, int> mid;
        auto middle = [&](int a, int b) {
            const std::pair<int, int> key(std::min(a, b), std::max(a, b));
            auto it = mid.find(key);
            if (it != mid.end()) return it->second;
            m.points.push_back(((m.points[a] + m.points[b]) * 0.5f).normalized());
            const int id = m.points.length() - 1;
            mid[key] = id;
            return id;
        };
        KInt3Array next;
        for (const KInt3& tri : m.triangles) {
            const int a = middle(tri[0], tri[1]);
            const int b = middle(tri[1], tri[2]);
            const int c = middle(tri[2], tri[0]);
            next.push_back(KInt3{tri[0], a, c});
            next.push_back(KInt3{tri[1], b, a});
            next.push_back(KInt3{tri[2], c, b});
            next.push_back(KInt3{a, b, c});
        }
        m.triangles = next;
    }
    return m;
}

// Deterministic radial bumps, so that the surface has detail and no two triangles are alike.
inline void Bump(KTriMesh& m, float amount, int seed) {
    for (int i = 0; i < m.points.length(); ++i) {
        const float s = 1.0f + amount * std::sin(1.7f * i + seed) * std::cos(0.37f * i * seed + 0.5f);
        m.points[i] *= s;
    }
}

// Closed box of n x n quads per face (two triangles each), outward winding, side 2 at the origin.
inline KTriMesh Box(int n) {
    KTriMesh m;
    std::map<std::vector<int>, int> ids;
    auto vertex = [&](int x, int y, int z) {
        const std::vector<int> key = {x, y, z};
        auto it = ids.find(key);
        if (it != ids.end()) return it->second;
        m.points.push_back(KVector(2.0f * x / n - 1.0f, 2.0f * y / n - 1.0f, 2.0f * z / n - 1.0f));
        const int id = m.points.length() - 1;
        ids[key] = id;
        return id;
    };
    // Each face: a fixed axis at 0 or n, two running axes (u, v) chosen so that u x v points out.
    for (int axis = 0; axis < 3; ++axis) {
        for (int side = 0; side < 2; ++side) {
            const int u = (axis + 1) % 3;
            const int w = (axis + 2) % 3;
            for (int i = 0; i < n; ++i) {
                for (int j = 0; j < n; ++j) {
                    int c[4][3];
                    const int corners[4][2] = {{i, j}, {i + 1, j}, {i + 1, j + 1}, {i, j + 1}};
                    for (int k = 0; k < 4; ++k) {
                        c[k][axis] = side * n;
                        c[k][u] = corners[k][0];
                        c[k][w] = corners[k][1];
                    }
                    int q[4];
                    for (int k = 0; k < 4; ++k) q[k] = vertex(c[k][0], c[k][1], c[k][2]);
                    if (side == 1) {
                        m.triangles.push_back(KInt3{q[0], q[1], q[2]});
                        m.triangles.push_back(KInt3{q[0], q[2], q[3]});
                    } else {
                        m.triangles.push_back(KInt3{q[0], q[2], q[1]});
                        m.triangles.push_back(KInt3{q[0], q[3], q[2]});
                    }
                }
            }
        }
    }
    return m;
}

// Open sheet of (n-1)^2 quads in the XY plane, two triangles each, normals along +Z.
inline KTriMesh Grid(int n, float size = 2.0f) {
    KTriMesh m;
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i)
            m.points.push_back(KVector(size * i / (n - 1) - size / 2, size * j / (n - 1) - size / 2, 0.0f));
    for (int j = 0; j + 1 < n; ++j) {
        for (int i = 0; i + 1 < n; ++i) {
            const int a = j * n + i, b = a + 1, c = a + n + 1, d = a + n;
            m.triangles.push_back(KInt3{a, b, c});
            m.triangles.push_back(KInt3{a, c, d});
        }
    }
    return m;
}

// Rotation about an axis through the origin (Rodrigues), in double precision.
struct Rotation {
    double m[3][3];
    Rotation(double ax, double ay, double az, double angle) {
        const double len = std::sqrt(ax * ax + ay * ay + az * az);
        ax /= len;
        ay /= len;
        az /= len;
        const double c = std::cos(angle), s = std::sin(angle), C = 1 - c;
        const double r[3][3] = {{c + ax * ax * C, ax * ay * C - az * s, ax * az * C + ay * s},
                                {ay * ax * C + az * s, c + ay * ay * C, ay * az * C - ax * s},
                                {az * ax * C - ay * s, az * ay * C + ax * s, c + az * az * C}};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) m[i][j] = r[i][j];
    }
    KVector operator()(const KVector& p) const {
        return KVector(float(m[0][0] * p.x + m[0][1] * p.y + m[0][2] * p.z),
                       float(m[1][0] * p.x + m[1][1] * p.y + m[1][2] * p.z),
                       float(m[2][0] * p.x + m[2][1] * p.y + m[2][2] * p.z));
    }
};

inline double BoxDiagonal(const KVectorArray& points) {
    double lo[3] = {1e30, 1e30, 1e30}, hi[3] = {-1e30, -1e30, -1e30};
    for (const KVector& p : points)
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], double(p[k]));
            hi[k] = std::max(hi[k], double(p[k]));
        }
    return std::sqrt((hi[0] - lo[0]) * (hi[0] - lo[0]) + (hi[1] - lo[1]) * (hi[1] - lo[1]) +
                     (hi[2] - lo[2]) * (hi[2] - lo[2]));
}

}  // namespace dttest
}  // namespace Kavrin
