#include "KJacobiSmoother.h"

#include <immintrin.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "KThreads.h"

namespace Kavrin {

namespace {

// The rings a thread keeps per pass, in bytes: about what a core's own cache holds.
const double kRingBudget = 1.5 * 1024 * 1024;
// The fewest vertices a group gathers from breadth-first levels in a row (fewer, smaller steps
// cost more than they save).
const int kMinGroup = 256;
// The most extra work the borders the threads recompute may add before fewer threads take part.
const double kMostBorderWork = 0.25;

// The neighbour table as the sweeps read it: the neighbours of position i are slots[offsets[i] ..
// offsets[i + 1]), and irregular lists, in increasing order, the positions with other than four
// neighbours (the rest run without reading offsets).
struct Table {
    const int* offsets;
    const unsigned* slots;
    const int* irregular;
    const int* irregularEnd;
};

// q (x, y, z, 0) = the mean of the count points p + kScale * slot[j] (4 doubles each), summed
// from zero in neighbour order. Each lane of the vector sums performs the scalar operations: a sum
// from zero, one point after the other, then the division by the count, or for a power of two
// the multiplication by its exact reciprocal, which gives the same bits. The SSE2 and AVX
// versions give the same bits too.
template <int kScale>
inline void AverageSse2(const double* p, const unsigned* slot, int count, double* q) {
    __m128d xy = _mm_setzero_pd(), z = _mm_setzero_pd();
    for (int j = 0; j < count; ++j) {
        const double* a = p + kScale * static_cast<size_t>(slot[j]);
        xy = _mm_add_pd(xy, _mm_load_pd(a));
        z = _mm_add_pd(z, _mm_load_pd(a + 2));
    }
    if (count > 0 && (count & (count - 1)) == 0) {
        const __m128d scale = _mm_set1_pd(1.0 / static_cast<double>(count));
        _mm_store_pd(q, _mm_mul_pd(xy, scale));
        _mm_store_pd(q + 2, _mm_mul_pd(z, scale));
    } else {
        // Kept on purpose (behaviour note "Delta mush: vertex without neighbours becomes NaN").
        const __m128d c = _mm_set1_pd(static_cast<double>(count));
        _mm_store_pd(q, _mm_div_pd(xy, c));
        _mm_store_pd(q + 2, _mm_div_pd(z, c));
    }
}

template <int kScale>
inline void AverageOfFourSse2(const double* p, const unsigned* slot, double* q) {
    __m128d xy = _mm_setzero_pd(), z = _mm_setzero_pd();
    for (int j = 0; j < 4; ++j) {
        const double* a = p + kScale * static_cast<size_t>(slot[j]);
        xy = _mm_add_pd(xy, _mm_load_pd(a));
        z = _mm_add_pd(z, _mm_load_pd(a + 2));
    }
    const __m128d quarter = _mm_set1_pd(0.25);
    _mm_store_pd(q, _mm_mul_pd(xy, quarter));
    _mm_store_pd(q + 2, _mm_mul_pd(z, quarter));
}

template <int kScale>
__attribute__((target("avx"))) inline void AverageAvx(const double* p, const unsigned* slot, int count, double* q) {
    __m256d sum = _mm256_setzero_pd();
    for (int j = 0; j < count; ++j) sum = _mm256_add_pd(sum, _mm256_loadu_pd(p + kScale * static_cast<size_t>(slot[j])));
    if (count > 0 && (count & (count - 1)) == 0)
        _mm256_storeu_pd(q, _mm256_mul_pd(sum, _mm256_set1_pd(1.0 / static_cast<double>(count))));
    else  // Kept on purpose (behaviour note "Delta mush: vertex without neighbours becomes NaN").
        _mm256_storeu_pd(q, _mm256_div_pd(sum, _mm256_set1_pd(static_cast<double>(count))));
}

template <int kScale>
__attribute__((target("avx"))) inline void AverageOfFourAvx(const double* p, const unsigned* slot, double* q) {
    // The four slots in two loads.
    uint64_t ab, cd;
    std::memcpy(&ab, slot, sizeof(ab));
    std::memcpy(&cd, slot + 2, sizeof(cd));
    __m256d sum = _mm256_setzero_pd();
    sum = _mm256_add_pd(sum, _mm256_loadu_pd(p + kScale * static_cast<size_t>(static_cast<uint32_t>(ab))));
    sum = _mm256_add_pd(sum, _mm256_loadu_pd(p + kScale * static_cast<size_t>(ab >> 32)));
    sum = _mm256_add_pd(sum, _mm256_loadu_pd(p + kScale * static_cast<size_t>(static_cast<uint32_t>(cd))));
    sum = _mm256_add_pd(sum, _mm256_loadu_pd(p + kScale * static_cast<size_t>(cd >> 32)));
    _mm256_storeu_pd(q, _mm256_mul_pd(sum, _mm256_set1_pd(0.25)));
}

// One sweep of the positions [begin, end) into q, 4 doubles each one after the other: runs of
// four-neighbour positions, each ended by one with another count.
#define KAVRIN_SWEEP_BODY(averageOfFour, average)                                             \
    const int* next = std::lower_bound(table.irregular, table.irregularEnd, begin);          \
    const unsigned* slot = table.slots + table.offsets[begin];                               \
    for (int i = begin; i < end; ++i, q += 4) {                                              \
        const int stop = std::min(end, next == table.irregularEnd ? end : *next);            \
        for (; i < stop; ++i, slot += 4, q += 4) averageOfFour<kScale>(p, slot, q);          \
        if (i == end) break;                                                                 \
        const int count = table.offsets[i + 1] - table.offsets[i];                           \
        average<kScale>(p, slot, count, q);                                                  \
        slot += count;                                                                       \
        ++next;                                                                              \
    }

template <int kScale>
void SweepSse2(const double* p, const Table& table, int begin, int end, double* q) {
    KAVRIN_SWEEP_BODY(AverageOfFourSse2, AverageSse2)
}

template <int kScale>
__attribute__((target("avx"))) void SweepAvx(const double* p, const Table& table, int begin, int end, double* q) {
    KAVRIN_SWEEP_BODY(AverageOfFourAvx, AverageAvx)
}

#undef KAVRIN_SWEEP_BODY

// Asks for the cache lines of [begin, end) ahead of their use.
template <class T>
inline void Prefetch(const T* begin, const T* end) {
    const char* p = reinterpret_cast<const char*>(begin);
    const char* stop = reinterpret_cast<const char*>(end);
    for (; p < stop; p += 64) _mm_prefetch(p, _MM_HINT_T1);
}

typedef void (*SweepFunction)(const double*, const Table&, int, int, double*);

// AVX where the processor and the system have it, SSE2 (every x86-64) otherwise.
template <int kScale>
SweepFunction Sweep() {
    static const SweepFunction chosen = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx") ? &SweepAvx<kScale> : &SweepSse2<kScale>;
    }();
    return chosen;
}

}  // namespace

