#include "KRingNormal.h"

#include <cmath>

namespace Kavrin {

KDouble3 RingNormal(const KDouble3* ring, int n) {
    KDouble3 sum;
    if (n < 1) return sum;
    double c[3] = {0.0, 0.0, 0.0};
    for (int k = 0; k < n; ++k)
        for (int j = 0; j < 3; ++j) c[j] += ring[k][j];
    for (int j = 0; j < 3; ++j) c[j] /= n;

    for (int k = 1; k <= n; ++k) {
        const KDouble3& next = ring[k % n];
        const KDouble3& prev = ring[k - 1];
        const double a[3] = {next[0] - c[0], next[1] - c[1], next[2] - c[2]};
        const double b[3] = {prev[0] - c[0], prev[1] - c[1], prev[2] - c[2]};
        sum[0] += a[1] * b[2] - a[2] * b[1];
        sum[1] += a[2] * b[0] - a[0] * b[2];
        sum[2] += a[0] * b[1] - a[1] * b[0];
    }
    const double len = std::sqrt(sum[0] * sum[0] + sum[1] * sum[1] + sum[2] * sum[2]);
    // Guard (behaviour note "Maya layer: ring normal of a degenerate ring").
    if (!(len > 0.0)) return KDouble3();
    for (int j = 0; j < 3; ++j) sum[j] /= len;
    return sum;
}

}  // namespace Kavrin
