#pragma once
// Point caches: the frames of an animated mesh as positions only, in the two plain formats that
// most animation packages read and write (Blender's Mesh Cache modifier among them). Both keep
// the mesh's vertex order; the faces come from the mesh the cache belongs to.
//   PC2: the 12 bytes "POINTCACHE2\0", then little-endian: int32 version (1), int32 points per
//        sample, float32 start frame, float32 sample rate (frames from one sample to the next),
//        int32 samples; then x, y, z as float32 for every point of every sample, in order.
//   MDD: big-endian: int32 frames, int32 points, one float32 time (seconds) per frame; then x, y,
//        z as float32 for every point of every frame, in order.
// The readers are strict: the header's counts must be 1 or more and describe the file's size
// exactly, the header's numbers and every position must be finite; anything else is refused with
// one line naming the file and what is wrong.

#include <string>
#include <string_view>
#include <vector>

#include "FileError.h"

namespace Kavrin {

enum class KPointCacheFormat { kPC2, kMDD };

// The frames per second an MDD's times assume when a cache has none of its own (Blender's
// default scene rate).
constexpr float kPointCacheFramesPerSecond = 24.0f;

struct KPointCache {
    int points = 0;          // per frame
    std::vector<float> xyz;  // frames x points x 3, frame after frame
    float startFrame = 0.0f;  // PC2: the frame of the first sample
    float sampleRate = 1.0f;  // PC2: frames from one sample to the next
    // MDD: the time of each frame in seconds; empty: frame i at i / kPointCacheFramesPerSecond.
    std::vector<float> times;

    int frames() const { return points > 0 ? static_cast<int>(xyz.size() / (3 * static_cast<size_t>(points))) : 0; }
    const float* frame(int i) const { return xyz.data() + 3 * static_cast<size_t>(points) * static_cast<size_t>(i); }
};

// The format path names by its extension, ".pc2" or ".mdd" in any case; false for any other.
bool PointCacheFormatOf(const std::string& path, KPointCacheFormat& format);

// Reads a cache from its bytes; name stands for the file in messages. Throws KFileError.
KPointCache ParsePointCache(std::string_view bytes, KPointCacheFormat format, const std::string& name);
// Reads the file at path in the format its extension names. Throws KFileError.
KPointCache ReadPointCache(const std::string& path);

// The bytes of the cache in format. Throws KFileError (without a file name), making nothing, when
// the cache has no frame or no point, a position is not finite, the times are not one finite time
// per frame, or the start frame or sample rate is not finite (the rate must be above 0): what the
// reader would refuse.
std::string FormatPointCache(const KPointCache& cache, KPointCacheFormat format);
// Writes the file at path in the format its extension names. Throws KFileError.
void WritePointCache(const std::string& path, const KPointCache& cache);

}  // namespace Kavrin
