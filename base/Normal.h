#pragma once

#include "KVector.h"

namespace Kavrin {

// Reciprocal square root by the bit-level approximation with one Newton step. Used on purpose
// instead of the library square root: it is cheap and exactly reproducible.
float FastInvSqrt(float s);

// Face normal (p1 - p0) x (p2 - p0); when normalize is true it is scaled by
// FastInvSqrt(|n|^2 + 1e-30), so a degenerate triangle yields (0, 0, 0), never NaN.
KVector Normal(const KVector& p0, const KVector& p1, const KVector& p2, bool normalize);

}  // namespace Kavrin
