#include "KSourceFitting.h"

#include <algorithm>

#include "KDeformationTransferMessages.h"
#include "KThreads.h"
#include "KTriMeshConnectionInfo.h"
#include "KTriMeshDistTree.h"
#include "KTriangleFrame.h"

namespace Kavrin {

namespace {

const char* const kFit = "source fit";
const char* const kAbandoned = "the correspondence search was abandoned.";

// The slot of column c in the row columns[0 .. n), appended when new.
int SlotOf(int c, int* columns, int& n) {
    for (int i = 0; i < n; ++i)
        if (columns[i] == c) return i;
    columns[n] = c;
    return n++;
}

}  // namespace

bool KSourceFitting::_fail(const std::string& message) {
    _failure = message;
    return false;
}

bool KSourceFitting::_sparseFailed(const KSparseStatus& status) {
    if (status.code == KSparseStatus::kLibraryError) {
        _report = status.report;
        return _fail(kDtCholmodError);
    }
    return _fail(DtSingularColumn(kFit, "source", _column.data(), _column.length(), _nFree, _triangles.length(),
                                  status.column, kAbandoned));
}

bool KSourceFitting::prepare(const KTriMesh& source, const KTriMesh& target, const KInt2Array& pairs,
                             int threads) {
    _failure.clear();
    _report.clear();
    _threads = threads;
    _triangles = source.triangles;
    _points = source.points;
    const int nSV = source.numVertices();
    const int nTV = target.numVertices();
    const int nST = source.numTriangles();

    for (int i = 0; i < pairs.length(); ++i) {
        // Guard (behaviour note "Deformation transfer: marker pairs outside the meshes").
        const int s = pairs[i][0];
        const int t = pairs[i][1];
        if (s < 0 || s >= nSV || t < 0 || t >= nTV) return _fail(DtPairOutside(i, s, t, nSV, nTV));
    }
    // Decision (behaviour note "Deformation transfer: a vertex in several marker pairs is pinned once").
    _pinned.setLength(nSV, true);
    _pinPos.setLength(nSV, true);
    for (const KInt2& p : pairs) {
        _pinned[p[0]] = 1;
        _pinPos[p[0]] = target.points[p[1]];
    }

    // Unknowns: free vertices in index order, then the fourth vertices.
    _column.setLengthWithValue(nSV, -1);
    _nFree = 0;
    for (int v = 0; v < nSV; ++v)
        if (!_pinned[v]) _column[v] = _nFree++;
    _used.setLength(nSV, true);
    for (const KInt3& t : _triangles)
        for (int k = 0; k < 3; ++k) _used[t[k]] = 1;
    for (int v = 0; v < nSV; ++v)
        // Guard (behaviour note "Deformation transfer: a singular source fit names its cause").
        if (!_used[v] && !_pinned[v]) return _fail(DtIsolatedSourceVertex(v));

    // Decision (behaviour note "Deformation transfer: a part without a marker stays where it is")
    KIntArray root;
    ConnectedParts(nSV, _triangles, root);
    KCharArray partPinned;
    partPinned.setLength(nSV, true);
    for (int v = 0; v < nSV; ++v)
        if (_pinned[v]) partPinned[root[v]] = 1;
    _anchors.clear();
    _anchored.setLength(nSV, true);
    for (int v = 0; v < nSV; ++v)
        if (root[v] == v && _used[v] && !partPinned[v]) {
            _anchors.push_back(v);
            _anchored[v] = 1;
        }

    // Neighbour pairs in the order of the smooth term: triangle by triangle, slot by slot; an
    // empty slot gives no rows.
    // Decision (behaviour note "Deformation transfer: no unpaired smooth block on a border").
    KTriMeshConnectionInfo info(source);
    info.calculate_t2t();
    _pairTri.clear();
    _pairNbr.clear();
    for (int t = 0; t < nST; ++t)
        for (int s = 0; s < 3; ++s)
            if (info.t2t[t][s] != -1) {
                _pairTri.push_back(t);
                _pairNbr.push_back(info.t2t[t][s]);
            }
    const int nPairs = _pairTri.length();

    // Pattern: 3 rows per pair (the columns of both triangles' free and fourth vertices), 3 rows
    // per triangle, one row per free vertex.
    // Decision (behaviour note "Deformation transfer: the three coordinates share one scalar system").
    const int nRows = 3 * nPairs + 3 * nST + _nFree;
    _rowStart.setLength(nRows + 1, false);
    _colIndex.clear();
    _pairSlots.assign(static_cast<size_t>(nPairs), KTuple<8, int>());
    _triSlots.assign(static_cast<size_t>(nST), KInt4());
    int row = 0;
    _rowStart[0] = 0;
    auto frameColumns = [&](int t, int* columns, int& n, int* slots) {
        for (int j = 0; j < 3; ++j) {
            const int c = _column[_triangles[t][j]];
            slots[j] = c < 0 ? -1 : SlotOf(c, columns, n);
        }
        slots[3] = SlotOf(_nFree + t, columns, n);
    };
    auto emitRows = [&](const int* columns, int n) {
        for (int k = 0; k < 3; ++k) {
            _colIndex.insert(_colIndex.end(), columns, columns + n);
            _rowStart[++row] = _colIndex.length();
        }
    };
    for (int p = 0; p < nPairs; ++p) {
        int columns[8];
        int n = 0;
        frameColumns(_pairTri[p], columns, n, &_pairSlots[p][0]);
        frameColumns(_pairNbr[p], columns, n, &_pairSlots[p][4]);
        emitRows(columns, n);
    }
    for (int t = 0; t < nST; ++t) {
        int columns[4];
        int n = 0;
        frameColumns(t, columns, n, &_triSlots[t][0]);
        emitRows(columns, n);
    }
    for (int f = 0; f < _nFree; ++f) {
        _colIndex.push_back(f);
        _rowStart[++row] = _colIndex.length();
    }
    _values.assign(static_cast<size_t>(_colIndex.length()), 0.0);
    _rhs.assign(3 * static_cast<size_t>(nRows), 0.0);
    _solution.assign(3 * static_cast<size_t>(_nFree + nST), 0.0);
    _coef.assign(static_cast<size_t>(nST), KTuple<12, double>());
    _const.assign(static_cast<size_t>(nST), KDouble9());
    _closest = _points;

    const KSparseStatus status = _ls.analyse(_nFree + nST, _rowStart, _colIndex, threads);
    if (!status.ok()) return _sparseFailed(status);
    return true;
}

bool KSourceFitting::assemble(const Weights& w) {
    const int nST = _triangles.length();
    const int nPairs = _pairTri.length();
    const int nRows = rows();
    const KVector* p = _points.data();
    const KInt3* tris = _triangles.data();
    const char* pinned = _pinned.data();
    const KVector* pinPos = _pinPos.data();
    KTuple<12, double>* coef = _coef.data();
    KDouble9* cst = _const.data();

    // Frames of the current points; a pinned vertex's part moves to the right-hand side.
    int degenerate = nST, tooLarge = nST;
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nST)) reduction(min : degenerate, tooLarge)
    for (int t = 0; t < nST; ++t) {
        const KInt3& tri = tris[t];
        if (TriangleIsTooLarge(p[tri[0]], p[tri[1]], p[tri[2]]))
            tooLarge = std::min(tooLarge, t);
        else if (TriangleIsDegenerate(p[tri[0]], p[tri[1]], p[tri[2]]))
            degenerate = std::min(degenerate, t);
        const KMatrix3d vi = TriangleFrameInverse(p[tri[0]], p[tri[1]], p[tri[2]], kFittingFrame);
        KTuple<12, double>& c = coef[t];
        KDouble9 k9;
        for (int k = 0; k < 3; ++k)
            for (int j = 0; j < 4; ++j) c[3 * j + k] = FrameCoefficient(vi, j, k);
        for (int r = 0; r < 3; ++r)
            for (int k = 0; k < 3; ++k)
                for (int j = 0; j < 3; ++j)
                    if (pinned[tri[j]]) k9[3 * r + k] -= pinPos[tri[j]][r] * c[3 * j + k];
        cst[t] = k9;
    }
    // Guard (behaviour note "Deformation transfer: a singular source fit names its cause").
    if (tooLarge < nST) {
        const KInt3& tri = tris[tooLarge];
        return _fail(DtTooLargeTriangle("source", tooLarge, tri[0], tri[1], tri[2], kFit, kAbandoned));
    }
    if (degenerate < nST) {
        const KInt3& tri = tris[degenerate];
        return _fail(DtDegenerateTriangle("source", degenerate, tri[0], tri[1], tri[2], kFit, kAbandoned));
    }

    const int* rs = _rowStart.data();
    double* v = _values.data();
    double* b = _rhs.data();
    const double ws = w.smooth, wi = w.identity, wc = w.closest, wa = w.anchor;
    // Smooth rows: ws (T_t - T_u); entries of a vertex the two share add up.
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nPairs))
    for (int q = 0; q < nPairs; ++q) {
        const int t = _pairTri[q], u = _pairNbr[q];
        const KTuple<8, int>& slot = _pairSlots[q];
        for (int k = 0; k < 3; ++k) {
            const int row = 3 * q + k;
            double* rv = v + rs[row];
            std::fill(rv, v + rs[row + 1], 0.0);
            for (int j = 0; j < 4; ++j)
                if (slot[j] >= 0) rv[slot[j]] += ws * coef[t][3 * j + k];
            for (int j = 0; j < 4; ++j)
                if (slot[4 + j] >= 0) rv[slot[4 + j]] += -ws * coef[u][3 * j + k];
            for (int r = 0; r < 3; ++r)
                b[r * nRows + row] = ws * cst[t][3 * r + k] + -ws * cst[u][3 * r + k];
        }
    }
    // Identity rows: wi T_t = wi I.
    const int first = 3 * nPairs;
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nST))
    for (int t = 0; t < nST; ++t) {
        const KInt4& slot = _triSlots[t];
        for (int k = 0; k < 3; ++k) {
            const int row = first + 3 * t + k;
            double* rv = v + rs[row];
            for (int j = 0; j < 4; ++j)
                if (slot[j] >= 0) rv[slot[j]] = wi * coef[t][3 * j + k];
            for (int r = 0; r < 3; ++r) b[r * nRows + row] = wi * (cst[t][3 * r + k] + (r == k ? 1.0 : 0.0));
        }
    }
    // Closest rows: wc on the free vertex, wc times its closest point (wc + wa for an anchor).
    const int closestRow = first + 3 * nST;
    const KVector* closest = _closest.data();
    const char* anchored = _anchored.data();
    const int nSV = _points.length();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nSV))
    for (int i = 0; i < nSV; ++i) {
        const int f = _column[i];
        if (f < 0) continue;
        const int row = closestRow + f;
        const double weight = anchored[i] ? wc + wa : wc;
        v[rs[row]] = weight;
        for (int r = 0; r < 3; ++r) b[r * nRows + row] = weight * closest[i][r];
    }
    return true;
}

