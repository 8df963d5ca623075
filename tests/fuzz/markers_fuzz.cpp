// libFuzzer target for the marker-pair reader: any text either reads or is refused with a
// KFileError; what reads lies inside the meshes, marks no source vertex twice and reads back
// the same from the text the writer makes of it.

#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include "MarkerFile.h"

using namespace Kavrin;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const int sourceVertices = 1000, targetVertices = 500;
    KIntArray pairs;
    try {
        pairs = ParseMarkers(text, "fuzz.txt", sourceVertices, targetVertices);
    } catch (const KFileError&) {
        return 0;
    }
    std::set<int> sources;
    if (pairs.empty() || pairs.length() % 2 != 0) std::abort();
    for (int i = 0; i < pairs.length(); i += 2) {
        if (pairs[i] < 0 || pairs[i] >= sourceVertices || pairs[i + 1] < 0 || pairs[i + 1] >= targetVertices)
            std::abort();
        if (!sources.insert(pairs[i]).second) std::abort();
    }
    if (ParseMarkers(FormatMarkers(pairs), "again.txt", sourceVertices, targetVertices) != pairs) std::abort();
    return 0;
}
