#include "RelaxRun.h"

#include "InputChecks.h"
#include "RunError.h"
#include "KVertexRings.h"

namespace Kavrin {

namespace {

void Widen(const KVectorArray& in, KArray<KDouble3>& out) {
    out.setLength(in.length(), false);
    for (int i = 0; i < in.length(); ++i) out[i] = KDouble3{in[i].x, in[i].y, in[i].z};
}

}  // namespace

RelaxRun::RelaxRun(const KPolyMesh& rest, int threads) : _count(rest.numVertices()), _threads(threads) {
    _start(rest);
}

RelaxRun::RelaxRun(const KPolyMesh& rest, const KRelaxationBindingData& binding, int threads)
    : _count(rest.numVertices()), _threads(threads) {
    _attributes.binding = binding;
    _attributes.stiffness.setLengthWithValue(_count, kRelaxDefaultStiffness);
    _attributes.hasStiffness = true;
    _start(rest);
}

void RelaxRun::_start(const KPolyMesh& rest) {
    VertexRings(rest, _rings, _threads);
    Widen(rest.points, _points);
    KRelaxationInput in;
    in.points = _points.data();
    in.count = _count;
    in.rings = &_rings;
    in.iterations = 0;
    in.threads = _threads;
    const KRelaxationResult result = _attributes.evaluate(_solver, in);
    if (result.outcome.failed()) throw KRunError(result.outcome.message);
}

void RelaxRun::setStiffness(const KArray<double>& stiffness) {
    _attributes.stiffness = stiffness;
    _attributes.hasStiffness = true;
}

void RelaxRun::addCollider(const KPolyMesh& collider, const KArray<double>* multipliers) {
    _colliderMeshes.emplace_back();
    collider.triangulate(_colliderMeshes.back());
    _colliderMultipliers.emplace_back();
    if (multipliers)
        _colliderMultipliers.back() = *multipliers;
    else
        _colliderMultipliers.back().setLengthWithValue(_count, 1.0);
    _colliders.assign(_colliderMeshes.size(), KRelaxationCollider());
    for (size_t c = 0; c < _colliders.size(); ++c) _colliders[c].mesh = &_colliderMeshes[c];

    const size_t n = _colliders.size();
    _multipliers.assign(static_cast<size_t>(_count) * n, 0.0);
    for (size_t c = 0; c < n; ++c)
        for (int v = 0; v < _count && v < _colliderMultipliers[c].length(); ++v)
            _multipliers[static_cast<size_t>(v) * n + c] = _colliderMultipliers[c][v];
}

KVectorArray RelaxRun::relax(const KPolyMesh& pose, const RelaxSettings& settings) {
    Widen(pose.points, _points);
    KRelaxationInput in;
    in.envelope = settings.envelope;
    in.points = _points.data();
    in.count = pose.numVertices();
    in.iterations = settings.iterations;
    in.doCollisions = settings.collisions;
    in.collisionSteps = settings.collisionSteps;
    in.enableScaleSafe = settings.scaleSafe;
    in.rings = &_rings;
    in.threads = _threads;
    if (settings.weights && settings.weights->length() != pose.numVertices())
        throw KInputError(ValueCountMismatch("the weight map", settings.weights->length(), pose.numVertices()));
    if (settings.weights) {
        _weights.setLength(settings.weights->length(), false);
        for (int i = 0; i < _weights.length(); ++i) _weights[i] = static_cast<float>((*settings.weights)[i]);
        in.weights = _weights.data();
    }
    in.numColliders = static_cast<int>(_colliders.size());
    if (_solver.collisionsNeeded(in)) {
        in.colliders = _colliders.data();
        in.multipliers = &_multipliers;
        KTriMesh triangles;
        pose.triangulate(triangles);
        triangles.getVertexNormals(_normals, true);
        in.normals = _normals.data();
    }
    const KRelaxationResult result = _attributes.evaluate(_solver, in);
    if (result.outcome.failed()) throw KRunError(result.outcome.message);
    if (!result.outcome.deformed()) return pose.points;
    KVectorArray points(pose.numVertices());
    const KArray<KDouble3>& out = _solver.points();
    for (int i = 0; i < points.length(); ++i)
        points[i] = KVector(static_cast<float>(out[i][0]), static_cast<float>(out[i][1]), static_cast<float>(out[i][2]));
    return points;
}

}  // namespace Kavrin
