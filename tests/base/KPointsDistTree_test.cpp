#include "KPointsDistTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <utility>
#include <vector>

using namespace Kavrin;

namespace {

KVectorArray RandomCloud(std::mt19937& rng, int count, float extent) {
    std::uniform_real_distribution<float> u(-extent, extent);
    KVectorArray pts;
    for (int i = 0; i < count; ++i) pts.push_back(KVector(u(rng), u(rng), u(rng)));
    return pts;
}

// Every admitted point within radius as (distance, original index), nearest first, computed in double.
std::vector<std::pair<double, int> > Brute(const KVectorArray& pts, const std::vector<bool>& admitted,
                                           const KVector& p, double radius) {
    std::vector<std::pair<double, int> > all;
    for (int i = 0; i < pts.length(); ++i) {
        if (!admitted[i]) continue;
        const double dx = double(pts[i].x) - p.x, dy = double(pts[i].y) - p.y, dz = double(pts[i].z) - p.z;
        const double d = std::sqrt(dx * dx + dy * dy + dz * dz);
        if (d <= radius) all.push_back(std::make_pair(d, i));
    }
    std::sort(all.begin(), all.end());
    return all;
}

// Compares a findNPoints answer to the brute force; near-ties (possible rounding swaps) are
// compared by distance only, and entries right at the radius are skipped.
void ExpectSame(const KVectorArray& pts, const std::vector<bool>& admitted, const KPointsDistTree& tree,
                const KVector& p, int n, float radius) {
    KIntArray ids{99, 98};
    KFloatArray ds;
    tree.findNPoints(p, n, radius, ids, ds);
    std::vector<std::pair<double, int> > ref = Brute(pts, admitted, p, radius);
    const int expected = std::min<int>(n, static_cast<int>(ref.size()));
    ASSERT_EQ(ids.length(), ds.length());
    if (std::fabs(ref.size() > static_cast<size_t>(expected) ? ref[expected].first - ref[expected - 1].first : 1.0) < 1e-5)
        return;  // a tie at the cut
    if (!ref.empty() && std::fabs(ref.back().first - radius) < 1e-5) return;
    ASSERT_EQ(ids.length(), expected);
    for (int i = 0; i < expected; ++i) {
        EXPECT_NEAR(ds[i], ref[i].first, 1e-5);
        const bool tieNext = i + 1 < expected && ref[i + 1].first - ref[i].first < 1e-5;
        const bool tiePrev = i > 0 && ref[i].first - ref[i - 1].first < 1e-5;
        if (!tieNext && !tiePrev) {
            EXPECT_EQ(ids[i], ref[i].second);
        }
        EXPECT_TRUE(admitted[ids[i]]);
        if (i > 0) {
            EXPECT_LE(ds[i - 1], ds[i]);
        }
        EXPECT_LE(ds[i], radius);
    }
}

}  // namespace

TEST(KPointsDistTree, MatchesBruteForce) {
    std::mt19937 rng(21);
    const KVectorArray pts = RandomCloud(rng, 3000, 5.0f);
    const std::vector<bool> all(pts.size(), true);
    KPointsDistTree tree;
    tree.setPoints(pts);
    ASSERT_FALSE(tree.empty());
    for (const KVector& q : RandomCloud(rng, 300, 7.0f)) {
        int index = -5;
        float d = -1;
        ASSERT_TRUE(tree.findClosestPoint(q, index, d));
        const auto ref = Brute(pts, all, q, 1e30);
        EXPECT_EQ(index, ref[0].second);
        EXPECT_NEAR(d, ref[0].first, 1e-5);
        ExpectSame(pts, all, tree, q, 1, 1e30f);
        ExpectSame(pts, all, tree, q, 8, 1e30f);
        ExpectSame(pts, all, tree, q, 50, 0.7f);
    }
    // Far away and exactly on stored points.
    for (int i = 0; i < 50; ++i) {
        int index = -1;
        float d = -1;
        ASSERT_TRUE(tree.findClosestPoint(pts[i * 7], index, d));
        EXPECT_EQ(index, i * 7);
        EXPECT_EQ(d, 0.0f);
        ASSERT_TRUE(tree.findClosestPoint(pts[i] * 1000.0f, index, d));
        EXPECT_EQ(index, Brute(pts, all, pts[i] * 1000.0f, 1e30)[0].second);
    }
}

