// The benchmark binary's operator new and delete: plain malloc and free, counting the bytes live
// and their peak (HeapCounter.h).

#include "HeapCounter.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> gLive{0};
std::atomic<std::size_t> gPeak{0};

void* Counted(void* p) {
    if (!p) throw std::bad_alloc();
    const std::size_t live = gLive.fetch_add(malloc_usable_size(p), std::memory_order_relaxed) + malloc_usable_size(p);
    std::size_t peak = gPeak.load(std::memory_order_relaxed);
    while (live > peak && !gPeak.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
    }
    return p;
}

void Uncounted(void* p) {
    if (!p) return;
    gLive.fetch_sub(malloc_usable_size(p), std::memory_order_relaxed);
    std::free(p);
}

void* Aligned(std::size_t size, std::align_val_t alignment) {
    void* p = nullptr;
    const std::size_t a = static_cast<std::size_t>(alignment) < sizeof(void*) ? sizeof(void*)
                                                                              : static_cast<std::size_t>(alignment);
    if (posix_memalign(&p, a, size ? size : 1) != 0) p = nullptr;
    return Counted(p);
}

}  // namespace

namespace Kavrin {

std::size_t HeapLiveBytes() { return gLive.load(std::memory_order_relaxed); }
std::size_t HeapPeakBytes() { return gPeak.load(std::memory_order_relaxed); }
void ResetHeapPeak() { gPeak.store(gLive.load(std::memory_order_relaxed), std::memory_order_relaxed); }

}  // namespace Kavrin

void* operator new(std::size_t size) { return Counted(std::malloc(size ? size : 1)); }
void* operator new[](std::size_t size) { return Counted(std::malloc(size ? size : 1)); }
void* operator new(std::size_t size, std::align_val_t a) { return Aligned(size, a); }
void* operator new[](std::size_t size, std::align_val_t a) { return Aligned(size, a); }
void operator delete(void* p) noexcept { Uncounted(p); }
void operator delete[](void* p) noexcept { Uncounted(p); }
void operator delete(void* p, std::size_t) noexcept { Uncounted(p); }
void operator delete[](void* p, std::size_t) noexcept { Uncounted(p); }
void operator delete(void* p, std::align_val_t) noexcept { Uncounted(p); }
void operator delete[](void* p, std::align_val_t) noexcept { Uncounted(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { Uncounted(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { Uncounted(p); }
