// Nearest points through a nanoflann k-d tree over a private copy of the admitted points.
#include "KPointsDistTree.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include <nanoflann.hpp>

namespace Kavrin {

namespace {

// The dataset interface nanoflann reads the stored points through.
struct PointCloud {
    std::vector<KVector> points;

    size_t kdtree_get_point_count() const { return points.size(); }
    float kdtree_get_pt(size_t i, size_t dim) const { return points[i][static_cast<int>(dim)]; }
    template <class Box>
    bool kdtree_get_bbox(Box&) const { return false; }
};

typedef nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, PointCloud, float>, PointCloud, 3,
                                            uint32_t>
    Index;

// Keeps the n nearest points whose squared distance is at most radius2, sorted by distance and,
// among equal distances, by index (so ties always resolve to the lowest index). nanoflann offers a
// point or descends into a cell only when its squared distance is below worstDist(), so that value
// is one step above the admission limit.
class NearestWithinRadius {
public:
    NearestWithinRadius(size_t capacity, float radius2, uint32_t* indices, float* dists)
        : _capacity(capacity), _count(0), _radius2(radius2), _indices(indices), _dists(dists) {}

    size_t size() const { return _count; }
    bool full() const { return _count == _capacity; }

    bool addPoint(float d, uint32_t index) {
        if (!(d <= _radius2)) return true;
        if (full() && !Before(d, index, _dists[_count - 1], _indices[_count - 1])) return true;
        size_t i = full() ? _count - 1 : _count++;
        for (; i > 0 && Before(d, index, _dists[i - 1], _indices[i - 1]); --i) {
            _dists[i] = _dists[i - 1];
            _indices[i] = _indices[i - 1];
        }
        _dists[i] = d;
        _indices[i] = index;
        return true;
    }

    float worstDist() const {
        const float limit = full() ? _dists[_count - 1] : _radius2;
        return std::nextafter(limit, std::numeric_limits<float>::infinity());
    }

private:
    static bool Before(float d, uint32_t i, float d2, uint32_t i2) { return d < d2 || (d == d2 && i < i2); }

    size_t _capacity;
    size_t _count;
    float _radius2;
    uint32_t* _indices;
    float* _dists;
};

inline bool Finite(const KVector& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

}  // namespace

struct KPointsDistTree::Impl {
    PointCloud cloud;
    std::vector<int> ids;  // original index of each stored point
    std::unique_ptr<Index> index;

    // Up to capacity nearest stored points within radius of p, nearest first: their positions in
    // the cloud and Euclidean distances. Returns how many were found.
    size_t nearest(const KVector& p, size_t capacity, float radius, uint32_t* found, float* dists) const {
        const float radius2 = radius * radius;
        NearestWithinRadius result(capacity, radius2, found, dists);
        const float q[3] = {p.x, p.y, p.z};
        index->findNeighbors(result, q, nanoflann::SearchParams());
        size_t count = result.size();
        if (count < capacity && std::isinf(radius2)) {
            // Guard (behaviour note "KPointsDistTree: very distant points").
            const double r2 = static_cast<double>(radius) * radius;
            std::vector<std::pair<double, uint32_t> > all;
            for (size_t i = 0; i < cloud.points.size(); ++i) {
                const KVector& c = cloud.points[i];
                const double dx = static_cast<double>(c.x) - p.x, dy = static_cast<double>(c.y) - p.y,
                             dz = static_cast<double>(c.z) - p.z;
                const double d2 = dx * dx + dy * dy + dz * dz;
                if (d2 <= r2) all.push_back(std::make_pair(d2, static_cast<uint32_t>(i)));
            }
            count = std::min(capacity, all.size());
            std::partial_sort(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count), all.end());
            for (size_t i = 0; i < count; ++i) {
                found[i] = all[i].second;
                dists[i] = static_cast<float>(std::min(std::sqrt(all[i].first),
                                                       static_cast<double>(std::numeric_limits<float>::max())));
            }
            return count;
        }
        for (size_t i = 0; i < count; ++i) dists[i] = std::sqrt(dists[i]);
        return count;
    }
};

KPointsDistTree::KPointsDistTree() : _impl(new Impl) {}
KPointsDistTree::~KPointsDistTree() {}

void KPointsDistTree::setPoints(const KVectorArray& points, const KIntArray* mask) {
    Impl& impl = *_impl;
    impl.index.reset();
    impl.cloud.points.clear();
    impl.ids.clear();
    const int n = points.length();
    const int maskLength = mask ? mask->length() : 0;
    for (int i = 0; i < n; ++i) {
        // Guard (behaviour note "KPointsDistTree: mask"); guard (behaviour note "KPointsDistTree:
        // non-finite points").
        if (mask && (i >= maskLength || (*mask)[i] == 0)) continue;
        if (!Finite(points[i])) continue;
        impl.cloud.points.push_back(points[i]);
        impl.ids.push_back(i);
    }
    if (impl.cloud.points.empty()) return;
    impl.index.reset(new Index(3, impl.cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10)));
}

bool KPointsDistTree::empty() const { return !_impl->index; }

bool KPointsDistTree::findClosestPoint(const KVector& p, int& index, float& distance) const {
    index = -1;
    if (!_impl->index || !Finite(p)) return false;
    uint32_t found = 0;
    float d = 0.0f;
    if (_impl->nearest(p, 1, std::numeric_limits<float>::infinity(), &found, &d) == 0) return false;
    index = _impl->ids[found];
    distance = d;
    return true;
}

void KPointsDistTree::findNPoints(const KVector& p, int n, float radius, KIntArray& indices,
                                  KFloatArray& distances) const {
    indices.clear();
    distances.clear();
    if (!_impl->index || n < 1 || !(radius >= 0.0f) || !Finite(p)) return;
    const size_t capacity = std::min(static_cast<size_t>(n), _impl->cloud.points.size());
    // A few neighbours (the common case) on the stack, more on the heap.
    const size_t kOnStack = 16;
    uint32_t foundHere[kOnStack];
    float dHere[kOnStack];
    std::vector<uint32_t> foundHeap(capacity > kOnStack ? capacity : 0);
    std::vector<float> dHeap(capacity > kOnStack ? capacity : 0);
    uint32_t* found = capacity > kOnStack ? foundHeap.data() : foundHere;
    float* d = capacity > kOnStack ? dHeap.data() : dHere;
    const int count = static_cast<int>(_impl->nearest(p, capacity, radius, found, d));
    indices.setLength(count, false);
    distances.setLength(count, false);
    for (int i = 0; i < count; ++i) {
        indices[i] = _impl->ids[found[i]];
        distances[i] = d[i];
    }
}

}  // namespace Kavrin
