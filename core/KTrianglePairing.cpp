#include "KTrianglePairing.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "KPointsDistTree.h"
#include "KThreads.h"
#include "Normal.h"

namespace Kavrin {

namespace {

// The square root of twice the bounding box's surface area shared out over the triangles.
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

float PairingRadius(const KTriMesh& fittedSource, const KTriMesh& target) {
    return std::max(TriangleScale(fittedSource.points, fittedSource.numTriangles()),
                    TriangleScale(target.points, target.numTriangles()));
}

bool PairTriangles(const KTriMesh& fittedSource, const KTriMesh& target, short calcMode, int threads,
                   KInt4Array& triCorres) {
    const int nTT = target.numTriangles();
    triCorres.setLengthWithValue(nTT, KInt4{-1, -1, -1, -1});
    if (calcMode != 1 && calcMode != 2) return false;

    KVectorArray srcCenters, trgCenters;
    fittedSource.getTriangleCenters(srcCenters, true);
    target.getTriangleCenters(trgCenters, true);
    const float radius = PairingRadius(fittedSource, target);
    KPointsDistTree centers;
    centers.setPoints(srcCenters, nullptr);

    const KVector* sp = fittedSource.points.data();
    const KVector* tp = target.points.data();
    const KInt3* st = fittedSource.triangles.data();
    const KInt3* tt = target.triangles.data();
    const KVector* tc = trgCenters.data();
    KInt4* corres = triCorres.data();
    const bool same = calcMode == 1;
#pragma omp parallel num_threads(ResolveThreads(threads))
    {
        // The search's results, kept by the thread from one triangle to the next.
        KIntArray ids;
        KFloatArray distances;
#pragma omp for schedule(static)
        for (int i = 0; i < nTT; ++i) {
            // Guard (behaviour note "Deformation transfer: pairing search without a hit").
            centers.findNPoints(tc[i], 1, radius, ids, distances);
            const KVector nT = Normal(tp[tt[i][0]], tp[tt[i][1]], tp[tt[i][2]], true);
            int first = -1;
            for (int j = 0; j < ids.length() && first < 0; ++j) {
                // Both modes compare against the nearest centre's triangle; "Same Topology" then
                // pairs the target's own index.
                const KInt3& s = st[ids[j]];
                const KVector a = sp[s[0]];
                const KVector e1 = sp[s[1]] - a;
                const KVector e2 = sp[s[2]] - a;
                KVector nS = e1.cross(e2);
                nS *= FastInvSqrt(nS.x * nS.x + nS.y * nS.y + nS.z * nS.z + 1e-30f);
                if (AngleDegrees(nT, nS) <= 90.0f) first = ids[j];
            }
            if (same) {
                if (first < 0) {
                    corres[i][3] += 1;
                } else {
                    corres[i][0] = i;
                    corres[i][3] = 1;
                }
            } else if (first < 0) {
                corres[i][3] = 0;
            } else {
                corres[i][0] = first;
                corres[i][3] = 1;
            }
        }
    }
    return true;
}

std::string TriangleCorrespondenceLog(const KInt4Array& triCorres) {
    std::string log;
    for (int i = 0; i < triCorres.length(); ++i)
        log += "select -r young.f[" + std::to_string(i) + "] old.f[" + std::to_string(triCorres[i][0]) + "];\n";
    return log;
}

}  // namespace Kavrin
