#pragma once
// A local frame: an origin and three axes. Offsets stored in a frame follow the surface when
// the frame moves with it.

#include "KArray.h"
#include "KTriMesh.h"

namespace Kavrin {

class KAxis {
public:
    KVector origin;
    KVector xAxis;
    KVector yAxis;
    KVector zAxis;

    // Coordinates of v in this frame. With asVector true the origin is not subtracted (v is a
    // direction); with projectOnly false the axes are inverted as a general 3x3 basis instead of
    // being treated as orthonormal. The callers use (false, true): a point, orthonormal axes.
    KVector worldToLocal(const KVector& v, bool asVector, bool projectOnly) const {
        const KVector d = asVector ? v : v - origin;
        if (projectOnly) return KVector(d.dot(xAxis), d.dot(yAxis), d.dot(zAxis));
        return _inverseTimes(d);
    }
    // The inverse of worldToLocal with the same flags.
    KVector localToWorld(const KVector& v, bool asVector, bool /*projectOnly*/) const {
        const KVector w = xAxis * v.x + yAxis * v.y + zAxis * v.z;
        return asVector ? w : w + origin;
    }

private:
    KVector _inverseTimes(const KVector& d) const;
};

static_assert(sizeof(KAxis) == 4 * sizeof(KVector), "KAxis must be four packed vectors");

class KAxisArray : public KArray<KAxis> {};

// Any unit vector perpendicular to n, for frames whose reference edge runs along the normal.
inline KVector AnyPerpendicular(const KVector& n) {
    const KVector helper = std::fabs(n.x) < 0.57f ? KVector(1, 0, 0) : KVector(0, 1, 0);
    return helper.cross(n).normalized();
}

// The frame GetTangentSpace gives a vertex at origin whose reference neighbour is at reference,
// from normalSum, the sum of its triangles' area-weighted normals in increasing triangle order.
inline void TangentFrameAt(const KVector& origin, const KVector& reference, KVector normalSum, KAxis& a) {
    a.origin = origin;
    KVector& n = normalSum;
    n.normalize();
    const KVector e = reference - origin;
    KVector t = e - n * n.dot(e);
    const float len = t.length();
    if (len > 1e-12f * e.length() && len > 0.0f)
        t /= len;
    else if (n.squaredLength() > 0.0f)
        t = AnyPerpendicular(n);
    else
        t = e.normalized();
    a.xAxis = t;
    a.yAxis = n.cross(t);
    a.zAxis = n;
}

// The frame of a vertex in no triangle.
// Decision (behaviour note "Base library: tangent frames"): it has no surface around it, so its
// frame is the world axes.
inline void WorldFrameAt(const KVector& origin, KAxis& a) {
    a.origin = origin;
    a.xAxis = KVector(1, 0, 0);
    a.yAxis = KVector(0, 1, 0);
    a.zAxis = KVector(0, 0, 1);
}

// One frame per vertex of mesh: origin at the vertex, zAxis the area-weighted vertex normal,
// xAxis the edge to the vertex's reference neighbour projected into the tangent plane, yAxis
// their cross product. The reference neighbour is the next corner, in winding order, of the
// lowest-numbered triangle that uses the vertex, so it depends on the triangles alone and the
// frames turn rigidly with the surface. The flags are accepted for call compatibility; frames
// are always orthonormal and at the vertex. threads <= 0 uses the OpenMP default.
void GetTangentSpace(const KTriMesh& mesh, KAxisArray& frames, bool orthonormal, bool atVertex,
                     int threads = 0);

// Builds the same frames as GetTangentSpace, keeping what depends only on the triangles (the
// vertex-to-triangle table and each vertex's reference neighbour) between calls, so that a mesh
// evaluated again and again with new points pays only for the per-point work, all of it in
// parallel. The results are bit-identical to GetTangentSpace's for any thread count.
class KTangentSpaceBuilder {
public:
    void compute(const KVector* points, int numPoints, const KInt3Array& triangles, KAxisArray& frames,
                 int threads = 0);

private:
    void _setTopology(int numPoints, const KInt3Array& triangles);

    int _numPoints = -1;
    KInt3Array _triangles;
    KIntArray _v2tOffsets;
    KIntArray _v2tIndices;
    KIntArray _reference;
    KVectorArray _faceNormals;
};

}  // namespace Kavrin
