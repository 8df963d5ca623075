// Image files as textures: reading the red channel of each format, texel orientation, bilinear
// sampling with wrapping, and bad files.

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <limits>

#include <OpenImageIO/imageio.h>

#include "TextureImage.h"

using namespace Kavrin;
namespace fs = std::filesystem;

namespace {

struct TempDir {
    const fs::path path = fs::temp_directory_path() /
                          ("kavrin-texture-" + std::to_string(getpid()) + "-" +
                           ::testing::UnitTest::GetInstance()->current_test_info()->name());
    TempDir() { fs::create_directories(path); }
    ~TempDir() { fs::remove_all(path); }
    std::string file(const std::string& name) const { return (path / name).string(); }
};

// A 4 x 2 image whose red texel (x, y) is (10 y + x + 1) / 64, with green and blue unrelated.
const int kW = 4, kH = 2;
float Red(int x, int y) { return float(10 * y + x + 1) / 64.0f; }

// Writes the image with OpenImageIO directly (not through the code under test): channels 1 to 4,
// integer values quantised as the format stores them.
void WriteFixture(const std::string& path, int channels, OIIO::TypeDesc type) {
    std::vector<float> pixels;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            const float rgba[4] = {Red(x, y), 0.9f - 0.1f * x, 0.5f, 1.0f};
            pixels.insert(pixels.end(), rgba, rgba + channels);
        }
    auto out = OIIO::ImageOutput::create(path);
    ASSERT_TRUE(out && out->open(path, OIIO::ImageSpec(kW, kH, channels, type))) << path;
    ASSERT_TRUE(out->write_image(OIIO::TypeDesc::FLOAT, pixels.data()) && out->close()) << out->geterror();
}

}  // namespace

TEST(TextureImage, ReadsTheRedChannelOfEveryFormatTopRowFirstAndWritesImages) {
    TempDir dir;
    const struct {
        const char* name;
        int channels;
        OIIO::TypeDesc type;
        float tolerance;  // quantisation of the stored value
    } cases[] = {
        {"rgb8.png", 3, OIIO::TypeDesc::UINT8, 0.5f / 255.0f},
        {"grey8.png", 1, OIIO::TypeDesc::UINT8, 0.5f / 255.0f},
        {"rgba16.tif", 4, OIIO::TypeDesc::UINT16, 0.5f / 65535.0f},
        {"rgb-half.exr", 3, OIIO::TypeDesc::HALF, 1e-3f},
        {"rgb-float.exr", 3, OIIO::TypeDesc::FLOAT, 0.0f},
        {"rgb-float.tif", 3, OIIO::TypeDesc::FLOAT, 0.0f},
    };
    for (const auto& c : cases) {
        WriteFixture(dir.file(c.name), c.channels, c.type);
        const KTextureImage image = ReadTextureRed(dir.file(c.name));
        ASSERT_EQ(image.width(), kW) << c.name;
        ASSERT_EQ(image.height(), kH) << c.name;
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x) EXPECT_NEAR(image.texel(x, y), Red(x, y), c.tolerance) << c.name << " " << x << "," << y;
    }
    // Red as stored whatever the alpha: red 255 under alpha 0, 128 and 255 reads 1 each time (a
    // reader that multiplies by alpha, as PNG readers do by default, gives 0, 0.5 and 1).
    {
        const unsigned char rgba[12] = {255, 0, 0, 0, 255, 0, 0, 128, 255, 0, 0, 255};
        OIIO::ImageSpec header(3, 1, 4, OIIO::TypeDesc::UINT8);
        header.attribute("oiio:UnassociatedAlpha", 1);  // stored exactly as given
        auto out = OIIO::ImageOutput::create(dir.file("alpha.png"));
        ASSERT_TRUE(out && out->open(dir.file("alpha.png"), header) &&
                    out->write_image(OIIO::TypeDesc::UINT8, rgba) && out->close());
        const KTextureImage alpha = ReadTextureRed(dir.file("alpha.png"));
        for (int x = 0; x < 3; ++x) EXPECT_EQ(alpha.texel(x, 0), 1.0f) << "alpha " << int(rgba[4 * x + 3]);
    }
    // 8-bit 255 is exactly 1; float values come back as written; bad pixels or names are refused.
    WriteImage(dir.file("white.png"), 2, 1, 3, std::vector<float>(6, 1.0f), 8);
    EXPECT_EQ(ReadTextureRed(dir.file("white.png")).texel(1, 0), 1.0f);
    std::vector<float> pixels;
    for (int i = 0; i < 3 * 2 * 2; ++i) pixels.push_back(float(i) / 16.0f);
    WriteImage(dir.file("back.exr"), 3, 2, 2, pixels, 32);
    EXPECT_EQ(ReadTextureRed(dir.file("back.exr")).texel(2, 1), pixels[2 * (1 * 3 + 2)]);
    EXPECT_THROW(WriteImage(dir.file("short.png"), 3, 2, 2, std::vector<float>(5), 8), KFileError);
    EXPECT_THROW(WriteImage(dir.file("what.unknownformat"), 1, 1, 1, std::vector<float>(1), 8), KFileError);
    EXPECT_THROW(WriteImage(dir.file("no-folder/x.png"), 1, 1, 1, std::vector<float>(1), 8), KFileError);
}

