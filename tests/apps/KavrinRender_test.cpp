// kavrin render, run as a process: where the meshes land in the picture, which way is up, and
// how the distance from a reference colours them. Bad input is in the status table.

#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>

#include <vector>

#include "KavrinCliSupport.h"

using namespace Kavrin;
using namespace KavrinCliTest;

namespace {

struct Image {
    int width = 0, height = 0;
    std::vector<unsigned char> rgb;
    const unsigned char* at(int x, int y) const { return &rgb[(static_cast<size_t>(y) * width + x) * 3]; }
    bool lit(int x, int y) const { return at(x, y)[0] < 250 || at(x, y)[1] < 250 || at(x, y)[2] < 250; }
};

Image ReadPicture(const std::string& path) {
    Image image;
    auto in = OIIO::ImageInput::open(path);
    if (!in) return image;
    const OIIO::ImageSpec header = in->spec_dimensions(0);
    image.width = header.width;
    image.height = header.height;
    image.rgb.resize(static_cast<size_t>(image.width) * image.height * 3);
    if (header.nchannels != 3 || !in->read_image(0, 0, 0, 3, OIIO::TypeDesc::UINT8, image.rgb.data()))
        image.width = image.height = 0;
    return image;
}

// The smallest box holding every pixel that is not the white background: x0, y0, x1, y1 (rows
// from the top).
std::vector<int> LitBox(const Image& image) {
    std::vector<int> box = {image.width, image.height, -1, -1};
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x)
            if (image.lit(x, y)) box = {std::min(box[0], x), std::min(box[1], y), std::max(box[2], x), std::max(box[3], y)};
    return box;
}

bool Grey(const unsigned char* p) { return std::abs(p[0] - p[1]) < 20 && p[2] >= p[0] && p[0] > 60; }
bool Red(const unsigned char* p) { return p[0] > p[1] + 60 && p[0] > p[2] + 60; }

KPolyMesh Quad(KVector a, KVector b, KVector c, KVector d) {
    KPolyMesh quad;
    for (const KVector& p : {a, b, c, d}) quad.points.push_back(p);
    quad.faceCounts.push_back(4);
    for (int v = 0; v < 4; ++v) quad.faceVertices.push_back(v);
    return quad;
}

}  // namespace

using KavrinRender = KavrinCliFixture;

TEST_F(KavrinRender, FramesTheMeshesSideBySideUpAsToldAndColoursByDistance) {
    // A 2 x 1 quad in the XY plane, the same one 1 along z, and a post 2 long along z.
    const std::string quad = save("quad.obj", Quad({-1, -0.5f, 0}, {1, -0.5f, 0}, {1, 0.5f, 0}, {-1, 0.5f, 0}));
    const std::string moved = save("moved.obj", Quad({-1, -0.5f, 1}, {1, -0.5f, 1}, {1, 0.5f, 1}, {-1, 0.5f, 1}));
    const std::string post = save("post.obj", Quad({-0.1f, 0, -1}, {0.1f, 0, -1}, {0.1f, 0, 1}, {-0.1f, 0, 1}));

    // Alone, a mesh is centred with a margin of 5% of the shorter side (18 of 360 pixels) on the
    // side that limits it.
    Outcome r = run("render " + quad + " -o " + path("one.png"));
    ASSERT_EQ(r.status, 0) << r.err;
    Image image = ReadPicture(path("one.png"));
    ASSERT_EQ(image.width, 720);
    ASSERT_EQ(image.height, 360);
    std::vector<int> box = LitBox(image);
    EXPECT_NEAR(box[0], 719 - box[2], 1);
    EXPECT_NEAR(box[1], 359 - box[3], 1);
    EXPECT_NEAR(std::min(box[0], box[1]), 18, 1);

    // The up axis: a post along z stands upright with --up z and lies towards the camera with y up.
    for (const char* up : {"y", "z"}) {
        r = run("render " + post + " --up " + up + " --width 200 --height 200 -o " + path("post.png"));
        ASSERT_EQ(r.status, 0) << r.err;
        box = LitBox(ReadPicture(path("post.png")));
        EXPECT_EQ(box[3] - box[1] > 2 * (box[2] - box[0]), up[0] == 'z') << up << ": " << box[2] - box[0] << " wide, "
                                                                         << box[3] - box[1] << " high";
    }

    // Two meshes with a reference: two separate shapes on the middle row, the left one (distance
    // 0) grey, the right one (distance 1, the largest) red; the colour bar below runs from grey
    // to red.
    r = run("render " + quad + " " + moved + " --reference " + quad + " -o " + path("two.png"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("colours: distance from " + quad + ", grey 0 to red 1; the largest distance is 1\n"),
              std::string::npos)
        << r.out;
    image = ReadPicture(path("two.png"));
    ASSERT_EQ(image.width, 720);
    std::vector<std::pair<int, int>> runs;  // lit runs of the middle row of the meshes' band
    const int middle = 166;
    for (int x = 0; x < image.width; ++x)
        if (image.lit(x, middle) && (x == 0 || !image.lit(x - 1, middle))) runs.push_back({x, x});
        else if (image.lit(x, middle)) runs.back().second = x;
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_TRUE(Grey(image.at((runs[0].first + runs[0].second) / 2, middle)));
    EXPECT_TRUE(Red(image.at((runs[1].first + runs[1].second) / 2, middle)));
    EXPECT_TRUE(Grey(image.at(222, 336)) && Red(image.at(498, 336))) << "the colour bar";
}
