#pragma once
// Thread-count parameter handling for the parallel index loops.

#ifdef _OPENMP
#include <omp.h>
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

}  // namespace Kavrin
