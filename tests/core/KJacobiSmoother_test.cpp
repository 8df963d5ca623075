// Jacobi smoothing: the same bits for every thread count, with one meeting of the threads when
// the vertex order allows it and a sweep-by-sweep meeting otherwise.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>

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

// The same mesh with its vertices numbered in a random order, so that index ranges are scattered
// over the surface.
KPolyMesh Shuffled(const KPolyMesh& mesh) {
    std::vector<int> order(static_cast<size_t>(mesh.numVertices()));
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(3));
    KPolyMesh out = mesh;
    for (int v = 0; v < mesh.numVertices(); ++v) out.points[order[v]] = mesh.points[v];
    for (int& v : out.faceVertices) v = order[v];
    return out;
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
    KJacobiSmoother().smooth(p, n, 1, 1);
    EXPECT_EQ(p, (std::vector<double>{3, 0, 0, 4.5, 0, 0, 3, 0, 0}));
    KJacobiSmoother().smooth(p, n, 1, 1);
    EXPECT_EQ(p, (std::vector<double>{4.5, 0, 0, 3, 0, 0, 4.5, 0, 0}));
    KJacobiSmoother().smooth(p, n, 0, 1);
    EXPECT_EQ(p, std::vector<double>(9, 0.0)) << "no sweep leaves the smoothed points at the origin";

    // Three neighbours at x = 1, 2, 2: the mean is a true division, 5 / 3, which differs in the last
    // bit from 5 times the rounded 1/3.
    KVertexNeighbours three;
    three.assign({{1, 2, 3}, {0}, {0}, {0}});
    std::vector<double> t = {0, 0, 0, 1, 0, 0, 2, 0, 0, 2, 0, 0};
    KJacobiSmoother().smooth(t, three, 1, 1);
    ASSERT_NE(5.0 / 3.0, 5.0 * (1.0 / 3.0));
    EXPECT_EQ(t[0], 5.0 / 3.0);

    KVertexNeighbours isolated;
    isolated.assign({{}, {0}});
    std::vector<double> q = {1, 1, 1, 2, 2, 2};
    KJacobiSmoother().smooth(q, isolated, 1, 1);
    EXPECT_TRUE(std::isnan(q[0])) << "a vertex without neighbours divides zero by zero";
    EXPECT_EQ(q[3], 1.0);
}

TEST(KJacobiSmoother, EveryThreadCountGivesTheSerialBits) {
    // Large enough for four threads to take part (2,048 vertices each at least).
    for (const KPolyMesh& mesh : {MakeDetailedGrid(91, 3.0f), Shuffled(MakeDetailedGrid(91, 3.0f)), MakeIcosphere(5)}) {
        KVertexNeighbours neighbours;
        mesh.edgeNeighbours(neighbours);
        for (int k : {1, 2, 15, 60}) {
            std::vector<double> serial = Coordinates(mesh);
            KJacobiSmoother().smooth(serial, neighbours, k, 1);
            KJacobiSmoother kept;  // reused, as a deformer reuses it from frame to frame
            for (int threads : {2, 3, 4, 2}) {
                std::vector<double> p = Coordinates(mesh);
                kept.smooth(p, neighbours, k, threads);
                ExpectSameBits(p, serial);
            }
        }
    }
}

TEST(KJacobiSmoother, MeetsOnceOnlyWhenTheBordersAreThin) {
    const KPolyMesh grid = MakeDetailedGrid(91, 3.0f);
    KVertexNeighbours rows, scattered;
    grid.edgeNeighbours(rows);
    Shuffled(grid).edgeNeighbours(scattered);
    std::vector<double> p = Coordinates(grid);

    KJacobiSmoother smoother;
    smoother.smooth(p, rows, 15, 2);
    EXPECT_TRUE(smoother.partitioned()) << "rows of 91: a 15-ring border is a third of each half";
    smoother.smooth(p, rows, 300, 2);
    EXPECT_FALSE(smoother.partitioned()) << "300 rings cover the whole sheet";
    smoother.smooth(p, scattered, 15, 2);
    EXPECT_FALSE(smoother.partitioned()) << "scattered numbering: the rings reach everything";
    smoother.smooth(p, rows, 15, 1);
    EXPECT_FALSE(smoother.partitioned());
}
