#pragma once
// One channel of an image as a texture: read from any file OpenImageIO reads (through the
// kavrin_images module, ImageCodec.h) (PNG, TIFF, OpenEXR,
// ...; 8-bit to 32-bit float), sampled bilinearly at texture coordinates and repeated in both
// directions, the way a renderer samples a file texture.
//
// Texture space: u runs left to right, v bottom to top, and the image repeats with period 1 in
// both. Texel (x, y) (column x, row y, row 0 at the top of the image) has its centre at
// u = (x + 0.5) / width, v = 1 - (y + 0.5) / height.

#include <string>
#include <vector>

#include "FileError.h"

namespace Kavrin {

class KTextureImage {
public:
    KTextureImage() {}
    // width x height texels row by row from the top row; texels must hold width * height values
    // (an empty texture otherwise).
    KTextureImage(int width, int height, std::vector<float> texels);

    int width() const { return _width; }
    int height() const { return _height; }
    bool empty() const { return _texels.empty(); }
    float texel(int x, int y) const { return _texels[static_cast<size_t>(y) * _width + x]; }

    // The bilinear interpolation of the four texels whose centres surround (u, v), wrapping
    // across the borders. A NaN or infinite coordinate counts as 0. An empty texture gives 0.
    float sample(float u, float v) const;
    // out[i] = sample(u[i], v[i]) for i < n, on up to `threads` threads (0: all cores).
    void sample(const float* u, const float* v, int n, float* out, int threads) const;

private:
    int _width = 0;
    int _height = 0;
    std::vector<float> _texels;
};

// The first channel of the first image in the file: red, or the grey of a one-channel image.
// Integer formats become 0..1 (255 in an 8-bit file is 1.0), float formats are kept as stored;
// the value is read as stored, not multiplied by an alpha channel, and no colour-space
// conversion is applied. Throws KFileError naming the file when it cannot be
// opened, is not an image OpenImageIO reads, holds no pixels, is a volume or deep image, or
// cannot be read completely.
KTextureImage ReadTextureRed(const std::string& path);

// The file holding width x height pixels of `channels` interleaved values, row by row from the
// top row, in the format the file name's extension names, with `bits` 8 or 16 (unsigned
// integers, values clamped to 0..1) or 32 (float), as given (a fourth channel, alpha, does not
// scale the others): its bytes, made in memory, so that a caller decides how they reach the disk.
// Throws KFileError naming the file on failure.
std::string EncodeImage(const std::string& path, int width, int height, int channels,
                        const std::vector<float>& pixels, int bits);
// EncodeImage's bytes written as the file at path.
void WriteImage(const std::string& path, int width, int height, int channels, const std::vector<float>& pixels,
                int bits);

}  // namespace Kavrin
