#include "KRelaxationBinding.h"

#include <algorithm>
#include <cmath>

#include "KRingNormal.h"
#include "KThreads.h"

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

}  // namespace

void KRelaxationBindingData::clear() {
    connVrtId.clear();
    connVrtIdNrmOrder.clear();
    b.clear();
    bScalable.clear();
    meanValueWeight.clear();
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

namespace {

// PolarCoordinates with the caller's scratch for the ring.
void PolarCoordinates(const KDouble3* points, int i, const int* ids, int n, std::vector<KPolarCoords>& polar,
                      std::vector<KDouble3>& ring, double N[3], double c[3]) {
    // The ring normal of the neighbours in the host's order, from their exact positions.
    ring.resize(static_cast<size_t>(n));
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

}  // namespace

void PolarCoordinates(const KDouble3* points, int i, const int* ids, int n, std::vector<KPolarCoords>& polar,
                      double N[3], double c[3]) {
    std::vector<KDouble3> ring;
    PolarCoordinates(points, i, ids, n, polar, ring, N, c);
}

KOutcome BindRelaxation(const KDouble3* points, int count, const KVertexNeighbours& rings, KRelaxationBindingData& out,
                        int threads) {
    // Guard (behaviour note "Relaxation: neighbour lists outside the mesh").
    if (count > 0 && (!points || rings.numVertices() < count)) return KOutcome::Failed(kRelaxBindBadRings);
    for (int i = 0; i < count; ++i)
        for (const int* id = rings.begin(i); id != rings.end(i); ++id)
            if (*id < 0 || *id >= count) return KOutcome::Failed(kRelaxBindBadRings);

    out.clear();
    if (count <= 0) return KOutcome::Deformed();

    // The vertices before the first with too many neighbours are bound completely; that vertex
    // gets its two neighbour lists only.
    int complete = 0;
    while (complete < count && rings.count(complete) <= kRelaxMaxNeighbours) ++complete;
    const int listed = complete < count ? complete + 1 : count;

    // Every list of a vertex is as long as its ring, so the offsets are the rings' (to `listed`
    // for the neighbour lists, to `complete` for the others).
    const int* ringStart = rings.offsets.data();
    KIntArray& offsets = out.connVrtId.offsets;
    offsets.setLength(listed + 1, false);
    for (int v = 0; v <= listed; ++v) offsets[v] = ringStart[v] - ringStart[0];
    out.connVrtIdNrmOrder.offsets = offsets;
    out.connVrtId.values.setLength(offsets[listed], false);
    out.connVrtIdNrmOrder.values.setLength(offsets[listed], false);
    out.bScalable.offsets.assign(offsets.begin(), offsets.begin() + complete + 1);
    out.meanValueWeight.offsets = out.bScalable.offsets;
    out.bScalable.values.setLength(offsets[complete], false);
    out.meanValueWeight.values.setLength(offsets[complete], false);
    out.b.setLength(complete, false);

    int* sortedIds = out.connVrtId.values.data();
    int* orderIds = out.connVrtIdNrmOrder.values.data();
    double* heights = out.b.data();
    double* ratios = out.bScalable.values.data();
    double* weights = out.meanValueWeight.values.data();
    int idLimit = 0;
    // Decision (behaviour note "Relaxation: parallel bind"): every vertex writes only its own
    // lists, computed as they always were.
#pragma omp parallel num_threads(TeamFor(threads, complete)) reduction(max : idLimit)
    {
        std::vector<KPolarCoords> polar;
        std::vector<KDouble3> ring;
        polar.reserve(static_cast<size_t>(kRelaxMaxNeighbours));
        ring.reserve(static_cast<size_t>(kRelaxMaxNeighbours));
#pragma omp for schedule(static)
        for (int i = 0; i < complete; ++i) {
            const int* ids = rings.begin(i);
            const int n = rings.count(i);
            const int at = offsets[i];
            if (n < 1) {
                // Decision (behaviour note "Relaxation: vertices without neighbours").
                heights[i] = 0.0;
                continue;
            }
            double N[3], c[3];
            PolarCoordinates(points, i, ids, n, polar, ring, N, c);
            for (int k = 0; k < n; ++k) {
                sortedIds[at + k] = polar[k].vertexId;
                orderIds[at + k] = ids[k];
                idLimit = std::max(idLimit, ids[k] + 1);
            }

            // Each gap's half-angle tangent once (into the ratios' place, written below), shared by
            // the weights of the two neighbours beside it.
            double* w = weights + at;
            double* halfTan = ratios + at;
            for (int k = 0; k < n; ++k) halfTan[k] = std::tan(polar[k].deltaTheta / 2.0);
            double total = 0.0;
            for (int k = 0; k < n; ++k) {
                w[k] = (halfTan[k] + halfTan[(k + 1) % n]) / polar[k].radius;
                total += w[k];
            }
            for (int k = 0; k < n; ++k) w[k] /= total;

            const double P[3] = {Round(points[i][0]), Round(points[i][1]), Round(points[i][2])};
            const double e[3] = {P[0] - c[0], P[1] - c[1], P[2] - c[2]};
            double h = std::sqrt(Dot(e, e));
            if (Dot(N, e) < 0.0) h = -h;
            heights[i] = h;

            // Kept on purpose (behaviour note "Relaxation: zero and vertical edges").
            for (int k = 0; k < n; ++k) {
                const KDouble3& q = points[polar[k].vertexId];
                const double edge[3] = {P[0] - q[0], P[1] - q[1], P[2] - q[2]};
                const double cosine = Dot(N, edge) / std::sqrt(Dot(edge, edge));
                ratios[at + k] = cosine / std::sqrt(1.0 - cosine * cosine);
            }
        }
    }
    out.idLimit = idLimit;
    if (complete == count) return KOutcome::Deformed();

    // The two neighbour lists are written before the limit is checked.
    const int* ids = rings.begin(complete);
    const int n = rings.count(complete);
    std::vector<KPolarCoords> polar;
    double N[3], c[3];
    PolarCoordinates(points, complete, ids, n, polar, N, c);
    for (int k = 0; k < n; ++k) {
        sortedIds[offsets[complete] + k] = polar[k].vertexId;
        orderIds[offsets[complete] + k] = ids[k];
    }
    // Kept on purpose (behaviour note "Relaxation: the 128-neighbour message").
    return KOutcome::Failed(kRelaxTooManyNeighbours);
}

KOutcome LoadRelaxationCaches(const KRelaxationBindingData& stored, int count, KRelaxationBindingData& caches) {
    count = std::max(count, 0);
    // The lengths and ids first, vertex by vertex; then one copy into arrays of their final size.
    KIntArray offsets;
    offsets.setLength(count + 1, false);
    offsets[0] = 0;
    int idLimit = 0;
    for (int v = 0; v < count; ++v) {
        const int n = stored.connVrtId.count(v);
        if (stored.connVrtIdNrmOrder.count(v) != n) return KOutcome::Failed(kRelaxBadNrmOrder);
        if (stored.bScalable.count(v) != n) return KOutcome::Failed(kRelaxBadBScalable);
        if (stored.meanValueWeight.count(v) != n) return KOutcome::Failed(kRelaxBadMeanValWgt);
        // Guard (behaviour note "Relaxation: stored binding that does not fit").
        if (n > kRelaxMaxNeighbours) return KOutcome::Failed(kRelaxLoadTooLong);
        const int* sorted = stored.connVrtId.begin(v);
        const int* order = stored.connVrtIdNrmOrder.begin(v);
        for (int k = 0; k < n; ++k) {
            if (sorted[k] < 0 || order[k] < 0) return KOutcome::Failed(kRelaxLoadBadIds);
            idLimit = std::max(idLimit, std::max(sorted[k], order[k]) + 1);
        }
        offsets[v + 1] = offsets[v] + n;
    }

    KRelaxationBindingData loaded;
    loaded.idLimit = idLimit;
    auto copy = [count, &offsets](const auto& from, auto& to) {
        to.offsets = offsets;
        to.values.setLength(offsets[count], false);
        for (int v = 0; v < count; ++v) std::copy(from.begin(v), from.end(v), to.values.data() + offsets[v]);
    };
    copy(stored.connVrtId, loaded.connVrtId);
    copy(stored.connVrtIdNrmOrder, loaded.connVrtIdNrmOrder);
    copy(stored.bScalable, loaded.bScalable);
    copy(stored.meanValueWeight, loaded.meanValueWeight);
    loaded.b.setLength(count, true);
    std::copy(stored.b.begin(), stored.b.begin() + std::min(count, stored.b.length()), loaded.b.begin());
    std::swap(caches, loaded);
    return KOutcome::Deformed();
}

}  // namespace Kavrin
