#pragma once
// The relaxation deformer's binding: what it measures on the rest shape, per vertex, and how that
// is stored and loaded.
//
// For every vertex the binding keeps its neighbours twice (in the host's order, which gives the
// ring normal, and sorted by their polar angle in the vertex's tangent plane), the normalised
// mean-value weights of the sorted neighbours, the vertex's signed height above the plane of its
// neighbours and, per sorted neighbour, the cotangent of the angle between the ring normal and
// the edge (the scale-free height ratio). KRelaxationBindingData is that binding as the node stores
// it in its hidden compound-array attributes; KRelaxationCaches is the compact form the solve
// reads, filled by the loader.

#include <vector>

#include "KArray.h"
#include "KOutcome.h"
#include "KPolyMesh.h"

namespace Kavrin {

// The most neighbours a vertex may have; the solve's per-thread scratch holds this many.
const int kRelaxMaxNeighbours = 128;

// Failure messages of the binding and the loader.
extern const char* const kRelaxTooManyNeighbours;  // names 32 and ends with a stray quote, as it always has
extern const char* const kRelaxBadNrmOrder;        // "Failed to get connVrtNrmOrder."
extern const char* const kRelaxBadBScalable;       // "Failed to get bScalable."
extern const char* const kRelaxBadMeanValWgt;      // "Failed to get meanValWgt."
extern const char* const kRelaxBindBadRings;       // guard: host neighbour lists that do not fit the points
extern const char* const kRelaxLoadBadIds;         // guard: stored neighbours that are not vertices
extern const char* const kRelaxLoadTooLong;        // guard: a stored list longer than the solve's scratch

// The binding as stored with the node, one entry per vertex in geometry-iterator order. A list
// missing at the end (the vectors shorter than the vertex count) reads as empty, a missing height
// as 0.
struct KRelaxationBindingData {
    std::vector<std::vector<int> > connVrtId;          // "connVrtIdList": neighbours sorted by polar angle
    std::vector<std::vector<int> > connVrtIdNrmOrder;  // "connVrtIdNrmOrderList": the host's order
    std::vector<double> b;                             // "b": signed height above the neighbour plane
    std::vector<std::vector<double> > bScalable;       // "bScalableList": ratio per sorted neighbour
    std::vector<std::vector<double> > meanValueWeight; // "meanValueWeightList": weight per sorted neighbour

    void clear();
};

// One neighbour of the vertex being bound, in its tangent plane.
struct KPolarCoords {
    int vertexId = 0;
    double theta = 0.0;       // polar angle in [0, 2pi) (a hair below 0 just under the X axis)
    double radius = 0.0;      // distance from the vertex in the tangent plane
    double deltaTheta = 0.0;  // gap to the neighbour before it in polar order
};

// The sort predicate of the polar order.
inline bool PolarCoordsCompare(const KPolarCoords& a, const KPolarCoords& b) { return a.theta < b.theta; }

// The polar angle of the in-plane vector (u, w) by the quadrant rule: single-precision constants
// widened to double, |x| <= 1e-30 counting as zero, NaN giving 0.
double PolarAngle(double u, double w);

// The polar coordinates of the neighbours ids[0..n-1] (the host's order) of vertex i in its
// tangent plane, sorted by angle, with their gaps; normal gets the ring normal (KRingNormal.h) and
// centre the vertex projected into the neighbours' plane. Positions are rounded to single
// precision first, as the stored binding has always been measured. n must be at least 1 and the
// ids valid for points.
void PolarCoordinates(const KDouble3* points, int i, const int* ids, int n, std::vector<KPolarCoords>& polar,
                      double normal[3], double centre[3]);

// Binds every vertex 0..count-1. points: world-space positions (count of them); rings: each
// vertex's neighbours in the host's order (at least count lists). out is replaced. A vertex with
// more than kRelaxMaxNeighbours neighbours ends the bind with kRelaxTooManyNeighbours once its two
// neighbour lists are in out (the vertices before it are complete). A vertex without neighbours
// gets empty lists and height 0, and never moves. Lists naming a vertex outside [0, count) fail
// with kRelaxBindBadRings before anything is written to out.
KOutcome BindRelaxation(const KDouble3* points, int count, const KVertexNeighbours& rings, KRelaxationBindingData& out);

// The per-vertex caches the solve reads: the lists of vertex v are [offsets[v], offsets[v + 1])
// of each array (all four lists of a vertex have the same length).
struct KRelaxationCaches {
    KIntArray offsets;
    KIntArray connVrtIds;      // sorted order
    KIntArray nrmOrderIds;     // the host's order
    KArray<double> scalableRatios;
    KArray<double> meanValWeights;
    KFloatArray heightCache;
    int idLimit = 0;  // one more than the largest neighbour id (0 without neighbours)

    int numVertices() const { return offsets.length() > 0 ? offsets.length() - 1 : 0; }
    // True when the caches cover count vertices and name no vertex past them.
    bool fits(int count) const { return numVertices() >= count && idLimit <= count; }
    void clear();
};

// Loads the stored binding of count vertices into caches, vertex by vertex, checking that the
// four lists of each vertex agree in length (kRelaxBadNrmOrder, kRelaxBadBScalable,
// kRelaxBadMeanValWgt). On a failure caches are left as they were.
KOutcome LoadRelaxationCaches(const KRelaxationBindingData& stored, int count, KRelaxationCaches& caches);

}  // namespace Kavrin
