// libFuzzer target for the MDD point-cache reader: any bytes either read or are refused with a
// KFileError; what reads is finite and comes back byte for byte from the writer.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "PointCache.h"

using namespace Kavrin;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    KPointCache cache;
    try {
        cache = ParsePointCache(bytes, KPointCacheFormat::kMDD, "fuzz.mdd");
    } catch (const KFileError&) {
        return 0;
    }
    for (float v : cache.xyz)
        if (!std::isfinite(v)) std::abort();
    if (FormatPointCache(cache, KPointCacheFormat::kMDD) != bytes) std::abort();
    return 0;
}