TEST(TextureImage, SamplesTexelCentresBilinearlyBetweenThemAndWrapsAtTheBorders) {
    std::vector<float> texels;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) texels.push_back(Red(x, y));
    const KTextureImage t(kW, kH, texels);
    // Texel (x, y) is centred at u = (x + 0.5) / 4, v = 1 - (y + 0.5) / 2: row 0 is the top (v = 0.75).
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) EXPECT_EQ(t.sample((x + 0.5f) / kW, 1.0f - (y + 0.5f) / kH), Red(x, y)) << x << "," << y;

    const float top = 0.75f, bottom = 0.25f, nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        const char* what;
        float u, v, expected;
    } cases[] = {
        {"midpoint of two texels in a row", 0.25f, top, (Red(0, 0) + Red(1, 0)) / 2},
        {"midpoint of two texels in a column", 0.125f, 0.5f, (Red(0, 0) + Red(0, 1)) / 2},
        {"centre of four texels", 0.5f, 0.5f, (Red(1, 0) + Red(2, 0) + Red(1, 1) + Red(2, 1)) / 4},
        {"a quarter of the way", 0.1875f, top, 0.75f * Red(0, 0) + 0.25f * Red(1, 0)},
        {"u = 0 lies between the last and the first column", 0.0f, top, (Red(3, 0) + Red(0, 0)) / 2},
        {"u = 1 likewise", 1.0f, bottom, (Red(3, 1) + Red(0, 1)) / 2},
        {"v = 0 lies between the bottom and the top row", 0.125f, 0.0f, (Red(0, 1) + Red(0, 0)) / 2},
        {"v = 1 likewise", 0.625f, 1.0f, (Red(2, 1) + Red(2, 0)) / 2},
        {"the corner mixes all four corner texels", 0.0f, 0.0f, (Red(0, 0) + Red(3, 0) + Red(0, 1) + Red(3, 1)) / 4},
        {"repeats past 1", 2.125f, 3.0f + top, Red(0, 0)},
        {"repeats below 0", -0.875f, -1.0f + bottom, Red(0, 1)},
        {"a NaN coordinate counts as 0", nan, top, (Red(3, 0) + Red(0, 0)) / 2},
        {"an infinite coordinate counts as 0", 0.125f, std::numeric_limits<float>::infinity(), (Red(0, 1) + Red(0, 0)) / 2},
    };
    for (const auto& c : cases) EXPECT_FLOAT_EQ(t.sample(c.u, c.v), c.expected) << c.what;

    // The batch gives the same values on any number of threads.
    std::vector<float> u, v, out(5000);
    for (int i = 0; i < 5000; ++i) u.push_back(-3.0f + 0.0017f * i), v.push_back(2.0f - 0.0009f * i);
    for (int threads : {1, 3}) {
        t.sample(u.data(), v.data(), 5000, out.data(), threads);
        for (size_t i = 0; i < u.size(); i += 97) ASSERT_EQ(out[i], t.sample(u[i], v[i])) << i;
    }

    // A texture whose texels do not fill it is empty and samples 0.
    const KTextureImage wrong(4, 2, std::vector<float>(7, 1.0f));
    EXPECT_TRUE(wrong.empty());
    EXPECT_EQ(wrong.sample(0.5f, 0.5f), 0.0f);
}

TEST(TextureImage, BadFilesAreOneLineErrorsNamingTheFile) {
    TempDir dir;
    WriteFixture(dir.file("good.png"), 3, OIIO::TypeDesc::UINT8);
    fs::copy_file(dir.file("good.png"), dir.file("truncated.png"));
    fs::resize_file(dir.file("truncated.png"), fs::file_size(dir.file("good.png")) / 2);
    {
        // Damaged compressed data inside a complete file: the reader itself refuses it.
        std::vector<float> noise;
        for (int i = 0; i < 3 * 64 * 64; ++i) noise.push_back(float((i * 7919) % 256) / 255.0f);
        WriteImage(dir.file("noise.png"), 64, 64, 3, noise, 8);
        std::fstream f(dir.file("noise.png"), std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(static_cast<std::streamoff>(fs::file_size(dir.file("noise.png")) / 2));
        f.write("\xff\x00\xff\x00\xff\x00\xff\x00\xff\x00\xff\x00", 12);
    }
    std::ofstream(dir.file("text.png")) << "not an image\n";
    std::ofstream(dir.file("empty.exr"));
    std::ofstream(dir.file("notes.txt")) << "hello\n";

    const std::pair<std::string, std::string> cases[] = {
        {dir.file("missing.png"), ": cannot open the file"},
        {dir.file("text.png"), ": not an image file that can be read"},
        {dir.file("empty.exr"), ": not an image file that can be read"},
        {dir.file("notes.txt"), ": not an image file that can be read"},
        {dir.file("truncated.png"), ": the image could not be read completely (the PNG file ends early)"},
        {dir.file("noise.png"), ": the image could not be read completely ("},
        {dir.path.string(), ": "},
    };
    for (const auto& c : cases) {
        try {
            ReadTextureRed(c.first);
            ADD_FAILURE() << c.first << " was read";
        } catch (const KFileError& e) {
            const std::string what = e.what();
            EXPECT_EQ(what.rfind(c.first + c.second, 0), 0u) << what;
            EXPECT_EQ(what.find('\n'), std::string::npos) << what;
        }
    }
}
