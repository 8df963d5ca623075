#pragma once
// What a host reads at each vertex of a polygon mesh besides its position: the averaged normal
// and one texture coordinate, for hosts that only have a file (the command line, tests,
// benchmarks).

#include "KPolyMesh.h"
#include "ObjIO.h"

namespace Kavrin {

// One normal per vertex: the normalised sum of the unit normals of the faces that use it (plain
// average, every face counting the same whatever its size). A face's normal is Newell's normal of
// its corners in winding order, so non-planar polygons count correctly. A vertex in no face, or
// whose face normals cancel, gets (0, 0, 0); a degenerate face adds nothing. Computed in double
// precision.
void AveragedVertexNormals(const KPolyMesh& mesh, KArray<KDouble3>& normals);

// One texture coordinate per vertex.
struct KVertexUVs {
    KArray<KFloat2> uvs;    // per vertex; (0, 0) for a vertex without one
    int missing = 0;        // vertices without a texture coordinate
    int firstMissing = -1;  // the lowest of them, -1 when none
};

// Each vertex takes the texture coordinate of its first face corner (faces in order, corners
// in winding order) that has one. Corner entries that do not fit (a corner list of another
// length, an index outside the coordinates) count as corners without one.
KVertexUVs VertexUVs(const KPolyMesh& mesh, const KCornerUVs& corners);

}  // namespace Kavrin