namespace {

// The most vertices of three groups in a row.
int Span(const std::vector<int>& start) {
    const int groups = static_cast<int>(start.size()) - 1;
    int span = 0;
    for (int g = 0; g < groups; ++g) span = std::max(span, start[std::min(g + 3, groups)] - start[g]);
    return span;
}

// Whether rings of span slots fit the budget twice over without covering most of n vertices.
bool RingsFit(int span, int n) { return 2.0 * 32.0 * span <= kRingBudget && span <= n / 4; }

// Whether every neighbour of a vertex in group g lies in group g - 1, g or g + 1 (position i holds
// vertex order[i], or i itself when order is empty).
bool NeighboursAdjacent(const KVertexNeighbours& neighbours, const std::vector<int>& order,
                        const std::vector<int>& start, std::vector<int>& groupOf) {
    const int n = neighbours.numVertices();
    groupOf.resize(static_cast<size_t>(n));
    for (int g = 0; g + 1 < static_cast<int>(start.size()); ++g)
        for (int i = start[g]; i < start[g + 1]; ++i) groupOf[order.empty() ? i : order[i]] = g;
    for (int v = 0; v < n; ++v)
        for (const int* nb = neighbours.begin(v); nb != neighbours.end(v); ++nb)
            if (std::abs(groupOf[*nb] - groupOf[v]) > 1) return false;
    return true;
}

// Groups of the vertices in index order: each at least kMinGroup vertices and, from the third on,
// reaching past the furthest neighbour of the group two before, so that a group's neighbours lie
// in it or the groups on either side when every neighbour is listed both ways.
std::vector<int> IndexGroups(const KVertexNeighbours& neighbours) {
    const int n = neighbours.numVertices();
    std::vector<int> start(1, 0);
    int reach = 0;  // one past the furthest neighbour of the last group closed
    while (start.back() < n) {
        const int from = start.back();
        const int end = std::min(n, std::max(from + kMinGroup, reach));
        reach = end;
        for (int v = from; v < end; ++v)
            for (const int* nb = neighbours.begin(v); nb != neighbours.end(v); ++nb) reach = std::max(reach, *nb + 1);
        start.push_back(end);
    }
    return start;
}

}  // namespace

