#pragma once
// Jiggle: secondary motion integrated frame by frame. Every vertex carries a simulated world-space
// position that a damped spring pulls towards the vertex's animated (goal) position, once per
// time step; the simulated position is then kept within a distance of the goal, optionally
// flattened along the surface normal and snapped back onto the surface, biased by direction, and
// blended into the output by the paint weight and the envelope.
//
// The engine keeps the deformer's simulation state between evaluations (current and previous
// world positions, velocities, the clock, whether it has started) and makes every decision: when
// the clock only moves, when nothing moves, when a step runs, which painted maps are replaced by
// full-weight maps. The node's attributes and its per-vertex data come in as plain values in
// KJiggleInput; the result says which maps to write back. KJiggleAttributes keeps the node's
// attributes in memory for hosts without a scene.

#include "KArray.h"
#include "KOutcome.h"
#include "KPolyMesh.h"
#include "KTriMeshDistTree.h"

namespace Kavrin {

// Failure messages (the node issues no other message).
extern const char* const kJiggleInputMismatch;
extern const char* const kJiggleBadIndex;
extern const char* const kJiggleMeshGrew;
extern const char* const kJiggleDampingMapTooShort;
extern const char* const kJiggleStiffnessMapTooShort;
extern const char* const kJiggleNormalStrengthMapTooShort;

// A painted per-vertex map as the host read it: values is null when the attribute could not be
// read. A map without values is replaced by one 1.0 per vertex and written back.
struct KJiggleMap {
    const double* values = nullptr;
    int length = 0;
};

// One evaluation's inputs: the envelope, the node's attributes, the geometry and the maps.
struct KJiggleInput {
    float envelope = 1.0f;
    double time = 0.0;  // "inTime", in the host's time unit
    int startFrame = 0;
    float timeScale = 1.0f;
    float damping = 0.1f;
    float stiffness = 0.3f;
    float normalStrength = 1.0f;
    float scale = 1.0f;
    float distanceLimit = 1.0f;
    float directionBias = 0.0f;
    bool moreAccurateTangent = false;

    // The deformer's local-to-world matrix and its inverse (row-vector convention, affine).
    double localToWorld[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
    double worldToLocal[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};

    // The deformed points in iterator order: object-space positions, vertex indices and paint
    // weights, one of each per point.
    const KArray<KDouble3>* points = nullptr;
    const KIntArray* indices = nullptr;
    const KArray<float>* weights = nullptr;

    int numVertices = 0;  // vertices of the mesh being deformed
    // Object-space unit vertex normals of that mesh, one per vertex (the mean of its faces'
    // normals, not angle-weighted). Read by the host only when KJiggleSolver::stepDue() says so.
    const KVectorArray* normals = nullptr;
    // The mesh's own points in object space, one per vertex: read by the host only when
    // KJiggleSolver::meshPointsNeeded() says so (the evaluation that starts the simulation).
    const KArray<KDouble3>* meshPoints = nullptr;
    // The mesh as triangles in object space, for snapping onto the surface (the engine brings it
    // into world space): read by the host only when KJiggleSolver::tangentMeshNeeded() says so.
    const KTriMesh* tangentMesh = nullptr;

    KJiggleMap dampingMap;         // "dampingMap"
    KJiggleMap stiffnessMap;       // "stiffnessMap"
    KJiggleMap normalStrengthMap;  // "normalStrengthMap"

    int threads = 1;  // team size of the parallel loops; 0 or less: the OpenMP default
};

// What the host writes back, in this order, after one evaluation.
struct KJiggleResult {
    KOutcome outcome;  // deformed: write KJiggleSolver::points(); otherwise leave the points
    bool writeDampingMap = false;         // write KJiggleSolver::fullMap() into "dampingMap"
    bool writeStiffnessMap = false;       // ... into "stiffnessMap"
    bool writeNormalStrengthMap = false;  // ... into "normalStrengthMap"
};

class KJiggleSolver {
public:
    // False when the envelope switches the deformer off (below 1e-30): evaluate() then leaves the
    // points as they are, so a host can skip reading its geometry.
    static bool Active(float envelope) { return !(envelope < 1e-30f); }

