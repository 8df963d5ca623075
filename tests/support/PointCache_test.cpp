// Point caches: the bytes written against layouts worked out by hand (PC2 as Blender's Mesh Cache
// modifier reads it, MDD big-endian), and every header the readers refuse, with its exact line.

#include <gtest/gtest.h>

#include <cmath>

#include "PointCache.h"
#include "Refusal.h"

using namespace Kavrin;

namespace {

// Two frames of two points: (1, -2, 0.5) (0, 0, 1), then (2, 2, 2) (-1, 0, 0).
KPointCache TwoFrames() {
    KPointCache c;
    c.points = 2;
    c.xyz = {1, -2, 0.5f, 0, 0, 1, 2, 2, 2, -1, 0, 0};
    return c;
}

// The positions above as float32 bits, little-endian; big-endian reverses each group of four.
const std::string kPositionsLE = std::string("\x00\x00\x80\x3f\x00\x00\x00\xc0\x00\x00\x00\x3f", 12) +
                                 std::string("\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x80\x3f", 12) +
                                 std::string("\x00\x00\x00\x40\x00\x00\x00\x40\x00\x00\x00\x40", 12) +
                                 std::string("\x00\x00\x80\xbf\x00\x00\x00\x00\x00\x00\x00\x00", 12);

std::string Reversed4(const std::string& le) {
    std::string be = le;
    for (size_t i = 0; i + 4 <= be.size(); i += 4) std::swap(be[i], be[i + 3]), std::swap(be[i + 1], be[i + 2]);
    return be;
}

std::string LE(int32_t v) {
    std::string s(4, '\0');
    for (int i = 0; i < 4; ++i) s[i] = static_cast<char>((static_cast<uint32_t>(v) >> (8 * i)) & 0xff);
    return s;
}

}  // namespace

TEST(PointCache, WritesTheLayoutsWorkedOutByHandAndReadsThemBack) {
    KPointCache pc2 = TwoFrames();
    pc2.startFrame = 1001.0f;  // 0x447a4000
    pc2.sampleRate = 0.5f;     // 0x3f000000
    const std::string pc2Bytes = std::string("POINTCACHE2\0", 12) + std::string("\x01\0\0\0\x02\0\0\0", 8) +
                                 std::string("\x00\x40\x7a\x44\x00\x00\x00\x3f\x02\0\0\0", 12) + kPositionsLE;
    EXPECT_EQ(FormatPointCache(pc2, KPointCacheFormat::kPC2), pc2Bytes);

    // Without times, frame i is at i / 24 s: 1/24 is 0x3d2aaaab.
    const std::string mddBytes = std::string("\0\0\0\x02\0\0\0\x02\0\0\0\0\x3d\x2a\xaa\xab", 16) +
                                 Reversed4(kPositionsLE);
    EXPECT_EQ(FormatPointCache(TwoFrames(), KPointCacheFormat::kMDD), mddBytes);

    const KPointCache back = ParsePointCache(pc2Bytes, KPointCacheFormat::kPC2, "a.pc2");
    EXPECT_EQ(back.points, 2);
    EXPECT_EQ(back.frames(), 2);
    EXPECT_EQ(back.xyz, pc2.xyz);
    EXPECT_EQ(back.startFrame, 1001.0f);
    EXPECT_EQ(back.sampleRate, 0.5f);
    const KPointCache mdd = ParsePointCache(mddBytes, KPointCacheFormat::kMDD, "a.mdd");
    EXPECT_EQ(mdd.xyz, pc2.xyz);
    EXPECT_EQ(mdd.times, (std::vector<float>{0.0f, 1.0f / 24}));

    KPointCacheFormat format = KPointCacheFormat::kPC2;
    EXPECT_TRUE(PointCacheFormatOf("shot/Anim.MDD", format));
    EXPECT_EQ(format, KPointCacheFormat::kMDD);
    EXPECT_FALSE(PointCacheFormatOf("anim.pc2.obj", format));
}

