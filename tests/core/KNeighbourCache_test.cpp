// Neighbour tables per topology: which changes make the cache ask the host again.

#include <gtest/gtest.h>

#include <vector>

#include "KNeighbourCache.h"

using namespace Kavrin;

namespace {

// Two quads sharing an edge: 0-1-4-3 and 1-2-5-4.
struct TwoQuads {
    int numVertices = 6;
    KIntArray counts{4, 4};
    KIntArray faces{0, 1, 4, 3, 1, 2, 5, 4};
};

// Stands in for the host: answers from a KPolyMesh and counts the questions.
struct PolyQuery {
    KPolyMesh poly;
    int calls = 0;
    void operator()(std::vector<std::vector<int> >& lists) {
        ++calls;
        KVertexNeighbours n;
        poly.edgeNeighbours(n);
        for (int v = 0; v < n.numVertices() && v < static_cast<int>(lists.size()); ++v)
            lists[v].assign(n.begin(v), n.end(v));
    }
};

PolyQuery QueryFor(const TwoQuads& t) {
    PolyQuery q;
    q.poly.points.setLength(t.numVertices, true);
    q.poly.faceCounts = t.counts;
    q.poly.faceVertices = t.faces;
    return q;
}

}  // namespace

TEST(NeighbourCache, SameTopologyAsksOnce) {
    TwoQuads t;
    PolyQuery q = QueryFor(t);
    KNeighbourCache cache;
    auto ask = [&q](std::vector<std::vector<int> >& lists) { q(lists); };
    const KVertexNeighbours& first = cache.get(t.numVertices, t.counts, t.faces, ask);
    ASSERT_EQ(first.numVertices(), 6);
    EXPECT_EQ(std::vector<int>(first.begin(1), first.end(1)), (std::vector<int>{0, 4, 2}));
    EXPECT_EQ(first.count(0), 2);  // the quad diagonal 0-4 is not an edge
    for (int i = 0; i < 3; ++i) cache.get(t.numVertices, t.counts, t.faces, ask);
    EXPECT_EQ(q.calls, 1);
    EXPECT_EQ(cache.queries(), 1);
}

TEST(NeighbourCache, AnyTopologyChangeAsksAgain) {
    TwoQuads t;
    PolyQuery q = QueryFor(t);
    KNeighbourCache cache;
    auto ask = [&q](std::vector<std::vector<int> >& lists) { q(lists); };
    cache.get(t.numVertices, t.counts, t.faces, ask);

    // Same face sizes, one face rewound: different connects.
    KIntArray rewound{0, 3, 4, 1, 1, 2, 5, 4};
    cache.get(t.numVertices, t.counts, rewound, ask);
    EXPECT_EQ(q.calls, 2);
    // Back to the original: the table of the rewound mesh no longer holds.
    cache.get(t.numVertices, t.counts, t.faces, ask);
    EXPECT_EQ(q.calls, 3);
    // An extra, unused vertex: same faces, different vertex count; the table covers it.
    const KVertexNeighbours& grown = cache.get(7, t.counts, t.faces, ask);
    EXPECT_EQ(q.calls, 4);
    EXPECT_EQ(grown.numVertices(), 7);
    EXPECT_EQ(grown.count(6), 0);
    // Same flat vertex list cut into different faces (a quad and a square split in two).
    KIntArray recut{4, 2, 2};
    cache.get(7, recut, t.faces, ask);
    EXPECT_EQ(q.calls, 5);
    cache.clear();
    cache.get(7, recut, t.faces, ask);
    EXPECT_EQ(q.calls, 6);
}

TEST(NeighbourCache, HostOrderIsKept) {
    KNeighbourCache cache;
    KIntArray counts{3}, faces{0, 1, 2};
    const KVertexNeighbours& n = cache.get(3, counts, faces, [](std::vector<std::vector<int> >& lists) {
        ASSERT_EQ(lists.size(), 3u);
        lists[0] = {2, 1};
        lists[1] = {0, 2};
        lists[2] = {1, 0};
    });
    EXPECT_EQ(std::vector<int>(n.begin(0), n.end(0)), (std::vector<int>{2, 1}));
    EXPECT_TRUE(n.validFor(3));
}
