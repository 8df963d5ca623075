#include "KWrapBinding.h"

#include <algorithm>
#include <cmath>

#include "KPointTransform.h"
#include "KThreads.h"
#include "KTriMeshDistTree.h"

namespace Kavrin {

const char* const kWrapBindTrace = "0\n";

const char* const kWrapDriverNoTriangles =
    "KWrapMeshDeformer: the driver mesh has no triangles with finite corners to bind to; nothing was bound.";
const char* const kWrapDriverBadTriangles =
    "KWrapMeshDeformer: the driver mesh's triangles name vertices it does not have; the points were left untouched.";
const char* const kWrapNoStoredBinding =
    "KWrapMeshDeformer: binding is on but no binding is stored with the node; set binding to false to bind "
    "again. The points were left untouched.";

std::string WrapUnboundPointMessage(int point) {
    return "KWrapMeshDeformer: point " + std::to_string(point) +
           " of the deformed geometry is not a finite position or lies farther than 1e30 from the driver; "
           "nothing was bound.";
}

std::string WrapBindingSizeMessage(int triangles, int offsets, int points) {
    return "KWrapMeshDeformer: the binding holds " + std::to_string(triangles) + " triangles and " +
           std::to_string(offsets) + " offsets, but the deformed geometry has " + std::to_string(points) +
           " points; set binding to false to bind again. The points were left untouched.";
}

std::string WrapBindingTriangleMessage(int triangle, int driverTriangles) {
    return "KWrapMeshDeformer: the binding names driver triangle " + std::to_string(triangle) +
           ", but the driver mesh has " + std::to_string(driverTriangles) +
           " triangles; set binding to false to bind again. The points were left untouched.";
}

namespace {

// Search radius of the bind's closest-point queries.
const float kBindSearchRadius = 1e30f;
// Closest-point queries cost microseconds each: share them out in smaller runs than plain loops.
const int kQueriesPerThread = 256;

// The projection of x onto the plane of the triangle (a, b, c), in single precision: the
// barycentric weights of x's plane projection, zero when the triangle has no plane
// (|D| <= 1e-30), applied to the corners.
inline KVector PlaneProjection(const KVector& a, const KVector& b, const KVector& c, const KVector& x) {
    const KVector e1 = c - a, e2 = b - a, q = x - a;
    const float d00 = e1.dot(e1), d01 = e1.dot(e2), d11 = e2.dot(e2), d20 = e1.dot(q), d21 = e2.dot(q);
    const float det = d00 * d11 - d01 * d01;
    float wa = 0.0f, wb = 0.0f, wc = 0.0f;
    if (!(std::fabs(det) <= 1e-30f)) {
        wb = (d00 * d21 - d01 * d20) / det;
        wc = (d11 * d20 - d01 * d21) / det;
        wa = 1.0f - wb - wc;
    }
    return a * wa + b * wb + c * wc;
}

// The world position of a host point: (x, y, z, w) times the local-to-world matrix, narrowed to
// single precision.
inline KVector WorldPoint(const double* p, const double m[4][4]) {
    double out[4];
    TransformPoint(p, m, out);
    return KVector(static_cast<float>(out[0]), static_cast<float>(out[1]), static_cast<float>(out[2]));
}

}  // namespace

bool KWrapBinding::storedBindingNeeded(const KWrapBindingInput& in) const {
    return Active(in.envelope) && in.driver && in.binding && !_haveBinding;
}

KOutcome KWrapBinding::_bind(const KTriMesh& driver, const KWrapBindingInput& in) {
    // Decision (behaviour note "Wrap: the tree is built only to bind"). The tree and the new
    // binding live only as long as the bind: the binding is taken over when every point has
    // found its triangle.
    const KTriMeshDistTree tree(driver, 10, 10, in.threads);
    // Guard (behaviour note "Wrap: a driver without triangles")
    if (tree.empty()) return KOutcome::Failed(kWrapDriverNoTriangles);

    const int count = in.pointCount;
    KIntArray newTriangles(count);
    KVectorArray newOffsets(count);
    int* triangles = newTriangles.data();
    KVector* offsets = newOffsets.data();
    const double* points = in.points;
    const KVector* P = driver.points.data();
    const KInt3* T = driver.triangles.data();
    // Decision (behaviour note "Wrap: parallel loops").
#pragma omp parallel num_threads(TeamFor(in.threads, count, kQueriesPerThread))
    {
        // The triangle found for the thread's previous point: the hint of the next search, which
        // then starts with a tight bound (the answer does not depend on it).
        int previous = -1;
#pragma omp for schedule(static)
        for (int i = 0; i < count; ++i) {
            const KVector x = WorldPoint(points + 4 * static_cast<size_t>(i), in.localToWorld);
            int t = -1;
            float u = 0.0f, v = 0.0f;
            tree.getClosestPoint(x, t, u, v, kBindSearchRadius, previous);
            triangles[i] = t;
            if (t < 0) continue;
            previous = t;
            // Decision (behaviour note "Wrap: the offset is measured from the plane projection")
            const KInt3& c = T[t];
            offsets[i] = x - PlaneProjection(P[c[0]], P[c[1]], P[c[2]], x);
        }
    }

    // Guard (behaviour note "Wrap: points the bind cannot place")
    for (int i = 0; i < count; ++i)
        if (triangles[i] < 0) return KOutcome::Failed(WrapUnboundPointMessage(i));

    _triangles.swap(newTriangles);
    _offsets.swap(newOffsets);
    _maxTriangle = count > 0 ? *std::max_element(_triangles.begin(), _triangles.end()) : -1;
    _haveBinding = true;
    return KOutcome::Untouched();
}

KOutcome KWrapBinding::_loadStored(const KTriMesh& driver, const KWrapBindingInput& in) {
    // Guard (behaviour note "Wrap: stored binding missing or not matching")
    if (!in.bindTriangles || !in.bindOffsets) return KOutcome::Failed(kWrapNoStoredBinding);
    const KIntArray& triangles = *in.bindTriangles;
    const KVectorArray& offsets = *in.bindOffsets;
    if (triangles.length() != in.pointCount || offsets.length() != in.pointCount)
        return KOutcome::Failed(WrapBindingSizeMessage(triangles.length(), offsets.length(), in.pointCount));
    int maxTriangle = -1;
    for (int i = 0; i < triangles.length(); ++i) {
        const int t = triangles[i];
        if (t < 0 || t >= driver.numTriangles())
            return KOutcome::Failed(WrapBindingTriangleMessage(t, driver.numTriangles()));
        maxTriangle = std::max(maxTriangle, t);
    }
    _triangles = triangles;
    _offsets = offsets;
    _maxTriangle = maxTriangle;
    _haveBinding = true;
    return KOutcome::Deformed();
}

void KWrapBinding::_reconstruct(const KTriMesh& driver, const KWrapBindingInput& in) {
    const int count = in.pointCount;
    _wrapped.setLength(count, false);
    KVector* out = _wrapped.data();
    const int* triangles = _triangles.data();
    const KVector* offsets = _offsets.data();
    const double* points = in.points;
    const KVector* P = driver.points.data();
    const KInt3* T = driver.triangles.data();
    // Decision (behaviour note "Wrap: parallel loops").
#pragma omp parallel for schedule(static) num_threads(TeamFor(in.threads, count))
    for (int i = 0; i < count; ++i) {
        const KVector x = WorldPoint(points + 4 * static_cast<size_t>(i), in.localToWorld);
        const KInt3& c = T[triangles[i]];
        out[i] = PlaneProjection(P[c[0]], P[c[1]], P[c[2]], x) + offsets[i];
    }
}

KWrapBindingResult KWrapBinding::evaluate(const KWrapBindingInput& in, KMessageSink& sink) {
    KWrapBindingResult result;
    // The envelope only switches the deformer on or off, and a missing driver leaves the points
    // as they are, both without a message.
    if (!Active(in.envelope) || !in.driver) return result;
    const KTriMesh& driver = *in.driver;
    // Guard (behaviour note "Wrap: driver triangles naming missing vertices")
    if (!driver.indicesValid()) {
        result.outcome = KOutcome::Failed(kWrapDriverBadTriangles);
        return result;
    }
    KWrapBindingInput input = in;
    if (!input.points || input.pointCount < 0) input.pointCount = 0;

    if (!input.binding) {
        result.outcome = _bind(driver, input);
        if (result.outcome.failed()) return result;
        sink.output(kWrapBindTrace);
        result.writeBindData = true;
        result.writeBinding = true;
        return result;
    }

    if (!_haveBinding) {
        const KOutcome load = _loadStored(driver, input);
        if (load.failed()) {
            result.outcome = load;
            return result;
        }
    }
    // Guard (behaviour note "Wrap: binding that no longer fits")
    if (_triangles.length() != input.pointCount || _offsets.length() != input.pointCount) {
        result.outcome =
            KOutcome::Failed(WrapBindingSizeMessage(_triangles.length(), _offsets.length(), input.pointCount));
        return result;
    }
    if (_maxTriangle >= driver.numTriangles()) {
        result.outcome = KOutcome::Failed(WrapBindingTriangleMessage(_maxTriangle, driver.numTriangles()));
        return result;
    }
    _reconstruct(driver, input);
    result.outcome = KOutcome::Deformed();
    result.writeBinding = true;
    return result;
}

void KWrapBinding::objectPoint(int idx, double w, const double inverseMatrix[4][4], double out[4]) const {
    const KVector& p = _wrapped[idx];
    const double in[4] = {p.x, p.y, p.z, w};
    TransformPoint(in, inverseMatrix, out);
}

KWrapBindingResult KWrapBindingAttributes::evaluate(KWrapBinding& engine, const KTriMesh& driver,
                                                    const KVectorArray& points, float envelope, int threads,
                                                    KMessageSink& sink) {
    const int count = points.length();
    _points.resize(4 * static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        double* p = &_points[4 * static_cast<size_t>(i)];
        p[0] = points[i].x;
        p[1] = points[i].y;
        p[2] = points[i].z;
        p[3] = 1.0;
    }
    KWrapBindingInput in;
    in.envelope = envelope;
    in.driver = &driver;
    in.points = _points.data();
    in.pointCount = count;
    in.binding = binding;
    if (engine.storedBindingNeeded(in)) {
        in.bindTriangles = hasBindTriangles ? &bindTriangles : nullptr;
        in.bindOffsets = hasBindOffsets ? &bindOffsets : nullptr;
    }
    in.threads = threads;
    const KWrapBindingResult result = engine.evaluate(in, sink);
    if (result.writeBindData) {
        bindTriangles = engine.boundTriangles();
        bindOffsets = engine.boundOffsets();
        hasBindTriangles = hasBindOffsets = true;
    }
    if (result.writeBinding) binding = true;
    return result;
}

}  // namespace Kavrin
