#pragma once
// Homogeneous point times 4x4 matrix, row-vector convention (the host's point-times-matrix):
// out[j] = sum over i of p[i] * m[i][j].

namespace Kavrin {

inline void TransformPoint(const double p[4], const double m[4][4], double out[4]) {
    for (int j = 0; j < 4; ++j) out[j] = p[0] * m[0][j] + p[1] * m[1][j] + p[2] * m[2][j] + p[3] * m[3][j];
}

}  // namespace Kavrin
