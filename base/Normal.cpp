#include "Normal.h"

#include <cstdint>
#include <cstring>

namespace Kavrin {

float FastInvSqrt(float s) {
    std::int32_t i;
    std::memcpy(&i, &s, sizeof(i));
    i = 0x5F3759DF - (i >> 1);
    float y;
    std::memcpy(&y, &i, sizeof(y));
    return y * (1.5f - 0.5f * s * y * y);
}

KVector Normal(const KVector& p0, const KVector& p1, const KVector& p2, bool normalize) {
    const KVector a = p1 - p0;
    const KVector b = p2 - p0;
    KVector n(a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x);
    if (!normalize) return n;
    // Kept on purpose (behaviour note "Base library: fast reciprocal square root").
    const float s = n.x * n.x + n.y * n.y + n.z * n.z + 1e-30f;
    return n * FastInvSqrt(s);
}

}  // namespace Kavrin
