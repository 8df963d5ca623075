#pragma once
// The per-triangle frames of deformation transfer. A triangle (p1, p2, p3) spans the frame
// V = [e1, e2, e3] with e1 = p2 - p1, e2 = p3 - p1 and e3 along c = e1 x e2; the deformation of the
// triangle is T = V~ V^-1. The entry (r, k) of T is linear in the frame's four vertices p1, p2, p3
// and p4 = p1 + e3, with a coefficient that depends on k only (r picks the coordinate).

#include <cmath>

#include "KDenseMatrix.h"
#include "KVector.h"

namespace Kavrin {

// The length of the third edge. The source fit scales c by |c|^(-1/2), so that e3 has the
// length of an edge; the transfer system uses the unit normal.
enum KFrameKind { kFittingFrame, kUnitNormalFrame };

// The frame matrix with columns e1, e2 and e3 (single-precision edges, as the geometry is).
inline KMatrix3d TriangleFrame(const KVector& p1, const KVector& p2, const KVector& p3, KFrameKind kind) {
    const KVector e1 = p2 - p1;
    const KVector e2 = p3 - p1;
    const KVector c = e1.cross(e2);
    const double len2 = double(c.x) * c.x + double(c.y) * c.y + double(c.z) * c.z;
    const double scale = kind == kFittingFrame ? std::pow(len2, 0.25) + 1e-30 : std::sqrt(len2 + 1e-30);
    const KVector e3(static_cast<float>(c.x / scale), static_cast<float>(c.y / scale),
                     static_cast<float>(c.z / scale));
    KMatrix3d v;
    for (int r = 0; r < 3; ++r) {
        v(r, 0) = e1[r];
        v(r, 1) = e2[r];
        v(r, 2) = e3[r];
    }
    return v;
}

inline KMatrix3d TriangleFrameInverse(const KVector& p1, const KVector& p2, const KVector& p3, KFrameKind kind) {
    KMatrix3d v = TriangleFrame(p1, p2, p3, kind);
    v.inverse();
    return v;
}

// Coefficient of frame vertex j (0..3 for p1..p4) in column k of T, from V^-1.
inline double FrameCoefficient(const KMatrix3d& vi, int j, int k) {
    if (j == 0) return -(vi(0, k) + vi(1, k) + vi(2, k));
    return vi(j - 1, k);
}

// True when the triangle spans no frame: its edges are parallel to within single precision (the
// sine of the angle between them, computed exactly from the float corners, is below 1e-7) or one
// of them has no length. Its frame has no inverse.
inline bool TriangleIsDegenerate(const KVector& p1, const KVector& p2, const KVector& p3) {
    const KVector e1 = p2 - p1;
    const KVector e2 = p3 - p1;
    const double cx = double(e1.y) * e2.z - double(e1.z) * e2.y;
    const double cy = double(e1.z) * e2.x - double(e1.x) * e2.z;
    const double cz = double(e1.x) * e2.y - double(e1.y) * e2.x;
    const double l1 = double(e1.x) * e1.x + double(e1.y) * e1.y + double(e1.z) * e1.z;
    const double l2 = double(e2.x) * e2.x + double(e2.y) * e2.y + double(e2.z) * e2.z;
    return cx * cx + cy * cy + cz * cz <= 1e-14 * l1 * l2;
}

// True when the triangle is too large for its single-precision frame: a corner is not finite, or
// an edge or the cross product of the edges overflows a float. Checked before
// TriangleIsDegenerate, which such a triangle would pass or fail by accident.
inline bool TriangleIsTooLarge(const KVector& p1, const KVector& p2, const KVector& p3) {
    const KVector e1 = p2 - p1;
    const KVector e2 = p3 - p1;
    const KVector c = e1.cross(e2);
    for (int k = 0; k < 3; ++k)
        if (!std::isfinite(e1[k]) || !std::isfinite(e2[k]) || !std::isfinite(c[k])) return true;
    return false;
}

}  // namespace Kavrin
