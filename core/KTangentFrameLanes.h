#pragma once
// TangentFrameAt (KAxis.h) for four vertices at once, one per lane of SSE registers: each lane
// performs the scalar operations in the same order (everything is compiled with
// -ffp-contract=off), so every frame has the scalar frame's bits. The rare frames that take
// another branch there (a reference edge along the normal, a collapsed mesh, a vertex in no
// triangle) are left to the scalar code: lanes() says which.

#include <emmintrin.h>

#include "KAxis.h"

namespace Kavrin {

// Three lanes-of-four vectors: x, y and z of four points.
struct KVectorLanes {
    __m128 x, y, z;
};

// p[0..3] as lanes; each p[j] is read 16 bytes at a time (a float after it must be readable).
inline KVectorLanes LoadLanes(const float* p0, const float* p1, const float* p2, const float* p3) {
    __m128 a = _mm_loadu_ps(p0), b = _mm_loadu_ps(p1), c = _mm_loadu_ps(p2), d = _mm_loadu_ps(p3);
    _MM_TRANSPOSE4_PS(a, b, c, d);
    return KVectorLanes{a, b, c};
}

// Four packed points (x0 y0 z0 x1, y1 z1 x2 y2, z2 x3 y3 z3) as lanes.
inline KVectorLanes PackedToLanes(__m128 a, __m128 b, __m128 c) {
    const __m128 ac = _mm_shuffle_ps(a, c, _MM_SHUFFLE(2, 1, 3, 0));  // x0 x1 x3 y3
    const __m128 ab = _mm_shuffle_ps(a, b, _MM_SHUFFLE(1, 0, 2, 1));  // y0 z0 y1 z1
    const __m128 bc = _mm_shuffle_ps(b, c, _MM_SHUFFLE(1, 0, 3, 2));  // x2 y2 z2 x3
    KVectorLanes l;
    l.x = _mm_shuffle_ps(ac, bc, _MM_SHUFFLE(3, 0, 1, 0));            // x0 x1 x2 x3
    l.y = _mm_shuffle_ps(ab, _mm_shuffle_ps(bc, ac, _MM_SHUFFLE(3, 3, 1, 1)), _MM_SHUFFLE(2, 0, 2, 0));
    l.z = _mm_shuffle_ps(ab, _mm_shuffle_ps(bc, c, _MM_SHUFFLE(3, 3, 2, 2)), _MM_SHUFFLE(2, 0, 3, 1));
    return l;
}

// Four packed KVectors (12 floats from p) as lanes.
inline KVectorLanes LoadPacked(const float* p) {
    return PackedToLanes(_mm_loadu_ps(p), _mm_loadu_ps(p + 4), _mm_loadu_ps(p + 8));
}

// Four packed double points (12 doubles from p), each narrowed to float as static_cast does, as
// lanes.
inline KVectorLanes LoadPackedNarrowed(const double* p) {
    const auto four = [p](int at) {
        return _mm_movelh_ps(_mm_cvtpd_ps(_mm_loadu_pd(p + at)), _mm_cvtpd_ps(_mm_loadu_pd(p + at + 2)));
    };
    return PackedToLanes(four(0), four(4), four(8));
}

// Stores the lanes as four packed KVectors (12 floats at p).
inline void StorePacked(const KVectorLanes& l, float* p) {
    const __m128 xy01 = _mm_unpacklo_ps(l.x, l.y);  // x0 y0 x1 y1
    const __m128 xy23 = _mm_unpackhi_ps(l.x, l.y);  // x2 y2 x3 y3
    _mm_storeu_ps(p, _mm_shuffle_ps(xy01, _mm_shuffle_ps(l.z, xy01, _MM_SHUFFLE(2, 2, 0, 0)), _MM_SHUFFLE(2, 0, 1, 0)));
    _mm_storeu_ps(p + 4, _mm_shuffle_ps(_mm_shuffle_ps(xy01, l.z, _MM_SHUFFLE(1, 1, 3, 3)), xy23,
                                        _MM_SHUFFLE(1, 0, 2, 0)));
    _mm_storeu_ps(p + 8, _mm_shuffle_ps(_mm_shuffle_ps(l.z, xy23, _MM_SHUFFLE(2, 2, 2, 2)),
                                        _mm_shuffle_ps(xy23, l.z, _MM_SHUFFLE(3, 3, 3, 3)), _MM_SHUFFLE(2, 0, 2, 0)));
}

inline __m128 DotLanes(const KVectorLanes& a, const KVectorLanes& b) {
    return _mm_add_ps(_mm_add_ps(_mm_mul_ps(a.x, b.x), _mm_mul_ps(a.y, b.y)), _mm_mul_ps(a.z, b.z));
}

// The frames of four vertices at origin with reference neighbours at reference, n their normal
// sums on entry: x axis t, y axis n x t, z axis n (normalised on return). Lanes whose bit is set
// in the returned mask took another branch of TangentFrameAt and must be computed by it.
inline int TangentFrameLanes(const KVectorLanes& origin, const KVectorLanes& reference, KVectorLanes& n,
                             KVectorLanes& t, KVectorLanes& y) {
    const __m128 zero = _mm_setzero_ps();
    const __m128 nLength = _mm_sqrt_ps(DotLanes(n, n));
    const __m128 unit = _mm_cmpgt_ps(nLength, zero);
    n.x = _mm_or_ps(_mm_and_ps(unit, _mm_div_ps(n.x, nLength)), _mm_andnot_ps(unit, n.x));
    n.y = _mm_or_ps(_mm_and_ps(unit, _mm_div_ps(n.y, nLength)), _mm_andnot_ps(unit, n.y));
    n.z = _mm_or_ps(_mm_and_ps(unit, _mm_div_ps(n.z, nLength)), _mm_andnot_ps(unit, n.z));
    const KVectorLanes e{_mm_sub_ps(reference.x, origin.x), _mm_sub_ps(reference.y, origin.y),
                         _mm_sub_ps(reference.z, origin.z)};
    const __m128 along = DotLanes(n, e);
    t.x = _mm_sub_ps(e.x, _mm_mul_ps(n.x, along));
    t.y = _mm_sub_ps(e.y, _mm_mul_ps(n.y, along));
    t.z = _mm_sub_ps(e.z, _mm_mul_ps(n.z, along));
    const __m128 tLength = _mm_sqrt_ps(DotLanes(t, t));
    const __m128 eLength = _mm_sqrt_ps(DotLanes(e, e));
    const __m128 usable =
        _mm_and_ps(_mm_cmpgt_ps(tLength, _mm_mul_ps(_mm_set1_ps(1e-12f), eLength)), _mm_cmpgt_ps(tLength, zero));
    t.x = _mm_div_ps(t.x, tLength);
    t.y = _mm_div_ps(t.y, tLength);
    t.z = _mm_div_ps(t.z, tLength);
    y.x = _mm_sub_ps(_mm_mul_ps(n.y, t.z), _mm_mul_ps(n.z, t.y));
    y.y = _mm_sub_ps(_mm_mul_ps(n.z, t.x), _mm_mul_ps(n.x, t.z));
    y.z = _mm_sub_ps(_mm_mul_ps(n.x, t.y), _mm_mul_ps(n.y, t.x));
    return ~_mm_movemask_ps(usable) & 0xF;
}

}  // namespace Kavrin
