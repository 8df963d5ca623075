#pragma once
// Delta mush driven the way the node is driven in Maya: bound once to a rest mesh, then one
// evaluation per pose.

#include "KDeltaMushSolver.h"

namespace Kavrin {

class DeltaMushRun {
public:
    // Keeps rest as the stored rest shape; the first pose binds to it with `iterations` sweeps.
    DeltaMushRun(const KPolyMesh& rest, int iterations, int threads);

    // The points of pose (same vertices and faces as the rest mesh) after delta mush; the pose's
    // own points when the envelope switches the deformer off. Throws RunError when the engine
    // fails, with its message.
    KVectorArray deform(const KPolyMesh& pose, float envelope);

private:
    KDeltaMushAttributes _attributes;
    KDeltaMushSolver _solver;
    int _threads;
};

}  // namespace Kavrin
