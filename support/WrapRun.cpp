#include "WrapRun.h"

#include "RunError.h"

namespace Kavrin {

WrapRun::WrapRun(const KPolyMesh& driverRest, const KPolyMesh& mesh, int threads, KMessageSink& sink)
    : _points(mesh.points), _threads(threads), _sink(sink) {
    driverRest.triangulate(_driver);
    const KWrapBindingResult result = _attributes.evaluate(_engine, _driver, _points, 1.0f, _threads, _sink);
    if (result.outcome.failed()) throw KRunError(result.outcome.message);
}

WrapRun::WrapRun(const KPolyMesh& driverRest, const KPolyMesh& mesh, const KIntArray& triangles,
                 const KVectorArray& offsets, int threads, KMessageSink& sink)
    : _points(mesh.points), _threads(threads), _sink(sink) {
    driverRest.triangulate(_driver);
    _attributes.binding = true;
    _attributes.hasBindTriangles = _attributes.hasBindOffsets = true;
    _attributes.bindTriangles = triangles;
    _attributes.bindOffsets = offsets;
    const KWrapBindingResult result = _attributes.evaluate(_engine, _driver, _points, 1.0f, _threads, _sink);
    if (result.outcome.failed()) throw KRunError(result.outcome.message);
}

KVectorArray WrapRun::deform(const KPolyMesh& driverPose) {
    _driver.points = driverPose.points;
    const KWrapBindingResult result = _attributes.evaluate(_engine, _driver, _points, 1.0f, _threads, _sink);
    if (result.outcome.failed()) throw KRunError(result.outcome.message);
    if (!result.outcome.deformed()) return _points;
    return _engine.points();
}

}  // namespace Kavrin
