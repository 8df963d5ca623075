#pragma once
// Polygon-edge neighbour tables kept per mesh topology. Asking the host for every vertex's
// neighbours is slow on large meshes; the faces, which the host hands over as two flat arrays,
// decide cheaply whether the table kept from the last evaluation still holds.

#include <cstddef>
#include <vector>

#include "KPolyMesh.h"

namespace Kavrin {

class KNeighbourCache {
public:
    // The neighbour table of a mesh with numVertices vertices and the given faces (vertex count
    // per face, then the faces' vertex indices face after face). When all three equal those of
    // the last query, the table kept from it is returned as it is. Otherwise query(lists) is
    // called with one empty list per vertex, fills them in the host's order, and the result
    // replaces the kept table.
    template <typename Query>
    const KVertexNeighbours& get(int numVertices, const KIntArray& faceCounts, const KIntArray& faceVertices,
                                 Query query) {
        if (!holds(numVertices, faceCounts, faceVertices)) {
            std::vector<std::vector<int> > lists(static_cast<std::size_t>(numVertices > 0 ? numVertices : 0));
            query(lists);
            _neighbours.assign(lists);
            _numVertices = numVertices;
            _faceCounts = faceCounts;
            _faceVertices = faceVertices;
            _valid = true;
            ++_queries;
        }
        return _neighbours;
    }

    // True when the kept table belongs to exactly this topology.
    bool holds(int numVertices, const KIntArray& faceCounts, const KIntArray& faceVertices) const {
        return _valid && numVertices == _numVertices && faceCounts == _faceCounts && faceVertices == _faceVertices;
    }

    // Forgets the kept table; the next get() queries.
    void clear() {
        _valid = false;
        _neighbours = KVertexNeighbours();
        _faceCounts.clear();
        _faceVertices.clear();
    }

    // How many times get() has called its query.
    int queries() const { return _queries; }

private:
    bool _valid = false;
    int _numVertices = 0;
    int _queries = 0;
    KIntArray _faceCounts;
    KIntArray _faceVertices;
    KVertexNeighbours _neighbours;
};

}  // namespace Kavrin