void KJacobiSmoother::setNeighbours(const KVertexNeighbours& neighbours) {
    const int n = neighbours.numVertices();
    _n = n;
    _parts.clear();
    std::vector<int> scratch;

    // The vertex order itself, when its groups are narrow: the points then stream through memory
    // in order.
    _order.clear();
    _groupStart = IndexGroups(neighbours);
    bool blocked = RingsFit(Span(_groupStart), n) && NeighboursAdjacent(neighbours, _order, _groupStart, scratch);
    if (!blocked) {
        _breadthFirst(neighbours);
        blocked = RingsFit(Span(_groupStart), n) && NeighboursAdjacent(neighbours, _order, _groupStart, scratch);
    }
    if (!blocked) {
        // Swept whole, in the vertex order.
        _order.clear();
        _groupStart.assign(1, 0);
        _groupStart.push_back(n);
    }

    // Rings hold three groups in a row; when they would not fit the budget twice over, or cover
    // most of the mesh anyway, the mesh is swept whole. So it is when a neighbour lies beyond
    // the groups on either side, which only a table that lists a neighbour one way can do.
    const int groups = static_cast<int>(_groupStart.size()) - 1;
    _largestGroup = 0;
    for (int g = 0; g < groups; ++g) _largestGroup = std::max(_largestGroup, _groupStart[g + 1] - _groupStart[g]);
    _ring = blocked ? Span(_groupStart) : std::max(n, 1);

    std::vector<int>& where = scratch;
    where.resize(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) where[_order.empty() ? i : _order[i]] = i;
    _offsets.assign(static_cast<size_t>(n) + 1, 0);
    _slots.resize(static_cast<size_t>(neighbours.indices.length()));
    // A neighbour's place: its ring slot times 4 (doubles) when blocked, else its position.
    _irregular.clear();
    int j = 0;
    for (int i = 0; i < n; ++i) {
        const int v = _order.empty() ? i : _order[i];
        for (const int* nb = neighbours.begin(v); nb != neighbours.end(v); ++nb)
            _slots[j++] = blocked ? 4u * static_cast<unsigned>(where[*nb] % _ring) : static_cast<unsigned>(where[*nb]);
        _offsets[i + 1] = j;
        if (neighbours.count(v) != 4) _irregular.push_back(i);
    }
}

