#pragma once
// N packed values of T, indexable 0..N-1, default all zero.

#include <initializer_list>

namespace Kavrin {

template <int N, typename T>
class KTuple {
public:
    T v[N];

    KTuple() { for (int i = 0; i < N; ++i) v[i] = T(0); }
    KTuple(std::initializer_list<T> values) {
        int i = 0;
        for (const T& value : values) {
            if (i == N) break;
            v[i++] = value;
        }
        for (; i < N; ++i) v[i] = T(0);
    }

    T& operator[](int i) { return v[i]; }
    const T& operator[](int i) const { return v[i]; }

    bool operator==(const KTuple& o) const {
        for (int i = 0; i < N; ++i)
            if (!(v[i] == o.v[i])) return false;
        return true;
    }
    bool operator!=(const KTuple& o) const { return !(*this == o); }

    static int size() { return N; }
};

typedef KTuple<2, int> KInt2;
typedef KTuple<3, int> KInt3;
typedef KTuple<4, int> KInt4;
typedef KTuple<3, float> KFloat3;
typedef KTuple<2, float> KFloat2;
typedef KTuple<3, double> KDouble3;
typedef KTuple<9, double> KDouble9;

static_assert(sizeof(KInt2) == 2 * sizeof(int), "KInt2 must be packed");
static_assert(sizeof(KInt3) == 3 * sizeof(int), "KInt3 must be packed");
static_assert(sizeof(KInt4) == 4 * sizeof(int), "KInt4 must be packed");

}  // namespace Kavrin
