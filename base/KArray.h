#pragma once
// Growable contiguous array with int lengths. It is a std::vector underneath, so size(),
// operator[], push_back and iteration are the standard ones; length() and the resizing
// operations below use int, and any length below 1 means "empty".

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

#include "KTuple.h"
#include "KVector.h"

namespace Kavrin {

template <typename T>
class KArray : public std::vector<T> {
    typedef std::vector<T> Base;

public:
    KArray() {}
    explicit KArray(int n) : Base(n > 0 ? static_cast<size_t>(n) : 0) {}
    KArray(std::initializer_list<T> values) : Base(values) {}

    int length() const { return static_cast<int>(Base::size()); }

    // Resizes to n (new elements value-initialised); with zero set, every element,
    // old ones included, is cleared to all-zero bytes. n < 1 empties the array and keeps
    // its storage.
    void setLength(int n, bool zero) {
        if (n < 1) {
            Base::clear();
            return;
        }
        if (n != length()) Base::resize(static_cast<size_t>(n));
        if (zero) clearToZero();
    }

    // Resizes to n and writes value into every element, old ones included.
    void setLengthWithValue(int n, const T& value) {
        if (n < 1) {
            Base::clear();
            return;
        }
        if (n != length()) Base::resize(static_cast<size_t>(n));
        std::fill(Base::begin(), Base::end(), value);
    }

    // Deletes the listed elements, keeping the order of the rest. Indices out of range are
    // ignored and duplicates count once. The survivors move into storage of exactly their
    // number. Returns the new length.
    // Kept on purpose (behaviour note "Base library: remove ignores bad indices").
    template <typename IndexArray>
    int remove(const IndexArray& indices) {
        const int n = length();
        if (n == 0) return 0;
        if (indices.empty()) return n;
        std::vector<bool> marked(static_cast<size_t>(n), false);
        int count = 0;
        for (int index : indices) {
            if (index < 0 || index >= n || marked[index]) continue;
            marked[index] = true;
            ++count;
        }
        if (count == n) {
            Base::clear();
            return 0;
        }
        Base kept;
        kept.reserve(static_cast<size_t>(n - count));
        for (int i = 0; i < n; ++i)
            if (!marked[i]) kept.push_back((*this)[i]);
        Base::swap(kept);
        return length();
    }

private:
    void clearToZero() { clearToZero(std::is_trivially_copyable<T>()); }
    void clearToZero(std::true_type) {
        if (!Base::empty()) std::memset(static_cast<void*>(Base::data()), 0, Base::size() * sizeof(T));
    }
    void clearToZero(std::false_type) { std::fill(Base::begin(), Base::end(), T()); }
};

class KIntArray : public KArray<int> {
public:
    KIntArray() {}
    explicit KIntArray(int n) : KArray<int>(n) {}
    KIntArray(std::initializer_list<int> values) : KArray<int>(values) {}
};

class KFloatArray : public KArray<float> {};
class KCharArray : public KArray<char> {};
class KInt2Array : public KArray<KInt2> {};
class KInt3Array : public KArray<KInt3> {};
class KInt4Array : public KArray<KInt4> {};
class KFloat3Array : public KArray<KFloat3> {};

class KVectorArray : public KArray<KVector> {
public:
    KVectorArray() {}
    explicit KVectorArray(int n) : KArray<KVector>(n) {}
};

}  // namespace Kavrin
