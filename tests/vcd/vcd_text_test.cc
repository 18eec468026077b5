// The VCD vocabulary: time units both ways, references and their ranges, identifier codes, and
// what the rarer kinds of type become in an export (the value characters and the extension of
// short values are the import test's). Tool tests.
#include <gtest/gtest.h>

#include <set>
#include <tuple>

#include "vcd_text.h"

namespace TarvelTool::Vcd {
namespace {

TEST(VcdText, TimescalesReadAsFemtosecondsAndResolutionsWriteExactly) {
    EXPECT_EQ(ParseTimescale(" 1ps "), 1000);
    EXPECT_EQ(ParseTimescale("5 us"), 5000000000);  // not IEEE's 1/10/100, but unambiguous
    for (const char* bad : {"", "ps", "0 ns", "-1 ns", "1 xs", "1.5 ns", "100000 s"}) {
        EXPECT_FALSE(ParseTimescale(bad)) << bad;
    }
    // Every unit IEEE 1364 allows comes back as itself, with multiplier 1.
    for (const char* unit : {"s", "ms", "us", "ns", "ps", "fs"}) {
        for (const char* mantissa : {"1", "10", "100"}) {
            const std::string text = std::string(mantissa) + " " + unit;
            const Timescale written = TimescaleFor(*ParseTimescale(text));
            EXPECT_TRUE(written.text == text && written.multiplier == 1) << text;
        }
    }
    // Other resolutions take the largest unit that divides them and multiply the times.
    for (const auto& [resolution, text, multiplier] :
         {std::tuple<std::int64_t, const char*, int>{5000, "1 ps", 5}, {3, "1 fs", 3}, {2000000, "1 ns", 2}}) {
        EXPECT_EQ(TimescaleFor(resolution).text, text);
        EXPECT_EQ(TimescaleFor(resolution).multiplier, multiplier);
    }
}

TEST(VcdText, ReferencesLoseTheirRangeOnlyWhenItMatchesTheSize) {
    struct Case {
        const char* reference;
        std::uint32_t size;
        const char* name;
        bool hasRange;
        std::int64_t left, right;
    };
    const Case cases[] = {
        {"count [7:0]", 8, "count", true, 7, 0},  {"count[7:0]", 8, "count", true, 7, 0},
        {"v[0:2]", 3, "v", true, 0, 2},           {"data [3]", 1, "data", true, 3, 3},
        {"m [-2:1]", 4, "m", true, -2, 1},        {"x [7:0]", 4, "x [7:0]", false, 3, 0},
        {"clk", 1, "clk", false, 0, 0},           {"bus", 16, "bus", false, 15, 0},
        {"[3]", 1, "[3]", false, 0, 0},           {"a[b]", 1, "a[b]", false, 0, 0},
    };
    for (const Case& c : cases) {
        const Reference ref = SplitReference(c.reference, c.size);
        EXPECT_EQ(ref.name, c.name) << c.reference;
        EXPECT_EQ(ref.hasRange, c.hasRange) << c.reference;
        EXPECT_EQ(ref.range.left, c.left) << c.reference;
        EXPECT_EQ(ref.range.right, c.right) << c.reference;
    }
    EXPECT_EQ(RangeText({7, 0}), " [7:0]");
    EXPECT_EQ(RangeText({3, 3}), " [3]");
    EXPECT_EQ(VectorType({0, 2}), "a#16#std_logic_vector[0t2]e#9#std_logicc9 UX01ZWLH-");
    EXPECT_EQ(VectorType({7, 0}), "a#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-");
}

TEST(VcdText, IdentifierCodesAreDistinctPrintableWords) {
    EXPECT_EQ(IdentifierCode(0), "!");
    EXPECT_EQ(IdentifierCode(93), "~");
    EXPECT_EQ(IdentifierCode(94), "!\"");
    std::set<std::string> seen;
    for (std::uint64_t i = 0; i < 200000; ++i) {
        const std::string code = IdentifierCode(i);
        for (char c : code) ASSERT_TRUE(c >= '!' && c <= '~') << i;
        ASSERT_TRUE(seen.insert(code).second) << i;
    }
}

// The kinds that the export test's design does not hold (it has std_logic, a vector, a state
// type, characters, boolean, integer, real, a physical time, a 64-bit integer and a record).
TEST(VcdText, TheRarerKindsOfTypeBecomeTheirVcdVariables) {
    EXPECT_EQ(ClassifyType(kEventType).keyword, "event");
    EXPECT_EQ(ClassifyType(kEventType).characters, "ux01zwlh-");
    EXPECT_EQ(ClassifyType("e#4#charc2  a").literals, (std::vector<std::string>{"_", "a"}));  // no blanks in a VCD
    EXPECT_EQ(ClassifyType("l#7#longint").keyword, "integer");
    EXPECT_EQ(ClassifyType("l#7#longint").width, 64u);
    EXPECT_EQ(ClassifyType("l#4#time").keyword, "time");
    EXPECT_EQ(ClassifyType("e#3#bitc2 01").keyword, "reg");
    EXPECT_EQ(ClassifyType("f#8#realtime").keyword, "realtime");
    const ExportType ascending = ClassifyType("a#10#bit_vector[0t3]e#3#bitc2 01");
    EXPECT_EQ(ascending.exportClass, ExportClass::kVector);
    EXPECT_EQ(ascending.range.left, 0);
    EXPECT_EQ(ascending.range.right, 3);
    EXPECT_EQ(ascending.characters, "01");
    EXPECT_EQ(ClassifyType("a#3#mat[0t1][3d0]e#3#bitc2 01").exportClass, ExportClass::kGroup);  // 2-D
    EXPECT_EQ(ClassifyType("a#4#ints[0t1]i#7#integer").exportClass, ExportClass::kGroup);
    EXPECT_EQ(ClassifyType("x#3#ptr").exportClass, ExportClass::kNone);
}

}  // namespace
}  // namespace TarvelTool::Vcd
