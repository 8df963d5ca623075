// Per-vertex value files: what reads, what is refused, and exact round trips.

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "ValueFile.h"
#include "Refusal.h"

using namespace Kavrin;

TEST(ValueFile, ReadsOneNumberALineAndWritesItBackExactly) {
    const KArray<double> values = ParseValues("# weights\n0.5\n\n  -1e-3 # tip\r\n+2\n1e-320\n", "w.txt", 4);
    EXPECT_EQ(values, (KArray<double>{0.5, -1e-3, 2.0, 1e-320})) << "a tiny double is kept as it is";
    // The shortest text of FLT_MAX lies a little above it and still rounds to it (found by the
    // fuzzer, whose own range check said otherwise).
    EXPECT_EQ(static_cast<float>(ParseValues("3.4028235e38\n", "w.txt", 1)[0]), FLT_MAX);
    const KArray<double> awkward = {0.1, 1.0 / 3.0, -0.0, FLT_MAX, 4.9e-324};
    const KArray<double> back = ParseValues(FormatValues(awkward), "again.txt", 5);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(std::signbit(back[i]), std::signbit(awkward[i]));
    EXPECT_EQ(back, awkward);
}

TEST(ValueFile, RefusesAnythingButOneFiniteFloatALine) {
    const std::pair<std::string, std::string> cases[] = {
        {"1\nnan\n", "w.txt:2: 'nan' is not a finite number"},
        {"inf\n", "w.txt:1: 'inf' is not a finite number"},
        {"0,5\n", "w.txt:1: '0,5' is not a number (decimals take a point, not a comma)"},
        {"1 2\n", "w.txt:1: expected one number; this line has 2 values"},
        {"1e39\n", "w.txt:1: '1e39' is beyond the range of a float"},
        {"1e999\n", "w.txt:1: '1e999' is beyond the range of a float"},
        {"half\n", "w.txt:1: 'half' is not a number"},
        {"1\n2\n", "w.txt: 2 values for 3 vertices"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(Refusal([&] { ParseValues(text, "w.txt", 3); }), expected);
    const std::string beyond = " is not a finite number within the range of a float; nothing was written";
    EXPECT_EQ(Refusal([] { FormatValues(KArray<double>{1.0, NAN}); }), "value 1" + beyond);
    EXPECT_EQ(Refusal([] { FormatValues(KArray<double>{1e39}); }), "value 0" + beyond);
}
