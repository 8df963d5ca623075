#pragma once
// The normal of a closed ring of points (a vertex's neighbour ring, a polygon), in the
// orientation that the relaxation binding and its solve share:
//   normalise( sum over k = 1..n of (p[k mod n] - c) x (p[k - 1] - c) ),  c = centroid of the ring.
// For a ring running counter-clockwise seen from +z this points along -z.

#include <cstddef>
#include <vector>

#include "KTuple.h"

namespace Kavrin {

// ring holds the n corners in order. A ring whose cross products cancel (fewer than three
// corners, all corners on one line) or an empty ring gives (0, 0, 0).
KDouble3 RingNormal(const KDouble3* ring, int n);

// The same for the ring whose corners are point(ids[0]), ..., point(ids[n - 1]), where point(i)
// returns the KDouble3 of index i in [0, numPoints). Returns false and (0, 0, 0) when an id lies
// outside that range, so that a caller never reads a point that is not there.
template <typename PointAt>
bool RingNormal(int numPoints, const int* ids, int n, PointAt point, KDouble3& normal) {
    normal = KDouble3();
    if (n < 1) return true;
    std::vector<KDouble3> ring(static_cast<std::size_t>(n));
    for (int k = 0; k < n; ++k) {
        if (ids[k] < 0 || ids[k] >= numPoints) return false;
        ring[k] = point(ids[k]);
    }
    normal = RingNormal(ring.data(), n);
    return true;
}

}  // namespace Kavrin
