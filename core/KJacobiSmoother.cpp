#include "KJacobiSmoother.h"

#include <algorithm>
#include <cstring>

#include "KThreads.h"

namespace Kavrin {

namespace {

// Dividing by a power of two equals multiplying by its exact reciprocal, bit for bit, and costs
// far less; most vertices of a quad mesh have four neighbours. Other counts divide (0 gives 0).
double ScaleFor(int count) {
    return (count > 0 && (count & (count - 1)) == 0) ? 1.0 / static_cast<double>(count) : 0.0;
}

// q = the mean of the count points p[3 * nb[j]], summed from zero in neighbour order.
inline void Average(const double* p, const int* nb, int count, double scale, double* q) {
    double sx = 0.0, sy = 0.0, sz = 0.0;
    if (count == 4) {
        // The common case of a quad mesh, unrolled; the sum keeps the neighbour order.
        const double* a = p + 3 * static_cast<size_t>(nb[0]);
        const double* b = p + 3 * static_cast<size_t>(nb[1]);
        const double* c = p + 3 * static_cast<size_t>(nb[2]);
        const double* d = p + 3 * static_cast<size_t>(nb[3]);
        sx = (((0.0 + a[0]) + b[0]) + c[0]) + d[0];
        sy = (((0.0 + a[1]) + b[1]) + c[1]) + d[1];
        sz = (((0.0 + a[2]) + b[2]) + c[2]) + d[2];
    } else {
        for (int j = 0; j < count; ++j) {
            const double* a = p + 3 * static_cast<size_t>(nb[j]);
            sx += a[0];
            sy += a[1];
            sz += a[2];
        }
    }
    if (scale != 0.0) {
        q[0] = sx * scale;
        q[1] = sy * scale;
        q[2] = sz * scale;
    } else {
        // Kept on purpose (behaviour note "Delta mush: vertex without neighbours becomes NaN").
        const double c = static_cast<double>(count);
        q[0] = sx / c;
        q[1] = sy / c;
        q[2] = sz / c;
    }
}

bool SameInts(const KIntArray& a, const KIntArray& b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(int)) == 0);
}

}  // namespace

void KJacobiSmoother::smooth(std::vector<double>& points, const KVertexNeighbours& neighbours, int k,
                             int threads) {
    if (k < 1) {
        // Kept on purpose (behaviour note "Delta mush: numIter 0 collapses to the origin").
        std::fill(points.begin(), points.end(), 0.0);
        return;
    }
    const int team = TeamFor(threads, static_cast<int>(points.size() / 3));
    // Decision (behaviour note "Threads: smoothing sweeps meet once").
    if (team > 1) {
        if (k != _keyK || team != _keyTeam || !SameInts(neighbours.offsets, _keyOffsets) ||
            !SameInts(neighbours.indices, _keyIndices))
            _plan(neighbours, k, team);
    } else {
        _partitioned = false;
    }
    if (_partitioned)
        _sweepPartitioned(points, k, team);
    else
        _sweepShared(points, neighbours, k, team);
}