void KJacobiSmoother::_breadthFirst(const KVertexNeighbours& neighbours) {
    const int n = neighbours.numVertices();
    _order.assign(static_cast<size_t>(n), 0);
    _groupStart.assign(1, 0);
    // Breadth-first order, one connected part after the other. A part starts from a vertex at its
    // far end (a pseudo-peripheral vertex: from any vertex, a least-connected one of the last
    // level, for as long as that makes the levels more numerous), which keeps the levels narrow.
    std::vector<int> stamp(static_cast<size_t>(n), -1);
    std::vector<char> placed(static_cast<size_t>(n), 0);
    std::vector<int> levels;  // level starts (positions) of the last search
    int searches = 0;
    const auto search = [&](int root, int at) {
        const int id = searches++;
        levels.assign(1, at);
        int end = at;
        _order[end++] = root;
        stamp[root] = id;
        for (int head = at; head < end;) {
            const int levelEnd = end;
            for (; head < levelEnd; ++head)
                for (const int* nb = neighbours.begin(_order[head]); nb != neighbours.end(_order[head]); ++nb)
                    if (stamp[*nb] != id && !placed[*nb]) {
                        stamp[*nb] = id;
                        _order[end++] = *nb;
                    }
            levels.push_back(levelEnd);
        }
        if (levels.back() != end) levels.push_back(end);
        return end;
    };
    int at = 0;
    for (int start = 0; start < n; ++start) {
        if (placed[start]) continue;
        int end = search(start, at);
        for (int tries = 0; tries < 4; ++tries) {
            const int depth = static_cast<int>(levels.size());
            int far = _order[levels[levels.size() - 2]];
            for (int i = levels[levels.size() - 2]; i < end; ++i)
                if (neighbours.count(_order[i]) < neighbours.count(far)) far = _order[i];
            end = search(far, at);
            if (static_cast<int>(levels.size()) <= depth) break;
        }
        for (int i = at; i < end; ++i) placed[_order[i]] = 1;
        // Whole levels make a group once it holds kMinGroup vertices (the part's last group may
        // hold fewer; it then joins the next part's first levels).
        for (size_t l = 1; l < levels.size(); ++l)
            if (levels[l] - _groupStart.back() >= kMinGroup) _groupStart.push_back(levels[l]);
        at = end;
    }
    if (_groupStart.back() != n) _groupStart.push_back(n);
}

int KJacobiSmoother::_teamFor(int threads, int sweeps) const {
    // The most threads whose borders add at most kMostBorderWork.
    const int groups = static_cast<int>(_groupStart.size()) - 1;
    for (int team = TeamFor(threads, _n); team > 1; --team) {
        double work = 0.0;
        for (int t = 0; t < team; ++t) {
            const int first = t * groups / team, last = (t + 1) * groups / team;
            for (int s = 1; s <= sweeps; ++s)
                work += _groupStart[std::min(groups, last + sweeps - s)] - _groupStart[std::max(0, first - (sweeps - s))];
        }
        if (work <= (1.0 + kMostBorderWork) * sweeps * static_cast<double>(_n)) return team;
    }
    return 1;
}

void KJacobiSmoother::smooth(const KVector* in, KVector* out, int k, int threads) {
    Points from, to;
    from.floats = in;
    to.floatsOut = out;
    _run(from, to, k, threads);
}

void KJacobiSmoother::smooth(std::vector<double>& points, int k, int threads) {
    std::vector<double> in(points);
    Points from, to;
    from.doubles = in.data();
    to.doubles = points.data();
    _run(from, to, k, threads);
}

