// Host-free rules behind the host bridge: the Viewport 2.0 style code, the full-weight default
// of unpainted maps and the fixed message texts.

#include <gtest/gtest.h>

#include <vector>

#include "KDrawStyle.h"
#include "KHostMessages.h"
#include "KWeightMap.h"

using namespace Kavrin;

TEST(DrawStyle, OverrideAndFrameDisplayStyle) {
    const KDisplayOverride none = {false, true, true, 0};
    const struct {
        KDisplayOverride o;
        unsigned int style;
        int expected;
    } cases[] = {
        // No override: gouraud 4, textured 5, anything else, combinations included, 3.
        {none, 1, 4}, {none, 8, 5}, {none, 0, 3}, {none, 2, 3}, {none, 1 | 8, 3}, {none, 1 | 2, 3},
        {{false, false, false, 2}, 1, 4},  // a disabled override is ignored entirely
        {{true, false, true, 0}, 1, kDrawNothing}, {{true, false, true, 0}, 8, kDrawNothing},
        {{true, true, true, 2}, 1, 3}, {{true, true, false, 0}, 8, 3}, {{true, true, false, 1}, 1, 3},
        {{true, true, true, 0}, 1, 4}, {{true, true, true, 1}, 8, 5}, {{true, true, true, 0}, 4, 3},
    };
    for (const auto& c : cases)
        EXPECT_EQ(DrawStyleCode(c.o, c.style), c.expected) << "case " << &c - cases;
}

TEST(WeightMap, OnlyAnUnreadableOrEmptyMapBecomesFullWeight) {
    // The host's double array as the map rule sees it: length, setLength, element access.
    struct DoubleArray {
        std::vector<double> v;
        unsigned int length() const { return static_cast<unsigned int>(v.size()); }
        void setLength(unsigned int n) { v.resize(n, -7.0); }
        double& operator[](unsigned int i) { return v.at(i); }
    } empty, stale{{0.2, 0.3}}, none, painted{{0.0, 0.5}};
    EXPECT_TRUE(ResolveWeightMap(true, empty, 5));  // read but empty: a node's first evaluation
    EXPECT_EQ(empty.v, std::vector<double>(5, 1.0));
    EXPECT_TRUE(ResolveWeightMap(false, stale, 3));  // unreadable: old contents are not kept
    EXPECT_EQ(stale.v, std::vector<double>(3, 1.0));
    EXPECT_TRUE(ResolveWeightMap(false, none, -2));
    EXPECT_TRUE(none.v.empty());
    EXPECT_FALSE(ResolveWeightMap(true, painted, 4));  // shorter than the mesh: still the painted map
    EXPECT_EQ(painted.v, (std::vector<double>{0.0, 0.5}));
}

TEST(HostMessages, ExactTexts) {
    EXPECT_EQ(ApiErrorText("source/KDeltaMush", 57), "\nAPI error detected in source/KDeltaMush at line 57\n");
    EXPECT_STREQ(kGetAttr3Error, "Error@KGetAttr3(): Failed to get value of the plug.");
    EXPECT_EQ(OneGeometryText("KWrapMeshDeformer", 2),
              "KWrapMeshDeformer: a deformer of this type deforms one geometry; its geometry 2 was left untouched. "
              "Give each mesh a deformer of its own.");
}