TEST(KPointsDistTree, MaskAdmitsOnlyNonZeroEntriesAndKeepsOriginalIndices) {
    std::mt19937 rng(4);
    const KVectorArray pts = RandomCloud(rng, 1000, 3.0f);
    KIntArray mask(pts.length());
    std::vector<bool> admitted(pts.size());
    for (int i = 0; i < pts.length(); ++i) {
        mask[i] = (i % 3 == 0) ? 0 : (i % 3 == 1 ? 1 : -7);  // any non-zero value admits
        admitted[i] = mask[i] != 0;
    }
    KPointsDistTree tree;
    tree.setPoints(pts, &mask);
    for (int i = 0; i < pts.length(); ++i) {
        // A masked point's own position finds some other point.
        int index = -1;
        float d = -1;
        ASSERT_TRUE(tree.findClosestPoint(pts[i], index, d));
        EXPECT_TRUE(admitted[index]);
        if (admitted[i]) {
            EXPECT_EQ(index, i);
        } else {
            EXPECT_NE(index, i);
            EXPECT_GT(d, 0.0f);
        }
    }
    for (const KVector& q : RandomCloud(rng, 200, 4.0f)) ExpectSame(pts, admitted, tree, q, 12, 0.8f);

    // A mask shorter than the points leaves the rest out.
    KIntArray shortMask{1, 0, 1};
    tree.setPoints(pts, &shortMask);
    KIntArray ids;
    KFloatArray ds;
    tree.findNPoints(KVector(), 10, 1e30f, ids, ds);
    ASSERT_EQ(ids.length(), 2);
    std::vector<int> got(ids.begin(), ids.end());
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<int>{0, 2}));

    // A mask that admits nothing gives an empty tree.
    KIntArray none(pts.length());
    tree.setPoints(pts, &none);
    EXPECT_TRUE(tree.empty());
}

TEST(KPointsDistTree, RadiusCountOrderAndEuclideanDistances) {
    KVectorArray pts;
    pts.push_back(KVector(3, 4, 0));   // 5
    pts.push_back(KVector(0, 0, 1));   // 1
    pts.push_back(KVector(0, 2, 0));   // 2
    pts.push_back(KVector(-1, 0, 0));  // 1, tie with index 1
    pts.push_back(KVector(0, 0, 9));   // 9
    KPointsDistTree tree;
    tree.setPoints(pts);
    KIntArray ids;
    KFloatArray ds;

    tree.findNPoints(KVector(), 100, 1e30f, ids, ds);  // n beyond the count
    EXPECT_EQ(ids, (KIntArray{1, 3, 2, 0, 4}));
    ASSERT_EQ(ds.length(), 5);
    EXPECT_EQ(std::vector<float>(ds.begin(), ds.end()), (std::vector<float>{1, 1, 2, 5, 9}));

    tree.findNPoints(KVector(), 100, 5.0f, ids, ds);  // radius is inclusive
    EXPECT_EQ(ids, (KIntArray{1, 3, 2, 0}));
    tree.findNPoints(KVector(), 100, 4.999f, ids, ds);
    EXPECT_EQ(ids, (KIntArray{1, 3, 2}));
    tree.findNPoints(KVector(), 2, 1e30f, ids, ds);  // n limits, the tie resolved to the lower index
    EXPECT_EQ(ids, (KIntArray{1, 3}));
    tree.findNPoints(KVector(), 1, 1e30f, ids, ds);
    EXPECT_EQ(ids, (KIntArray{1}));
    tree.findNPoints(KVector(), 3, 0.5f, ids, ds);  // nothing within the radius
    EXPECT_TRUE(ids.empty());
    EXPECT_TRUE(ds.empty());
    tree.findNPoints(KVector(3, 4, 0), 3, 0.0f, ids, ds);  // zero radius still finds a point on p
    EXPECT_EQ(ids, (KIntArray{0}));
    EXPECT_EQ(ds[0], 0.0f);

    // Requests that cannot find anything return empty arrays.
    KIntArray sentinel{1, 2, 3};
    KFloatArray sentinelD;
    sentinelD.push_back(1);
    tree.findNPoints(KVector(), 0, 1e30f, sentinel, sentinelD);
    EXPECT_TRUE(sentinel.empty() && sentinelD.empty());
    sentinel = KIntArray{1};
    tree.findNPoints(KVector(), 3, -1.0f, sentinel, sentinelD);
    EXPECT_TRUE(sentinel.empty());
    tree.findNPoints(KVector(NAN, 0, 0), 3, 1e30f, sentinel, sentinelD);
    EXPECT_TRUE(sentinel.empty());

    int index = 7;
    float d = -1;
    ASSERT_TRUE(tree.findClosestPoint(KVector(0, 0, 8.5f), index, d));
    EXPECT_EQ(index, 4);
    EXPECT_FLOAT_EQ(d, 0.5f);
    EXPECT_FALSE(tree.findClosestPoint(KVector(0, NAN, 0), index, d));
    EXPECT_EQ(index, -1);
}

