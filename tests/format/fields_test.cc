// Each field of the file written by its writing routine and read back by its reading routine,
// over the edge values of the field: numbers at the ends of their widths, the "k" and "+" forms,
// strings that must be quoted, names that overlap their predecessor, lists of runs at the ends
// of the 32-bit range, type strings, the value text of every kind, and run records. The sweeps
// read in whole blocks and again in pieces of 1 to 7 bytes, so that every token is cut.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "format/index_lists.h"
#include "format/lexer_test_support.h"
#include "format/names.h"
#include "format/numbers.h"
#include "format/records.h"
#include "format/strings.h"
#include "format/type_strings.h"
#include "format/value_text.h"

namespace Tarvel {
namespace {

using Testing::Lexed;

// A sink that keeps what is written.
struct TextSink {
    std::string text;
    bool Write(std::string_view part) {
        text.append(part);
        return true;
    }
    bool Put(char c) {
        text.push_back(c);
        return true;
    }
};

constexpr std::int32_t kMin32 = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kMax32 = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kMin64 = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax64 = std::numeric_limits<std::int64_t>::max();

// While alive, reads deliver 1 to 7 bytes when `choppy`, else whole blocks.
struct Reads {
    std::optional<Testing::ChoppyInput> pieces;
    explicit Reads(bool choppy) {
        if (choppy) pieces.emplace(7u, 7u);
    }
};

// Writes every item with `put`, one per line, reads them back with `read` and compares.
template <class T, class Put, class Read>
void RoundTrip(const std::vector<T>& items, Put put, Read read) {
    TextSink out;
    for (const T& item : items) ASSERT_TRUE(put(out, item) && out.Write("\r\n"));
    for (const bool choppy : {false, true}) {
        Reads reads(choppy);
        Lexed in(out.text);
        for (const T& item : items) {
            T back{};
            ASSERT_TRUE(read(in, back) && in.lexer.EndOfLine(in.c)) << "reading back the line of " << ::testing::PrintToString(item);
            EXPECT_EQ(back, item);
            in.c = in.lexer.Next();
        }
        EXPECT_EQ(in.c, KLexer::kEnd);
    }
}

TEST(FormatFields, PlainWideAndEventTimeNumbers) {
    RoundTrip<std::int32_t>({kMin32, kMin32 + 1, -1000, -1, 0, 1, 9, 10, 999, 1000, kMax32 - 1, kMax32},
                            [](TextSink& out, std::int32_t v) { return Format::PutInteger(out, v); },
                            [](Lexed& in, std::int32_t& v) { return Format::ReadInteger(in.lexer, in.c, v); });
    const std::vector<std::int64_t> wide = {kMin64, kMin64 / 1000 * 1000, -3000, -1, 0, 1, 999, 1000, 1500,
                                            2147483647, 4294967296000, kMax64 / 1000 * 1000, kMax64};
    RoundTrip<std::int64_t>(wide, [](TextSink& out, std::int64_t v) { return Format::PutWide(out, v); },
                            [](Lexed& in, std::int64_t& v) { return Format::ReadWide(in.lexer, in.c, v); });
    RoundTrip<std::int64_t>(wide, [](TextSink& out, std::int64_t v) { return Format::PutEventTime(out, v); },
                            [](Lexed& in, std::int64_t& v) { return Format::ReadWide(in.lexer, in.c, v); });
    // The event-time form: "k" for non-zero multiples of 1000, the quotient not divided again.
    for (const auto& [time, text] : std::vector<std::pair<std::int64_t, std::string>>{
             {0, "0"}, {1000, "1k"}, {1500, "1500"}, {-3000, "-3k"}, {1000000, "1000k"}, {2147483647, "2147483647"},
             {4294967296000, "4294967296k"}, {kMin64, "-9223372036854775808"}}) {
        EXPECT_EQ(Format::EventTimeText(time).View(), text);
    }
}

TEST(FormatFields, RelativeIntegers) {
    // Written against one previous value, read against the lexer's: the "+" form whenever the
    // difference is shorter, including differences that need 33 bits (never the shorter form).
    const std::vector<std::int32_t> values = {5, 6, 7, 1000, 1001, 998, 1000, 0, -5, -4, kMax32, kMin32, kMax32,
                                              kMax32 - 1, kMin32, kMin32 + 9, 123456789, 123456790, 0, 0};
    TextSink out;
    std::int32_t previous = 0;
    for (std::int32_t v : values) ASSERT_TRUE(Format::PutRelative(out, v, previous) && out.Put(' '));
    EXPECT_EQ(out.text.substr(0, 30), "5 6 7 +993 +1 +-3 +2 0 -5 +1 2");
    for (const bool choppy : {false, true}) {
        Reads reads(choppy);
        Lexed in(out.text);
        for (std::int32_t v : values) {
            std::int32_t back = 0;
            ASSERT_TRUE(Format::ReadRelative(in.lexer, in.c, back));
            EXPECT_EQ(back, v);
        }
    }
}

TEST(FormatFields, Strings) {
    const std::vector<std::string> texts = {"a", "_x1", "Z9_", "", "1x", "-a", "a b", "say \"hi\"", "back\\slash",
                                            "\\\"", "\xE9t\xE9", "two\nlines", "tab\there", "a=b", "'", "''", "\"",
                                            std::string(600, 'q'), std::string("nul\0in", 6)};
    RoundTrip<std::string>(texts, [](TextSink& out, const std::string& t) { return Format::PutString(out, t); },
                           [](Lexed& in, std::string& t) {
                               String text;
                               return Format::ReadString(in.lexer, in.c, text) && (t.assign(text), true);
                           });
    for (const auto& [text, form] : std::vector<std::pair<std::string, std::string>>{
             {"abc", "abc"}, {"", "\"\""}, {"1x", "\"1x\""}, {"a\"b\\c", "\"a\\\"b\\\\c\""}}) {
        TextSink out;
        ASSERT_TRUE(Format::PutString(out, text));
        EXPECT_EQ(out.text, form);
    }
}

TEST(FormatFields, CompressedNames) {
    // Each name against the one before: shared fronts and backs, overlaps, equal names, names
    // that must be quoted, and the empty name.
    const std::vector<std::string> names = {"top.cpu.alu.result", "top.cpu.alu.carry", "top.cpu.alu.carry", "ab", "ab",
                                            "aXa", "aa", "aaa", "a", "", "x", "top.u1.s", "top.u12.s", "top.u12.s ",
                                            "\"q\" top.u12.s", std::string(300, 'n') + "end", std::string(300, 'n')};
    TextSink out;
    String previous;
    for (const std::string& name : names) ASSERT_TRUE(Format::PutName(out, name, previous) && out.Write("\r\n"));
    EXPECT_EQ(out.text.substr(0, out.text.find("\r\n", 24) + 2), "\"top.cpu.alu.result\"\r\n12 0 carry\r\n");
    for (const bool choppy : {false, true}) {
        Reads reads(choppy);
        Lexed in(out.text);
        String name, scratch;
        for (const std::string& expected : names) {
            ASSERT_TRUE(Format::ReadName(in.lexer, in.c, name, scratch) && in.lexer.EndOfLine(in.c)) << expected;
            EXPECT_EQ(std::string(name), expected);
            in.c = in.lexer.Next();
        }
    }
}

TEST(FormatFields, IndexLists) {
    const std::vector<std::vector<std::int32_t>> lists = {
        {}, {5}, {1, 2}, {1, 2, 3}, {3, 2, 1}, {1, 3, 5, 7}, {9, 7, 5, 3, 3, 3, 4, 5}, {5, 5, 5},
        {kMax32 - 2, kMax32 - 1, kMax32}, {kMin32 + 2, kMin32 + 1, kMin32}, {kMin32, 0, kMax32}, {kMin32, kMax32, kMin32},
        {0, 1000000000, 2000000000}, {1000, 1001, 1002, 1003, 9, 7, 5, 3, 3, 3, 4, 5}};
    TextSink out;
    std::int32_t previous = 0;
    for (const auto& list : lists) {
        ASSERT_EQ(Format::PutIndexList(out, list.data(), list.size(), previous), Format::ListWritten::kDone);
        out.Write(";\r\n");
    }
    EXPECT_NE(out.text.find(" 1000-+3 9-3/2 3 3-5;"), std::string::npos) << out.text;
    for (const bool choppy : {false, true}) {
        Reads reads(choppy);
        Lexed in(out.text);
        for (const auto& list : lists) {
            Vector<std::int32_t> back;
            ASSERT_TRUE(Format::ReadIndexList(in.lexer, in.c, back) && in.c == ';');
            EXPECT_EQ(std::vector<std::int32_t>(back.begin(), back.end()), list);
            in.c = in.lexer.Next();
            ASSERT_TRUE(in.lexer.EndOfLine(in.c));
            in.c = in.lexer.Next();
        }
    }
    // A list longer than its limit fails before a range is expanded.
    Lexed limited("0-9 1\n");
    Vector<std::int32_t> back;
    EXPECT_FALSE(Format::ReadIndexList(limited.lexer, limited.c, back, 10));
}

TEST(FormatFields, TypeStrings) {
    const std::vector<std::string> types = {kStdLogicTypeString, kStdLogicSubtypeString, "i#7#integer", "f#4#real",
                                            "r#6#packet2#4#addri#7#integer#4#datae#4#fourc4 01XZ",
                                            "a#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-"};
    RoundTrip<std::string>(types, [](TextSink& out, const std::string& t) { return Format::PutTypeString(out, t); },
                           [](Lexed& in, std::string& t) {
                               String text;
                               return Format::ReadTypeString(in.lexer, in.c, text) && (t.assign(text), true);
                           });
    Lexed bad("\"x#1\"\n");
    String text;
    EXPECT_FALSE(Format::ReadTypeString(bad.lexer, bad.c, text));
}

// The value of `bytes` of `type` written and read back, as 8 bytes.
std::uint64_t ValueRoundTrip(const TypeHandle& type, std::uint64_t value, std::string* text) {
    unsigned char bytes[8];
    std::memcpy(bytes, &value, 8);
    TextSink out;
    EXPECT_EQ(Format::PutValueText(out, type, bytes), Format::ValueWritten::kDone);
    *text = out.text;
    Lexed in(out.text + "\n");
    unsigned char back[8] = {};
    String scratch;
    EXPECT_TRUE(Format::ReadValueText(in.lexer, in.c, type, back, scratch) && in.lexer.EndOfLine(in.c)) << out.text;
    std::uint64_t result;
    std::memcpy(&result, back, 8);
    return type.ValueSize() == 4 ? result & 0xFFFFFFFFu : result;
}

TEST(FormatFields, ValueTextOfEveryKind) {
    std::string text;
    // std_logic: nine characters, "?" for larger codes, which reads back as 9.
    for (std::uint32_t code = 0; code <= 10; ++code) {
        TextSink out;
        unsigned char bytes[4];
        std::memcpy(bytes, &code, 4);
        ASSERT_TRUE(Format::PutStdLogicText(out, bytes));
        Lexed in(out.text);
        unsigned char back[4] = {};
        ASSERT_TRUE(Format::ReadStdLogicText(in.lexer, in.c, back));
        std::uint32_t read;
        std::memcpy(&read, back, 4);
        EXPECT_EQ(read, code < 9 ? code : 9u);
        EXPECT_EQ(out.text, std::string(1, code < 9 ? "UX01ZWLH-"[code] : '?'));
    }
    // Enumerations: a std_logic-like literal bare, a character literal quoted, an identifier.
    const TypeHandle fourState("e#4#fourc4 01XZ"), states("e#5#staten3#4#IDLE#4#LOAD#3#RUN"), chars("e#4#charc2 ab");
    EXPECT_EQ(ValueRoundTrip(fourState, 3, &text), 3u);
    EXPECT_EQ(text, "Z");
    EXPECT_EQ(ValueRoundTrip(states, 2, &text), 2u);
    EXPECT_EQ(text, "RUN");
    EXPECT_EQ(ValueRoundTrip(chars, 1, &text), 1u);
    EXPECT_EQ(text, "'b'");
    unsigned char beyond[4] = {7, 0, 0, 0};
    TextSink out;
    EXPECT_EQ(Format::PutValueText(out, states, beyond), Format::ValueWritten::kNoLiteral);
    // Integers at the ends of 32 and 64 bits.
    const TypeHandle integer("i#7#integer"), big("l#6#bigint"), time("p#4#time#2#fs");
    for (std::int32_t v : {kMin32, -1, 0, kMax32}) EXPECT_EQ(ValueRoundTrip(integer, static_cast<std::uint32_t>(v), &text), static_cast<std::uint32_t>(v));
    for (std::int64_t v : {kMin64, std::int64_t{-1}, std::int64_t{0}, kMax64}) {
        EXPECT_EQ(ValueRoundTrip(big, static_cast<std::uint64_t>(v), &text), static_cast<std::uint64_t>(v));
        EXPECT_EQ(ValueRoundTrip(time, static_cast<std::uint64_t>(v), &text), static_cast<std::uint64_t>(v));
    }
    // Reals as "%g": what reads back is the printed value; NaN and the infinities stay what they are.
    const TypeHandle real("f#4#real");
    std::vector<double> reals = {0.5, -1.25, 1e20, -0.0, 1e-310, 0.1, 1.0 / 3, HUGE_VAL, -HUGE_VAL, std::nan(""), 999999.5, 0.0001, 1e-5};
    std::uint64_t seed = 12345;  // and random bit patterns: every exponent, subnormals, odd mantissas
    for (int i = 0; i < 20000; ++i) {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        double d;
        std::memcpy(&d, &seed, 8);
        reals.push_back(d);
        // The magnitudes simulations use most (1e-6 to 1e21), where the writer rounds by itself.
        const std::uint64_t near = (seed & 0x800FFFFFFFFFFFFFull) | (std::uint64_t{1003 + (seed >> 52) % 92} << 52);
        std::memcpy(&d, &near, 8);
        reals.push_back(d);
    }
    // Exact halves at the sixth digit (to even), and the edges of the powers of ten.
    for (double d : {123456.5, 123457.5, 12345.25, 12345.75, 999999.5, 999998.5, 0.5, 2.5, 1e-5, 1e20, 9.999995e5, 9.999995e-5, 99999.95, 1e15 + 0.5}) {
        reals.push_back(d);
        reals.push_back(-d);
        reals.push_back(std::nextafter(d, 0.0));
        reals.push_back(std::nextafter(d, HUGE_VAL));
    }
    for (double d : reals) {
        std::uint64_t bits;
        std::memcpy(&bits, &d, 8);
        const std::uint64_t back = ValueRoundTrip(real, bits, &text);
        double value;
        std::memcpy(&value, &back, 8);
        if (std::isnan(d)) {
            EXPECT_TRUE(std::isnan(value));
            EXPECT_EQ(text, "NaN");
        } else {
            char printed[40];
            std::snprintf(printed, sizeof printed, "%g", d);
            EXPECT_EQ(text, printed);
            EXPECT_EQ(value, std::strtod(printed, nullptr)) << printed;
            EXPECT_EQ(std::signbit(value), std::signbit(d)) << printed;
        }
    }
    // Kinds without value text.
    const TypeHandle array("a#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-");
    EXPECT_FALSE(Format::HasValueText(array));
    EXPECT_EQ(Format::PutValueText(out, array, beyond), Format::ValueWritten::kNoText);
    EXPECT_TRUE(Format::HasValueText(real) && Format::HasValueText(states) && Format::HasValueText(big));
}

TEST(FormatFields, RunAndCountRecords) {
    TextSink out;
    for (int length = 1; length <= Format::kMaxRunLength; ++length) {
        for (std::int64_t count : {std::int64_t{0}, std::int64_t{2}, kMax64}) {
            ASSERT_TRUE(Format::PutRunHeader(out, length, count) && out.Write("\r\n"));
        }
    }
    ASSERT_TRUE(Format::PutCountRecord(out, kMax32) && out.Write("\r\n"));
    Lexed in(out.text);
    for (int length = 1; length <= Format::kMaxRunLength; ++length) {
        for (std::int64_t count : {std::int64_t{0}, std::int64_t{2}, kMax64}) {
            ASSERT_EQ(in.c, Format::kRunLead);
            in.c = in.lexer.Next();
            int l = 0;
            std::int64_t n = -1;
            ASSERT_TRUE(Format::ReadRunHeader(in.lexer, in.c, l, n) && in.lexer.EndOfLine(in.c));
            EXPECT_EQ(l, length);
            EXPECT_EQ(n, count);
            in.c = in.lexer.Next();
        }
    }
    in.c = in.lexer.Next();
    std::int32_t counted = 0;
    EXPECT_TRUE(Format::ReadCountRecord(in.lexer, in.c, counted) && counted == kMax32);
    // Lengths outside 1 to 4 and negative counts are refused.
    for (const char* bad : {" 0 5", " 5 5", " 1 -1", " -1 5", " 1 18446744073709551615"}) {
        Lexed record(bad);
        int l = 0;
        std::int64_t n = 0;
        EXPECT_FALSE(Format::ReadRunHeader(record.lexer, record.c, l, n)) << bad;
    }
}

}  // namespace
}  // namespace Tarvel
