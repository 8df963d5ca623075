#include "PointCache.h"

#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "TextFields.h"

namespace Kavrin {

namespace {

const char kPC2Signature[12] = {'P', 'O', 'I', 'N', 'T', 'C', 'A', 'C', 'H', 'E', '2', '\0'};
const size_t kPC2Header = 32;
const size_t kMDDHeader = 8;

uint32_t Word(const char* p, bool bigEndian) {
    const unsigned char* b = reinterpret_cast<const unsigned char*>(p);
    return bigEndian ? (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | uint32_t(b[3])
                     : (uint32_t(b[3]) << 24) | (uint32_t(b[2]) << 16) | (uint32_t(b[1]) << 8) | uint32_t(b[0]);
}
int32_t Int(const char* p, bool bigEndian) { return static_cast<int32_t>(Word(p, bigEndian)); }
float Float(const char* p, bool bigEndian) {
    const uint32_t w = Word(p, bigEndian);
    float f;
    std::memcpy(&f, &w, sizeof f);
    return f;
}

void PutWord(std::string& out, uint32_t w, bool bigEndian) {
    for (int i = 0; i < 4; ++i) out += static_cast<char>((w >> (bigEndian ? 24 - 8 * i : 8 * i)) & 0xff);
}
void PutInt(std::string& out, int32_t v, bool bigEndian) { PutWord(out, static_cast<uint32_t>(v), bigEndian); }
void PutFloat(std::string& out, float f, bool bigEndian) {
    uint32_t w;
    std::memcpy(&w, &f, sizeof w);
    PutWord(out, w, bigEndian);
}

std::string Point(const float* p) {
    return "(" + NumberText(p[0]) + ", " + NumberText(p[1]) + ", " + NumberText(p[2]) + ")";
}

// The positions after the header: frames x points x 3 floats.
void ReadPositions(const char* at, int frames, int points, bool bigEndian, const std::string& name,
                   KPointCache& cache) {
    cache.points = points;
    cache.xyz.resize(3 * static_cast<size_t>(frames) * static_cast<size_t>(points));
    for (size_t i = 0; i < cache.xyz.size(); ++i) cache.xyz[i] = Float(at + 4 * i, bigEndian);
    for (size_t i = 0; i < cache.xyz.size(); i += 3) {
        const float* p = &cache.xyz[i];
        if (std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2])) continue;
        const size_t n = i / 3;
        throw KFileError(name + ": frame " + std::to_string(n / points) + ", point " + std::to_string(n % points) +
                         " is not finite " + Point(p));
    }
}

// n in decimal: the byte count of two 32-bit counts and 12 can exceed 64 bits.
std::string Decimal(unsigned __int128 n) {
    std::string text;
    do {
        text.insert(text.begin(), static_cast<char>('0' + static_cast<int>(n % 10)));
        n /= 10;
    } while (n);
    return text;
}

// Throws unless the header's counts are 1 or more and the positions fill the rest of the file.
void RequireSize(size_t size, size_t header, int frames, int points, const std::string& name) {
    if (points < 1)
        throw KFileError(name + ": the header gives " + std::to_string(points) + " points; a cache needs 1 or more");
    if (frames < 1)
        throw KFileError(name + ": the header gives " + std::to_string(frames) + " frames; a cache needs 1 or more");
    const unsigned __int128 expected = static_cast<unsigned __int128>(frames) * static_cast<unsigned>(points) * 12u;
    if (size - header != expected)
        throw KFileError(name + ": the header gives " + std::to_string(frames) + " frames of " +
                         std::to_string(points) + " points, " + Decimal(expected) + " bytes of positions, but " +
                         std::to_string(size - header) + " bytes follow the header");
}

}  // namespace

bool PointCacheFormatOf(const std::string& path, KPointCacheFormat& format) {
    if (path.size() < 4) return false;
    std::string extension = path.substr(path.size() - 4);
    for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (extension == ".pc2") format = KPointCacheFormat::kPC2;
    else if (extension == ".mdd") format = KPointCacheFormat::kMDD;
    else return false;
    return true;
}

