// Deformation transfer: the sparse least-squares systems. The source-fitting system deforms the
// source onto the target during the correspondence search; the transfer system is built and
// factored once per recalculation and solved once per source pose.
//
// Every per-triangle matrix T = V~ V^-1 maps the triangle's rest frame V (columns e1, e2, e3) to its
// deformed frame V~. A 9x4 coefficient block holds, for each entry (r, k) of T (row 3r + k), the
// coefficients of the four frame vertices p1, p2, p3 and p4 (the fourth vertex stands for e3).

#include "KDeformationTransferInternal.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "KThreads.h"

namespace Kavrin {

namespace {

// The third frame edge. The fitting system scales the cross product c by |c|^(-1/2), so that it
// has the length of an edge; the transfer system uses the unit normal.
enum FrameKind { kFittingFrame, kUnitNormalFrame };

// The frame matrix with columns e1 = p2 - p1, e2 = p3 - p1 and e3.
KMatrix3d Frame(const KVector& p1, const KVector& p2, const KVector& p3, FrameKind kind) {
    const KVector e1 = p2 - p1;
    const KVector e2 = p3 - p1;
    const KVector c = e1.cross(e2);
    const double len2 = double(c.x) * c.x + double(c.y) * c.y + double(c.z) * c.z;
    const double scale = kind == kFittingFrame ? std::pow(len2, 0.25) + 1e-30 : std::sqrt(len2 + 1e-30);
    const KVector e3(static_cast<float>(c.x / scale), static_cast<float>(c.y / scale),
                     static_cast<float>(c.z / scale));
    KMatrix3d v;
    for (int r = 0; r < 3; ++r) {
        v(r, 0) = e1[r];
        v(r, 1) = e2[r];
        v(r, 2) = e3[r];
    }
    return v;
}

KMatrix3d FrameInverse(const KVector& p1, const KVector& p2, const KVector& p3, FrameKind kind) {
    KMatrix3d v = Frame(p1, p2, p3, kind);
    v.inverse();
    return v;
}

// Coefficient of vertex j (0..3 for p1..p4) in entry (r, k) of T; it does not depend on r.
inline double Coefficient(const KMatrix3d& vi, int j, int k) {
    if (j == 0) return -(vi(0, k) + vi(1, k) + vi(2, k));
    return vi(j - 1, k);
}

bool SameTriangles(const KInt3Array& a, const KInt3Array& b) {
    if (a.length() != b.length()) return false;
    for (int t = 0; t < a.length(); ++t)
        if (a[t] != b[t]) return false;
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Sparse-library context

void KDeformationTransferSolver::_startCholmod() {
    cholmod_common* cm = _common.get();
    // Give back the workspace of the previous use before the context is reset.
    if (_cholmodStarted) cholmod_finish(cm);
    cholmod_start(cm);
    // The library prints nothing itself; its errors arrive through the handler.
    cm->print = 0;
    cm->error_handler = cholmod_error_handler;
    _cholmodStarted = true;
}

void KDeformationTransferSolver::_finishCholmod() {
    if (_cholmodStarted) cholmod_finish(_common.get());
}

bool KDeformationTransferSolver::_umfpackOk(int status, const char* system, const char* consequence) {
    if (status == UMFPACK_OK) return true;
    if (status == UMFPACK_WARNING_singular_matrix)
        _abort(DtSingular(system, consequence));
    else
        _abort(DtUmfpackFailed(system, status, consequence));
    return false;
}

// ---------------------------------------------------------------------------------------------
// Triplet entries and the least-squares solve

int KDeformationTransferSolver::CHOLMOD_entry(cholmod_triplet* T, int row, int col, double value) {
    if (_aborted || row < 0 || col < 0) return 0;
    if (T->nnz >= T->nzmax) {
        if (!cholmod_reallocate_triplet(2 * T->nzmax, T, _common.get())) return 0;
    }
    const size_t k = T->nnz;
    if (T->itype == CHOLMOD_LONG) {
        static_cast<SuiteSparse_long*>(T->i)[k] = row;
        static_cast<SuiteSparse_long*>(T->j)[k] = col;
    } else {
        static_cast<int*>(T->i)[k] = row;
        static_cast<int*>(T->j)[k] = col;
    }
    if (T->dtype == CHOLMOD_SINGLE)
        static_cast<float*>(T->x)[k] = static_cast<float>(value);
    else
        static_cast<double*>(T->x)[k] = value;
    ++T->nnz;
    if (T->nrow < static_cast<size_t>(row) + 1) T->nrow = static_cast<size_t>(row) + 1;
    if (T->ncol < static_cast<size_t>(col) + 1) T->ncol = static_cast<size_t>(col) + 1;
    return 1;
}

void KDeformationTransferSolver::_addToB(int row, double value) {
    // Rows past the right-hand side (unpaired smooth blocks, repeated markers) have no slot; the
    // product with the taller matrix then reports the mismatch.
    if (row >= 0 && static_cast<size_t>(row) < _b->nrow) static_cast<double*>(_b->x)[row] += value;
}

cholmod_dense* KDeformationTransferSolver::UMFPACK_leastSquare(cholmod_sparse* A, cholmod_dense* b) {
    cholmod_common* cm = _common.get();
    cholmod_dense* Atb = cholmod_zeros(A->ncol, 1, CHOLMOD_REAL, cm);
    cholmod_sparse* At = _aborted ? nullptr : cholmod_transpose(A, 2, cm);
    double one[2] = {1.0, 0.0};
    double zero[2] = {0.0, 0.0};
    if (!_aborted && Atb && At) cholmod_sdmult(At, 0, one, zero, b, Atb, cm);
    cholmod_sparse* AtA = nullptr;
    if (!_aborted && At) {
        AtA = cholmod_aat(At, nullptr, 0, 1, cm);
        if (AtA) cholmod_sort(AtA, cm);
    }
    cholmod_free_sparse(&At, cm);
    if (_aborted || !Atb || !AtA) {
        cholmod_free_sparse(&AtA, cm);
        cholmod_free_dense(&Atb, cm);
        _aborted = true;
        return nullptr;
    }

    const int n = static_cast<int>(AtA->nrow);
    const int* Ap = static_cast<const int*>(AtA->p);
    const int* Ai = static_cast<const int*>(AtA->i);
    const double* Ax = static_cast<const double*>(AtA->x);
    void* symbolic = nullptr;
    void* numeric = nullptr;
    cholmod_dense* x = nullptr;
    const char* const fit = "source fit";
    const char* const abandoned = "the correspondence search was abandoned.";
    if (_umfpackOk(umfpack_di_symbolic(n, n, Ap, Ai, Ax, &symbolic, nullptr, nullptr), fit, abandoned)) {
        const int status = umfpack_di_numeric(Ap, Ai, Ax, symbolic, &numeric, nullptr, nullptr);
        umfpack_di_free_symbolic(&symbolic);
        if (_umfpackOk(status, fit, abandoned)) {
            x = cholmod_allocate_dense(n, 1, n, CHOLMOD_REAL, cm);
            if (x && !_aborted) {
                const int solved = umfpack_di_solve(UMFPACK_A, Ap, Ai, Ax, static_cast<double*>(x->x),
                                                    static_cast<const double*>(Atb->x), numeric, nullptr, nullptr);
                _umfpackOk(solved, fit, abandoned);
            }
        }
    }
    umfpack_di_free_symbolic(&symbolic);
    umfpack_di_free_numeric(&numeric);
    cholmod_free_sparse(&AtA, cm);
    cholmod_free_dense(&Atb, cm);
    if (_aborted || !x) {
        cholmod_free_dense(&x, cm);
        _aborted = true;
        return nullptr;
    }
    return x;
}

// ---------------------------------------------------------------------------------------------
// Source-fitting system

void KDeformationTransferSolver::_createElementaryMatrix(const int& nTris, const KVectorArray& points,
                                                         const KInt3Array& tris) {
    const KVector* p = points.data();
    const char* isFixed = _isFixed.data();
    const KVector* fixedPos = _fixedPos.data();
    KMatrix94d* mats = _elemMats.data();
    KDouble9* consts = _elemConsts.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nTris))
    for (int t = 0; t < nTris; ++t) {
        const KInt3& tri = tris[t];
        const KMatrix3d vi = FrameInverse(p[tri[0]], p[tri[1]], p[tri[2]], kFittingFrame);
        KMatrix94d& m = mats[t];
        KDouble9 c;
        for (int r = 0; r < 3; ++r) {
            for (int k = 0; k < 3; ++k) {
                const int row = 3 * r + k;
                for (int j = 0; j < 3; ++j) {
                    const double coef = Coefficient(vi, j, k);
                    const int v = tri[j];
                    if (isFixed[v])
                        c[row] -= fixedPos[v][r] * coef;  // the pinned vertex moves to the right side
                    else
                        m(row, j) = coef;
                }
                m(row, 3) = Coefficient(vi, 3, k);
            }
        }
        consts[t] = c;
    }
}

void KDeformationTransferSolver::_appendBlock(int t, const int& nVerts, const KInt3Array& tris, double weight) {
    const KInt3& tri = tris[t];
    const KMatrix94d& m = _elemMats[t];
    const KDouble9& c = _elemConsts[t];
    const KInt3& fourth = _srcCols[nVerts + t];
    for (int r = 0; r < 3; ++r) {
        for (int k = 0; k < 3; ++k) {
            const int row = _row + 3 * r + k;
            for (int j = 0; j < 3; ++j) {
                const int v = tri[j];
                if (!_isFixed[v]) CHOLMOD_entry(_T, row, _srcCols[v][r], weight * m(3 * r + k, j));
            }
            CHOLMOD_entry(_T, row, fourth[r], weight * m(3 * r + k, 3));
            _addToB(row, weight * c[3 * r + k]);
        }
    }
    _row += 9;
}

void KDeformationTransferSolver::_appendSmoothTerm(const int& nTris, const int& nVerts, const KInt3Array& tris) {
    const double ws = _wSmooth;
    for (int t = 0; t < nTris; ++t) {
        // Each neighbour pair (t, u) becomes 9 rows of ws (T_t - T_u) = 0. A triangle whose slot 0
        // is empty keeps its first block of ws T_t unpaired.
        _appendBlock(t, nVerts, tris, ws);
        for (int s = 0; s < 3; ++s) {
            const int u = _t2t[t][s];
            if (u != -1) {
                _row -= 9;
                _appendBlock(u, nVerts, tris, -ws);
            }
            if (s < 2 && _t2t[t][s + 1] != -1) _appendBlock(t, nVerts, tris, ws);
        }
    }
}

void KDeformationTransferSolver::_appendIdentityTerm(const int& nTris, const int& nVerts, const KInt3Array& tris) {
    const double wi = _wIdentity;
    for (int t = 0; t < nTris; ++t) {
        // Rows of wi T_t = wi I.
        const int first = _row;
        _appendBlock(t, nVerts, tris, wi);
        for (int r = 0; r < 3; ++r) _addToB(first + 3 * r + r, wi);
    }
}

void KDeformationTransferSolver::_appendClosestTerm(const int& nVerts) {
    const double wc = _wClosest;
    for (int i = 0; i < nVerts; ++i) {
        if (_isFixed[i]) continue;
        for (int r = 0; r < 3; ++r) {
            CHOLMOD_entry(_T, _row + r, _srcCols[i][r], wc);
            _addToB(_row + r, wc * _closestPts[i][r]);
        }
        _row += 3;
    }
}

void KDeformationTransferSolver::_deformSource(const int& nTris, KVectorArray& points, const KInt3Array& tris) {
    const double* x = static_cast<const double*>(_x->x);
    const long n = static_cast<long>(_x->nrow);
    for (int t = 0; t < nTris; ++t) {
        for (int j = 0; j < 3; ++j) {
            const int v = tris[t][j];
            if (_isFixed[v]) {
                points[v] = _fixedPos[v];
                continue;
            }
            const KInt3& col = _srcCols[v];
            if (col[0] < 0 || col[2] >= n) continue;
            points[v] = KVector(static_cast<float>(x[col[0]]), static_cast<float>(x[col[1]]),
                                static_cast<float>(x[col[2]]));
        }
    }
}

bool KDeformationTransferSolver::_solveFitting(bool withClosest) {
    cholmod_common* cm = _common.get();
    const int nTris = _srcMesh.numTriangles();
    const int nVerts = _srcMesh.numVertices();
    _T = cholmod_allocate_triplet(_nRows, _nCols, 0, 0, CHOLMOD_REAL, cm);
    _b = _T ? cholmod_zeros(_nRows, 1, CHOLMOD_REAL, cm) : nullptr;
    _row = 0;
    if (!_aborted && _T && _b) {
        _createElementaryMatrix(nTris, _srcMesh.points, _srcMesh.triangles);
        _appendSmoothTerm(nTris, nVerts, _srcMesh.triangles);
        _appendIdentityTerm(nTris, nVerts, _srcMesh.triangles);
        if (withClosest) _appendClosestTerm(nVerts);
    }
    if (!_aborted && _T) _A = cholmod_triplet_to_sparse(_T, _T->nnz, cm);
    cholmod_free_triplet(&_T, cm);
    if (!_aborted && _A && _b) _x = UMFPACK_leastSquare(_A, _b);
    cholmod_free_sparse(&_A, cm);
    cholmod_free_dense(&_b, cm);
    if (_aborted || !_x) {
        cholmod_free_dense(&_x, cm);
        _aborted = true;
        return false;
    }
    _deformSource(nTris, _srcMesh.points, _srcMesh.triangles);
    cholmod_free_dense(&_x, cm);
    return true;
}

// ---------------------------------------------------------------------------------------------
// Transfer system

void KDeformationTransferSolver::_releaseSystem(cholmod_sparse*& At, cholmod_sparse*& AtA, void*& numeric) {
    if (_cholmodStarted) {
        cholmod_free_sparse(&At, _common.get());
        cholmod_free_sparse(&AtA, _common.get());
    }
    umfpack_di_free_numeric(&numeric);
    At = nullptr;
    AtA = nullptr;
    numeric = nullptr;
}

int KDeformationTransferSolver::_createCoefficientMatrix() {
    const int nTV = _trgMesh.numVertices();
    const int nTT = _trgMesh.numTriangles();
    const int nRefTris = _refSrcMesh.numTriangles();

    // The pairing must describe this target and name triangles of the source rest pose.
    if (_triCorres.length() != nTT) {
        _abort(DtPairingSize(_triCorres.length(), nTT));
        return 0;
    }
    for (int t = 0; t < nTT; ++t) {
        const KInt4& tc = _triCorres[t];
        bool valid = tc[3] <= 3;
        for (int s = 0; valid && s < tc[3]; ++s) valid = tc[s] == -1 || (tc[s] >= 0 && tc[s] < nRefTris);
        if (!valid) {
            _abort(DtPairingNamesMissingTriangle(t));
            return 0;
        }
    }

    _startCholmod();
    cholmod_common* cm = _common.get();

    _trgCols.setLengthWithValue(nTV + nTT, KInt3{-1, -1, -1});
    for (int i = 0; i < nTV; ++i) _trgCols[i] = KInt3{3 * i, 3 * i + 1, 3 * i + 2};
    KInt3* cols = _trgCols.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nTT))
    for (int t = 0; t < nTT; ++t)
        for (int k = 0; k < 3; ++k) cols[nTV + t][k] = 3 * (nTV + t) + k;

    // One block per target triangle, from the rest pose, with the unit-normal frame.
    KArray<KMatrix3d> inverses;
    inverses.setLength(nTT, false);
    const KVector* p = _trgMesh.points.data();
    const KInt3* tris = _trgMesh.triangles.data();
    KMatrix3d* vi = inverses.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nTT))
    for (int t = 0; t < nTT; ++t) vi[t] = FrameInverse(p[tris[t][0]], p[tris[t][1]], p[tris[t][2]], kUnitNormalFrame);

    long rows = 0;
    for (int t = 0; t < nTT; ++t) rows += 9L * std::max(_triCorres[t][3], 1);
    _nRows = static_cast<int>(rows);
    _nCols = 3 * (nTV + nTT);

    _T = cholmod_allocate_triplet(_nRows, _nCols, 0, 0, CHOLMOD_REAL, cm);
    _row = 0;
    for (int t = 0; t < nTT && _T && !_aborted; ++t) {
        const int count = _triCorres[t][3];
        const int blocks = count == 0 ? 1 : std::max(count, 0);
        for (int n = 0; n < blocks; ++n) {
            for (int r = 0; r < 3; ++r) {
                for (int k = 0; k < 3; ++k) {
                    const int row = _row + 3 * r + k;
                    for (int j = 0; j < 3; ++j) CHOLMOD_entry(_T, row, cols[tris[t][j]][r], Coefficient(vi[t], j, k));
                    CHOLMOD_entry(_T, row, cols[nTV + t][r], Coefficient(vi[t], 3, k));
                }
            }
            _row += 9;
        }
    }
    if (!_aborted && _T) _A = cholmod_triplet_to_sparse(_T, _T->nnz, cm);
    cholmod_free_triplet(&_T, cm);
    cholmod_sparse* At = (!_aborted && _A) ? cholmod_transpose(_A, 2, cm) : nullptr;
    cholmod_free_sparse(&_A, cm);
    cholmod_sparse* AtA = (!_aborted && At) ? cholmod_aat(At, nullptr, 0, 1, cm) : nullptr;
    if (!_aborted && AtA) cholmod_sort(AtA, cm);

    void* numeric = nullptr;
    if (!_aborted && AtA) {
        const int n = static_cast<int>(AtA->nrow);
        const int* Ap = static_cast<const int*>(AtA->p);
        const int* Ai = static_cast<const int*>(AtA->i);
        const double* Ax = static_cast<const double*>(AtA->x);
        void* symbolic = nullptr;
        const char* const system = "transfer system";
        const char* const notBuilt = "the transfer system was not built.";
        if (_umfpackOk(umfpack_di_symbolic(n, n, Ap, Ai, Ax, &symbolic, nullptr, nullptr), system, notBuilt))
            _umfpackOk(umfpack_di_numeric(Ap, Ai, Ax, symbolic, &numeric, nullptr, nullptr), system, notBuilt);
        umfpack_di_free_symbolic(&symbolic);
    }
    if (_aborted || !At || !AtA || !numeric) {
        _releaseSystem(At, AtA, numeric);
        _aborted = true;
        return 0;
    }

    // The new system replaces the kept one. A system that the running recalculation may still
    // have to restore is released only when that recalculation succeeds.
    if (!_systemIsSaved()) _releaseSystem(_At, _AtA, _Numeric);
    _At = At;
    _AtA = AtA;
    _Numeric = numeric;
    _sysTrgVerts = nTV;
    _sysTrgTris = nTT;
    _ready = true;
    return 1;
}

