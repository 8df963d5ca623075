#pragma once
// Three single-precision floats x, y, z. Arrays of KVector are one packed run of floats,
// so they can be handed to the host and to solvers without per-element conversion.

#include <cmath>

namespace Kavrin {

class KVector {
public:
    float x, y, z;

    KVector() : x(0.0f), y(0.0f), z(0.0f) {}
    KVector(float x_, float y_, float z_) : x(x_), y(y_), z(z_) {}

    float& operator[](int i) { return (&x)[i]; }
    const float& operator[](int i) const { return (&x)[i]; }

    KVector operator+(const KVector& o) const { return KVector(x + o.x, y + o.y, z + o.z); }
    KVector operator-(const KVector& o) const { return KVector(x - o.x, y - o.y, z - o.z); }
    KVector operator-() const { return KVector(-x, -y, -z); }
    KVector operator*(float s) const { return KVector(x * s, y * s, z * s); }
    KVector operator/(float s) const { return KVector(x / s, y / s, z / s); }

    KVector& operator+=(const KVector& o) { x += o.x; y += o.y; z += o.z; return *this; }
    KVector& operator-=(const KVector& o) { x -= o.x; y -= o.y; z -= o.z; return *this; }
    KVector& operator*=(float s) { x *= s; y *= s; z *= s; return *this; }
    KVector& operator/=(float s) { x /= s; y /= s; z /= s; return *this; }

    bool operator==(const KVector& o) const { return x == o.x && y == o.y && z == o.z; }
    bool operator!=(const KVector& o) const { return !(*this == o); }

    float dot(const KVector& o) const { return x * o.x + y * o.y + z * o.z; }
    KVector cross(const KVector& o) const {
        return KVector(y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x);
    }
    float squaredLength() const { return x * x + y * y + z * z; }
    float length() const { return std::sqrt(squaredLength()); }

    // Normalises in place; a zero vector stays zero.
    KVector& normalize() {
        const float len = length();
        if (len > 0.0f) *this /= len;
        return *this;
    }
    KVector normalized() const { KVector v(*this); return v.normalize(); }
};

inline KVector operator*(float s, const KVector& v) { return v * s; }

static_assert(sizeof(KVector) == 3 * sizeof(float), "KVector must be three packed floats");

}  // namespace Kavrin
