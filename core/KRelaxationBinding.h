#pragma once
// The relaxation deformer's binding: what it measures on the rest shape, per vertex, and how that
// is stored and loaded.
//
// For every vertex the binding keeps its neighbours twice (in the host's order, which gives the
// ring normal, and sorted by their polar angle in the vertex's tangent plane), the normalised
// mean-value weights of the sorted neighbours, the vertex's signed height above the plane of its
// neighbours and, per sorted neighbour, the cotangent of the angle between the ring normal and
// the edge (the scale-free height ratio). KRelaxationBindingData holds that binding in flat
// arrays, as the node stores it in its hidden compound-array attributes and as the solve reads it
// (the loader checks a stored binding and copies it into the form the solve reads).

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

// One list per vertex in compressed form: list v is values[offsets[v] .. offsets[v + 1]).
template <typename T>
struct KRelaxationLists {
    KIntArray offsets;  // size() + 1 entries (none while there are no lists)
    KArray<T> values;

    int size() const { return offsets.length() > 0 ? offsets.length() - 1 : 0; }
    // List v; a list past size() reads as empty.
    int count(int v) const { return v < size() ? offsets[v + 1] - offsets[v] : 0; }
    const T* begin(int v) const { return values.data() + (v < size() ? offsets[v] : 0); }
    const T* end(int v) const { return begin(v) + count(v); }
    std::vector<T> list(int v) const { return std::vector<T>(begin(v), end(v)); }

    // Appends one list.
    void append(const T* first, int n) {
        if (offsets.empty()) offsets.push_back(0);
        values.insert(values.end(), first, first + n);
        offsets.push_back(values.length());
    }
    // Replaces the lists with the given ones.
    void assign(const std::vector<std::vector<T> >& lists) {
        clear();
        for (const std::vector<T>& l : lists) append(l.data(), static_cast<int>(l.size()));
    }
    void clear() {
        offsets.clear();
        values.clear();
    }
};

// The binding, one entry per vertex in geometry-iterator order. As stored with the node a list
// may be missing at the end (fewer lists than vertices; it reads as empty) and a height too (it
// reads as 0); bound or loaded, every vertex has its four lists, all of one length.
struct KRelaxationBindingData {
    KRelaxationLists<int> connVrtId;            // "connVrtIdList": neighbours sorted by polar angle
    KRelaxationLists<int> connVrtIdNrmOrder;    // "connVrtIdNrmOrderList": the host's order
    KArray<double> b;                           // "b": signed height above the neighbour plane
    KRelaxationLists<double> bScalable;         // "bScalableList": ratio per sorted neighbour
    KRelaxationLists<double> meanValueWeight;   // "meanValueWeightList": weight per sorted neighbour
    int idLimit = 0;  // bound or loaded: one more than the largest neighbour id (0 without neighbours)

    // Bound or loaded: true when the binding covers count vertices and names no vertex past them.
    bool fits(int count) const { return connVrtId.size() >= count && b.length() >= count && idLimit <= count; }
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
// with kRelaxBindBadRings before anything is written to out. threads: team size of the parallel
// loop over the vertices (0: the OpenMP default); the result does not depend on it.
KOutcome BindRelaxation(const KDouble3* points, int count, const KVertexNeighbours& rings, KRelaxationBindingData& out,
                        int threads = 1);

// Loads the stored binding of count vertices into the form the solve reads, vertex by vertex,
// checking that the four lists of each vertex agree in length (kRelaxBadNrmOrder,
// kRelaxBadBScalable, kRelaxBadMeanValWgt). On a failure loaded is left as it was.
KOutcome LoadRelaxationCaches(const KRelaxationBindingData& stored, int count, KRelaxationBindingData& loaded);

}  // namespace Kavrin
