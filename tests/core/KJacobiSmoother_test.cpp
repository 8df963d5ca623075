// Jacobi smoothing: hand-worked sweeps, and the same bits for every thread count and every way
// the sweeps are cut into cache-sized pieces (or not).

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "KJacobiSmoother.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

std::vector<double> Coordinates(const KPolyMesh& mesh) {
    std::vector<double> p;
    for (const KVector& v : mesh.points)
        for (int k = 0; k < 3; ++k) p.push_back(v[k] * 1.37);
    return p;
}

void ExpectSameBits(const std::vector<double>& a, const std::vector<double>& b) {
    ASSERT_EQ(a.size(), b.size());
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(double)), 0);
}

}  // namespace

TEST(KJacobiSmoother, SweepsMatchHandWorkedValues) {
    // Path 0 - 1 - 2 with x = 0, 3, 9; every average reads the previous sweep, not updated vertices.
    KVertexNeighbours n;
    n.assign({{1}, {0, 2}, {1}});
    std::vector<double> p = {0, 0, 0, 3, 0, 0, 9, 0, 0};
    KJacobiSmoother path;
    path.setNeighbours(n);
    path.smooth(p, 1, 1);
    EXPECT_EQ(p, (std::vector<double>{3, 0, 0, 4.5, 0, 0, 3, 0, 0}));
    path.smooth(p, 1, 1);
    EXPECT_EQ(p, (std::vector<double>{4.5, 0, 0, 3, 0, 0, 4.5, 0, 0}));
    path.smooth(p, 0, 1);
    EXPECT_EQ(p, std::vector<double>(9, 0.0)) << "no sweep leaves the smoothed points at the origin";

    // Three neighbours at x = 1, 2, 2: the mean is a true division, 5 / 3, which differs in the last
    // bit from 5 times the rounded 1/3.
    KVertexNeighbours three;
    three.assign({{1, 2, 3}, {0}, {0}, {0}});
    std::vector<double> t = {0, 0, 0, 1, 0, 0, 2, 0, 0, 2, 0, 0};
    KJacobiSmoother star;
    star.setNeighbours(three);
    star.smooth(t, 1, 1);
    ASSERT_NE(5.0 / 3.0, 5.0 * (1.0 / 3.0));
    EXPECT_EQ(t[0], 5.0 / 3.0);

    KVertexNeighbours isolated;
    isolated.assign({{}, {0}});
    std::vector<double> q = {1, 1, 1, 2, 2, 2};
    KJacobiSmoother loose;
    loose.setNeighbours(isolated);
    loose.smooth(q, 1, 1);
    EXPECT_TRUE(std::isnan(q[0])) << "a vertex without neighbours divides zero by zero";
    EXPECT_EQ(q[3], 1.0);
}

// Plain sweeps, one after the other over the whole table, for comparison.
std::vector<double> Plain(std::vector<double> p, const KVertexNeighbours& n, int k) {
    std::vector<double> q(p.size());
    for (int s = 0; s < k; ++s) {
        for (int v = 0; v < n.numVertices(); ++v) {
            double sum[3] = {0.0, 0.0, 0.0};
            for (const int* u = n.begin(v); u != n.end(v); ++u)
                for (int c = 0; c < 3; ++c) sum[c] += p[3 * *u + c];
            for (int c = 0; c < 3; ++c) q[3 * v + c] = sum[c] / n.count(v);
        }
        p.swap(q);
    }
    return p;
}

TEST(KJacobiSmoother, EveryThreadCountAndPassGivesThePlainSweepsBits) {
    // Large enough for three threads to take part (2,048 vertices each at least). The sheet, its
    // scattered numbering and the icosphere are cut into pieces, 100 sweeps into several passes;
    // a fan of triangles around one vertex reaches everything in two steps and is swept whole.
    KPolyMesh fan;
    fan.points.push_back(KVector(0.0f, 0.0f, 1.0f));
    for (int i = 0; i < 9000; ++i) {
        fan.points.push_back(KVector(std::cos(0.001f * i), std::sin(0.001f * i), 0.1f * (i % 3)));
        if (i > 0) fan.faceCounts.push_back(3);
        if (i > 0) fan.faceVertices.insert(fan.faceVertices.end(), {0, i, i + 1});
    }
    struct Case {
        const char* name;
        KPolyMesh mesh;
        bool blocked;
    };
    for (const Case& c : {Case{"grid", MakeDetailedGrid(91, 3.0f), true},
                          Case{"scattered", ShuffledVertices(MakeDetailedGrid(91, 3.0f), 3), true},
                          Case{"icosphere", MakeIcosphere(5), true}, Case{"fan", fan, false}}) {
        KVertexNeighbours neighbours;
        c.mesh.edgeNeighbours(neighbours);
        KJacobiSmoother kept;  // reused, as a deformer reuses it from frame to frame
        kept.setNeighbours(neighbours);
        for (int k : {1, 2, 15, 100}) {
            if (!c.blocked && k > 15) continue;  // sweep by sweep, each a meeting of the threads
            const std::vector<double> plain = Plain(Coordinates(c.mesh), neighbours, k);
            for (int threads : {1, 2, 3, 2}) {
                std::vector<double> p = Coordinates(c.mesh);
                kept.smooth(p, k, threads);
                ExpectSameBits(p, plain);
                EXPECT_EQ(kept.blocked(), c.blocked) << c.name;
            }
            if (c.blocked) {
                EXPECT_EQ(kept.passes() > 1, k == 100) << c.name;
            }
        }
    }
}
