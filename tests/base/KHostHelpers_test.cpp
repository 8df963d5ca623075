// Host-free rules behind the host bridge: the Viewport 2.0 style code, the full-weight default
// of unpainted maps and the fixed message texts.

#include <gtest/gtest.h>

#include <vector>

#include "KDrawStyle.h"
#include "KHostMessages.h"
#include "KWeightMap.h"

using namespace Kavrin;

namespace {

const KDisplayOverride kNoOverride = {false, true, true, 0};

// The host's double array as the map rule sees it: length, setLength, element access.
struct DoubleArray {
    std::vector<double> v;
    unsigned int length() const { return static_cast<unsigned int>(v.size()); }
    void setLength(unsigned int n) { v.resize(n, -7.0); }
    double& operator[](unsigned int i) { return v.at(i); }
};

}  // namespace

TEST(DrawStyle, FrameDisplayStyleWithoutOverride) {
    EXPECT_EQ(DrawStyleCode(kNoOverride, 1), 4);  // gouraud shaded
    EXPECT_EQ(DrawStyleCode(kNoOverride, 8), 5);  // textured
    EXPECT_EQ(DrawStyleCode(kNoOverride, 0), 3);
    EXPECT_EQ(DrawStyleCode(kNoOverride, 2), 3);  // wireframe
    // Combinations are compared as whole values, not as bits.
    EXPECT_EQ(DrawStyleCode(kNoOverride, 1 | 8), 3);
    EXPECT_EQ(DrawStyleCode(kNoOverride, 1 | 2), 3);
    // A disabled override is ignored entirely, invisible or templated included.
    EXPECT_EQ(DrawStyleCode(KDisplayOverride{false, false, false, 2}, 1), 4);
}

TEST(DrawStyle, EnabledOverride) {
    // Hidden by its override: nothing is drawn, whatever the frame says.
    for (unsigned int style : {0u, 1u, 8u})
        EXPECT_EQ(DrawStyleCode(KDisplayOverride{true, false, true, 0}, style), kDrawNothing);
    // Templated or unshaded: always 3.
    for (unsigned int style : {0u, 1u, 8u}) {
        EXPECT_EQ(DrawStyleCode(KDisplayOverride{true, true, true, 2}, style), 3);
        EXPECT_EQ(DrawStyleCode(KDisplayOverride{true, true, false, 0}, style), 3);
        EXPECT_EQ(DrawStyleCode(KDisplayOverride{true, true, false, 1}, style), 3);
    }
    // Shaded and normal or reference: the frame decides.
    EXPECT_EQ(DrawStyleCode(KDisplayOverride{true, true, true, 0}, 1), 4);
    EXPECT_EQ(DrawStyleCode(KDisplayOverride{true, true, true, 1}, 8), 5);
    EXPECT_EQ(DrawStyleCode(KDisplayOverride{true, true, true, 0}, 4), 3);
}

TEST(WeightMap, UnreadableOrEmptyMapBecomesFullWeight) {
    DoubleArray map;
    EXPECT_TRUE(ResolveWeightMap(true, map, 5));  // read but empty: a node's first evaluation
    EXPECT_EQ(map.v, std::vector<double>(5, 1.0));

    DoubleArray stale;
    stale.v = {0.2, 0.3};
    EXPECT_TRUE(ResolveWeightMap(false, stale, 3));  // unreadable: old contents are not kept
    EXPECT_EQ(stale.v, std::vector<double>(3, 1.0));

    DoubleArray none;
    EXPECT_TRUE(ResolveWeightMap(false, none, -2));
    EXPECT_TRUE(none.v.empty());
}

TEST(WeightMap, PaintedMapIsUsedAsStored) {
    DoubleArray map;
    map.v = {0.0, 0.5};  // shorter than the mesh: still the painted map
    EXPECT_FALSE(ResolveWeightMap(true, map, 4));
    EXPECT_EQ(map.v, (std::vector<double>{0.0, 0.5}));
}

TEST(HostMessages, ExactTexts) {
    EXPECT_EQ(ApiErrorText("source/KDeltaMush", 57), "\nAPI error detected in source/KDeltaMush at line 57\n");
    EXPECT_STREQ(kGetAttr3Error, "Error@KGetAttr3(): Failed to get value of the plug.");
}
