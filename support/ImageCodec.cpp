// The kavrin_images module: image files through OpenImageIO (see ImageCodec.h).

#include "ImageCodec.h"

#include <exception>
#include <new>

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>

namespace {

std::string FirstLine(const std::string& text) {
    std::string line = text.substr(0, text.find('\n'));
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    return line;
}

std::string Why(const std::string& error) {
    const std::string line = FirstLine(error);
    return line.empty() ? std::string() : " (" + line + ")";
}

bool Fail(std::string* error, const std::string& message) {
    *error = message;
    return false;
}

bool ReadRed(const std::string& path, int* width, int* height, std::vector<float>* texels, std::string* error) {
    // Colours as stored: without this hint the readers of formats with unassociated alpha (PNG,
    // TGA, some TIFF) multiply the colour by alpha, so red 255 under alpha 0 would read as 0.
    // Decision (behaviour note "Texture: raw values of channel 0")
    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);
    auto in = OIIO::ImageInput::open(path, &config);
    if (!in) return Fail(error, path + ": not an image file that can be read" + Why(OIIO::geterror()));
    const OIIO::ImageSpec header = in->spec_dimensions(0);  // sizes, channels and pixel type
    if (header.width < 1 || header.height < 1 || header.nchannels < 1)
        return Fail(error, path + ": the image holds no pixels");
    if (header.depth > 1) return Fail(error, path + ": a volume image, not a flat texture");
    if (header.deep) return Fail(error, path + ": a deep image, not a flat texture");
    try {
        texels->assign(static_cast<size_t>(header.width) * static_cast<size_t>(header.height), 0.0f);
    } catch (const std::bad_alloc&) {
        return Fail(error, path + ": the image (" + std::to_string(header.width) + " x " +
                               std::to_string(header.height) + ") is too large to hold in memory");
    }
    // Channel 0 only, converted to float by the reader.
    // Decision (behaviour note "Texture: raw values of channel 0")
    if (!in->read_image(0, 0, 0, 1, OIIO::TypeDesc::FLOAT, texels->data()))
        return Fail(error, path + ": the image could not be read completely" + Why(in->geterror()));
    in->close();
    *width = header.width;
    *height = header.height;
    return true;
}

bool Encode(const std::string& path, int width, int height, int channels, const float* pixels, int bits,
            std::string* bytes, std::string* error) {
    const OIIO::TypeDesc type =
        bits == 8 ? OIIO::TypeDesc::UINT8 : bits == 16 ? OIIO::TypeDesc::UINT16 : OIIO::TypeDesc::FLOAT;
    auto out = OIIO::ImageOutput::create(path);
    if (!out) return Fail(error, path + ": no image format for this file name" + Why(OIIO::geterror()));
    if (!out->supports("ioproxy")) return Fail(error, path + ": this image format cannot be written through memory");
    std::vector<unsigned char> memoryBytes;
    OIIO::Filesystem::IOVecOutput memory(memoryBytes);
    OIIO::ImageSpec header(width, height, channels, type);
    // The pixels are written as given, not divided by an alpha channel (the reader's hint above).
    header.attribute("oiio:UnassociatedAlpha", 1);
    if (!out->set_ioproxy(&memory) || !out->open(path, header) || !out->write_image(OIIO::TypeDesc::FLOAT, pixels) ||
        !out->close())
        return Fail(error, path + ": cannot write the image" + Why(out->geterror()));
    bytes->assign(memoryBytes.begin(), memoryBytes.end());
    return true;
}

}  // namespace

// The module's only exported symbols.
#define KAVRIN_EXPORT __attribute__((visibility("default")))

// Guard (behaviour note "Image files: the module that reads them"): nothing is thrown across the edge.
extern "C" KAVRIN_EXPORT bool KavrinImagesReadRed(const char* path, int* width, int* height,
                                                  std::vector<float>* texels, std::string* error) {
    try {
        return ReadRed(path, width, height, texels, error);
    } catch (const std::exception& e) {
        return Fail(error, std::string(path) + ": the image could not be read (" + e.what() + ")");
    }
}

// Guard (behaviour note "Image files: the module that reads them")
extern "C" KAVRIN_EXPORT bool KavrinImagesEncode(const char* path, int width, int height, int channels,
                                                 const float* pixels, int bits, std::string* bytes,
                                                 std::string* error) {
    try {
        return Encode(path, width, height, channels, pixels, bits, bytes, error);
    } catch (const std::exception& e) {
        return Fail(error, std::string(path) + ": cannot write the image (" + e.what() + ")");
    }
}
