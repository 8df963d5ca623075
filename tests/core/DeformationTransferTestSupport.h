#pragma once
// Shared by the deformation-transfer tests and bench: generated meshes and a reader for the
// solver's private stages.

#include <cmath>
#include <utility>
#include <vector>

#include "KDeformationTransferInternal.h"
#include "KMessageSink.h"
#include "MeshGenerators.h"

namespace Kavrin {

// Reaches the solver's private stages so that the row layout and the pairing can be checked
// piece by piece.
struct KDeformationTransferTestAccess {
    struct Assembly {
        int rows = 0, nCols = 0;
        std::vector<int> row, col;
        std::vector<double> value, b;
    };

    KDeformationTransferSolver& s;
    KActiveSolverScope scope;

    KDeformationTransferTestAccess(KDeformationTransferSolver& solver, KMessageSink& sink) : s(solver), scope(&solver) {
        s._sink = &sink;
        s._aborted = false;
        s._failure.clear();
    }
    ~KDeformationTransferTestAccess() { s._sink = nullptr; }

    // Source and target, with each listed source vertex pinned to the target vertex of the same index.
    void load(const KTriMesh& src, const KTriMesh& trg, const std::vector<int>& pins) {
        s._srcMesh = s._refSrcMesh = src;
        s._trgMesh = trg;
        s._vertCorres.clear();
        for (int v : pins) s._vertCorres.push_back(KInt2{v, v});
    }

    // Runs the fit of a "Source To Target" recalculation without iterations: the first solve and
    // the one with the closest term, whose budget and rows then stay in nRows() and rowsUsed().
    int fit(const KTriMesh& src, const KTriMesh& trg, const std::vector<int>& pins) {
        load(src, trg, pins);
        s._aim = KDeformationTransferSolver::kSourceToTarget;
        s._calcMode = KDeformationTransferSolver::kSameTopology;
        s._iterCount = 0;
        return s._findTriangleCorrespondence();
    }
    int nCols() const { return s._nCols; }

    // Assembles the source-fitting system the way one solve does, with the budget of the first
    // solve (closest = false) or of the later ones (closest points: each vertex + (0.5, -0.25, 0.125)).
    Assembly assemble(bool closest, double wClosest = 1.0) {
        int nFree = 0, nAdj = 0;
        Assembly a;
        if (!s._prepareFitting(nFree, nAdj)) return a;
        const int nTris = s._srcMesh.numTriangles(), nVerts = s._srcMesh.numVertices();
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
        s._closestPts.setLength(nVerts, false);
        for (int i = 0; i < nVerts; ++i) s._closestPts[i] = s._srcMesh.points[i] + KVector(0.5f, -0.25f, 0.125f);
        s._appendSmoothTerm(nTris, nVerts, s._srcMesh.triangles);
        s._appendIdentityTerm(nTris, nVerts, s._srcMesh.triangles);
        if (closest) s._appendClosestTerm(nVerts);
        a.rows = s._row;
        a.nCols = s._nCols;
        const int* ti = static_cast<const int*>(s._T->i);
        const int* tj = static_cast<const int*>(s._T->j);
        const double* tx = static_cast<const double*>(s._T->x);
        a.row.assign(ti, ti + s._T->nnz);
        a.col.assign(tj, tj + s._T->nnz);
        a.value.assign(tx, tx + s._T->nnz);
        const double* bx = static_cast<const double*>(s._b->x);
        a.b.assign(bx, bx + s._b->nrow);
        cholmod_free_triplet(&s._T, cm);
        cholmod_free_dense(&s._b, cm);
        s._finishCholmod();
        return a;
    }
    int srcCols(int v, int k) const { return s._srcCols[v][k]; }

    // Builds the transfer system for trg with a hand-made pairing against the rest source.
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

    const KInt4Array& pair(const KTriMesh& fittedSource, const KTriMesh& trg, short calcMode) {
        load(fittedSource, trg, {});
        s._calcMode = calcMode;
        s._pairTriangles();
        return s._triCorres;
    }
    int vertCorresCount() const { return s._vertCorres.length(); }
    // The errors shown on the way, then the message of a stage that gave up.
    std::vector<std::string> errors(const KRecordingSink& sink) const {
        std::vector<std::string> all = sink.errors();
        if (s._aborted) all.push_back(s._failure);
        return all;
    }
    // Objects the solver's sparse-library context holds.
    long cholmodObjects() const { return static_cast<long>(s._common->malloc_count); }
};

namespace dttest {

// Unit icosphere: the icosahedron split `levels` times. Closed, manifold, wound outward; the
// twelve corners keep indices 0-11 at every level.
inline KTriMesh Icosphere(int levels) {
    KTriMesh m;
    MakeIcosphere(levels).triangulate(m);
    return m;
}

// Deterministic radial bumps, so that no two triangles are alike.
inline void Bump(KTriMesh& m, float amount, int seed) {
    for (int i = 0; i < m.points.length(); ++i)
        m.points[i] *= 1.0f + amount * std::sin(1.7f * i + seed) * std::cos(0.37f * i * seed + 0.5f);
}

// Open n x n vertex sheet of side 2 in the XY plane, two triangles per quad, normals along +Z.
inline KTriMesh Grid(int n) {
    KTriMesh m;
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) m.points.push_back(KVector(2.0f * i / (n - 1) - 1, 2.0f * j / (n - 1) - 1, 0));
    for (int j = 0; j + 1 < n; ++j)
        for (int i = 0; i + 1 < n; ++i) {
            const int a = j * n + i;
            m.triangles.push_back(KInt3{a, a + 1, a + n + 1});
            m.triangles.push_back(KInt3{a, a + n + 1, a + n});
        }
    return m;
}

}  // namespace dttest
}  // namespace Kavrin
