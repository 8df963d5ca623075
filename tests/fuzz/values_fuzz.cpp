// libFuzzer target for the per-vertex value reader: any text either reads or is refused with a
// KFileError; what reads is finite, within the range of a float, and reads back bit for bit from
// the text the writer makes of it.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "TextFields.h"
#include "ValueFile.h"

using namespace Kavrin;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    KArray<double> values;
    try {
        values = ParseValues(text, "fuzz.txt", -1);
    } catch (const KFileError&) {
        return 0;
    }
    for (double v : values)
        if (!std::isfinite(v) || !WithinFloatRange(v)) std::abort();
    const KArray<double> back = ParseValues(FormatValues(values), "again.txt", values.length());
    if (back.size() != values.size() ||
        (!values.empty() && std::memcmp(back.data(), values.data(), values.size() * sizeof(double)) != 0))
        std::abort();
    return 0;
}
