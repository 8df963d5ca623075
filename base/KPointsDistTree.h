#pragma once
// Nearest points of a point set (a k-d tree over a private copy of the points). Queries are
// const and thread-safe. Indices returned are those of the array given to setPoints; points at
// exactly the same distance come in index order.

#include <memory>

#include "KArray.h"

namespace Kavrin {

class KPointsDistTree {
public:
    KPointsDistTree();
    ~KPointsDistTree();
    KPointsDistTree(const KPointsDistTree&) = delete;
    KPointsDistTree& operator=(const KPointsDistTree&) = delete;

    // Builds over all points, or over those whose mask entry is non-zero when mask is given
    // (points past the end of a shorter mask are left out). Points with a NaN or infinite
    // coordinate are left out as well.
    void setPoints(const KVectorArray& points, const KIntArray* mask = nullptr);
    bool empty() const;

    // Nearest stored point and its Euclidean distance; false (index -1, distance unchanged) on an
    // empty tree or a query point with a NaN or infinite coordinate.
    bool findClosestPoint(const KVector& p, int& index, float& distance) const;

    // Up to n nearest points within radius (inclusive), nearest first, with their Euclidean
    // distances; the arrays are resized to the number found (empty for n < 1, a negative or NaN
    // radius, or a non-finite query point).
    void findNPoints(const KVector& p, int n, float radius, KIntArray& indices, KFloatArray& distances) const;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace Kavrin
