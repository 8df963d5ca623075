#pragma once
// Wrap driven the way the node is driven in Maya: the mesh is bound to the driver at rest by the
// first evaluation, then every evaluation follows one pose of the driver.

#include "KMessageSink.h"
#include "KPolyMesh.h"
#include "KWrapBinding.h"

namespace Kavrin {

class WrapRun {
public:
    // Binds mesh (world space) to the driver in its rest pose; the bind's trace goes to sink.
    // Throws KRunError with the engine's message when the bind fails.
    WrapRun(const KPolyMesh& driverRest, const KPolyMesh& mesh, int threads, KMessageSink& sink);
    // Restores a binding saved from boundTriangles() and boundOffsets() instead of binding, as a
    // reopened scene loads the node's stored binding. Throws KRunError with the engine's message
    // when it does not fit the mesh or the driver.
    WrapRun(const KPolyMesh& driverRest, const KPolyMesh& mesh, const KIntArray& triangles,
            const KVectorArray& offsets, int threads, KMessageSink& sink);

    // The mesh's points following the driver in pose (the rest driver's vertices and faces).
    // Throws KRunError when the engine fails, with its message.
    KVectorArray deform(const KPolyMesh& driverPose);

    int boundPoints() const { return _engine.boundTriangles().length(); }
    int driverTriangles() const { return _driver.numTriangles(); }
    const KIntArray& boundTriangles() const { return _engine.boundTriangles(); }
    const KVectorArray& boundOffsets() const { return _engine.boundOffsets(); }

private:
    KWrapBindingAttributes _attributes;
    KWrapBinding _engine;
    KTriMesh _driver;  // the driver's triangles, with the points of the pose at hand
    KVectorArray _points;
    int _threads;
    KMessageSink& _sink;
};

}  // namespace Kavrin