KPointCache ParsePointCache(std::string_view bytes, KPointCacheFormat format, const std::string& name) {
    KPointCache cache;
    const char* b = bytes.data();
    if (format == KPointCacheFormat::kPC2) {
        if (bytes.size() < kPC2Header)
            throw KFileError(name + ": " + std::to_string(bytes.size()) + " bytes, too short for a PC2 header (" +
                             std::to_string(kPC2Header) + " bytes)");
        if (std::memcmp(b, kPC2Signature, sizeof kPC2Signature) != 0)
            throw KFileError(name + ": not a PC2 file (it does not start with POINTCACHE2)");
        const int version = Int(b + 12, false);
        if (version != 1)
            throw KFileError(name + ": PC2 version " + std::to_string(version) + "; only version 1 is read");
        const int points = Int(b + 16, false);
        cache.startFrame = Float(b + 20, false);
        cache.sampleRate = Float(b + 24, false);
        const int frames = Int(b + 28, false);
        if (!std::isfinite(cache.startFrame))
            throw KFileError(name + ": the header's start frame is " + NumberText(cache.startFrame));
        if (!(cache.sampleRate > 0.0f) || !std::isfinite(cache.sampleRate))
            throw KFileError(name + ": the header's sample rate is " + NumberText(cache.sampleRate) +
                             "; it must be a finite number above 0");
        RequireSize(bytes.size(), kPC2Header, frames, points, name);
        ReadPositions(b + kPC2Header, frames, points, false, name, cache);
        return cache;
    }
    if (bytes.size() < kMDDHeader)
        throw KFileError(name + ": " + std::to_string(bytes.size()) + " bytes, too short for an MDD header (" +
                         std::to_string(kMDDHeader) + " bytes)");
    const int frames = Int(b, true);
    const int points = Int(b + 4, true);
    if (frames < 1)
        throw KFileError(name + ": the header gives " + std::to_string(frames) + " frames; a cache needs 1 or more");
    const size_t header = kMDDHeader + 4 * static_cast<size_t>(frames);
    if (bytes.size() < header)
        throw KFileError(name + ": the header gives " + std::to_string(frames) + " frames, but the file ends within "
                         "their times");
    RequireSize(bytes.size(), header, frames, points, name);
    cache.times.resize(static_cast<size_t>(frames));
    for (int f = 0; f < frames; ++f) {
        cache.times[f] = Float(b + kMDDHeader + 4 * static_cast<size_t>(f), true);
        if (!std::isfinite(cache.times[f]))
            throw KFileError(name + ": the time of frame " + std::to_string(f) + " is " + NumberText(cache.times[f]));
    }
    ReadPositions(b + header, frames, points, true, name, cache);
    return cache;
}

KPointCache ReadPointCache(const std::string& path) {
    KPointCacheFormat format;
    if (!PointCacheFormatOf(path, format))
        throw KFileError(path + ": not a point cache (the name must end in .pc2 or .mdd)");
    return ParsePointCache(ReadTextFile(path), format, path);
}

std::string FormatPointCache(const KPointCache& cache, KPointCacheFormat format) {
    const int frames = cache.frames();
    if (cache.points < 1 || frames < 1 || cache.xyz.size() != 3 * static_cast<size_t>(frames) * cache.points)
        throw KFileError("a point cache needs 1 or more frames of 1 or more points; nothing was written");
    for (size_t i = 0; i < cache.xyz.size(); ++i)
        if (!std::isfinite(cache.xyz[i])) {
            const size_t n = i / 3;
            throw KFileError("frame " + std::to_string(n / cache.points) + ", point " +
                             std::to_string(n % cache.points) + " is not finite " + Point(&cache.xyz[3 * n]) +
                             "; nothing was written");
        }
    std::string out;
    const bool big = format == KPointCacheFormat::kMDD;
    if (format == KPointCacheFormat::kPC2) {
        if (!std::isfinite(cache.startFrame) || !std::isfinite(cache.sampleRate) || !(cache.sampleRate > 0.0f))
            throw KFileError("the start frame and the sample rate must be finite, the rate above 0; nothing was "
                             "written");
        out.reserve(kPC2Header + 4 * cache.xyz.size());
        out.append(kPC2Signature, sizeof kPC2Signature);
        PutInt(out, 1, big);
        PutInt(out, cache.points, big);
        PutFloat(out, cache.startFrame, big);
        PutFloat(out, cache.sampleRate, big);
        PutInt(out, frames, big);
    } else {
        if (!cache.times.empty() && cache.times.size() != static_cast<size_t>(frames))
            throw KFileError(std::to_string(cache.times.size()) + " times for " + std::to_string(frames) +
                             " frames; nothing was written");
        out.reserve(kMDDHeader + 4 * (static_cast<size_t>(frames) + cache.xyz.size()));
        PutInt(out, frames, big);
        PutInt(out, cache.points, big);
        for (int f = 0; f < frames; ++f) {
            const float t = cache.times.empty() ? static_cast<float>(f) / kPointCacheFramesPerSecond : cache.times[f];
            if (!std::isfinite(t))
                throw KFileError("the time of frame " + std::to_string(f) + " is not finite; nothing was written");
            PutFloat(out, t, big);
        }
    }
    for (float v : cache.xyz) PutFloat(out, v, big);
    return out;
}

void WritePointCache(const std::string& path, const KPointCache& cache) {
    KPointCacheFormat format;
    if (!PointCacheFormatOf(path, format))
        throw KFileError(path + ": not a point cache (the name must end in .pc2 or .mdd)");
    WriteFormatted(path, [&] { return FormatPointCache(cache, format); });
}

}  // namespace Kavrin
