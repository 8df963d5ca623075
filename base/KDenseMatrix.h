#pragma once
// Fixed-size dense matrix of R rows and C columns, stored row by row.

namespace Kavrin {

template <int R, int C, typename T>
class KDenseMatrix {
public:
    T m[R * C];

    // All zero; the 3x3 matrix is then given ones on its diagonal, so it starts as the identity.
    KDenseMatrix() {
        for (int i = 0; i < R * C; ++i) m[i] = T(0);
        if (R == 3 && C == 3)
            for (int i = 0; i < 3; ++i) m[i * C + i] = T(1);
    }

    T& operator()(int i, int j) { return m[i * C + j]; }
    const T& operator()(int i, int j) const { return m[i * C + j]; }
    T* operator[](int i) { return m + i * C; }
    const T* operator[](int i) const { return m + i * C; }

    static int rows() { return R; }
    static int cols() { return C; }

    // In-place inverse of a 3x3 matrix through its adjugate. The determinant gets 1e-30
    // (the single-precision constant) added and is never tested: a singular matrix gives
    // huge entries, and the all-zero matrix gives zeros rather than NaN.
    KDenseMatrix& inverse() {
        static_assert(R == 3 && C == 3, "inverse() is defined for 3x3 matrices");
        const T a = m[0], b = m[1], c = m[2];
        const T d = m[3], e = m[4], f = m[5];
        const T g = m[6], h = m[7], i = m[8];
        // Kept on purpose (behaviour note "Base library: 3x3 inverse epsilon").
        const T det = a * (e * i - f * h) - b * (d * i - f * g) + c * (d * h - e * g);
        const T r = T(1) / (det + static_cast<T>(1e-30f));
        m[0] = (e * i - f * h) * r; m[1] = (c * h - b * i) * r; m[2] = (b * f - c * e) * r;
        m[3] = (f * g - d * i) * r; m[4] = (a * i - c * g) * r; m[5] = (c * d - a * f) * r;
        m[6] = (d * h - e * g) * r; m[7] = (b * g - a * h) * r; m[8] = (a * e - b * d) * r;
        return *this;
    }
};

typedef KDenseMatrix<3, 3, double> KMatrix3d;
typedef KDenseMatrix<9, 4, double> KMatrix94d;

}  // namespace Kavrin