bool KSourceFitting::solve() {
    KSparseStatus status = _ls.factor(_values.data());
    if (!status.ok()) return _sparseFailed(status);
    status = _ls.solve(_rhs.data(), 3, _solution.data());
    if (!status.ok()) return _sparseFailed(status);
    const int n = _ls.cols();
    const double* x = _solution.data();
    const int nSV = _points.length();
    KVector* p = _points.data();
    // Vertices in no triangle keep their place; every other pinned vertex sits on its pin.
    for (int i = 0; i < nSV; ++i) {
        if (!_used[i]) continue;
        if (_pinned[i]) {
            p[i] = _pinPos[i];
            continue;
        }
        const int c = _column[i];
        p[i] = KVector(static_cast<float>(x[c]), static_cast<float>(x[n + c]), static_cast<float>(x[2 * n + c]));
    }
    return true;
}

void KSourceFitting::findClosestPoints(const KTriMesh& target) {
    const KTriMeshDistTree tree(target, 10, 10, _threads);
    const int nSV = _points.length();
    _closest.setLength(nSV, false);
    const KVector* src = _points.data();
    KVector* closest = _closest.data();
#pragma omp parallel for schedule(static) num_threads(ResolveThreads(_threads))
    for (int i = 0; i < nSV; ++i) {
        // A target without triangles finds nothing; the vertex then stays where it is.
        closest[i] = src[i];
        int hit = -1;
        tree.getClosestPoint(src[i], closest[i], hit, 1e30f);
    }
}

bool KSourceFitting::fit(const KTriMesh& source, const KTriMesh& target, const KInt2Array& pairs, int iterations,
                         int threads, const std::function<void(int)>& iterationStarted) {
    if (!prepare(source, target, pairs, threads)) return false;
    Weights w;
    w.anchor = 1.0;
    if (!assemble(w) || !solve()) return false;
    findClosestPoints(target);
    w.anchor = 0.0;
    w.closest = 1.0;
    if (!assemble(w) || !solve()) return false;
    for (int i = 1; i <= iterations; ++i) {
        if (iterationStarted) iterationStarted(i);
        w.closest = 10.0 * i;
        if (!assemble(w) || !solve()) return false;
    }
    return true;
}

}  // namespace Kavrin
