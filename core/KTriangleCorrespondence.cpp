// Deformation transfer: the correspondence search. The source is fitted onto the target through
// the source-fitting system (marker pins, then smoothness, identity and closest-point terms with a
// growing weight), and every target triangle is then paired with the nearest source triangle that
// faces the same way.

#include "KDeformationTransferInternal.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "KPointsDistTree.h"
#include "KThreads.h"
#include "KTriMeshConnectionInfo.h"
#include "KTriMeshDistTree.h"
#include "Normal.h"

namespace Kavrin {

namespace {

// Radius on the scale of one triangle: the square root of twice the bounding box's surface area
// shared out over the triangles.
float TriangleScale(const KVectorArray& points, int nTris) {
    KVector lo(std::numeric_limits<float>::max(), std::numeric_limits<float>::max(),
               std::numeric_limits<float>::max());
    KVector hi(-lo.x, -lo.y, -lo.z);
    for (const KVector& p : points) {
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], p[k]);
            hi[k] = std::max(hi[k], p[k]);
        }
    }
    const float dx = hi.x - lo.x;
    const float dy = hi.y - lo.y;
    const float dz = hi.z - lo.z;
    return std::sqrt(4.0f * (dx * dy + dy * dz + dz * dx) / static_cast<float>(nTris));
}

// Angle between two unit normals in degrees.
inline float AngleDegrees(const KVector& a, const KVector& b) {
    return std::atan2(a.cross(b).length(), a.dot(b)) * 57.29578f;
}

}  // namespace

bool KDeformationTransferSolver::_prepareFitting(int& nFree, int& nAdj) {
    const int nSV = _srcMesh.numVertices();
    const int nTV = _trgMesh.numVertices();
    const int nST = _srcMesh.numTriangles();
    const int nPairs = _vertCorres.length();

    // Pins: each marked source vertex sits on its target vertex. A vertex marked twice takes the
    // later pair.
    for (int i = 0; i < nPairs; ++i) {
        const int s = _vertCorres[i][0];
        const int t = _vertCorres[i][1];
        if (s < 0 || s >= nSV || t < 0 || t >= nTV) {
            _abort(DtPairOutside(i, s, t, nSV, nTV));
            return false;
        }
    }
    _fixedPos.setLength(nSV, false);
    _isFixed.setLength(nSV, true);
    for (int i = 0; i < nPairs; ++i) {
        _fixedPos[_vertCorres[i][0]] = _trgMesh.points[_vertCorres[i][1]];
        _isFixed[_vertCorres[i][0]] = 1;
    }

    // Columns: free vertices first, in index order, then one fourth vertex per triangle.
    nFree = nSV - nPairs;
    if (nFree < 0) {
        _abort(DtMorePairsThanVertices(nPairs, nSV));
        return false;
    }
    _srcCols.setLengthWithValue(nSV + nST, KInt3{-1, -1, -1});
    for (int v = 0, f = 0; v < nSV; ++v) {
        if (_isFixed[v]) continue;
        _srcCols[v] = KInt3{3 * f, 3 * f + 1, 3 * f + 2};
        ++f;
    }
    KInt3* cols = _srcCols.data();
#pragma omp parallel for schedule(static) num_threads(ResolveThreads(_threads))
    for (int t = 0; t < nST; ++t)
        for (int k = 0; k < 3; ++k) cols[nSV + t][k] = 3 * (nFree + t) + k;

    // Adjacency; every shared edge is counted from both sides.
    {
        KTriMeshConnectionInfo info(_srcMesh);
        info.calculate_t2t();
        _t2t = info.t2t;
    }
    nAdj = 0;
    for (const KInt3& n : _t2t)
        for (int s = 0; s < 3; ++s)
            if (n[s] != -1) ++nAdj;

    _elemMats.setLength(nST, false);
    _elemConsts.setLength(nST, false);
    _createElementaryMatrix(nST, _srcMesh.points, _srcMesh.triangles);

    return true;
}