void KJacobiSmoother::_run(const Points& in, const Points& out, int k, int threads) {
    const int n = _n;
    _blocked = false;
    _passes = 0;
    if (k < 1) {
        // Kept on purpose (behaviour note "Delta mush: numIter 0 collapses to the origin").
        if (out.floatsOut) std::fill(out.floatsOut, out.floatsOut + n, KVector());
        if (out.doubles) std::fill(out.doubles, out.doubles + 3 * static_cast<size_t>(n), 0.0);
        return;
    }
    if (n == 0) return;
    if (_ring >= n) {
        _sweepWhole(in, out, k, TeamFor(threads, n));
        return;
    }
    // Sweeps per pass: as many rings as the budget holds, spread evenly over the passes.
    const int most = std::max(1, std::min(k, static_cast<int>(kRingBudget / (32.0 * _ring))));
    const int passes = (k + most - 1) / most;
    _blocked = true;
    _passes = passes;
    const int sweeps = (k + passes - 1) / passes;
    // Decision (behaviour note "Threads: smoothing sweeps meet once per pass").
    const int team = _teamFor(threads, sweeps);
    const int groups = static_cast<int>(_groupStart.size()) - 1;
    _parts.resize(static_cast<size_t>(team));
    for (int t = 0; t < team; ++t) {
        Part& part = _parts[t];
        part.first = t * groups / team;
        part.last = (t + 1) * groups / team;
        part.rings.resize(4 * static_cast<size_t>(_ring) * static_cast<size_t>(sweeps));
        part.last4.resize(4 * static_cast<size_t>(_largestGroup));
    }
    for (int b = 0; b < std::min(passes - 1, 2); ++b) _between[b].resize(3 * static_cast<size_t>(n));

#pragma omp parallel num_threads(team)
    {
        int done = 0;
        for (int p = 0; p < passes; ++p) {
            const int s = (k - done + (passes - p) - 1) / (passes - p);  // this pass's sweeps
            Points from = in, to = out;
            if (p > 0) {
                from = Points();
                from.doubles = _between[(p - 1) % 2].data();
                from.planned = true;
            }
            if (p + 1 < passes) {
                to = Points();
                to.doubles = _between[p % 2].data();
                to.planned = true;
            }
            // A smaller team than planned (nested parallelism) takes several parts per thread.
            for (int t = OmpThreadNum(); t < team; t += OmpNumThreads()) _passBlocked(_parts[t], from, to, s);
            done += s;
#pragma omp barrier
        }
    }
}

void KJacobiSmoother::_passBlocked(Part& part, const Points& in, const Points& out, int sweeps) {
    const int groups = static_cast<int>(_groupStart.size()) - 1;
    const int ring = _ring;
    const int* start = _groupStart.data();
    const Table table{_offsets.data(), _slots.data(), _irregular.data(), _irregular.data() + _irregular.size()};
    const int* order = _order.empty() ? nullptr : _order.data();
    const SweepFunction sweep = Sweep<1>();
    const auto lo = [&](int s) { return std::max(0, part.first - (sweeps - s)); };
    const auto hi = [&](int s) { return std::min(groups, part.last + (sweeps - s)); };
    const auto levelRing = [&](int s) { return part.rings.data() + 4 * static_cast<size_t>(ring) * s; };

    // Step b loads group b and moves sweep s of group b - s on: everything sweep s reads (sweep
    // s - 1 of groups b - s - 1 to b - s + 1) was written at this step or the two before.
    for (int b = lo(0); b < part.last + sweeps; ++b) {
        // The points and the table of the group the next step loads start on their way from
        // memory now: each step reads a group's worth in one go, too soon for the processor's own
        // prefetching to catch up.
        if (b + 1 < hi(0)) {
            const int from = start[b + 1], to = start[b + 2];
            if (in.floats && !order) {
                Prefetch(in.floats + from, in.floats + to);
            } else if (!order || in.planned) {
                Prefetch(in.doubles + 3 * static_cast<size_t>(from), in.doubles + 3 * static_cast<size_t>(to));
            }
            Prefetch(table.offsets + from, table.offsets + to + 1);
            Prefetch(table.slots + table.offsets[from], table.slots + table.offsets[to]);
        }
        for (int s = 0; s <= sweeps; ++s) {
            const int g = b - s;
            if (g < lo(s) || g >= hi(s)) continue;
            const int first = start[g], end = start[g + 1];
            const int slot = first % ring;
            if (s == 0) {
                double* q = levelRing(0);
                for (int i = first, r = slot; i < end; ++i, r = r + 1 == ring ? 0 : r + 1) {
                    double* v = q + 4 * static_cast<size_t>(r);
                    if (in.floats) {
                        const KVector& f = in.floats[order ? order[i] : i];
                        v[0] = f.x;
                        v[1] = f.y;
                        v[2] = f.z;
                    } else {
                        const double* d = in.doubles + 3 * static_cast<size_t>(in.planned || !order ? i : order[i]);
                        v[0] = d[0];
                        v[1] = d[1];
                        v[2] = d[2];
                    }
                    v[3] = 0.0;
                }
            } else if (s < sweeps) {
                // The group's slots run to the ring's end and go on at its start.
                const int split = std::min(end, first + ring - slot);
                sweep(levelRing(s - 1), table, first, split, levelRing(s) + 4 * static_cast<size_t>(slot));
                if (split < end) sweep(levelRing(s - 1), table, split, end, levelRing(s));
            } else {
                const double* r = part.last4.data();
                sweep(levelRing(s - 1), table, first, end, part.last4.data());
                for (int i = first; i < end; ++i, r += 4) {
                    if (out.floatsOut) {
                        out.floatsOut[order ? order[i] : i] =
                            KVector(static_cast<float>(r[0]), static_cast<float>(r[1]), static_cast<float>(r[2]));
                    } else {
                        double* d = out.doubles + 3 * static_cast<size_t>(out.planned || !order ? i : order[i]);
                        d[0] = r[0];
                        d[1] = r[1];
                        d[2] = r[2];
                    }
                }
            }
        }
    }
}

