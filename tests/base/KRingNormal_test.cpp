// Ring normal: orientation against hand-worked rings and an independent area-vector formula,
// degenerate rings and ids outside the point list.

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "KRingNormal.h"

using namespace Kavrin;

namespace {

void ExpectNear(const KDouble3& a, const KDouble3& b, double tol = 1e-12) {
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(a[k], b[k], tol) << k;
}

// The unit area normal, from the shoelace sum of p[k] x p[k+1].
KDouble3 AreaNormal(const std::vector<KDouble3>& p) {
    double s[3] = {0, 0, 0};
    for (size_t k = 0; k < p.size(); ++k) {
        const KDouble3 &a = p[k], &b = p[(k + 1) % p.size()];
        for (int i = 0; i < 3; ++i) s[i] += a[(i + 1) % 3] * b[(i + 2) % 3] - a[(i + 2) % 3] * b[(i + 1) % 3];
    }
    const double len = std::sqrt(s[0] * s[0] + s[1] * s[1] + s[2] * s[2]);
    return KDouble3{s[0] / len, s[1] / len, s[2] / len};
}

}  // namespace

TEST(RingNormal, HandWorkedAndDegenerateRings) {
    // Seen from +z a counter-clockwise ring gives -z. The triangle in the plane x = 0 has
    // c = (0, 1/3, 1/3) and every term (next - c) x (prev - c) along -x. Collinear, too short
    // and empty rings give zero.
    const std::vector<KDouble3> line = {{0, 0, 0}, {1, 1, 1}, {3, 3, 3}};
    const struct {
        std::vector<KDouble3> ring;
        int n;
        KDouble3 expected;
    } cases[] = {
        {{{0, 0, 5}, {2, 0, 5}, {2, 2, 5}, {0, 2, 5}}, 4, {0, 0, -1}},
        {{{0, 2, 5}, {2, 2, 5}, {2, 0, 5}, {0, 0, 5}}, 4, {0, 0, 1}},
        {{{0, 0, 0}, {0, 1, 0}, {0, 0, 1}}, 3, {-1, 0, 0}},
        {line, 3, {0, 0, 0}}, {line, 2, {0, 0, 0}}, {line, 1, {0, 0, 0}}, {{}, 0, {0, 0, 0}},
    };
    for (const auto& c : cases) ExpectNear(RingNormal(c.ring.data(), c.n), c.expected);
}

TEST(RingNormal, IsMinusTheAreaNormalAnywhere) {
    // An irregular, non-convex hexagon on a tilted plane far from the origin.
    const double ux[3] = {0.6, 0.8, 0.0}, uy[3] = {-0.48, 0.36, 0.8};
    const double q[6][2] = {{0, 0}, {3, -0.5}, {4, 1}, {2, 0.7}, {2.5, 3}, {-0.5, 2}};
    std::vector<KDouble3> ring;
    for (const auto& e : q)
        ring.push_back({100 + e[0] * ux[0] + e[1] * uy[0], -40 + e[0] * ux[1] + e[1] * uy[1], 7 + e[1] * uy[2]});
    const KDouble3 a = AreaNormal(ring);
    ExpectNear(RingNormal(ring.data(), 6), KDouble3{-a[0], -a[1], -a[2]}, 1e-9);

    const std::vector<KDouble3> bumpy = {{1, 0, 0.3}, {0, 1, -0.2}, {-1, 0, 0.4}, {0, -1, -0.1}, {0.7, -0.7, 0.5}};
    const KDouble3 n = RingNormal(bumpy.data(), 5);
    EXPECT_NEAR(n[0] * n[0] + n[1] * n[1] + n[2] * n[2], 1.0, 1e-12);
    EXPECT_LT(n[2], 0.0);  // counter-clockwise seen from above
}

TEST(RingNormal, IdsSelectCornersInOrderAndOutsideIdsAreRefusedWithoutReading) {
    const std::vector<KDouble3> points = {{9, 9, 9}, {0, 0, 0}, {0, 2, 0}, {2, 2, 0}, {2, 0, 0}};
    int reads = 0;
    auto at = [&](int i) {
        ++reads;
        return points.at(static_cast<size_t>(i));
    };
    KDouble3 n;
    const int clockwise[] = {1, 2, 3, 4}, counter[] = {4, 3, 2, 1}, tooHigh[] = {1, 2, 5}, negative[] = {-1, 1, 2};
    ASSERT_TRUE(RingNormal(5, clockwise, 4, at, n));
    ExpectNear(n, {0, 0, 1});
    ASSERT_TRUE(RingNormal(5, counter, 4, at, n));
    ExpectNear(n, {0, 0, -1});
    reads = 0;
    EXPECT_FALSE(RingNormal(5, tooHigh, 3, at, n));
    ExpectNear(n, {0, 0, 0}, 0);
    EXPECT_FALSE(RingNormal(5, negative, 3, at, n));
    EXPECT_EQ(reads, 2);  // only the valid corners before each bad id were read
    n = KDouble3{5, 5, 5};
    EXPECT_TRUE(RingNormal(5, tooHigh, 0, at, n));  // an empty ring reads nothing
    ExpectNear(n, {0, 0, 0}, 0);
}