TEST(KPointsDistTree, EmptyRebuildAndBadPoints) {
    KPointsDistTree tree;
    EXPECT_TRUE(tree.empty());
    int index = 3;
    float d = 42;
    EXPECT_FALSE(tree.findClosestPoint(KVector(), index, d));
    EXPECT_EQ(index, -1);
    EXPECT_EQ(d, 42.0f);
    KIntArray ids{5};
    KFloatArray ds;
    tree.findNPoints(KVector(), 4, 1e30f, ids, ds);
    EXPECT_TRUE(ids.empty());

    KVectorArray pts;
    pts.push_back(KVector(NAN, 0, 0));
    pts.push_back(KVector(1, 0, 0));
    pts.push_back(KVector(std::numeric_limits<float>::infinity(), 0, 0));
    pts.push_back(KVector(2, 0, 0));
    tree.setPoints(pts);
    tree.findNPoints(KVector(), 10, 1e30f, ids, ds);
    EXPECT_EQ(ids, (KIntArray{1, 3}));  // non-finite points are left out

    // Rebuilding replaces the set; the old points are gone.
    KVectorArray other;
    other.push_back(KVector(0, 0, 10));
    tree.setPoints(other);
    ASSERT_TRUE(tree.findClosestPoint(KVector(1, 0, 0), index, d));
    EXPECT_EQ(index, 0);
    EXPECT_FLOAT_EQ(d, std::sqrt(101.0f));
    tree.setPoints(KVectorArray());
    EXPECT_TRUE(tree.empty());
    EXPECT_FALSE(tree.findClosestPoint(KVector(), index, d));

    // Points so far apart that squared distances overflow single precision are still found.
    KVectorArray huge;
    huge.push_back(KVector(1e20f, 0, 0));
    huge.push_back(KVector(-3e20f, 0, 0));
    tree.setPoints(huge);
    ASSERT_TRUE(tree.findClosestPoint(KVector(-0.5e20f, 0, 0), index, d));
    EXPECT_EQ(index, 0);
    EXPECT_FLOAT_EQ(d, 1.5e20f);
    tree.findNPoints(KVector(-0.5e20f, 0, 0), 5, 1e30f, ids, ds);
    EXPECT_EQ(ids, (KIntArray{0, 1}));
    ASSERT_EQ(ds.length(), 2);
    EXPECT_FLOAT_EQ(ds[1], 2.5e20f);
    tree.findNPoints(KVector(-0.5e20f, 0, 0), 5, 2e20f, ids, ds);
    EXPECT_EQ(ids, (KIntArray{0}));
}

TEST(KPointsDistTree, ConcurrentQueriesMatchSerial) {
    std::mt19937 rng(8);
    const KVectorArray pts = RandomCloud(rng, 5000, 2.0f);
    KPointsDistTree tree;
    tree.setPoints(pts);
    const KVectorArray queries = RandomCloud(rng, 4000, 2.5f);
    const int n = queries.length();
    std::vector<int> serial(n), parallel(n), serialN(n), parallelN(n);
    std::vector<float> serialD(n), parallelD(n);
    for (int i = 0; i < n; ++i) {
        tree.findClosestPoint(queries[i], serial[i], serialD[i]);
        KIntArray ids;
        KFloatArray ds;
        tree.findNPoints(queries[i], 5, 0.3f, ids, ds);
        serialN[i] = ids.empty() ? -1 : ids[ids.length() - 1] * 16 + ids.length();
    }
#pragma omp parallel for schedule(static) num_threads(4)
    for (int i = 0; i < n; ++i) {
        tree.findClosestPoint(queries[i], parallel[i], parallelD[i]);
        KIntArray ids;
        KFloatArray ds;
        tree.findNPoints(queries[i], 5, 0.3f, ids, ds);
        parallelN[i] = ids.empty() ? -1 : ids[ids.length() - 1] * 16 + ids.length();
    }
    EXPECT_EQ(serial, parallel);
    EXPECT_EQ(serialD, parallelD);
    EXPECT_EQ(serialN, parallelN);
}
