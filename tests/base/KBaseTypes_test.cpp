// Value types and arrays: the 3x3 inverse, the array resizing rules, the fast triangle normal.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "KArray.h"
#include "KDenseMatrix.h"
#include "Normal.h"

using namespace Kavrin;

TEST(KDenseMatrix, DefaultThreeByThreeIsIdentityAndOthersAreZero) {
    KMatrix3d m;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_EQ(m(i, j), i == j ? 1.0 : 0.0);
    KMatrix94d b;
    for (int i = 0; i < 36; ++i) EXPECT_EQ(b.m[i], 0.0);
    b(2, 3) = 5.0;
    EXPECT_EQ(b.m[2 * 4 + 3], 5.0) << "storage is row by row";
}

TEST(KDenseMatrix, InverseOfGeneralMatrixMatchesHandWorkedAdjugate) {
    // [[2,0,1],[1,3,2],[1,1,1]] has determinant 2*(3-2) - 0 + 1*(1-3) = 0 -> use a non-singular one:
    // [[4,7,2],[3,6,1],[2,5,3]]: det = 4(18-5) - 7(9-2) + 2(15-12) = 52 - 49 + 6 = 9.
    KMatrix3d m;
    const double v[9] = {4, 7, 2, 3, 6, 1, 2, 5, 3};
    std::memcpy(m.m, v, sizeof(v));
    m.inverse();
    const double adj[9] = {13, -11, -5, -7, 8, 2, 3, -6, 3};
    const double r = 1.0 / (9.0 + static_cast<double>(1e-30f));
    for (int i = 0; i < 9; ++i) EXPECT_DOUBLE_EQ(m.m[i], adj[i] * r) << i;
}

TEST(KDenseMatrix, InverseEdgeCases) {
    KMatrix3d identity;
    identity.inverse();
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_EQ(identity(i, j), i == j ? 1.0 : 0.0);

    KMatrix3d zero;
    for (double& x : zero.m) x = 0.0;
    zero.inverse();
    for (double x : zero.m) {
        EXPECT_FALSE(std::isnan(x));
        EXPECT_EQ(x, 0.0);
    }

    // Singular but non-zero: no test for singularity, so entries blow up instead of failing.
    KMatrix3d singular;
    const double s[9] = {1, 2, 3, 2, 4, 6, 1, 1, 1};
    std::memcpy(singular.m, s, sizeof(s));
    singular.inverse();
    // Its determinant is exactly 0, so every entry is its adjugate entry over the single-precision
    // 1e-30 widened to double (not the double 1e-30): ei - fh = 4 - 6 = -2 for the first.
    EXPECT_DOUBLE_EQ(singular(0, 0), -2.0 / 1.0000000031710769e-30);
    EXPECT_DOUBLE_EQ(singular(0, 1), 1.0 / 1.0000000031710769e-30) << "ch - bi = 3 - 2";
}

TEST(KArray, SetLengthRules) {
    KIntArray a;
    a.setLength(3, false);
    EXPECT_EQ(a.length(), 3);
    a[0] = 7;
    a.setLength(5, false);
    EXPECT_EQ(a[0], 7) << "growing keeps old values";
    EXPECT_EQ(a[4], 0) << "new elements are value-initialised";

    const size_t capacity = a.capacity();
    a.setLength(0, false);
    EXPECT_EQ(a.length(), 0);
    EXPECT_EQ(a.capacity(), capacity) << "emptying keeps the storage";
    a.setLength(4, false);
    a.setLength(-5, true);
    EXPECT_EQ(a.length(), 0);

    KVectorArray v(5);
    for (int i = 0; i < 5; ++i) v[i] = KVector(1.0f + i, 2.0f, 3.0f);
    v.setLength(2, true);
    ASSERT_EQ(v.length(), 2);
    EXPECT_EQ(v[0], KVector()) << "zero clears the survivors too";
    EXPECT_EQ(v[1], KVector());
}

TEST(KArray, SetLengthWithValueOverwritesOldElements) {
    KVectorArray v(5);
    v.setLengthWithValue(3, KVector(1, 2, 3));
    ASSERT_EQ(v.length(), 3);
    for (const KVector& x : v) EXPECT_EQ(x, KVector(1, 2, 3));
    v.setLengthWithValue(0, KVector(1, 1, 1));
    EXPECT_EQ(v.length(), 0);
}

TEST(KArray, RemoveIgnoresOutOfRangeAndDuplicates) {
    KIntArray a{10, 11, 12, 13};
    EXPECT_EQ(a.remove(KIntArray{1, 1, 7, -2}), 3);
    EXPECT_EQ(a, (KIntArray{10, 12, 13}));
    EXPECT_EQ(a.capacity(), 3u) << "survivors move into storage of exactly their number";

    EXPECT_EQ(a.remove(KIntArray{}), 3);
    EXPECT_EQ(a.remove(KIntArray{2, 0, 1}), 0);
    EXPECT_EQ(a.length(), 0);
    EXPECT_EQ(a.remove(KIntArray{0}), 0);
}

TEST(Normal, FastReciprocalSquareRootAndDegenerateTriangles) {
    const KVector p(1.5f, -2.0f, 0.25f);
    EXPECT_EQ(Normal(p, p, p, true), KVector(0, 0, 0));
    // Collinear points: zero cross product, still no NaN.
    const KVector n0 = Normal(KVector(0, 0, 0), KVector(1, 1, 1), KVector(2, 2, 2), true);
    EXPECT_EQ(n0, KVector(0, 0, 0));

    // The approximation with one Newton step is within 0.2% of the exact unit normal.
    const KVector n = Normal(KVector(0, 0, 0), KVector(3, 0, 0), KVector(0, 2, 0), true);
    EXPECT_NEAR(n.z, 1.0f, 2e-3f);
    EXPECT_EQ(n.x, 0.0f);
    EXPECT_NE(n.z, 1.0f) << "the bit-level approximation is used, not the library square root";

    // A triangle whose squared cross product is 1e-30 itself: the epsilon doubles it, so the
    // "unit" normal has length 1/sqrt(2) (to the approximation), not 1.
    const KVector tiny = Normal(KVector(0, 0, 0), KVector(1e-8f, 0, 0), KVector(0, 1e-7f, 0), true);
    EXPECT_NEAR(tiny.z, 0.70710678f, 2e-3f);

    // Bit-level: 0x5F3759DF - (bits(4) >> 1), one Newton step, worked by hand for s = 4.
    EXPECT_FLOAT_EQ(FastInvSqrt(4.0f), 0.499153584f);
    EXPECT_EQ(Normal(KVector(0, 0, 0), KVector(3, 0, 0), KVector(0, 2, 0), false), KVector(0, 0, 6));
}