void KJacobiSmoother::_sweepWhole(const Points& in, const Points& out, int k, int team) {
    const int n = _n;
    for (std::vector<double>& b : _whole) b.resize(4 * static_cast<size_t>(n));
    const Table table{_offsets.data(), _slots.data(), _irregular.data(), _irregular.data() + _irregular.size()};
    const int* order = _order.empty() ? nullptr : _order.data();
    const SweepFunction sweep = Sweep<4>();
    double* buffers[2] = {_whole[0].data(), _whole[1].data()};
    // Every average reads only the previous sweep, so the vertices of a sweep are independent.
#pragma omp parallel num_threads(team)
    {
        const int threads = OmpNumThreads(), t = OmpThreadNum();
        const int first = static_cast<int>(static_cast<long long>(n) * t / threads);
        const int end = static_cast<int>(static_cast<long long>(n) * (t + 1) / threads);
        for (int i = first; i < end; ++i) {
            double* r = buffers[0] + 4 * static_cast<size_t>(i);
            if (in.floats) {
                const KVector& v = in.floats[order ? order[i] : i];
                r[0] = v.x;
                r[1] = v.y;
                r[2] = v.z;
            } else {
                const double* v = in.doubles + 3 * static_cast<size_t>(order ? order[i] : i);
                r[0] = v[0];
                r[1] = v[1];
                r[2] = v[2];
            }
            r[3] = 0.0;
        }
        for (int s = 1; s <= k; ++s) {
#pragma omp barrier
            sweep(buffers[(s - 1) % 2], table, first, end, buffers[s % 2] + 4 * static_cast<size_t>(first));
        }
        const double* r = buffers[k % 2];
        for (int i = first; i < end; ++i) {
            const double* v = r + 4 * static_cast<size_t>(i);
            if (out.floatsOut) {
                out.floatsOut[order ? order[i] : i] =
                    KVector(static_cast<float>(v[0]), static_cast<float>(v[1]), static_cast<float>(v[2]));
            } else {
                double* d = out.doubles + 3 * static_cast<size_t>(order ? order[i] : i);
                d[0] = v[0];
                d[1] = v[1];
                d[2] = v[2];
            }
        }
    }
}

}  // namespace Kavrin
