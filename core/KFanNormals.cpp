#include "KFanNormals.h"

#include <xmmintrin.h>

#include <algorithm>

#include "KThreads.h"

namespace Kavrin {

namespace {

// Held-back triangles beyond this share of all corners put the whole sum on one thread.
const double kMostDeferred = 0.125;

// (b - a) x (c - a) in the x, y, z lanes, each lane with the operations of KVector's
// (b - a).cross(c - a); p is read 16 bytes at a time.
inline __m128 TriangleNormal(const KVector* p, int a, int b, int c) {
    const __m128 pa = _mm_loadu_ps(&p[a].x);
    const __m128 e1 = _mm_sub_ps(_mm_loadu_ps(&p[b].x), pa);
    const __m128 e2 = _mm_sub_ps(_mm_loadu_ps(&p[c].x), pa);
    const __m128 e1yzx = _mm_shuffle_ps(e1, e1, _MM_SHUFFLE(3, 0, 2, 1));
    const __m128 e1zxy = _mm_shuffle_ps(e1, e1, _MM_SHUFFLE(3, 1, 0, 2));
    const __m128 e2yzx = _mm_shuffle_ps(e2, e2, _MM_SHUFFLE(3, 0, 2, 1));
    const __m128 e2zxy = _mm_shuffle_ps(e2, e2, _MM_SHUFFLE(3, 1, 0, 2));
    return _mm_sub_ps(_mm_mul_ps(e1yzx, e2zxy), _mm_mul_ps(e1zxy, e2yzx));
}

}  // namespace

void KFanNormals::setFaces(int nv, const KIntArray& faceCounts, const KIntArray& faceVertices) {
    const int nf = faceCounts.length();
    _numVertices = nv;
    _firstFace.assign(static_cast<size_t>(nv), nf);
    _reference.assign(static_cast<size_t>(nv), -1);
    _asked = 0;
    const int* fv = faceVertices.data();
    for (int f = 0, at = 0; f < nf; at += faceCounts[f++]) {
        const int c = faceCounts[f];
        for (int k = 1; k + 1 < c; ++k) {
            const int t[3] = {fv[at], fv[at + k], fv[at + k + 1]};
            for (int j = 0; j < 3; ++j) {
                const int v = t[j];
                if (_reference[v] >= 0) continue;
                // The next corner after the vertex's first place in its first triangle.
                const int first = t[0] == v ? 0 : (t[1] == v ? 1 : 2);
                _reference[v] = t[(first + 1) % 3];
                _firstFace[v] = f;
            }
        }
    }
}

void KFanNormals::_split(const KIntArray& faceCounts, int team) {
    _team = team;
    const int nf = faceCounts.length();
    long long corners = 0;
    for (int c : faceCounts) corners += c;
    _runFace.assign(static_cast<size_t>(team) + 1, nf);
    _runCorner.assign(static_cast<size_t>(team) + 1, static_cast<int>(corners));
    _runFace[0] = 0;
    _runCorner[0] = 0;
    int t = 1;
    long long at = 0;
    for (int f = 0; f < nf && t < team; at += faceCounts[f++])
        while (t < team && at >= corners * t / team) {
            _runFace[t] = f;
            _runCorner[t] = static_cast<int>(at);
            ++t;
        }
    _deferred.assign(static_cast<size_t>(team), std::vector<Deferred>());
}

void KFanNormals::compute(const KVector* p, const KIntArray& faceCounts, const KIntArray& faceVertices, int threads) {
    const int nv = _numVertices;
    int team = TeamFor(threads, faceCounts.length());
    if (team != _asked) {
        _asked = team;
        _split(faceCounts, team);
        // How many triangle corners the runs hold back: when they are many, one thread sums all.
        long long held = 0;
        for (int r = 1; r < team; ++r)
            for (int f = _runFace[r], at = _runCorner[r]; f < _runFace[r + 1]; at += faceCounts[f++])
                for (int k = 0; k < faceCounts[f]; ++k)
                    held += _firstFace[faceVertices[at + k]] < _runFace[r] ? 1 : 0;
        if (held > kMostDeferred * faceVertices.length()) _split(faceCounts, 1);
    }
    team = _team;
    _sums.resize(static_cast<size_t>(nv));
    Sum* sums = _sums.data();
    const int* counts = faceCounts.data();
    const int* fv = faceVertices.data();
    const int* firstFace = _firstFace.data();
#pragma omp parallel num_threads(team)
    {
#pragma omp for schedule(static)
        for (int v = 0; v < nv; ++v) _mm_storeu_ps(sums[v].v, _mm_setzero_ps());
        // A smaller team than planned (nested parallelism) takes several runs per thread, in order.
        for (int r = OmpThreadNum(); r < team; r += OmpNumThreads()) {
            const int runStart = _runFace[r];
            std::vector<Deferred>& deferred = _deferred[r];
            deferred.clear();
            for (int f = runStart, at = _runCorner[r]; f < _runFace[r + 1]; at += counts[f++])
                for (int k = 1; k + 1 < counts[f]; ++k) {
                    const int t[3] = {fv[at], fv[at + k], fv[at + k + 1]};
                    const __m128 normal = TriangleNormal(p, t[0], t[1], t[2]);
                    for (int j = 0; j < 3; ++j) {
                        if (firstFace[t[j]] >= runStart) {
                            float* s = sums[t[j]].v;
                            _mm_storeu_ps(s, _mm_add_ps(_mm_loadu_ps(s), normal));
                        } else {
                            deferred.push_back(Deferred{t[j], Sum()});
                            _mm_storeu_ps(deferred.back().normal.v, normal);
                        }
                    }
                }
        }
#pragma omp barrier
#pragma omp single
        for (int r = 1; r < team; ++r)
            for (const Deferred& d : _deferred[r]) {
                float* s = sums[d.vertex].v;
                _mm_storeu_ps(s, _mm_add_ps(_mm_loadu_ps(s), _mm_loadu_ps(d.normal.v)));
            }
    }
}

}  // namespace Kavrin
