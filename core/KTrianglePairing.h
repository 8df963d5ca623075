#pragma once
// The triangle pairing of the correspondence search: every target triangle is paired with the
// source triangle whose centre is nearest to its own, within a radius on the scale of one
// triangle, provided the two face the same way (normals at most 90 degrees apart).

#include <string>

#include "KArray.h"
#include "KTriMesh.h"

namespace Kavrin {

// The search radius: sqrt(4 (dx dy + dy dz + dz dx) / triangles) for each mesh's bounding box,
// the larger of the two.
float PairingRadius(const KTriMesh& fittedSource, const KTriMesh& target);

// Fills triCorres with one entry per target triangle: the source triangle in field 0, the count
// of valid fields (0 or 1) in field 3, -1 elsewhere. calcMode 1 ("Same Topology") pairs a target
// triangle with the source triangle of the same index when the nearest source centre's triangle
// faces its way (count 0, from the initial -1 plus one, otherwise); 2 ("Different Topology") with
// that nearest triangle. For any other mode every entry stays -1 and the result is false.
bool PairTriangles(const KTriMesh& fittedSource, const KTriMesh& target, short calcMode, int threads,
                   KInt4Array& triCorres);

// The triangle-correspondence log ("triCorres.out"): for each target triangle i in order, the MEL
// selection "select -r young.f[i] old.f[s];" pairing face i of a mesh named young with source
// triangle s (field 0 of its entry, -1 where none was found) of a mesh named old, one a line.
std::string TriangleCorrespondenceLog(const KInt4Array& triCorres);

}  // namespace Kavrin
