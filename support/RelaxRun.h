#pragma once
// The relaxation deformer driven the way its node is driven in Maya: bound once to a rest mesh
// (the node's first evaluation), then one evaluation per pose, with colliders in world space.

#include <vector>

#include "KRelaxationSolver.h"

namespace Kavrin {

// The node's attributes and maps for one evaluation.
struct RelaxSettings {
    int iterations = 10;
    bool scaleSafe = false;
    bool collisions = true;
    int collisionSteps = 1;
    float envelope = 1.0f;
    const KArray<double>* weights = nullptr;  // painted deformer weights; null: 1 everywhere
};

class RelaxRun {
public:
    // Binds to rest; every vertex gets stiffness 0.3 until setStiffness. Throws KRunError with the
    // engine's message when the bind fails (a vertex with more than 128 neighbours).
    RelaxRun(const KPolyMesh& rest, int threads);
    // Restores a binding saved from binding() instead of binding, as a reopened scene loads the
    // node's stored lists. Throws KRunError with the engine's message when they cannot be loaded.
    RelaxRun(const KPolyMesh& rest, const KRelaxationBindingData& binding, int threads);

    // Per-vertex stiffness (one value per rest vertex).
    void setStiffness(const KArray<double>& stiffness);
    // A collider mesh in world space and its multipliers (one per vertex); without multipliers
    // every vertex is pushed fully (multiplier 1).
    void addCollider(const KPolyMesh& collider, const KArray<double>* multipliers);

    // The points of pose (the rest mesh's vertices and faces) after relaxation; the pose's own
    // points when the envelope is 0. Throws KRunError when the engine fails, with its message.
    KVectorArray relax(const KPolyMesh& pose, const RelaxSettings& settings);

    // The binding the engine works with (the rest shape's lists, as the node stores them).
    const KRelaxationBindingData& binding() const { return _attributes.binding; }

    // The passes after which the last relax() collided.
    const KIntArray& collisionPasses() const { return _solver.collisionPasses(); }

private:
    // The first evaluation, on the rest mesh without passes: binds, or loads the stored binding.
    void _start(const KPolyMesh& rest);

    int _count;
    int _threads;
    KRelaxationAttributes _attributes;
    KRelaxationSolver _solver;
    KVertexNeighbours _rings;
    std::vector<KTriMesh> _colliderMeshes;
    std::vector<KArray<double> > _colliderMultipliers;
    std::vector<KRelaxationCollider> _colliders;
    KArray<double> _multipliers;
    KArray<KDouble3> _points;
    KFloatArray _weights;
    KVectorArray _normals;
};

}  // namespace Kavrin
