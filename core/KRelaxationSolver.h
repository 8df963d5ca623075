#pragma once
// The relaxation deformer: every pass moves each vertex to the point its neighbour ring
// prescribes (the mean-value combination of the neighbours projected into their plane, lifted
// along the ring normal by the stored height) and blends it back towards where it was by its
// stiffness; optional collision passes push vertices out of collider meshes; the result is
// blended with the input by the painted weights and the envelope.
//
// The engine keeps the node's state between evaluations (the first-run flag, the binding caches,
// the working arrays) and makes every decision of an evaluation: when to bind, when to load the
// stored binding, when collisions run, what fails. The node's stored attributes come in as plain
// values in KRelaxationInput; the result says which of them to write back. KRelaxationAttributes
// keeps them in memory for hosts without a scene.

#include <vector>

#include "KOutcome.h"
#include "KRelaxationBinding.h"
#include "KRelaxationCollisions.h"

namespace Kavrin {

// Failure messages of the evaluation (the binding's and the loader's are in KRelaxationBinding.h).
extern const char* const kRelaxNoPoints;         // guard: fewer points than the iterator's count
extern const char* const kRelaxNotFinite;        // guard: an input point that is NaN or infinite
extern const char* const kRelaxNoRings;          // guard: a bind without the host's neighbour lists
extern const char* const kRelaxCachesDoNotFit;   // guard: caches loaded for another mesh
extern const char* const kRelaxNoColliders;      // guard: colliders announced but not passed
extern const char* const kRelaxBadMultipliers;   // guard: collider multipliers that do not cover the mesh
extern const char* const kRelaxNoNormals;        // guard: collisions without the input's normals

// The stiffness every vertex gets when the mesh is bound.
const double kRelaxDefaultStiffness = 0.3;

struct KRelaxationInput {
    float envelope = 1.0f;
    // The input positions in object space, one per geometry index, and the deformer's world matrix
    // and its inverse (row-vector convention: point times matrix).
    const KDouble3* points = nullptr;
    int count = 0;
    double worldMatrix[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
    double inverseWorldMatrix[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
    // The painted deformer weight of each vertex (count values); null: all 1.
    const float* weights = nullptr;

    int iterations = 10;           // "iterations"
    bool doCollisions = true;      // "doCollisions"
    int collisionSteps = 1;        // "collisionSteps"
    bool enableScaleSafe = false;  // "enableScaleSafe"
    // "stiffness": null when the attribute holds no data.
    const KArray<double>* stiffness = nullptr;
    // Each vertex's neighbours in the host's order; read only when bindingDue() says so.
    const KVertexNeighbours* rings = nullptr;
    // The stored binding; read only when storedBindingNeeded() says so.
    const KRelaxationBindingData* stored = nullptr;

    // Colliders ("mshCollider" elements in physical order) with their multipliers: count rows of
    // numColliders values (vertex-major, MultiplierTable; null: all 0), and the input mesh's
    // object-space vertex normals (count; brought into world space by the inverse transpose of
    // worldMatrix and made unit length here), read only when collisionsNeeded() says so.
    const KRelaxationCollider* colliders = nullptr;
    int numColliders = 0;
    const KArray<double>* multipliers = nullptr;
    const KVector* normals = nullptr;

    int threads = 0;  // team size of the parallel loops; 0 or less: the OpenMP default
};

// What the host writes back, in this order, after one evaluation.
struct KRelaxationResult {
    KOutcome outcome;
    // Write binding() into the five stored lists; also set when a bind stopped at a vertex with
    // too many neighbours (the lists written up to there are kept, as they always were).
    bool writeBinding = false;
    bool writeStiffness = false;  // write stiffness() into "stiffness"
};

class KRelaxationSolver {
public:
    // False when the envelope is exactly 0: evaluate() then does nothing at all, not even bind.
    static bool Active(float envelope) { return envelope != 0.0f; }

    // Whether evaluate(input) binds: "stiffness" is missing or its length differs from the vertex
    // count. The host then passes the neighbour lists in the host's order.
    bool bindingDue(const KRelaxationInput& input) const;
    // Whether evaluate(input) loads the stored binding (the first evaluation that does not bind).
    bool storedBindingNeeded(const KRelaxationInput& input) const;
    // Whether evaluate(input) runs collision passes, so that the host reads its colliders, their
    // multipliers and the input's normals only then.
    bool collisionsNeeded(const KRelaxationInput& input) const;

    KRelaxationResult evaluate(const KRelaxationInput& input);

    // The result in object space, one point per geometry index.
    const KArray<KDouble3>& points() const { return _work[_result]; }
    // The binding of the last bind and the stiffness it set, for the write-backs.
    const KRelaxationBindingData& binding() const { return _lastBindInCaches ? _caches : _rebound; }
    const KArray<double>& stiffness() const { return _stiffness; }
    bool firstRun() const { return _firstRun; }
    // The passes after which the last evaluation ran collisions.
    const KIntArray& collisionPasses() const { return _collisionPasses; }

    // Whether the pass with this index runs collisions: pass 0, every steps-th pass and the last.
    static bool CollisionDue(int pass, int iterations, int steps);

private:
    void _relaxPass(const KArray<KDouble3>& prev, KArray<KDouble3>& cur, const float* weights, const double* stiffness,
                    bool scaleSafe, int threads) const;

    bool _firstRun = true;
    // What the solve reads: the first evaluation's bind, or the stored binding it loaded.
    KRelaxationBindingData _caches;
    // A bind that the solve does not read (a later one, or one stopped by too many neighbours),
    // held for the write-back.
    KRelaxationBindingData _rebound;
    bool _lastBindInCaches = false;
    KArray<double> _stiffness;  // the stiffness of the last bind
    // The two working arrays: an evaluation starts with the world-space input in the one that does
    // not hold the last result, ping-pongs between them and leaves its result in _work[_result].
    KArray<KDouble3> _work[2];
    int _result = 0;
    KVectorArray _worldNormals;  // the push directions of this evaluation
    KIntArray _collisionPasses;
    KRelaxationCollisions _collisions;
};

// The node's stored attributes held in memory (the binding lists and "stiffness"), for running the
// engine without a scene: evaluate() fills the input's stored values from them and writes back
// what the result asks for, as the node does with its data block.
struct KRelaxationAttributes {
    KRelaxationBindingData binding;
    bool hasStiffness = false;
    KArray<double> stiffness;

    KRelaxationResult evaluate(KRelaxationSolver& solver, KRelaxationInput input);
};

}  // namespace Kavrin
