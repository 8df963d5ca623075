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
    KVector worldToLocal(const KVector& v, bool asVector, bool projectOnly) const;
    // The inverse of worldToLocal with the same flags.
    KVector localToWorld(const KVector& v, bool asVector, bool projectOnly) const;
};

static_assert(sizeof(KAxis) == 4 * sizeof(KVector), "KAxis must be four packed vectors");

class KAxisArray : public KArray<KAxis> {};

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
