#pragma once
// Heap use of the benchmark process, counted by the kavrin_bench binary's own operator new and
// delete (HeapCounter.cpp): what the engines and containers hold, in bytes, as the allocator
// gives it (malloc_usable_size). Memory taken with malloc directly (CHOLMOD's own arrays, OpenMP's
// thread stacks) is not counted; CHOLMOD reports its own through cholmod_common.

#include <cstddef>

namespace Kavrin {

// Bytes allocated with new and not yet deleted.
std::size_t HeapLiveBytes();
// The most HeapLiveBytes() has been since the last ResetHeapPeak().
std::size_t HeapPeakBytes();
// Starts a new peak at the bytes live now.
void ResetHeapPeak();

}  // namespace Kavrin
