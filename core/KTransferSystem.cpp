#include "KTransferSystem.h"

#include <algorithm>
#include <cstring>

#include "KDeformationTransferMessages.h"
#include "KThreads.h"
#include "KTriMeshConnectionInfo.h"
#include "KTriangleFrame.h"

namespace Kavrin {

namespace {

const char* const kSystem = "transfer system";
const char* const kNotBuilt = "the transfer system was not built.";
const char* const kNotWritten = "the output was not written.";

// The loops of a pose solve do little per item: below this many items per thread, meeting a
// second thread costs more than it saves.
// Decision (behaviour note "Deformation transfer: light per-pose loops stay on one thread").
const int kPoseItemsPerThread = 16384;

// Rows a target triangle's pairing gives: one block for count 0, one per slot for a positive count.
inline int Blocks(const KInt4& tc) { return tc[3] == 0 ? 1 : std::max(tc[3], 0); }

}  // namespace

bool KTransferSystem::_fail(const std::string& message) {
    _failure = message;
    return false;
}

bool KTransferSystem::_sparseFailed(const KSparseStatus& status) {
    if (status.code == KSparseStatus::kLibraryError) {
        _report = status.report;
        return _fail(kDtCholmodError);
    }
    return _fail(DtSingularColumn(kSystem, "target", _column.data(), _column.length(), _nFree, _nTT, status.column,
                                  kNotBuilt));
}

bool KTransferSystem::_targetUnusable(const KTriMesh& target) {
    const KVector* tp = target.points.data();
    const KInt3* tt = target.triangles.data();
    for (int t = 0; t < target.numTriangles(); ++t)
        if (_unusable("target", tp, tt[t], t)) return true;
    return false;
}

bool KTransferSystem::_unusable(const char* mesh, const KVector* p, const KInt3& t, int index) {
    // Guard (behaviour note "Deformation transfer: a singular transfer system names its cause").
    if (TriangleIsTooLarge(p[t[0]], p[t[1]], p[t[2]]))
        _fail(DtTooLargeTriangle(mesh, index, t[0], t[1], t[2], kSystem, kNotBuilt));
    else if (TriangleIsDegenerate(p[t[0]], p[t[1]], p[t[2]]))
        _fail(DtDegenerateTriangle(mesh, index, t[0], t[1], t[2], kSystem, kNotBuilt));
    else
        return false;
    return true;
}

bool KTransferSystem::_factorTarget(const KTriMesh& target, const KInt4Array* triCorres, int threads) {
    const int nTV = target.numVertices();
    const int nTT = target.numTriangles();
    _nTV = nTV;
    _nTT = nTT;
    _restTarget = target.points;
    const KVector* tp = target.points.data();
    const KInt3* tt = target.triangles.data();

    // Decision (behaviour note "Deformation transfer: one vertex per connected part stays put").
    KIntArray root;
    ConnectedParts(nTV, target.triangles, root);
    _column.setLengthWithValue(nTV, -1);
    _anchors.clear();
    _nFree = 0;
    for (int v = 0; v < nTV; ++v) {
        if (root[v] == v)
            _anchors.push_back(v);
        else
            _column[v] = _nFree++;
    }

    // One frame inverse per target triangle (rest pose).
    std::vector<KMatrix3d> inverse(static_cast<size_t>(nTT));
#pragma omp parallel for schedule(static) num_threads(TeamFor(threads, nTT))
    for (int t = 0; t < nTT; ++t)
        inverse[t] = TriangleFrameInverse(tp[tt[t][0]], tp[tt[t][1]], tp[tt[t][2]], kUnitNormalFrame);

    // Pattern and values: 3 rows per block, the triangle's free vertices and its fourth vertex.
    // Every row of a triangle holds the same number of entries, so each triangle's first entry is
    // known beforehand and the triangles fill their rows on the team.
    _firstRow.setLength(nTT + 1, false);
    KIntArray firstEntry;
    firstEntry.setLength(nTT + 1, false);
    _firstRow[0] = firstEntry[0] = 0;
    for (int t = 0; t < nTT; ++t) {
        const int rows = 3 * (triCorres ? Blocks((*triCorres)[t]) : 1);
        int entries = 1;
        for (int j = 0; j < 3; ++j) entries += _column[tt[t][j]] < 0 ? 0 : 1;
        _firstRow[t + 1] = _firstRow[t] + rows;
        firstEntry[t + 1] = firstEntry[t] + rows * entries;
    }
    const int nRows = _firstRow[nTT];
    KIntArray rowStart, colIndex;
    rowStart.setLength(nRows + 1, false);
    rowStart[0] = 0;
    colIndex.setLength(firstEntry[nTT], false);
    std::vector<double> values(static_cast<size_t>(firstEntry[nTT]));
    const int* column = _column.data();
    const int* firstRow = _firstRow.data();
    const int* entry = firstEntry.data();
    const int nFree = _nFree;
#pragma omp parallel for schedule(static) num_threads(TeamFor(threads, nTT))
    for (int t = 0; t < nTT; ++t) {
        int at = entry[t];
        for (int row = firstRow[t], k = 0; row < firstRow[t + 1]; ++row, k = (k + 1) % 3) {
            for (int j = 0; j < 3; ++j) {
                const int c = column[tt[t][j]];
                if (c < 0) continue;
                colIndex[at] = c;
                values[static_cast<size_t>(at++)] = FrameCoefficient(inverse[t], j, k);
            }
            colIndex[at] = nFree + t;
            values[static_cast<size_t>(at++)] = FrameCoefficient(inverse[t], 3, k);
            rowStart[row + 1] = at;
        }
    }
    // The anchors' share of the rows of the few triangles that use one, moved to the right-hand side.
    _anchorRows.clear();
    for (int t = 0; t < nTT; ++t) {
        if (column[tt[t][0]] >= 0 && column[tt[t][1]] >= 0 && column[tt[t][2]] >= 0) continue;
        for (int row = firstRow[t], k = 0; row < firstRow[t + 1]; ++row, k = (k + 1) % 3) {
            AnchorRow anchored = {row, {0.0, 0.0, 0.0}};
            for (int j = 0; j < 3; ++j) {
                const int v = tt[t][j];
                if (column[v] >= 0) continue;
                const double coef = FrameCoefficient(inverse[t], j, k);
                for (int r = 0; r < 3; ++r) anchored.value[r] -= coef * tp[v][r];
            }
            _anchorRows.push_back(anchored);
        }
    }
    KSparseStatus status = _ls.analyse(_nFree + nTT, rowStart, colIndex, threads);
    if (status.ok()) status = _ls.factor(values.data());
    if (!status.ok()) return _sparseFailed(status);
    // Decision (behaviour note "Deformation transfer: the kept system holds what a solve reads").
    _ls.keepSolvesOnly();
    return true;
}

bool KTransferSystem::prepareTarget(const KTriMesh& target, int threads) {
    _prepared = kNotPrepared;
    _failure.clear();
    _report.clear();
    // Guard (behaviour note "Deformation transfer: the target's system factored beside the search").
    if (!target.indicesValid()) return false;
    if (_targetUnusable(target))
        _prepared = kUnusableTarget;
    else if (!_factorTarget(target, nullptr, threads))
        _prepared = kSingularTarget;
    else
        _prepared = kFactored;
    _preparedTriangles = target.triangles;
    return _prepared == kFactored;
}

bool KTransferSystem::build(const KTriMesh& restSource, const KTriMesh& target, const KInt4Array& triCorres,
                            int threads) {
    _built = false;
    _threads = threads;
    const int nTT = target.numTriangles();
    const int nST = restSource.numTriangles();

    // What prepareTarget() made serves when it was for this target and every triangle gives one block.
    Prepared prepared = _prepared;
    std::string preparedFailure, preparedReport;
    preparedFailure.swap(_failure);
    preparedReport.swap(_report);
    if (prepared != kNotPrepared) {
        bool same = triCorres.length() == nTT && _preparedTriangles == target.triangles &&
                    _restTarget.length() == target.numVertices() &&
                    (target.points.empty() || std::memcmp(_restTarget.data(), target.points.data(),
                                                          sizeof(KVector) * target.points.size()) == 0);
        for (int t = 0; same && t < nTT; ++t) same = Blocks(triCorres[t]) == 1;
        if (!same) prepared = kNotPrepared;
    }
    _prepared = kNotPrepared;
    KInt3Array().swap(_preparedTriangles);

    // Guard (behaviour note "Deformation transfer: pairing that does not fit the build").
    if (triCorres.length() != nTT) return _fail(DtPairingSize(triCorres.length(), nTT));
    for (int t = 0; t < nTT; ++t) {
        const KInt4& tc = triCorres[t];
        bool valid = tc[3] <= 3;
        for (int s = 0; valid && s < tc[3]; ++s) valid = tc[s] == -1 || (tc[s] >= 0 && tc[s] < nST);
        if (!valid) return _fail(DtPairingNamesMissingTriangle(t));
    }
    if (prepared == kUnusableTarget) return _fail(preparedFailure);
    if (prepared == kNotPrepared && _targetUnusable(target)) return false;
    const KVector* sp = restSource.points.data();
    const KInt3* st = restSource.triangles.data();
    for (int t = 0; t < nTT; ++t)
        for (int s = 0; s < triCorres[t][3]; ++s) {
            const int src = triCorres[t][s];
            if (src >= 0 && _unusable("source", sp, st[src], src)) return false;
        }
    if (prepared == kSingularTarget) {
        _report = preparedReport;
        return _fail(preparedFailure);
    }
    if (prepared == kNotPrepared && !_factorTarget(target, &triCorres, threads)) return false;

    // The source's part: the pairing and one frame inverse per source triangle (source rest pose).
    _triCorres = triCorres;
    _sourceTriangles = restSource.triangles;
    _restInverse.assign(static_cast<size_t>(nST), KMatrix3d());
#pragma omp parallel for schedule(static) num_threads(TeamFor(threads, nST))
    for (int t = 0; t < nST; ++t)
        _restInverse[t] = TriangleFrameInverse(sp[st[t][0]], sp[st[t][1]], sp[st[t][2]], kUnitNormalFrame);

    const int nRows = _firstRow[nTT];
    _rhs.assign(3 * static_cast<size_t>(nRows), 0.0);
    _atb.assign(3 * static_cast<size_t>(_ls.cols()), 0.0);
    _x.assign(3 * static_cast<size_t>(_ls.cols()), 0.0);
    _built = true;
    return true;
}

bool KTransferSystem::solve(const KVectorArray& posedSource, const KTriMesh& target, KVectorArray& targetPoints) {
    _failure.clear();
    _report.clear();
    const int nTV = target.numVertices();
    const int nTT = target.numTriangles();
    // Guard (behaviour note "Deformation transfer: target changed since the build").
    if (!_built || nTV != _nTV || nTT != _nTT || !target.indicesValid())
        return _fail(DtTargetChanged(nTV, nTT, _nTV, _nTT));

    // Right-hand side: for each block the source triangle's deformation S = V~ V^-1 (identity for a
    // triangle without a pair), plus the anchors' share.
    const int nRows = _ls.rows();
    double* rhs = _rhs.data();
    const AnchorRow* anchorsBegin = _anchorRows.data();
    const AnchorRow* anchorsEnd = anchorsBegin + _anchorRows.size();
    const KVector* cur = posedSource.data();
    const KInt3* st = _sourceTriangles.data();
    const KMatrix3d* restInv = _restInverse.data();
    const KInt4* corres = _triCorres.data();
    const int* first = _firstRow.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nTT, kPoseItemsPerThread))
    for (int t = 0; t < nTT; ++t) {
        const KInt4& tc = corres[t];
        for (int row = first[t]; row < first[t + 1]; ++row)
            for (int r = 0; r < 3; ++r) rhs[r * nRows + row] = 0.0;
        const AnchorRow* a = std::lower_bound(anchorsBegin, anchorsEnd, first[t],
                                              [](const AnchorRow& x, int row) { return x.row < row; });
        for (; a != anchorsEnd && a->row < first[t + 1]; ++a)
            for (int r = 0; r < 3; ++r) rhs[r * nRows + a->row] = a->value[r];
        if (tc[3] == 0) {
            for (int k = 0; k < 3; ++k) rhs[k * nRows + first[t] + k] += 1.0;
            continue;
        }
        for (int s = 0; s < tc[3]; ++s) {
            const int src = tc[s];
            if (src == -1) continue;
            const KInt3& tri = st[src];
            const KMatrix3d vd = TriangleFrame(cur[tri[0]], cur[tri[1]], cur[tri[2]], kUnitNormalFrame);
            const KMatrix3d& vi = restInv[src];
            const int row = first[t] + 3 * s;
            for (int r = 0; r < 3; ++r)
                for (int k = 0; k < 3; ++k)
                    rhs[r * nRows + row + k] += vd(r, 0) * vi(0, k) + vd(r, 1) * vi(1, k) + vd(r, 2) * vi(2, k);
        }
    }
    _ls.multiplyTransposed(rhs, 3, _atb.data());
    const KSparseStatus status = _ls.solveNormal(_atb.data(), 3, _x.data());
    if (!status.ok()) {
        if (status.code == KSparseStatus::kLibraryError) {
            _report = status.report;
            return _fail(kDtCholmodError);
        }
        return _fail(DtSingular(kSystem, kNotWritten));
    }

    targetPoints.setLength(nTV, false);
    const int n = _ls.cols();
    const double* x = _x.data();
    const int* column = _column.data();
    const KVector* rest = _restTarget.data();
    KVector* out = targetPoints.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nTV, kPoseItemsPerThread))
    for (int i = 0; i < nTV; ++i) {
        const int c = column[i];
        out[i] = c < 0 ? rest[i]
                       : KVector(static_cast<float>(x[c]), static_cast<float>(x[n + c]), static_cast<float>(x[2 * n + c]));
    }
    return true;
}

}  // namespace Kavrin
