#include "KVertexRings.h"

#include <algorithm>
#include <vector>

namespace Kavrin {

void VertexRings(const KPolyMesh& mesh, KVertexNeighbours& rings) {
    const int nv = mesh.numVertices();
    // Every face corner at v as the pair (next, previous) around its face.
    struct Corner {
        int next, prev;
    };
    std::vector<std::vector<Corner> > corners(static_cast<size_t>(nv));
    int start = 0;
    for (int c : mesh.faceCounts) {
        for (int k = 0; k < c; ++k) {
            const int v = mesh.faceVertices[start + k];
            const int next = mesh.faceVertices[start + (k + 1) % c];
            const int prev = mesh.faceVertices[start + (k + c - 1) % c];
            if (next != v && prev != v) corners[v].push_back(Corner{next, prev});
        }
        start += c;
    }

    KVertexNeighbours edges;
    mesh.edgeNeighbours(edges);
    std::vector<std::vector<int> > lists(static_cast<size_t>(nv));
    std::vector<char> used;
    for (int v = 0; v < nv; ++v) {
        const std::vector<Corner>& fan = corners[v];
        std::vector<int>& ring = lists[v];
        used.assign(fan.size(), 0);
        auto take = [&ring](int id) {
            if (std::find(ring.begin(), ring.end(), id) == ring.end()) ring.push_back(id);
        };
        // Faces around v chain counter-clockwise: a face's previous vertex is the next vertex of
        // the face beyond that edge. Each chain starts at a border edge when there is one.
        for (;;) {
            int first = -1;
            for (size_t f = 0; f < fan.size() && first < 0; ++f) {
                if (used[f]) continue;
                bool border = true;
                for (size_t g = 0; g < fan.size() && border; ++g)
                    if (g != f && !used[g] && fan[g].prev == fan[f].next) border = false;
                if (border) first = static_cast<int>(f);
            }
            if (first < 0)
                for (size_t f = 0; f < fan.size() && first < 0; ++f)
                    if (!used[f]) first = static_cast<int>(f);
            if (first < 0) break;
            std::vector<int> chain;
            int f = first;
            chain.push_back(fan[f].next);
            while (f >= 0) {
                used[f] = 1;
                const int prev = fan[f].prev;
                chain.push_back(prev);
                f = -1;
                for (size_t g = 0; g < fan.size(); ++g)
                    if (!used[g] && fan[g].next == prev) {
                        f = static_cast<int>(g);
                        break;
                    }
            }
            // Clockwise: the counter-clockwise chain reversed.
            for (auto it = chain.rbegin(); it != chain.rend(); ++it) take(*it);
        }
        for (const int* id = edges.begin(v); id != edges.end(v); ++id) take(*id);
    }
    rings.assign(lists);
}

}  // namespace Kavrin
