#pragma once
// Delta mush: smooth a mesh over its polygon edges, then restore the detail the smoothing
// removed from per-vertex deltas stored in tangent frames of the smoothed rest mesh.
//
// The engine keeps the deformer's state between evaluations (the sweep count the deltas were
// bound with, the topology tables, the working arrays) and makes every decision: when the rest
// shape is captured, when to rebind, what fails. The node's stored attributes come in as plain
// values in KDeltaMushInput; the result says which of them to write back. KDeltaMushAttributes
// keeps those attributes in memory for hosts without a scene.

#include "KFanNormals.h"
#include "KJacobiSmoother.h"
#include "KOutcome.h"
#include "KPolyMesh.h"

namespace Kavrin {

// Failure messages.
extern const char* const kDeltaMushNoDelta;        // "No delta found."
extern const char* const kDeltaMushWrongDeltaSize; // "Wrong size of the delta array."
extern const char* const kDeltaMushRestTooSmall;
extern const char* const kDeltaMushNoRestMesh;
extern const char* const kDeltaMushMeshTooSmall;
extern const char* const kDeltaMushBadFaces;

// One evaluation's inputs: the envelope, the input mesh and the node's stored attributes.
struct KDeltaMushInput {
    float envelope = 1.0f;
    const KPolyMesh* mesh = nullptr;  // the input mesh in object space, faces as the host gives them
    int pointCount = 0;               // points of the deformed geometry (the iterator's count)
    bool onlyOnce = true;             // "onlyOnce"
    bool gotDelta = false;            // "gotDelta"
    int numIter = 15;                 // "numIter"
    // "restMesh": read by the host only when KDeltaMushSolver::restMeshNeeded() says so; null
    // when the attribute holds no mesh.
    const KPolyMesh* restMesh = nullptr;
    // "delta": null when the attribute holds no data.
    const KArray<KDouble3>* delta = nullptr;
    int threads = 0;  // team size of the parallel loops; 0 or less: the OpenMP default
};

// What the host writes back, in this order, after one evaluation.
struct KDeltaMushResult {
    KOutcome outcome;
    bool captureRestMesh = false;  // copy the input mesh into "restMesh" and write false to "onlyOnce"
    bool writeDelta = false;       // write KDeltaMushSolver::boundDelta() into "delta"
    bool writeGotDelta = false;    // write true to "gotDelta"
};

class KDeltaMushSolver {
public:
    // False when the envelope switches the deformer off (below 1e-30): evaluate() then leaves the
    // points as they are, so a host can skip reading its meshes.
    static bool Active(float envelope) { return !(envelope < 1e-30f); }

    // Whether evaluate(input) binds from the stored rest mesh, so that a host reads "restMesh"
    // only then (converting it costs as much as the input mesh).
    bool restMeshNeeded(const KDeltaMushInput& input) const;

    // One evaluation. On a deformed outcome points() holds one reconstructed point per geometry
    // index; otherwise the host leaves the points as they are.
    KDeltaMushResult evaluate(const KDeltaMushInput& input);

    // The reconstructed points (object space of the input mesh, before the inverse matrix).
    const KVectorArray& points() const { return _points; }
    // The deltas computed by the evaluation that bound, to be stored in "delta" right after it;
    // the next evaluation lets them go (the host holds them then). takeBoundDelta() hands them
    // over instead of a copy.
    const KArray<KDouble3>& boundDelta() const { return _boundDelta; }
    KArray<KDouble3> takeBoundDelta() { return std::move(_boundDelta); }

    // The value written back for point idx: its reconstructed position with the current
    // homogeneous weight w, times the inverse local-to-world matrix.
    void objectPoint(int idx, double w, const double inverseMatrix[4][4], double out[4]) const;

    // Sweep count the stored deltas were computed with (0 for a new node).
    int boundIterations() const { return _numIter; }
    // For a host that saved a binding ("delta" and its sweep count) and restores it into a new
    // engine: the next evaluation with this "numIter" and "gotDelta" true takes the stored deltas
    // as they are instead of binding again from the rest mesh.
    void restoreBinding(int numIter) { _numIter = numIter; }

private:
    bool _bindDue(const KDeltaMushInput& input) const;
    KOutcome _bind(const KPolyMesh& rest, const KDeltaMushInput& input);
    // Makes the tables those of mesh's faces, rebuilding them only when the faces differ from the
    // last call's; false, leaving no tables, when the faces are not valid for the mesh's points.
    bool _setTopology(const KPolyMesh& mesh, int threads);
    // Smooths the points of mesh into _smooth and sums the fan normals of the smoothed mesh.
    void _smoothAndSum(const KPolyMesh& mesh, int threads);

    int _numIter = 0;
    // The faces the tables below are for.
    bool _valid = false;
    int _numVertices = -1;
    KIntArray _faceCounts;
    KIntArray _faceVertices;
    KJacobiSmoother _smoother;
    KFanNormals _normals;
    KVectorArray _smooth;  // the smoothed points, and one more point (zero)
    KVectorArray _points;  // the reconstructed points
    KArray<KDouble3> _boundDelta;
};

// The delta-mush node's stored attributes held in memory, for running the engine without a scene
// (the command line, tests, benchmarks): evaluate() fills the input from them and writes back
// what the result asks for, as the node does with its data block.
struct KDeltaMushAttributes {
    bool onlyOnce = true;
    bool gotDelta = false;
    int numIter = 15;
    bool hasRestMesh = false;
    KPolyMesh restMesh;
    bool hasDelta = false;
    KArray<KDouble3> delta;

    KDeltaMushResult evaluate(KDeltaMushSolver& solver, const KPolyMesh& mesh, float envelope, int threads);
};

}  // namespace Kavrin