    // The team size of the parallel loops for the node's "computingMethod": the host's thread
    // count only for the value 2; any other value, "Multi-CPUs" (1) included, runs on one thread.
    static int TeamSize(int computingMethod, int hostThreads) { return computingMethod == 2 ? hostThreads : 1; }

    // Whether the next evaluation with this input starts the simulation (and so reads
    // KJiggleInput::meshPoints).
    bool meshPointsNeeded() const { return _firstEval; }
    // Whether evaluate(input) runs a simulation step (and so reads the normals and, with
    // "moreAccurateTangent", the tangent mesh).
    bool stepDue(const KJiggleInput& input) const;
    bool tangentMeshNeeded(const KJiggleInput& input) const { return input.moreAccurateTangent && stepDue(input); }

    // One evaluation. On a deformed outcome points() holds the new object-space position of every
    // deformed point, in iterator order.
    KJiggleResult evaluate(const KJiggleInput& input);

    const KArray<KDouble3>& points() const { return _points; }
    // One 1.0 per vertex: the map written back for a map without values.
    const KArray<double>& fullMap() const { return _fullMap; }

    // The simulation state, by vertex index (world space).
    bool started() const { return !_firstEval; }
    double lastTime() const { return _lastTime; }
    const KArray<KDouble3>& currentPositions() const { return _curPos; }
    const KArray<KDouble3>& previousPositions() const { return _prevPos; }
    const KArray<KDouble3>& velocities() const { return _velocity; }

private:
    // Checks what a step reads; distinct tells whether no vertex index repeats.
    KOutcome _checkStep(const KJiggleInput& in, bool& distinct);
    void _start(const KJiggleInput& in);
    void _step(const KJiggleInput& in, double h, int threads);

    bool _firstEval = true;
    double _lastTime = 0.0;
    KArray<KDouble3> _curPos;
    KArray<KDouble3> _prevPos;
    KArray<KDouble3> _velocity;
    KTriMesh _worldTanMesh;  // the snapping surface in world space
    KTriMeshDistTree _tanTree{10, 10};
    // Per vertex, the triangle its last snapping found (-1: none): the hint of its next search,
    // which then starts with a tight bound (the answer does not depend on it).
    KIntArray _tanHint;
    KArray<KDouble3> _points;
    KArray<double> _fullMap;
    KArray<char> _seen;  // per vertex: named by the step's points (checked for repeats)
};

// The jiggle node's attributes held in memory, for running the engine without a scene (the
// command line, tests, benchmarks): evaluate() fills the input from them and from a mesh, and
// writes back the maps the result asks for, as the node does with its data block.
struct KJiggleAttributes {
    int startFrame = 0;
    float timeScale = 1.0f;
    float damping = 0.1f;
    float stiffness = 0.3f;
    float normalStrength = 1.0f;
    float scale = 1.0f;
    float distanceLimit = 1.0f;
    float directionBias = 0.0f;
    bool moreAccurateTangent = false;
    bool hasDampingMap = false;
    KArray<double> dampingMap;
    bool hasStiffnessMap = false;
    KArray<double> stiffnessMap;
    bool hasNormalStrengthMap = false;
    KArray<double> normalStrengthMap;

    // One evaluation of mesh at time: every vertex is deformed, in vertex order, with the paint
    // weight weights[v] (1 for all when weights is null), the local-to-world matrix identity.
    KJiggleResult evaluate(KJiggleSolver& solver, const KPolyMesh& mesh, double time, const KArray<float>* weights,
                           float envelope, int threads);

private:
    KArray<KDouble3> _points;
    KIntArray _indices;
    KArray<float> _weights;
    KVectorArray _normals;
    KTriMesh _tangentMesh;
};

}  // namespace Kavrin
