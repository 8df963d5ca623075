#include "DeltaMushRun.h"

#include "CommandSupport.h"

namespace Kavrin {

DeltaMushRun::DeltaMushRun(const KPolyMesh& rest, int iterations, int threads) : _threads(threads) {
    _attributes.onlyOnce = false;
    _attributes.numIter = iterations;
    _attributes.restMesh = rest;
    _attributes.hasRestMesh = true;
}

KVectorArray DeltaMushRun::deform(const KPolyMesh& pose, float envelope) {
    const KDeltaMushResult result = _attributes.evaluate(_solver, pose, envelope, _threads);
    if (result.outcome.failed()) throw RunError(result.outcome.message);
    if (!result.outcome.deformed()) return pose.points;
    KVectorArray points = _solver.points();
    points.setLength(pose.numVertices(), false);
    return points;
}

}  // namespace Kavrin
