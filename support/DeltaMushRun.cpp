#include "DeltaMushRun.h"

#include "InputChecks.h"
#include "RunError.h"

namespace Kavrin {

void DeltaMushRun::RefuseLooseVertices(const KPolyMesh& rest, const std::string& name) {
    // Decision (behaviour note "Vertices in no face")
    Kavrin::RefuseLooseVertices(name, LooseVertices(rest),
                                "delta mush has no edge to smooth such a vertex over and would write it as NaN");
}

DeltaMushRun::DeltaMushRun(const KPolyMesh& rest, int iterations, int threads) : _threads(threads) {
    _attributes.onlyOnce = false;
    _attributes.numIter = iterations;
    _attributes.restMesh = rest;
    _attributes.hasRestMesh = true;
}

DeltaMushRun::DeltaMushRun(const KArray<KDouble3>& deltas, int iterations, int threads) : _threads(threads) {
    _attributes.onlyOnce = false;
    _attributes.numIter = iterations;
    _attributes.delta = deltas;
    _attributes.hasDelta = true;
    _attributes.gotDelta = true;
    // Decision (behaviour note "Delta mush: a restored binding")
    _solver.restoreBinding(iterations);
}

const KArray<KDouble3>& DeltaMushRun::deltas() {
    if (!_attributes.hasDelta) deform(_attributes.restMesh, 1.0f);
    return _attributes.delta;
}

KVectorArray DeltaMushRun::deform(const KPolyMesh& pose, float envelope) {
    const KDeltaMushResult result = _attributes.evaluate(_solver, pose, envelope, _threads);
    if (result.outcome.failed()) throw KRunError(result.outcome.message);
    if (!result.outcome.deformed()) return pose.points;
    KVectorArray points = _solver.points();
    points.setLength(pose.numVertices(), false);
    return points;
}

}  // namespace Kavrin
