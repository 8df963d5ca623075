#pragma once
// Vertex normals of a polygon mesh in which every face around a vertex counts the same.

#include "KPolyMesh.h"

namespace Kavrin {

// One unit normal per vertex: the sum of the unit normals of the faces that use the vertex (one
// term per corner), normalised; neither face areas nor corner angles weight it. A face's normal is
// taken by Newell's method, so a non-planar face contributes the normal of its best-fit plane
// and a face without area contributes nothing. A vertex in no face, or whose face normals cancel,
// gets (0, 0, 0). Faces that run past the face-vertex list or name a vertex the mesh does not
// have are skipped. Sums are formed in double precision.
void FaceMeanVertexNormals(const KPolyMesh& mesh, KVectorArray& normals);

}  // namespace Kavrin
