// Marker-pair files: what reads, and every malformed line refused with its line and reason.

#include <gtest/gtest.h>

#include "MarkerFile.h"
#include "Refusal.h"

using namespace Kavrin;

TEST(MarkerFile, ReadsPairsInOrderSkippingCommentsAndBlankLines) {
    const KIntArray pairs = ParseMarkers("# source target\r\n12 3\n\n 0\t49  # a paw\n99 3\n+7 0\n", "m.txt", 100, 50);
    EXPECT_EQ(pairs, (KIntArray{12, 3, 0, 49, 99, 3, 7, 0})) << "a target vertex may be marked twice";
    EXPECT_EQ(ParseMarkers(FormatMarkers(pairs), "again.txt", 100, 50), pairs);
}

TEST(MarkerFile, RefusesAnythingButTwoIndicesInsideTheMeshes) {
    const std::pair<std::string, std::string> cases[] = {
        {"1 2\n3 two\n", "m.txt:2: 'two' is not a target vertex index"},
        {"1.5 2\n", "m.txt:1: '1.5' is not a source vertex index"},
        {"1 2 3\n", "m.txt:1: expected a source and a target vertex index"},
        {"# only\n7\n", "m.txt:2: expected a source and a target vertex index"},
        {"1,2\n", "m.txt:1: expected a source and a target vertex index"},
        {"-1 2\n", "m.txt:1: source vertex -1 is outside the source mesh (100 vertices)"},
        {"100 2\n", "m.txt:1: source vertex 100 is outside the source mesh (100 vertices)"},
        {"1 50\n", "m.txt:1: target vertex 50 is outside the target mesh (50 vertices)"},
        {"4294967297 0\n", "m.txt:1: source vertex 4294967297 is outside the source mesh (100 vertices)"},
        {"1 99999999999999999999\n", "m.txt:1: '99999999999999999999' is too large for a target vertex index"},
        {"5 1\n# again\n6 2\n5 3\n", "m.txt:4: source vertex 5 is marked twice, here and on line 1"},
        {"# nothing\n\n", "m.txt: no marker pairs"},
        {"", "m.txt: no marker pairs"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(Refusal([&] { ParseMarkers(text, "m.txt", 100, 50); }), expected) << text;
    const std::pair<KIntArray, std::string> unwritten[] = {
        {{1, 2, 3}, "an odd number of indices is not a list of pairs; nothing was written"},
        {{1, 2, 3, -2}, "pair 1 has a negative index; nothing was written"},
        {{4, 1, 5, 2, 4, 3}, "pairs 0 and 2 mark source vertex 4; nothing was written"}};
    for (const auto& [pairs, expected] : unwritten) EXPECT_EQ(Refusal([&] { FormatMarkers(pairs); }), expected);
}
