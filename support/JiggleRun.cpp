#include "JiggleRun.h"

#include "RunError.h"

namespace Kavrin {

JiggleRun::JiggleRun(const KJiggleAttributes& attributes, const KArray<float>& weights, int threads)
    : _attributes(attributes), _weights(weights), _threads(threads) {}

KVectorArray JiggleRun::deform(const KPolyMesh& frame, double time, float envelope) {
    const KJiggleResult result =
        _attributes.evaluate(_solver, frame, time, _weights.empty() ? nullptr : &_weights, envelope, _threads);
    if (result.outcome.failed()) throw KRunError(result.outcome.message);
    if (!result.outcome.deformed()) return frame.points;
    const KArray<KDouble3>& jiggled = _solver.points();
    KVectorArray points(jiggled.length());
    for (int v = 0; v < jiggled.length(); ++v)
        points[v] = KVector(static_cast<float>(jiggled[v][0]), static_cast<float>(jiggled[v][1]),
                            static_cast<float>(jiggled[v][2]));
    return points;
}

}  // namespace Kavrin
