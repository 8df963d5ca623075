#pragma once
// Delta mush: smooth a mesh over its polygon edges, then restore the detail the smoothing
// removed from per-vertex deltas stored in tangent frames of the smoothed rest mesh.
//
// The engine holds the deformer's state between evaluations and makes every decision (when to
// capture the rest shape, when to rebind, what to report); the node's stored attributes are
// reached through KDeltaMushStore, so the host layer only moves data.

#include "KAxis.h"
#include "KJacobiSmoother.h"
#include "KMessageSink.h"
#include "KPolyMesh.h"

namespace Kavrin {

// The deformer's stored attributes, as the engine sees them.
class KDeltaMushStore {
public:
    virtual ~KDeltaMushStore() {}
    virtual bool onlyOnce() = 0;             // "onlyOnce"
    virtual void setOnlyOnce(bool value) = 0;
    virtual void captureRestMesh() = 0;      // copy the evaluated input mesh into "restMesh"
    virtual bool gotDelta() = 0;             // "gotDelta"
    virtual void setGotDelta(bool value) = 0;
    virtual int numIter() = 0;               // "numIter"
    // The "restMesh" as a triangle mesh with its polygon-edge neighbours; empty when none is stored.
    virtual void readRestMesh(KTriMesh& mesh, KVertexNeighbours& neighbours) = 0;
    // The "delta" array; returns false when the attribute has no data at all.
    virtual bool readDelta(KArray<KDouble3>& deltas) = 0;
    virtual void writeDelta(const KArray<KDouble3>& deltas) = 0;
};

// Guard messages: geometry that would make the bind or the reconstruction read past an array.
extern const char* const kDeltaMushRestTooSmall;
extern const char* const kDeltaMushMeshTooSmall;
extern const char* const kDeltaMushBadNeighbours;

class KDeltaMushSolver {
public:
    enum Result { kUntouched, kDeformed };

    // One evaluation. mesh is the input mesh in object space with its polygon-edge neighbours
    // (built from that same mesh: only their size is checked here, their contents when a rest
    // mesh is bound); pointCount the number of points of the deformed geometry. On kDeformed, result() holds one
    // reconstructed point per geometry index; on kUntouched the points must be left as they are.
    Result deform(const KTriMesh& mesh, const KVertexNeighbours& neighbours, int pointCount, float envelope,
                  KDeltaMushStore& store, KMessageSink& sink);

    // False when the envelope switches the deformer off (below 1e-30): deform() then leaves the
    // points as they are, so a host can skip reading its meshes.
    static bool Active(float envelope) { return !(envelope < 1e-30f); }

    const KVectorArray& result() const { return _smoothPoints; }

    // The value written back for point idx: its reconstructed position with the current
    // homogeneous weight w, times the inverse local-to-world matrix.
    void objectPoint(int idx, double w, const double inverseMatrix[4][4], double out[4]) const;

    // Sweep count the stored deltas were computed with (0 for a new node).
    int boundIterations() const { return _numIter; }

    void setThreads(int threads) { _threads = threads; }

private:
    bool _bind(int pointCount, KDeltaMushStore& store, KMessageSink& sink);

    int _numIter = 0;
    int _threads = 0;
    KAxisArray _frames;
    KTangentSpaceBuilder _restTangents;
    KTangentSpaceBuilder _tangents;
    KJacobiSmoother _restSmoother;
    KJacobiSmoother _smoother;
    KVectorArray _smoothPoints;
    KArray<KDouble3> _storedDeltas;
    KVectorArray _deltas;
    std::vector<double> _work;
};

}  // namespace Kavrin