TEST(PointCache, RefusesEveryHeaderThatDoesNotDescribeItsFile) {
    const std::string pc2 = FormatPointCache(TwoFrames(), KPointCacheFormat::kPC2);
    const std::string mdd = FormatPointCache(TwoFrames(), KPointCacheFormat::kMDD);
    const std::string nan("\x00\x00\xc0\x7f", 4), inf("\x00\x00\x80\x7f", 4);
    // The PC2 header with its fields replaced: points, start, rate, samples.
    const auto header = [&](int32_t points, const std::string& start, const std::string& rate, int32_t samples) {
        return pc2.substr(0, 16) + LE(points) + start + rate + LE(samples);
    };
    const std::string one = LE(1065353216);  // 1.0f
    const struct {
        std::string bytes;
        KPointCacheFormat format;
        std::string message;
    } cases[] = {
        {pc2.substr(0, 31), KPointCacheFormat::kPC2, "c: 31 bytes, too short for a PC2 header (32 bytes)"},
        {"POINTCACHE3" + pc2.substr(11), KPointCacheFormat::kPC2, "c: not a PC2 file (it does not start with POINTCACHE2)"},
        {pc2.substr(0, 12) + LE(2) + pc2.substr(16), KPointCacheFormat::kPC2, "c: PC2 version 2; only version 1 is read"},
        {header(2, nan, one, 2) + kPositionsLE, KPointCacheFormat::kPC2, "c: the header's start frame is nan"},
        {header(2, one, LE(0), 2) + kPositionsLE, KPointCacheFormat::kPC2,
         "c: the header's sample rate is 0; it must be a finite number above 0"},
        {header(2, one, inf, 2) + kPositionsLE, KPointCacheFormat::kPC2,
         "c: the header's sample rate is inf; it must be a finite number above 0"},
        {header(0, one, one, 2), KPointCacheFormat::kPC2, "c: the header gives 0 points; a cache needs 1 or more"},
        {header(2, one, one, -1), KPointCacheFormat::kPC2, "c: the header gives -1 frames; a cache needs 1 or more"},
        {pc2.substr(0, pc2.size() - 1), KPointCacheFormat::kPC2,
         "c: the header gives 2 frames of 2 points, 48 bytes of positions, but 47 bytes follow the header"},
        {pc2 + '\0', KPointCacheFormat::kPC2,
         "c: the header gives 2 frames of 2 points, 48 bytes of positions, but 49 bytes follow the header"},
        {header(0x7fffffff, one, one, 0x7fffffff), KPointCacheFormat::kPC2,
         "c: the header gives 2147483647 frames of 2147483647 points, 55340232169589047308 bytes of positions, but 0 "
         "bytes follow the header"},
        {pc2.substr(0, 32 + 16) + nan + pc2.substr(32 + 20), KPointCacheFormat::kPC2,
         "c: frame 0, point 1 is not finite (0, nan, 1)"},
        {mdd.substr(0, 7), KPointCacheFormat::kMDD, "c: 7 bytes, too short for an MDD header (8 bytes)"},
        {Reversed4(LE(0)) + mdd.substr(4), KPointCacheFormat::kMDD, "c: the header gives 0 frames; a cache needs 1 or more"},
        {Reversed4(LE(0x7fffffff)) + mdd.substr(4), KPointCacheFormat::kMDD,
         "c: the header gives 2147483647 frames, but the file ends within their times"},
        {mdd.substr(0, 4) + Reversed4(LE(-3)) + mdd.substr(8), KPointCacheFormat::kMDD,
         "c: the header gives -3 points; a cache needs 1 or more"},
        {mdd.substr(0, 12) + Reversed4(nan) + mdd.substr(16), KPointCacheFormat::kMDD, "c: the time of frame 1 is nan"},
        {mdd.substr(0, mdd.size() - 4), KPointCacheFormat::kMDD,
         "c: the header gives 2 frames of 2 points, 48 bytes of positions, but 44 bytes follow the header"},
        {mdd.substr(0, mdd.size() - 4) + Reversed4(inf), KPointCacheFormat::kMDD,
         "c: frame 1, point 1 is not finite (-1, 0, inf)"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Refusal([&] { ParsePointCache(c.bytes, c.format, "c"); }), c.message) << c.message;

    // The writer refuses what the reader would, and makes nothing.
    KPointCache empty, notFinite = TwoFrames(), badTimes = TwoFrames(), badRate = TwoFrames();
    notFinite.xyz[4] = NAN;
    badTimes.times = {0, 1, 2};
    badRate.sampleRate = 0;
    const std::pair<const KPointCache*, std::string> writes[] = {
        {&empty, "a point cache needs 1 or more frames of 1 or more points; nothing was written"},
        {&notFinite, "frame 0, point 1 is not finite (0, nan, 1); nothing was written"},
        {&badRate, "the start frame and the sample rate must be finite, the rate above 0; nothing was written"},
    };
    for (const auto& [cache, message] : writes)
        EXPECT_EQ(Refusal([&] { FormatPointCache(*cache, KPointCacheFormat::kPC2); }), message);
    EXPECT_EQ(Refusal([&] { FormatPointCache(badTimes, KPointCacheFormat::kMDD); }),
              "3 times for 2 frames; nothing was written");
}
