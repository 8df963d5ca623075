#pragma once
// Jiggle driven the way the node is driven in Maya: one evaluation per frame, the frames at
// consecutive times, every vertex deformed in vertex order, the object at the origin.

#include "KJiggleSolver.h"

namespace Kavrin {

class JiggleRun {
public:
    // attributes: the node's settings and maps; weights: one paint weight per vertex, or empty
    // for 1 everywhere.
    JiggleRun(const KJiggleAttributes& attributes, const KArray<float>& weights, int threads);

    // The points of frame at time after jiggle; the frame's own points when the evaluation leaves
    // them (at or before the start frame, after a jump in time). Throws KRunError with the engine's
    // message when it fails.
    KVectorArray deform(const KPolyMesh& frame, double time, float envelope);

    const KJiggleSolver& solver() const { return _solver; }

private:
    KJiggleAttributes _attributes;
    KArray<float> _weights;
    KJiggleSolver _solver;
    int _threads;
};

}  // namespace Kavrin
