// libFuzzer target for the point-cache readers: any bytes, read as PC2 and as MDD, either read or
// are refused with a KFileError; what reads is finite and comes back byte for byte from the writer.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "PointCache.h"

using namespace Kavrin;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    for (const KPointCacheFormat format : {KPointCacheFormat::kPC2, KPointCacheFormat::kMDD}) {
        KPointCache cache;
        try {
            cache = ParsePointCache(bytes, format, "fuzz");
        } catch (const KFileError&) {
            continue;
        }
        for (float v : cache.xyz)
            if (!std::isfinite(v)) std::abort();
        if (FormatPointCache(cache, format) != bytes) std::abort();
    }
    return 0;
}
