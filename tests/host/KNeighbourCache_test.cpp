// Neighbour tables per topology: which changes make the cache ask the host again.

#include <gtest/gtest.h>

#include <vector>

#include "KNeighbourCache.h"

using namespace Kavrin;

using Lists = std::vector<std::vector<int> >;

TEST(NeighbourCache, SameTopologyAsksOnceAnyChangeAsksAgainAndTheHostOrderIsKept) {
    KNeighbourCache cache;
    int calls = 0;
    size_t lastSize = 0;
    // The host's answer: an order of its own for every vertex (one list per vertex, unused ones
    // included).
    const auto ask = [&](Lists& lists) {
        ++calls;
        lastSize = lists.size();
        for (size_t v = 0; v < lists.size(); ++v) lists[v] = {int(v + 2) % 6, int(v + 1) % 6, calls};
    };
    // Two quads 0-1-4-3 and 1-2-5-4; the same faces with one rewound; the same flat vertex list
    // cut into a quad and two edges.
    const KIntArray counts{4, 4}, faces{0, 1, 4, 3, 1, 2, 5, 4}, rewound{0, 3, 4, 1, 1, 2, 5, 4}, recut{4, 2, 2};
    const struct {
        int numVertices;
        const KIntArray &counts, &faces;
        int calls;
    } steps[] = {
        {6, counts, faces, 1}, {6, counts, faces, 1},   {6, counts, faces, 1},
        {6, counts, rewound, 2}, {6, counts, faces, 3},  // back to the original: the rewound table no longer holds
        {7, counts, faces, 4},                          // an extra, unused vertex
        {7, recut, faces, 5},  {7, recut, faces, 5},
    };
    for (const auto& s : steps) {
        const KVertexNeighbours& n = cache.get(s.numVertices, s.counts, s.faces, ask);
        EXPECT_TRUE(n.validFor(s.numVertices) && n.numVertices() == s.numVertices);
        EXPECT_EQ(calls, s.calls) << &s - steps;
        EXPECT_EQ(lastSize, static_cast<size_t>(s.numVertices));
        EXPECT_EQ(std::vector<int>(n.begin(4), n.end(4)), (std::vector<int>{0, 5, s.calls})) << &s - steps;
    }
    cache.clear();
    cache.get(7, recut, faces, ask);
    EXPECT_EQ(calls, 6);
    EXPECT_EQ(cache.queries(), 6);
}