int KDeformationTransferSolver::_findTriangleCorrespondence() {
    _progress(kDtFindingCorrespondences);
    if (_vertCorres.empty()) return 0;

    if (!_srcMesh.indicesValid() || !_trgMesh.indicesValid()) {
        _abort(DtMeshIndicesInvalid(_srcMesh.indicesValid() ? "target" : "source"));
        return 0;
    }
    _refSrcMesh = _srcMesh;

    const int nSV = _srcMesh.numVertices();
    const int nTV = _trgMesh.numVertices();
    const int nST = _srcMesh.numTriangles();
    if (nSV == nTV && _calcMode != kSameTopology) {
        _sink->warning(kDtModeMayBeInaccurate);
    } else if (nSV != nTV && _calcMode == kSameTopology) {
        _sink->error(kDtCheckCalcMode);
        return 0;
    }

    int nFree = 0;
    int nAdj = 0;
    if (!_prepareFitting(nFree, nAdj)) return 0;

    _nCols = 3 * (nST + nFree);
    _nRows = 9 * (nAdj + nST);
    _startCholmod();

    // First solve: smooth and identity only.
    _wSmooth = 1.0;
    _wIdentity = 0.01;
    if (!_solveFitting(false)) {
        _finishCholmod();
        return 0;
    }

    // Closest points on the target, computed once for the fitted source.
    {
        KTriMeshDistTree tree(_trgMesh, 10, 10);
        KVectorArray copy(nSV);
        const KVector* src = _srcMesh.points.data();
        KVector* cp = copy.data();
        const int team = ResolveThreads(_threads);
#pragma omp parallel for schedule(static) num_threads(team)
        for (int i = 0; i < nSV; ++i) cp[i] = src[i];
        _closestPts.setLength(nSV, false);
        KIntArray hitTriangle(nSV);
        KVector* closest = _closestPts.data();
        int* hit = hitTriangle.data();
#pragma omp parallel for schedule(static) num_threads(team)
        for (int i = 0; i < nSV; ++i) {
            // A target without triangles finds nothing; the vertex then stays where it is.
            closest[i] = cp[i];
            tree.getClosestPoint(cp[i], closest[i], hit[i], 1e30f);
        }
    }

    // Second solve, with the closest term.
    _nRows = 3 * nFree + 9 * (nAdj + nST);
    _wSmooth = 1.0;
    _wIdentity = 0.01;
    _wClosest = 1.0;
    if (!_solveFitting(true)) {
        _finishCholmod();
        return 0;
    }

    // Iterations: the pull toward the same closest points grows; each solve re-linearises the
    // frames around the previous result.
    for (int w = 10; w <= 10 * _iterCount; w += 10) {
        _progress(kDtIterationCount + std::to_string(w / 10));
        _wSmooth = 1.0;
        _wIdentity = 0.01;
        _wClosest = w;
        if (!_solveFitting(true)) {
            _finishCholmod();
            return 0;
        }
        if (_aim == kSourceToTarget) {
            _setOutDeformedSource();
            if (_aborted) {
                _finishCholmod();
                return 0;
            }
        }
    }
    _finishCholmod();

    if (_aim == kSourceToTarget) return 1;
    return _pairTriangles();
}

int KDeformationTransferSolver::_pairTriangles() {
    const int nST = _srcMesh.numTriangles();
    const int nTT = _trgMesh.numTriangles();
    _triCorres.setLengthWithValue(nTT, KInt4{-1, -1, -1, -1});

    KVectorArray srcCenters, trgCenters;
    _srcMesh.getTriangleCenters(srcCenters, true);
    _trgMesh.getTriangleCenters(trgCenters, true);
    const float radius = std::max(TriangleScale(_srcMesh.points, nST), TriangleScale(_trgMesh.points, nTT));

    KPointsDistTree centers;
    centers.setPoints(srcCenters, nullptr);

    const KVector* sp = _srcMesh.points.data();
    const KVector* tp = _trgMesh.points.data();
    const KInt3* st = _srcMesh.triangles.data();
    const KInt3* tt = _trgMesh.triangles.data();
    const KVector* tc = trgCenters.data();
    KInt4* corres = _triCorres.data();
    const int team = ResolveThreads(_threads);

    if (_calcMode == kSameTopology) {
        // The nearest centre only rejects target triangles that face away from, or lie far from,
        // the fitted source; the pair is the target's own index.
#pragma omp parallel for schedule(static) num_threads(team)
        for (int i = 0; i < nTT; ++i) {
            KIntArray ids;
            KFloatArray distances;
            centers.findNPoints(tc[i], 1, radius, ids, distances);
            bool found = !ids.empty();
            if (found) {
                const KVector nT = Normal(tp[tt[i][0]], tp[tt[i][1]], tp[tt[i][2]], true);
                const KInt3& s = st[ids[0]];
                const KVector nS = Normal(sp[s[0]], sp[s[1]], sp[s[2]], true);
                if (AngleDegrees(nT, nS) > 90.0f) found = false;
            }
            if (!found) {
                corres[i][3] += 1;
            } else {
                corres[i][0] = i;
                corres[i][3] = 1;
            }
        }
        return 1;
    }

    if (_calcMode == kDifferentTopology) {
#pragma omp parallel for schedule(static) num_threads(team)
        for (int i = 0; i < nTT; ++i) {
            KIntArray ids;
            KFloatArray distances;
            centers.findNPoints(tc[i], 1, radius, ids, distances);
            const KVector nT = Normal(tp[tt[i][0]], tp[tt[i][1]], tp[tt[i][2]], true);
            int first = -1;
            for (int j = 0; j < ids.length() && first < 0; ++j) {
                const KInt3& s = st[ids[j]];
                const KVector a = sp[s[0]];
                const KVector e1 = sp[s[1]] - a;
                const KVector e2 = sp[s[2]] - a;
                KVector nS = e1.cross(e2);
                nS *= FastInvSqrt(nS.x * nS.x + nS.y * nS.y + nS.z * nS.z + 1e-30f);
                if (AngleDegrees(nT, nS) <= 90.0f) first = ids[j];
            }
            if (first < 0) {
                corres[i][3] = 0;
            } else {
                corres[i][0] = first;
                corres[i][3] = 1;
            }
        }
        _progress(kDtCorrespondencesFound);
        return 1;
    }

    _sink->error(kDtInvalidCalcMode);
    return 0;
}

}  // namespace Kavrin
