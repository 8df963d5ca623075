// Ring normal: orientation against hand-worked rings and an independent area-vector formula,
// degenerate rings and ids outside the point list.

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "KRingNormal.h"

using namespace Kavrin;

namespace {

void ExpectNear(const KDouble3& a, double x, double y, double z, double tol = 1e-12) {
    EXPECT_NEAR(a[0], x, tol);
    EXPECT_NEAR(a[1], y, tol);
    EXPECT_NEAR(a[2], z, tol);
}

// Twice the polygon's area vector, sum of p[k] x p[k+1] (the shoelace form in 3D).
KDouble3 AreaVector(const std::vector<KDouble3>& p) {
    KDouble3 s;
    const size_t n = p.size();
    for (size_t k = 0; k < n; ++k) {
        const KDouble3& a = p[k];
        const KDouble3& b = p[(k + 1) % n];
        s[0] += a[1] * b[2] - a[2] * b[1];
        s[1] += a[2] * b[0] - a[0] * b[2];
        s[2] += a[0] * b[1] - a[1] * b[0];
    }
    return s;
}

}  // namespace

TEST(RingNormal, CounterClockwiseRingPointsDown) {
    // Seen from +z the ring runs counter-clockwise: (next - c) x (prev - c) points along -z.
    const std::vector<KDouble3> square = {{0, 0, 5}, {2, 0, 5}, {2, 2, 5}, {0, 2, 5}};
    ExpectNear(RingNormal(square.data(), 4), 0, 0, -1);
    const std::vector<KDouble3> reversed = {{0, 2, 5}, {2, 2, 5}, {2, 0, 5}, {0, 0, 5}};
    ExpectNear(RingNormal(reversed.data(), 4), 0, 0, 1);
    // Hand-worked triangle in the plane x = 0, corners (0,0,0), (0,1,0), (0,0,1): c = (0, 1/3, 1/3);
    // every term (next - c) x (prev - c) is along -x.
    const std::vector<KDouble3> tri = {{0, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    ExpectNear(RingNormal(tri.data(), 3), -1, 0, 0);
}

TEST(RingNormal, PlanarRingIsMinusTheAreaNormalAnywhere) {
    // An irregular, non-convex hexagon on a tilted plane far from the origin: the ring normal is
    // the negated unit area vector, whatever the translation.
    const double ux[3] = {0.6, 0.8, 0.0}, uy[3] = {-0.48, 0.36, 0.8};
    const double q[6][2] = {{0, 0}, {3, -0.5}, {4, 1}, {2, 0.7}, {2.5, 3}, {-0.5, 2}};
    std::vector<KDouble3> ring;
    for (const auto& e : q) {
        ring.push_back({100 + e[0] * ux[0] + e[1] * uy[0], -40 + e[0] * ux[1] + e[1] * uy[1],
                        7 + e[0] * ux[2] + e[1] * uy[2]});
    }
    const KDouble3 a = AreaVector(ring);
    const double len = std::sqrt(a[0] * a[0] + a[1] * a[1] + a[2] * a[2]);
    ExpectNear(RingNormal(ring.data(), 6), -a[0] / len, -a[1] / len, -a[2] / len, 1e-9);
}

TEST(RingNormal, NonPlanarRingIsUnitLength) {
    const std::vector<KDouble3> ring = {{1, 0, 0.3}, {0, 1, -0.2}, {-1, 0, 0.4}, {0, -1, -0.1}, {0.7, -0.7, 0.5}};
    const KDouble3 n = RingNormal(ring.data(), 5);
    EXPECT_NEAR(n[0] * n[0] + n[1] * n[1] + n[2] * n[2], 1.0, 1e-12);
    EXPECT_LT(n[2], 0.0);  // counter-clockwise seen from above
}

TEST(RingNormal, DegenerateRingsGiveZero) {
    const std::vector<KDouble3> line = {{0, 0, 0}, {1, 1, 1}, {3, 3, 3}};
    ExpectNear(RingNormal(line.data(), 3), 0, 0, 0, 0);
    ExpectNear(RingNormal(line.data(), 2), 0, 0, 0, 0);
    ExpectNear(RingNormal(line.data(), 1), 0, 0, 0, 0);
    ExpectNear(RingNormal(nullptr, 0), 0, 0, 0, 0);
}

TEST(RingNormal, IdsSelectCornersInTheirOrder) {
    const std::vector<KDouble3> points = {{9, 9, 9}, {0, 0, 0}, {0, 2, 0}, {2, 2, 0}, {2, 0, 0}};
    auto at = [&points](int i) { return points[i]; };
    KDouble3 n;
    const int clockwise[] = {1, 2, 3, 4};
    ASSERT_TRUE(RingNormal(5, clockwise, 4, at, n));
    ExpectNear(n, 0, 0, 1);
    const int counter[] = {4, 3, 2, 1};
    ASSERT_TRUE(RingNormal(5, counter, 4, at, n));
    ExpectNear(n, 0, 0, -1);
}

TEST(RingNormal, IdOutsideThePointsIsRefusedWithoutReading) {
    const std::vector<KDouble3> points = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    int reads = 0;
    auto at = [&](int i) {
        ++reads;
        return points.at(static_cast<size_t>(i));
    };
    KDouble3 n{5, 5, 5};
    const int tooHigh[] = {0, 1, 3};
    EXPECT_FALSE(RingNormal(3, tooHigh, 3, at, n));
    ExpectNear(n, 0, 0, 0, 0);
    const int negative[] = {-1, 1, 2};
    EXPECT_FALSE(RingNormal(3, negative, 3, at, n));
    EXPECT_EQ(reads, 2);  // only the valid corners before each bad id were read
    EXPECT_TRUE(RingNormal(3, tooHigh, 0, at, n));  // an empty ring reads nothing
    ExpectNear(n, 0, 0, 0, 0);
}
