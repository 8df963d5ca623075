#pragma once
// Delta mush driven the way the node is driven in Maya: bound once to a rest mesh, then one
// evaluation per pose.

#include <string>

#include "KDeltaMushSolver.h"

namespace Kavrin {

class DeltaMushRun {
public:
    // Refuses a rest mesh (named name) with vertices in no face: delta mush would write them as NaN.
    static void RefuseLooseVertices(const KPolyMesh& rest, const std::string& name);

    // Keeps rest as the stored rest shape; the first pose binds to it with `iterations` sweeps.
    DeltaMushRun(const KPolyMesh& rest, int iterations, int threads);
    // Restores a binding saved from deltas(): one delta per vertex, bound with `iterations` sweeps.
    // The poses then take these deltas as they are; no rest mesh is needed.
    DeltaMushRun(const KArray<KDouble3>& deltas, int iterations, int threads);

    // The points of pose (same vertices and faces as the rest mesh) after delta mush; the pose's
    // own points when the envelope switches the deformer off. Throws KRunError when the engine
    // fails, with its message.
    KVectorArray deform(const KPolyMesh& pose, float envelope);

    // The binding's deltas (one per vertex, in the frames of the smoothed rest mesh), binding first
    // by deforming the rest mesh when no pose has been deformed yet.
    const KArray<KDouble3>& deltas();
    int iterations() const { return _attributes.numIter; }

private:
    KDeltaMushAttributes _attributes;
    KDeltaMushSolver _solver;
    int _threads;
};

}  // namespace Kavrin
