#pragma once
// Reading and encoding image files, done by OpenImageIO in a module of its own (kavrin_images.so)
// that is opened when the first image is read or written. Linked into every program instead,
// OpenImageIO and the libraries it brings (video, camera raw, DICOM, ...) would map about 130 MB
// into each command and each `import kavrin`, most of which never touch an image.
//
// The module is looked for beside the program or library holding this code (the kavrin binary,
// the Python package's compiled module), then where the build made it.

#include <string>
#include <vector>

namespace Kavrin {

// The module's entry points. Both report failure by returning false with the message (naming
// the file) in *error; nothing is thrown across the module's edge.
struct KImageCodec {
    // Channel 0 of the first image in the file at path, as floats, row by row from the top.
    bool (*readRed)(const char* path, int* width, int* height, std::vector<float>* texels, std::string* error);
    // width x height pixels of `channels` interleaved floats as the bytes of the format that
    // path's extension names, `bits` 8 or 16 (unsigned integers) or 32 (float).
    bool (*encode)(const char* path, int width, int height, int channels, const float* pixels, int bits,
                   std::string* bytes, std::string* error);
};

// The entry points, the module opened on the first call (once, from any thread). Throws
// KFileError "<path>: ..." saying why when the module cannot be opened.
const KImageCodec& ImageCodec(const std::string& path);

}  // namespace Kavrin

// The symbols the module exports (the types of KImageCodec's members).
extern "C" bool KavrinImagesReadRed(const char* path, int* width, int* height, std::vector<float>* texels,
                                    std::string* error);
extern "C" bool KavrinImagesEncode(const char* path, int width, int height, int channels, const float* pixels,
                                   int bits, std::string* bytes, std::string* error);
