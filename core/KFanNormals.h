#pragma once
// The per-vertex sums GetTangentSpace builds its frames from, computed straight from a polygon
// mesh's faces: every face split into a fan of triangles around its first corner, each
// triangle's area-weighted normal (b - a) x (c - a) added to its corners' sums in increasing
// triangle order, and each vertex's reference neighbour (the next corner of the first triangle
// that uses it). The same bits as GetTangentSpace on the fan triangles, for any thread count,
// without a triangle list, a vertex-to-triangle table or a normal per triangle.
//
// The threads take runs of faces. A vertex whose first face lies in an earlier thread's run gets
// the later threads' triangles only once the earlier threads are done, in run order, so that its
// sum keeps the triangle order; the vertex order of most meshes keeps those vertices few, and a
// mesh where they are many is summed on one thread.

#include <vector>

#include "KPolyMesh.h"

namespace Kavrin {

class KFanNormals {
public:
    // Takes the faces of a mesh of numVertices vertices (KPolyMesh::valid()).
    void setFaces(int numVertices, const KIntArray& faceCounts, const KIntArray& faceVertices);

    // Sums, for every vertex, the normals of the triangles that use it (zero for a vertex in no
    // face), for the points p of the faces given to setFaces. p is read 16 bytes at a time, so
    // it holds one more float after the last point.
    void compute(const KVector* p, const KIntArray& faceCounts, const KIntArray& faceVertices, int threads);
    // The sum at vertex v after compute().
    KVector sum(int v) const {
        const float* s = _sums[v].v;
        return KVector(s[0], s[1], s[2]);
    }
    // The same as x, y, z and a fourth float of no meaning (16 bytes a vertex).
    const float* sum4(int v) const { return _sums[v].v; }

    // The reference neighbour of each vertex; -1 for a vertex in no face.
    const std::vector<int>& reference() const { return _reference; }

private:
    // x, y, z and a lane of no meaning, summed four at a time.
    struct Sum {
        float v[4];
    };
    // A triangle's normal held back for a vertex an earlier thread's faces reach first.
    struct Deferred {
        int vertex;
        Sum normal;
    };
    // The face runs of a team: run t starts at face _runFace[t] and corner _runCorner[t].
    void _split(const KIntArray& faceCounts, int team);

    int _numVertices = 0;
    std::vector<int> _firstFace;  // the lowest face that uses each vertex (the face count for none)
    std::vector<int> _reference;
    int _asked = 0;               // the team asked for since setFaces (0: none yet)
    int _team = 0;                // the team the runs below are for
    std::vector<int> _runFace, _runCorner;
    std::vector<std::vector<Deferred> > _deferred;
    std::vector<Sum> _sums;
};

}  // namespace Kavrin
