#include "TextureImage.h"

#include <cmath>
#include <cstring>
#include <fstream>
#include <new>

#include "ImageCodec.h"
#include "KThreads.h"
#include "TextFields.h"

namespace Kavrin {

namespace {

// std::floor without the library call (the baseline instruction set has no rounding
// instruction): truncate, then step down for negative non-integers. Values of 2^52 and beyond are
// whole numbers already.
inline double Floor(double d) {
    if (!(std::abs(d) < 4503599627370496.0)) return d;
    const double t = static_cast<double>(static_cast<long long>(d));
    return t > d ? t - 1.0 : t;
}

// The fractional part of a texture coordinate, in [0, 1]; a NaN or infinite one counts as 0.
inline double Wrapped(float t) {
    // Guard (behaviour note "Texture: coordinates that are not numbers")
    if (!std::isfinite(t)) return 0.0;
    const double d = t;
    return d - Floor(d);
}

// True when path is a PNG file whose chunks run past the end of the file before the closing
// IEND chunk. Only the chunk lengths are followed; the contents are the reader's business.
bool PngEndsEarly(const std::string& path) {
    static const unsigned char kSignature[8] = {137, 80, 78, 71, 13, 10, 26, 10};
    std::ifstream in(path, std::ios::binary);
    unsigned char head[8];
    if (!in.read(reinterpret_cast<char*>(head), 8) || std::memcmp(head, kSignature, 8) != 0) return false;
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    std::streamoff at = 8;
    for (;;) {
        // A chunk: 4-byte big-endian data length, 4-byte type, the data, 4-byte CRC.
        if (at + 8 > size) return true;
        in.seekg(at);
        if (!in.read(reinterpret_cast<char*>(head), 8)) return true;
        const std::streamoff length = (std::streamoff(head[0]) << 24) | (std::streamoff(head[1]) << 16) |
                                      (std::streamoff(head[2]) << 8) | std::streamoff(head[3]);
        at += 12 + length;
        if (at > size) return true;
        if (std::memcmp(head + 4, "IEND", 4) == 0) return false;
    }
}

}  // namespace

KTextureImage::KTextureImage(int width, int height, std::vector<float> texels) {
    if (width < 1 || height < 1 || texels.size() != static_cast<size_t>(width) * static_cast<size_t>(height)) return;
    _width = width;
    _height = height;
    _texels = std::move(texels);
}

float KTextureImage::sample(float u, float v) const {
    if (_texels.empty()) return 0.0f;
    // Texel centres sit at whole numbers of x and y; v runs up, rows run down.
    // Decision (behaviour note "Texture: orientation and filtering")
    const double x = Wrapped(u) * _width - 0.5;
    const double y = (1.0 - Wrapped(v)) * _height - 0.5;
    const double xFloor = Floor(x), yFloor = Floor(y);
    const double fx = x - xFloor, fy = y - yFloor;
    // x lies in [-0.5, width - 0.5], so the left column is -1 .. width - 1 and wraps once at most.
    int x0 = static_cast<int>(xFloor), y0 = static_cast<int>(yFloor);
    if (x0 < 0) x0 += _width;
    if (y0 < 0) y0 += _height;
    const int x1 = x0 + 1 < _width ? x0 + 1 : 0;
    const int y1 = y0 + 1 < _height ? y0 + 1 : 0;
    const float* row0 = _texels.data() + static_cast<size_t>(y0) * _width;
    const float* row1 = _texels.data() + static_cast<size_t>(y1) * _width;
    const double top = (1.0 - fx) * row0[x0] + fx * row0[x1];
    const double bottom = (1.0 - fx) * row1[x0] + fx * row1[x1];
    return static_cast<float>((1.0 - fy) * top + fy * bottom);
}

void KTextureImage::sample(const float* u, const float* v, int n, float* out, int threads) const {
#pragma omp parallel for schedule(static) num_threads(TeamFor(threads, n))
    for (int i = 0; i < n; ++i) out[i] = sample(u[i], v[i]);
}

KTextureImage ReadTextureRed(const std::string& path) {
    {
        std::ifstream probe(path);
        if (!probe) throw KFileError(path + ": cannot open the file");
    }
    // Guard (behaviour note "Texture: PNG files that end early")
    if (PngEndsEarly(path)) throw KFileError(path + ": the image could not be read completely (the PNG file ends early)");
    int width = 0, height = 0;
    std::vector<float> texels;
    std::string error;
    if (!ImageCodec(path).readRed(path.c_str(), &width, &height, &texels, &error)) throw KFileError(error);
    return KTextureImage(width, height, std::move(texels));
}

std::string EncodeImage(const std::string& path, int width, int height, int channels,
                        const std::vector<float>& pixels, int bits) {
    if (width < 1 || height < 1 || channels < 1 ||
        pixels.size() != static_cast<size_t>(width) * static_cast<size_t>(height) * static_cast<size_t>(channels))
        throw KFileError(path + ": the pixels do not fill a " + std::to_string(width) + " x " + std::to_string(height) +
                         " image of " + std::to_string(channels) + " channels");
    std::string bytes, error;
    if (!ImageCodec(path).encode(path.c_str(), width, height, channels, pixels.data(), bits, &bytes, &error))
        throw KFileError(error);
    return bytes;
}

void WriteImage(const std::string& path, int width, int height, int channels, const std::vector<float>& pixels,
                int bits) {
    WriteTextFile(path, EncodeImage(path, width, height, channels, pixels, bits));
}

}  // namespace Kavrin
