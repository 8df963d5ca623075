#pragma once
// Thread-count parameter handling for the parallel index loops.

#ifdef _OPENMP
#include <omp.h>
#endif

// An OpenMP directive in code that is also built without OpenMP (the readers' fuzzing builds), where
// a bare #pragma omp would be an unknown pragma.
#ifdef _OPENMP
#define KAVRIN_OMP(directive) _Pragma(#directive)
#else
#define KAVRIN_OMP(directive)
#endif

namespace Kavrin {

// The team size for a parallel loop: the requested count, or the OpenMP default when the
// request is 0 or negative.
inline int ResolveThreads(int threads) {
    if (threads > 0) return threads;
#ifdef _OPENMP
    return omp_get_max_threads();
#else
    return 1;
#endif
}

// The team size for a loop over `items` independent items: the requested count, but no more
// threads than give each at least minPerThread items (starting and meeting threads costs more
// than small loops save). At least 1.
// Decision (behaviour note "Threads: minimum work per thread").
inline int TeamFor(int threads, int items, int minPerThread = 2048) {
    const int byWork = items / (minPerThread > 0 ? minPerThread : 1);
    const int team = ResolveThreads(threads);
    return team < byWork ? team : (byWork > 1 ? byWork : 1);
}

// The calling thread's number in its team, and the team's size (0 and 1 outside a parallel region
// or without OpenMP).
inline int OmpThreadNum() {
#ifdef _OPENMP
    return omp_get_thread_num();
#else
    return 0;
#endif
}

inline int OmpNumThreads() {
#ifdef _OPENMP
    return omp_get_num_threads();
#else
    return 1;
#endif
}

}  // namespace Kavrin
