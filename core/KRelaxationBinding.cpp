#include "KRelaxationBinding.h"

#include <algorithm>
#include <cmath>

#include "KRingNormal.h"

namespace Kavrin {

const char* const kRelaxTooManyNeighbours = "Only supports meshes with 32 or fewer connected vertices per vertex\"";
const char* const kRelaxBadNrmOrder = "Failed to get connVrtNrmOrder.";
const char* const kRelaxBadBScalable = "Failed to get bScalable.";
const char* const kRelaxBadMeanValWgt = "Failed to get meanValWgt.";
const char* const kRelaxBindBadRings =
    "KRelaxationMeshDeformer: the mesh's neighbour lists name vertices it does not have; nothing was bound.";
const char* const kRelaxLoadBadIds =
    "KRelaxationMeshDeformer: the stored binding names vertices the mesh does not have; the points were left "
    "untouched.";
const char* const kRelaxLoadTooLong =
    "KRelaxationMeshDeformer: the stored binding lists more than 128 neighbours for a vertex; the points were left "
    "untouched.";

namespace {

// Single-precision constants widened to double, as the angles have always been computed.
const double kEpsilon = 1.0000000031710769e-30;
const double kTwoPi = 6.2831854820251465;
const double kPi = 3.1415927410125732;
const double kHalfPi = 1.5707963705062866;
const double kThreeHalfPi = 4.71238899230957;

inline double Round(double x) { return static_cast<double>(static_cast<float>(x)); }
inline double Dot(const double a[3], const double b[3]) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
inline void Normalise(double v[3]) {
    const double len = std::sqrt(Dot(v, v));
    if (len > 0.0)
        for (int j = 0; j < 3; ++j) v[j] /= len;
}

template <typename T>
const std::vector<T>& ListAt(const std::vector<std::vector<T> >& lists, int v) {
    static const std::vector<T> kEmpty;
    return v < static_cast<int>(lists.size()) ? lists[v] : kEmpty;
}

}  // namespace

void KRelaxationBindingData::clear() {
    connVrtId.clear();
    connVrtIdNrmOrder.clear();
    b.clear();
    bScalable.clear();
    meanValueWeight.clear();
}

void KRelaxationCaches::clear() {
    offsets.clear();
    connVrtIds.clear();
    nrmOrderIds.clear();
    scalableRatios.clear();
    meanValWeights.clear();
    heightCache.clear();
    idLimit = 0;
}

double PolarAngle(double u, double w) {
    if (u > 0.0 && (w > 0.0 || std::fabs(w) <= kEpsilon)) return std::atan(w / u);
    if (u > 0.0 && w < -kEpsilon) return std::atan(w / u) + kTwoPi;
    if (u < 0.0) return std::atan(w / u) + kPi;
    if (std::fabs(u) <= kEpsilon) {
        if (w > 0.0) return kHalfPi;
        if (w < 0.0) return kThreeHalfPi;
        if (std::fabs(w) <= kEpsilon) return 0.0;
    }
    return 0.0;
}

void PolarCoordinates(const KDouble3* points, int i, const int* ids, int n, std::vector<KPolarCoords>& polar,
                      double N[3], double c[3]) {
    // The ring normal of the neighbours in the host's order, from their exact positions.
    std::vector<KDouble3> ring(static_cast<size_t>(n));
    for (int k = 0; k < n; ++k) ring[k] = points[ids[k]];
    const KDouble3 ringNormal = RingNormal(ring.data(), n);
    for (int j = 0; j < 3; ++j) N[j] = ringNormal[j];

    // The neighbour plane through the rounded neighbours, and the projection onto it.
    auto rounded = [points](int id, double q[3]) {
        for (int j = 0; j < 3; ++j) q[j] = Round(points[id][j]);
    };
    double sum = 0.0, q[3];
    for (int k = 0; k < n; ++k) {
        rounded(ids[k], q);
        sum += Dot(N, q);
    }
    const double d = -sum / n;
    auto project = [N, d](const double x[3], double r[3]) {
        const double s = Dot(N, x) + d;
        for (int j = 0; j < 3; ++j) r[j] = x[j] - N[j] * s;
    };
    double P[3], X[3], Y[3];
    rounded(i, P);
    project(P, c);
    rounded(ids[0], q);
    project(q, X);
    for (int j = 0; j < 3; ++j) X[j] -= c[j];
    Normalise(X);
    Y[0] = N[1] * X[2] - N[2] * X[1];
    Y[1] = N[2] * X[0] - N[0] * X[2];
    Y[2] = N[0] * X[1] - N[1] * X[0];
    Normalise(Y);

    polar.resize(static_cast<size_t>(n));
    for (int k = 0; k < n; ++k) {
        double v[3];
        rounded(ids[k], q);
        project(q, v);
        for (int j = 0; j < 3; ++j) v[j] -= c[j];
        const double u = Dot(X, v), w = Dot(Y, v);
        KPolarCoords& pc = polar[k];
        pc.vertexId = ids[k];
        pc.radius = std::sqrt(u * u + w * w);
        // Decision (behaviour note "Relaxation: the X-axis neighbour has angle 0").
        pc.theta = k == 0 ? 0.0 : PolarAngle(u, w);
        pc.deltaTheta = 0.0;
    }
    std::sort(polar.begin(), polar.end(), PolarCoordsCompare);
    // Kept on purpose (behaviour note "Relaxation: the first gap ignores the first angle").
    polar[0].deltaTheta = kTwoPi - polar[n - 1].theta;
    for (int k = 1; k < n; ++k) polar[k].deltaTheta = polar[k].theta - polar[k - 1].theta;
}

KOutcome BindRelaxation(const KDouble3* points, int count, const KVertexNeighbours& rings, KRelaxationBindingData& out) {
    // Guard (behaviour note "Relaxation: neighbour lists outside the mesh").
    if (count > 0 && (!points || rings.numVertices() < count)) return KOutcome::Failed(kRelaxBindBadRings);
    for (int i = 0; i < count; ++i)
        for (const int* id = rings.begin(i); id != rings.end(i); ++id)
            if (*id < 0 || *id >= count) return KOutcome::Failed(kRelaxBindBadRings);

    out.clear();
    out.connVrtId.reserve(static_cast<size_t>(count));
    out.connVrtIdNrmOrder.reserve(static_cast<size_t>(count));
    out.b.reserve(static_cast<size_t>(count));
    out.bScalable.reserve(static_cast<size_t>(count));
    out.meanValueWeight.reserve(static_cast<size_t>(count));

    std::vector<KPolarCoords> polar;
    for (int i = 0; i < count; ++i) {
        const int* ids = rings.begin(i);
        const int n = rings.count(i);
        if (n < 1) {
            // Decision (behaviour note "Relaxation: vertices without neighbours").
            out.connVrtId.push_back(std::vector<int>());
            out.connVrtIdNrmOrder.push_back(std::vector<int>());
            out.meanValueWeight.push_back(std::vector<double>());
            out.b.push_back(0.0);
            out.bScalable.push_back(std::vector<double>());
            continue;
        }
        double N[3], c[3];
        PolarCoordinates(points, i, ids, n, polar, N, c);

        // The two neighbour lists are written before the limit is checked.
        std::vector<int> sorted(static_cast<size_t>(n));
        for (int k = 0; k < n; ++k) sorted[k] = polar[k].vertexId;
        out.connVrtId.push_back(sorted);
        out.connVrtIdNrmOrder.push_back(std::vector<int>(ids, ids + n));
        // Kept on purpose (behaviour note "Relaxation: the 128-neighbour message").
        if (n > kRelaxMaxNeighbours) return KOutcome::Failed(kRelaxTooManyNeighbours);

        std::vector<double> weights(static_cast<size_t>(n));
        double total = 0.0;
        for (int k = 0; k < n; ++k) {
            weights[k] =
                (std::tan(polar[k].deltaTheta / 2.0) + std::tan(polar[(k + 1) % n].deltaTheta / 2.0)) / polar[k].radius;
            total += weights[k];
        }
        for (double& w : weights) w /= total;
        out.meanValueWeight.push_back(weights);

        const double P[3] = {Round(points[i][0]), Round(points[i][1]), Round(points[i][2])};
        const double e[3] = {P[0] - c[0], P[1] - c[1], P[2] - c[2]};
        double h = std::sqrt(Dot(e, e));
        if (Dot(N, e) < 0.0) h = -h;
        out.b.push_back(h);

        // Kept on purpose (behaviour note "Relaxation: zero and vertical edges").
        std::vector<double> ratios(static_cast<size_t>(n));
        for (int k = 0; k < n; ++k) {
            const KDouble3& q = points[polar[k].vertexId];
            const double edge[3] = {P[0] - q[0], P[1] - q[1], P[2] - q[2]};
            const double cosine = Dot(N, edge) / std::sqrt(Dot(edge, edge));
            ratios[k] = cosine / std::sqrt(1.0 - cosine * cosine);
        }
        out.bScalable.push_back(ratios);
    }
    return KOutcome::Deformed();
}

KOutcome LoadRelaxationCaches(const KRelaxationBindingData& stored, int count, KRelaxationCaches& caches) {
    KRelaxationCaches loaded;
    loaded.offsets.reserve(static_cast<size_t>(count > 0 ? count + 1 : 1));
    loaded.offsets.push_back(0);
    loaded.heightCache.reserve(static_cast<size_t>(count > 0 ? count : 0));
    int idLimit = 0;
    for (int v = 0; v < count; ++v) {
        const std::vector<int>& sorted = ListAt(stored.connVrtId, v);
        const std::vector<int>& order = ListAt(stored.connVrtIdNrmOrder, v);
        const std::vector<double>& ratios = ListAt(stored.bScalable, v);
        const std::vector<double>& weights = ListAt(stored.meanValueWeight, v);
        if (order.size() != sorted.size()) return KOutcome::Failed(kRelaxBadNrmOrder);
        loaded.heightCache.push_back(
            static_cast<float>(v < static_cast<int>(stored.b.size()) ? stored.b[static_cast<size_t>(v)] : 0.0));
        if (ratios.size() != sorted.size()) return KOutcome::Failed(kRelaxBadBScalable);
        if (weights.size() != sorted.size()) return KOutcome::Failed(kRelaxBadMeanValWgt);
        // Guard (behaviour note "Relaxation: stored binding that does not fit").
        if (sorted.size() > static_cast<size_t>(kRelaxMaxNeighbours)) return KOutcome::Failed(kRelaxLoadTooLong);
        for (size_t k = 0; k < sorted.size(); ++k) {
            if (sorted[k] < 0 || order[k] < 0) return KOutcome::Failed(kRelaxLoadBadIds);
            idLimit = std::max(idLimit, std::max(sorted[k], order[k]) + 1);
        }
        loaded.connVrtIds.insert(loaded.connVrtIds.end(), sorted.begin(), sorted.end());
        loaded.nrmOrderIds.insert(loaded.nrmOrderIds.end(), order.begin(), order.end());
        loaded.scalableRatios.insert(loaded.scalableRatios.end(), ratios.begin(), ratios.end());
        loaded.meanValWeights.insert(loaded.meanValWeights.end(), weights.begin(), weights.end());
        loaded.offsets.push_back(loaded.connVrtIds.length());
    }
    loaded.idLimit = idLimit;
    std::swap(caches, loaded);
    return KOutcome::Deformed();
}

}  // namespace Kavrin