void KJacobiSmoother::_plan(const KVertexNeighbours& neighbours, int k, int team) {
    _keyOffsets = neighbours.offsets;
    _keyIndices = neighbours.indices;
    _keyK = k;
    _keyTeam = team;
    _partitioned = false;
    _parts.assign(static_cast<size_t>(team), Part());

    const int n = neighbours.numVertices();
    const double budget = 1.25 * static_cast<double>(k) * static_cast<double>(n);
    double work = 0.0;
    std::vector<int> localOf(static_cast<size_t>(n), -1), owner(static_cast<size_t>(n), -1);
    for (int t = 0; t < team; ++t) {
        Part& part = _parts[t];
        // The static even split of the parallel loops: the first n mod team threads take one more.
        const int lo = t * (n / team) + std::min(t, n % team);
        const int hi = lo + n / team + (t < n % team ? 1 : 0);
        for (int v = lo; v < hi; ++v) {
            owner[v] = t;
            localOf[v] = static_cast<int>(part.global.size());
            part.global.push_back(v);
        }
        part.owned = hi - lo;
        // Rings 1..k around the range, each in the order the previous ring reaches it.
        size_t begin = 0;
        std::vector<int> ringEnd(1, part.owned);
        for (int d = 1; d <= k; ++d) {
            const size_t end = part.global.size();
            for (size_t i = begin; i < end; ++i)
                for (const int* nb = neighbours.begin(part.global[i]); nb != neighbours.end(part.global[i]); ++nb)
                    if (owner[*nb] != t) {
                        owner[*nb] = t;
                        localOf[*nb] = static_cast<int>(part.global.size());
                        part.global.push_back(*nb);
                    }
            begin = end;
            ringEnd.push_back(static_cast<int>(part.global.size()));
        }
        // Sweep s updates the vertices within k - s rings of the range.
        part.active.assign(static_cast<size_t>(k + 1), 0);
        for (int s = 1; s <= k; ++s) {
            part.active[s] = ringEnd[k - s];
            work += part.active[s];
        }
        if (work > budget) {  // borders too wide: meet after every sweep instead
            _parts.clear();
            return;
        }

        const int updated = part.active[1];
        part.offsets.assign(1, 0);
        part.scale.resize(static_cast<size_t>(updated));
        for (int i = 0; i < updated; ++i) {
            const int v = part.global[i];
            for (const int* nb = neighbours.begin(v); nb != neighbours.end(v); ++nb) part.indices.push_back(localOf[*nb]);
            part.offsets.push_back(static_cast<int>(part.indices.size()));
            part.scale[i] = ScaleFor(neighbours.count(v));
        }
        part.a.resize(3 * part.global.size());
        part.b.resize(3 * part.global.size());
    }
    _partitioned = true;
}

void KJacobiSmoother::_sweepPartitioned(std::vector<double>& points, int k, int team) {
    _next.resize(points.size());
    const double* in = points.data();
    double* out = _next.data();
#pragma omp parallel num_threads(team)
    {
        // A smaller team than planned (nested parallelism) takes several parts per thread.
        for (int t = OmpThreadNum(); t < team; t += OmpNumThreads()) {
            Part& part = _parts[t];
            const int m = static_cast<int>(part.global.size());
            double* p = part.a.data();
            double* q = part.b.data();
            for (int i = 0; i < m; ++i) std::memcpy(p + 3 * i, in + 3 * static_cast<size_t>(part.global[i]), 3 * sizeof(double));
            for (int s = 1; s <= k; ++s) {
                const int active = part.active[s];
                for (int i = 0; i < active; ++i)
                    Average(p, part.indices.data() + part.offsets[i], part.offsets[i + 1] - part.offsets[i],
                            part.scale[i], q + 3 * i);
                std::swap(p, q);
            }
            for (int i = 0; i < part.owned; ++i)
                std::memcpy(out + 3 * static_cast<size_t>(part.global[i]), p + 3 * i, 3 * sizeof(double));
        }
    }
    points.swap(_next);
}

void KJacobiSmoother::_sweepShared(std::vector<double>& points, const KVertexNeighbours& neighbours, int k,
                                   int team) {
    const int n = static_cast<int>(points.size() / 3);
    _scale.resize(static_cast<size_t>(n));
    for (int v = 0; v < n; ++v) _scale[v] = ScaleFor(neighbours.count(v));
    _next.resize(points.size());
    double* bufferA = points.data();
    double* bufferB = _next.data();
    const int* offsets = neighbours.offsets.data();
    const int* indices = neighbours.indices.data();
    const double* scale = _scale.data();
    // Every average reads only the previous sweep, so the vertices of a sweep are independent.
#pragma omp parallel num_threads(team)
    for (int sweep = 0; sweep < k; ++sweep) {
        const double* p = (sweep % 2 == 0) ? bufferA : bufferB;
        double* q = (sweep % 2 == 0) ? bufferB : bufferA;
#pragma omp for schedule(static)
        for (int v = 0; v < n; ++v)
            Average(p, indices + offsets[v], offsets[v + 1] - offsets[v], scale[v], q + 3 * static_cast<size_t>(v));
    }
    if (k % 2 == 1) points.swap(_next);
}

}  // namespace Kavrin
