#include "KPointsDistTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <set>
#include <vector>

using namespace Kavrin;

namespace {

KVectorArray RandomCloud(std::mt19937& rng, int count, float extent) {
    std::uniform_real_distribution<float> u(-extent, extent);
    KVectorArray pts;
    for (int i = 0; i < count; ++i) pts.push_back(KVector(u(rng), u(rng), u(rng)));
    return pts;
}

// findNPoints against a brute force over the admitted points, nearest first: the same distances
// (in double), each from a distinct admitted point at that distance. A query with a point right at
// the radius is skipped.
void ExpectSame(const KPointsDistTree& tree, const KVectorArray& pts, const std::vector<bool>& admitted,
                const KVector& p, int n, float radius) {
    auto dist = [&](int i) {
        return std::sqrt(std::pow(double(pts[i].x) - p.x, 2) + std::pow(double(pts[i].y) - p.y, 2) +
                         std::pow(double(pts[i].z) - p.z, 2));
    };
    std::vector<double> ref;
    for (int i = 0; i < pts.length(); ++i)
        if (admitted[i] && dist(i) <= radius) ref.push_back(dist(i));
    std::sort(ref.begin(), ref.end());
    if (!ref.empty() && std::fabs(ref.back() - radius) < 1e-5) return;
    ref.resize(std::min<size_t>(ref.size(), n));
    KIntArray ids{99, 98};
    KFloatArray ds;
    tree.findNPoints(p, n, radius, ids, ds);
    ASSERT_EQ(ids.length(), int(ref.size()));
    ASSERT_EQ(ds.length(), int(ref.size()));
    EXPECT_EQ(std::set<int>(ids.begin(), ids.end()).size(), ref.size());
    for (int i = 0; i < ids.length(); ++i) {
        ASSERT_TRUE(admitted[ids[i]]) << ids[i];
        EXPECT_NEAR(ds[i], ref[i], 1e-5);
        EXPECT_NEAR(dist(ids[i]), ref[i], 1e-5);
    }
}

}  // namespace

TEST(KPointsDistTree, MatchesBruteForceWithAndWithoutMask) {
    // The mask admits any non-zero entry; indices stay those of the full array, and a masked
    // point is never returned, not even for a query on its own position.
    std::mt19937 rng(21);
    const KVectorArray pts = RandomCloud(rng, 2000, 5.0f);
    KIntArray mask(pts.length());
    for (int i = 0; i < pts.length(); ++i) mask[i] = i % 3 == 0 ? 0 : (i % 3 == 1 ? 1 : -7);
    for (const KIntArray* m : {static_cast<KIntArray*>(nullptr), &mask}) {
        std::vector<bool> admitted(pts.size());
        for (int i = 0; i < pts.length(); ++i) admitted[i] = !m || mask[i] != 0;
        KPointsDistTree tree;
        tree.setPoints(pts, m);
        KVectorArray queries = RandomCloud(rng, 200, 7.0f);
        queries.insert(queries.end(), pts.begin(), pts.begin() + 60);
        // The queries run concurrently, as the nodes run them.
#pragma omp parallel for schedule(static) num_threads(2)
        for (int i = 0; i < queries.length(); ++i) {
            ExpectSame(tree, pts, admitted, queries[i], 1, 1e30f);
            ExpectSame(tree, pts, admitted, queries[i], 8, 1e30f);
            ExpectSame(tree, pts, admitted, queries[i], 50, 0.7f);
            int index = -5;
            float d = -1;
            KIntArray ids;
            KFloatArray ds;
            EXPECT_TRUE(tree.findClosestPoint(queries[i], index, d));
            tree.findNPoints(queries[i], 1, 1e30f, ids, ds);
            EXPECT_TRUE(ids.length() == 1 && index == ids[0] && d == ds[0]) << "both queries agree";
        }
    }
    KIntArray none(pts.length());
    KPointsDistTree tree;
    tree.setPoints(pts, &none);
    EXPECT_TRUE(tree.empty());
}

TEST(KPointsDistTree, RadiusCountOrderAndEuclideanDistances) {
    KPointsDistTree tree;
    KVectorArray pts;
    // Distances from the origin 5, 1, 2, 1 (a tie with index 1) and 9.
    pts.assign({KVector(3, 4, 0), KVector(0, 0, 1), KVector(0, 2, 0), KVector(-1, 0, 0), KVector(0, 0, 9)});
    tree.setPoints(pts);
    const struct {
        KVector p;
        int n;
        float radius;
        std::vector<int> ids;
        std::vector<float> ds;
    } cases[] = {{KVector(), 100, 1e30f, {1, 3, 2, 0, 4}, {1, 1, 2, 5, 9}},  // n beyond the count
                 {KVector(), 100, 5.0f, {1, 3, 2, 0}, {1, 1, 2, 5}},         // the radius is inclusive
                 {KVector(), 100, 4.999f, {1, 3, 2}, {1, 1, 2}},
                 {KVector(), 2, 1e30f, {1, 3}, {1, 1}},  // a tie goes to the lower index
                 {KVector(), 3, 0.5f, {}, {}},
                 {KVector(3, 4, 0), 3, 0.0f, {0}, {0}},
                 {KVector(0, 0, 8.5f), 1, 1e30f, {4}, {0.5f}},
                 {KVector(), 0, 1e30f, {}, {}},  // requests that cannot find anything
                 {KVector(), 3, -1.0f, {}, {}},
                 {KVector(NAN, 0, 0), 3, 1e30f, {}, {}}};
    for (const auto& c : cases) {
        KIntArray ids{7, 7, 7};
        KFloatArray ds;
        ds.push_back(7);
        tree.findNPoints(c.p, c.n, c.radius, ids, ds);
        EXPECT_EQ(std::vector<int>(ids.begin(), ids.end()), c.ids) << c.n << " " << c.radius;
        EXPECT_EQ(std::vector<float>(ds.begin(), ds.end()), c.ds) << c.n << " " << c.radius;
    }
}

TEST(KPointsDistTree, EmptyRebuildAndBadPoints) {
    KPointsDistTree tree;
    int index = 3;
    float d = 42;
    EXPECT_TRUE(tree.empty());
    EXPECT_FALSE(tree.findClosestPoint(KVector(), index, d));
    EXPECT_TRUE(index == -1 && d == 42.0f);
    KVectorArray pts;
    pts.assign({KVector(NAN, 0, 0), KVector(1, 0, 0), KVector(std::numeric_limits<float>::infinity(), 0, 0)});
    tree.setPoints(pts);  // non-finite points are left out
    ASSERT_TRUE(tree.findClosestPoint(KVector(), index, d));
    EXPECT_EQ(index, 1);
    EXPECT_FALSE(tree.findClosestPoint(KVector(0, NAN, 0), index, d));
    // Rebuilding replaces the set; squared distances that overflow single precision still work.
    pts.assign({KVector(1e20f, 0, 0), KVector(-3e20f, 0, 0)});
    tree.setPoints(pts);
    ASSERT_TRUE(tree.findClosestPoint(KVector(-0.5e20f, 0, 0), index, d));
    EXPECT_EQ(index, 0);
    EXPECT_FLOAT_EQ(d, 1.5e20f);
    tree.setPoints(KVectorArray());
    EXPECT_TRUE(tree.empty());
}
