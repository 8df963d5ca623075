#include "KVertexRings.h"

#include <vector>

#include "KThreads.h"

namespace Kavrin {

namespace {

// Appends id to ring[0 .. n) unless it is there already.
inline void Take(int* ring, int& n, int id) {
    for (int k = 0; k < n; ++k)
        if (ring[k] == id) return;
    ring[n++] = id;
}

}  // namespace

void VertexRings(const KPolyMesh& mesh, KVertexNeighbours& rings, int threads) {
    const int nv = mesh.numVertices();
    const int* fv = mesh.faceVertices.data();
    const int* faceCounts = mesh.faceCounts.data();
    const int numFaces = mesh.numFaces();

    // Every face corner at v as the pair (next, previous) around its face, and every polygon
    // edge's far end seen from each of its ends, both grouped by vertex in face order (counting
    // sorts keep that order).
    struct Corner {
        int next, prev;
    };
    // visit(v, next, prev) for every face corner, in face order.
    const auto eachCorner = [&](auto&& visit) {
        for (int f = 0, start = 0; f < numFaces; start += faceCounts[f++]) {
            const int c = faceCounts[f];
            for (int k = 0; k < c; ++k)
                visit(fv[start + k], fv[start + (k + 1) % c], fv[start + (k + c - 1) % c]);
        }
    };
    KIntArray cornerStart, endStart;
    cornerStart.setLength(nv + 1, true);
    endStart.setLength(nv + 1, true);
    eachCorner([&](int v, int next, int prev) {
        if (next != v && prev != v) ++cornerStart[v + 1];
        if (v != next) {
            ++endStart[v + 1];
            ++endStart[next + 1];
        }
    });
    for (int v = 0; v < nv; ++v) {
        cornerStart[v + 1] += cornerStart[v];
        endStart[v + 1] += endStart[v];
    }
    std::vector<Corner> corners(static_cast<size_t>(cornerStart[nv]));
    KIntArray ends;
    ends.setLength(endStart[nv], false);
    {
        KIntArray cornerAt(cornerStart), endAt(endStart);
        eachCorner([&](int v, int next, int prev) {
            if (next != v && prev != v) corners[static_cast<size_t>(cornerAt[v]++)] = Corner{next, prev};
            if (v != next) {
                ends[endAt[v]++] = next;
                ends[endAt[next]++] = v;
            }
        });
    }

    // A vertex's ring holds its distinct edge ends (a corner's next and previous vertices are
    // edge ends too), so the rings' offsets are known before they are walked.
    KIntArray& offsets = rings.offsets;
    offsets.setLength(nv + 1, false);
    offsets[0] = 0;
#pragma omp parallel num_threads(TeamFor(threads, nv))
    {
        std::vector<int> seen;
#pragma omp for schedule(static)
        for (int v = 0; v < nv; ++v) {
            int n = 0;
            seen.resize(static_cast<size_t>(endStart[v + 1] - endStart[v]));
            for (int e = endStart[v]; e < endStart[v + 1]; ++e) Take(seen.data(), n, ends[e]);
            offsets[v + 1] = n;
        }
    }
    for (int v = 0; v < nv; ++v) offsets[v + 1] += offsets[v];
    rings.indices.setLength(offsets[nv], false);
    int* out = rings.indices.data();

    // Decision (behaviour note "Relaxation: command-line rings in flat tables").
#pragma omp parallel num_threads(TeamFor(threads, nv))
    {
        std::vector<char> used;
        std::vector<int> chain;
#pragma omp for schedule(static)
        for (int v = 0; v < nv; ++v) {
            const Corner* fan = corners.data() + cornerStart[v];
            const int m = cornerStart[v + 1] - cornerStart[v];
            int* ring = out + offsets[v];
            int n = 0;
            used.assign(static_cast<size_t>(m), 0);
            // Faces around v chain counter-clockwise: a face's previous vertex is the next vertex of
            // the face beyond that edge. Each chain starts at a border edge when there is one.
            for (;;) {
                int first = -1;
                for (int f = 0; f < m && first < 0; ++f) {
                    if (used[f]) continue;
                    bool border = true;
                    for (int g = 0; g < m && border; ++g)
                        if (g != f && !used[g] && fan[g].prev == fan[f].next) border = false;
                    if (border) first = f;
                }
                if (first < 0)
                    for (int f = 0; f < m && first < 0; ++f)
                        if (!used[f]) first = f;
                if (first < 0) break;
                chain.clear();
                int f = first;
                chain.push_back(fan[f].next);
                while (f >= 0) {
                    used[f] = 1;
                    const int prev = fan[f].prev;
                    chain.push_back(prev);
                    f = -1;
                    for (int g = 0; g < m; ++g)
                        if (!used[g] && fan[g].next == prev) {
                            f = g;
                            break;
                        }
                }
                // Clockwise: the counter-clockwise chain reversed.
                for (auto it = chain.rbegin(); it != chain.rend(); ++it) Take(ring, n, *it);
            }
            // Neighbours no fan reaches, in the order the faces first reach them.
            for (int e = endStart[v]; e < endStart[v + 1]; ++e) Take(ring, n, ends[e]);
        }
    }
}

}  // namespace Kavrin