int KDeformationTransferSolver::_deformationTransfer() {
    const int nSV = _srcMesh.numVertices();
    const int nTV = _trgMesh.numVertices();
    const int nTT = _trgMesh.numTriangles();
    if (nSV != _refSrcMesh.numVertices() || !SameTriangles(_srcMesh.triangles, _refSrcMesh.triangles)) {
        _abort(DtSourceChanged(nSV, _srcMesh.numTriangles(), _refSrcMesh.numVertices(), _refSrcMesh.numTriangles()));
        return 0;
    }
    if (nTV != _sysTrgVerts || nTT != _sysTrgTris || _nCols != 3 * (nTV + nTT) || _triCorres.length() != nTT ||
        !_trgMesh.indicesValid()) {
        _abort(DtTargetChanged(nTV, nTT, _sysTrgVerts, _sysTrgTris));
        return 0;
    }

    cholmod_common* cm = _common.get();
    cholmod_dense* c = cholmod_zeros(_nRows, 1, CHOLMOD_REAL, cm);
    cholmod_dense* Atc = cholmod_zeros(_nCols, 1, CHOLMOD_REAL, cm);
    cholmod_dense* x = cholmod_zeros(_nCols, 1, CHOLMOD_REAL, cm);
    if (!_aborted && c && Atc && x) {
        // Row layout as built: one identity block for an unpaired triangle, one block of the
        // source triangle's deformation S = V~ V^-1 per pairing slot.
        double* cx = static_cast<double*>(c->x);
        const long nc = static_cast<long>(c->nrow);
        const KVector* cur = _srcMesh.points.data();
        const KVector* ref = _refSrcMesh.points.data();
        const KInt3* srcTris = _refSrcMesh.triangles.data();
        // Each target triangle's rows start where the build put them, so the triangles are
        // independent.
        std::vector<long> first(static_cast<size_t>(nTT) + 1, 0);
        for (int t = 0; t < nTT; ++t) {
            const int count = _triCorres[t][3];
            first[t + 1] = first[t] + 9L * (count == 0 ? 1 : std::max(count, 0));
        }
        const KInt4* corres = _triCorres.data();
        const long* start = first.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nTT))
        for (int t = 0; t < nTT; ++t) {
            const KInt4& tc = corres[t];
            long row = start[t];
            if (tc[3] == 0) {
                if (row + 9 <= nc) {
                    cx[row] = 1.0;
                    cx[row + 4] = 1.0;
                    cx[row + 8] = 1.0;
                }
                continue;
            }
            for (int s = 0; s < tc[3]; ++s, row += 9) {
                const int src = tc[s];
                if (src == -1 || row + 9 > nc) continue;
                const KInt3& tri = srcTris[src];
                const KMatrix3d vd = Frame(cur[tri[0]], cur[tri[1]], cur[tri[2]], kUnitNormalFrame);
                const KMatrix3d vi = FrameInverse(ref[tri[0]], ref[tri[1]], ref[tri[2]], kUnitNormalFrame);
                for (int r = 0; r < 3; ++r)
                    for (int k = 0; k < 3; ++k)
                        cx[row + 3 * r + k] = vd(r, 0) * vi(0, k) + vd(r, 1) * vi(1, k) + vd(r, 2) * vi(2, k);
            }
        }
        _row = static_cast<int>(first[nTT]);
        double one[2] = {1.0, 0.0};
        double zero[2] = {0.0, 0.0};
        cholmod_sdmult(_At, 0, one, zero, c, Atc, cm);
    }
    cholmod_free_dense(&c, cm);
    if (!_aborted && Atc && x) {
        // No iterative refinement: with the library's default the solve only measures the
        // backward error (about 1e-15 here, so no refinement step is ever taken) and that
        // measurement costs twice the triangular solves. The solution is the same.
        double control[UMFPACK_CONTROL];
        umfpack_di_defaults(control);
        control[UMFPACK_IRSTEP] = 0;
        const int solved = umfpack_di_solve(UMFPACK_A, static_cast<const int*>(_AtA->p), static_cast<const int*>(_AtA->i),
                                            static_cast<const double*>(_AtA->x), static_cast<double*>(x->x),
                                            static_cast<const double*>(Atc->x), _Numeric, control, nullptr);
        if (_umfpackOk(solved, "transfer system", "the output was not written.")) {
            const double* xs = static_cast<const double*>(x->x);
            KVector* out = _trgMesh.points.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nTV))
            for (int i = 0; i < nTV; ++i)
                out[i] = KVector(static_cast<float>(xs[3 * i]), static_cast<float>(xs[3 * i + 1]),
                                 static_cast<float>(xs[3 * i + 2]));
        }
    }
    cholmod_free_dense(&x, cm);
    cholmod_free_dense(&Atc, cm);
    _finishCholmod();
    if (_aborted) return 0;
    return 1;
}

}  // namespace Kavrin
