// Tests of the raw reader's lexer: number, string, name and index-list forms with their failure
// cases, line ends, tokens across the 64 KiB block boundary, saved positions and growing files.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "format/index_lists.h"
#include "format/lexer_test_support.h"
#include "format/names.h"
#include "format/numbers.h"
#include "format/strings.h"

namespace Tarvel {
namespace {

using Testing::Lexed;

std::string Left(int c) { return c == KLexer::kEnd ? "END" : c == '\n' ? "LF" : std::string(1, char(c)); }

// Reads `text` with `read` (which appends a token's text or fails) until it fails; gives the
// tokens, then "|" and the character the failure left.
template <class Read>
std::string Scan(const std::string& text, Read read) {
    Lexed in(text);
    std::string out;
    while (read(in, out)) out += ' ';
    return out + "|" + Left(in.c);
}
// A Scan reader for each number form.
template <class T, bool (*Read)(KLexer&, int&, T&) noexcept>
bool Number(Lexed& in, std::string& out) {
    T value = 0;
    return Read(in.lexer, in.c, value) && (out += std::to_string(value), true);
}
constexpr auto kWide = Number<std::int64_t, &Format::ReadWide>;
constexpr auto kInteger = Number<std::int32_t, &Format::ReadInteger>;
constexpr auto kRelative = Number<std::int32_t, &Format::ReadRelative>;
const auto kString = [](Lexed& in, std::string& out) {
    String text;
    return Format::ReadString(in.lexer, in.c, text) && (out += "[" + std::string(text) + "]", true);
};
const auto kName = [](Lexed& in, std::string& out) {
    return Format::ReadName(in.lexer, in.c, in.name, in.scratch) && (out += std::string(in.name), true);
};
const auto kList = [](Lexed& in, std::string& out) {
    Vector<std::int32_t> list;
    if (!Format::ReadIndexList(in.lexer, in.c, list) || in.c == KLexer::kEnd) return false;
    for (std::int32_t value : list) out += std::to_string(value) + ",";
    in.c = in.lexer.Next();  // past what ended the list
    return true;
};

TEST(Lexer, NumbersWrapAroundInTheirWidth) {
    EXPECT_EQ(Scan("12k -3k 0 -9223372036854775808 9223372036854775k;", kWide),
              "12000 -3000 0 -9223372036854775808 9223372036854775000 |;");
    // value * 10 + digit in 64 bits, the "k" and the sign too: every digit string reads.
    EXPECT_EQ(Scan("9223372036854775808 9223372036854776k 18446744073709551617 -99999999999999999999", kWide),
              "-9223372036854775808 -9223372036854775616 1 -7766279631452241919 |END");
    // ... and in 32 bits for plain and relative integers.
    EXPECT_EQ(Scan("2147483647 -2147483648 2147483648 4294967297 -4294967295 99999999999", kInteger),
              "2147483647 -2147483648 -2147483648 1 1 1215752191 |END");
    EXPECT_EQ(Scan("12\n34", kInteger), "12 |LF");  // no number is joined across a line feed
    EXPECT_EQ(Scan("-\n5", kInteger), "|LF");
    EXPECT_EQ(Scan("- 5", kInteger), "| ");
    // "+" adds to the last relative number (modulo 2^32); a sign needs its digits right after it.
    EXPECT_EQ(Scan("10 +2 +2 +-3 2147483647 +1 +4294967296 + 5", kRelative), "10 12 14 11 2147483647 -2147483648 -2147483648 | ");
    // A wrapped range end still expands within the list's limit: 0 to 4294967297 is 0 to 1.
    EXPECT_EQ(Scan("0-4294967297;", kList), "0,1, |END");
}

TEST(Lexer, IndexListsRangesAndSteps) {
    // Lists end at anything that cannot start a number; an empty line is an empty list.
    EXPECT_EQ(Scan("5-1/2;1-5/2;1-6/2;4 4-4;\n", kList), "5,3,1, 1,3,5, 1,3,5, 4,4,  |END");
    // The writer's example; a "-" after a blank is a sign; range ends are relative numbers.
    EXPECT_EQ(Scan(" 1000-+3 9-3/2 3 3-5;1 -5 +2;7-2 +1;", kList),
              "1000,1001,1002,1003,9,7,5,3,3,3,4,5, 1,-5,-3, 7,6,5,4,3,2,3, |END");
    EXPECT_EQ(Scan("2147483646-2147483647 -2147483647--2147483648;", kList),
              "2147483646,2147483647,-2147483647,-2147483648, |END");
    for (const char* bad : {"1-5/0", "1-5/-1", "1-", "1-5/", "1 +x"}) EXPECT_EQ(Scan(bad, kList).front(), '|') << bad;
}

TEST(Lexer, StringsAndNames) {
    EXPECT_EQ(Scan(R"( "say \"hi\"" "back\\slash" "" 'x' "a
b" abc=)", kString), "[say \"hi\"] [back\\slash] [] ['x'] [a\nb] [abc] |=");
    for (const char* bad : {"\"open", "\"open\\", "'ab'", "'"}) EXPECT_EQ(Scan(bad, kString).front(), '|') << bad;
    // Keep-front, keep-back, middle; the two kept parts may overlap; more than the name fails.
    EXPECT_EQ(Scan(R"(top.cpu.alu.res 12 0 carry 17 0 "" 4 4 x 3 0 "" 2 2 "-" 6 0 x)", kName),
              "top.cpu.alu.res top.cpu.alu.carry top.cpu.alu.carry top.xarry top to-op | ");
    Lexed word("WAVE4TIMED \r\n");
    String text;
    EXPECT_TRUE(word.lexer.ReadWord(word.c, text) && text == "WAVE4TIMED");
    EXPECT_FALSE(word.lexer.ReadWord(word.c, text));  // no blanks are skipped before a word
}

TEST(Lexer, LineEndsStopOnTheLineFeed) {
    Lexed in(" \t\r\nb\n \f\v x");
    EXPECT_TRUE(in.lexer.EndOfLine(in.c) && in.c == '\n');  // CR LF; nothing after the LF is read
    EXPECT_EQ(in.lexer.Next(), 'b');
    in.c = in.lexer.Next();
    EXPECT_TRUE(in.lexer.EndOfLine(in.c));  // bare LF
    in.c = in.lexer.Next();
    EXPECT_TRUE(in.lexer.Expect(in.c, 'x') && in.c == 'x');  // found, not consumed
    EXPECT_FALSE(in.lexer.EndOfLine(in.c));
    in.c = in.lexer.Next();
    EXPECT_FALSE(in.lexer.EndOfLine(in.c));      // the end of the file is no line end...
    EXPECT_TRUE(in.lexer.EndOfLineOrFile(in.c));  // ...except for the last line
    Lexed crossing("\n=");
    EXPECT_FALSE(crossing.lexer.Expect(crossing.c, '='));  // Expect does not cross a line feed
}

// SkipLine passes over anything up to the line feed, in reads of any size, and stops on it.
TEST(Lexer, SkipLinePassesOverTheRestOfTheLine) {
    for (unsigned seed = 0; seed < 20; ++seed) {
        Testing::ChoppyInput choppy(seed, 1 + seed % 5);
        Lexed in("a \"x\n\nbc\rdef\n\nlast");
        std::string starts;  // the first character of each line
        do {
            starts += static_cast<char>(in.c);
        } while (in.lexer.SkipLine(in.c) && in.lexer.SkipLine(in.c) && (in.c = in.lexer.Next()) != KLexer::kEnd);
        EXPECT_EQ(starts, "a\nb\nl") << seed;
        EXPECT_EQ(in.c, KLexer::kEnd);
    }
}

TEST(Lexer, TokensAcrossTheBlockBoundary) {
    const std::string tokens = "-1234567k \"q\\\"uoted\" 'c' bare=";
    for (std::size_t cut = 0; cut <= tokens.size(); ++cut) {
        const std::string padding(KLexer::kBufferSize - cut, ' ');
        EXPECT_EQ(Scan(padding + tokens, kWide), "-1234567000 |\"") << cut;
        EXPECT_EQ(Scan(padding + tokens.substr(10), kString), "[q\"uoted] ['c'] [bare] |=") << cut;
        EXPECT_EQ(Scan(padding + "10-+4/2 7;", kList), "10,12,14,7, |END") << cut;
    }
}

TEST(Lexer, SavedPositionCountsOnlyConsumedBytesAndSurvivesAFailedSeek) {
    std::string bytes;
    for (int at = 0; bytes.size() < 2 * KLexer::kBufferSize; ++at) bytes += char('a' + at % 26);
    Lexed in(bytes);
    while (in.lexer.Position() < 200) in.lexer.Next();
    in.lexer.SavePosition();  // a whole block was read: its unread rest does not count
    EXPECT_EQ(in.lexer.SavedPosition(), 200);
    while (in.lexer.Position() < std::int64_t(KLexer::kBufferSize) + 50) in.lexer.Next();
    EXPECT_TRUE(in.lexer.RestorePosition() && !in.lexer.HasSavedPosition());
    EXPECT_EQ(in.lexer.Next(), bytes[200]);
    EXPECT_TRUE(in.lexer.RestorePosition());  // nothing saved: succeeds and stays
    EXPECT_EQ(in.lexer.Next(), bytes[201]);
    in.lexer.SavePosition();
    {
        Testing::ChoppyInput failing(1, 7, /*failSeeks=*/true);
        EXPECT_FALSE(in.lexer.RestorePosition());
        EXPECT_TRUE(in.lexer.HasSavedPosition());  // kept for another attempt
    }
    EXPECT_TRUE(in.lexer.RestorePosition());
    EXPECT_EQ(in.lexer.Next(), bytes[202]);
}

// A reader stops at a commit mark, remembers that line and reads on there once the file has grown.
TEST(Lexer, RestoreReadsWhatAGrowingFileAppended) {
    Lexed in("I 1 x\r\n:ENDWAVE\r\n");
    String word;
    std::int32_t type = 0;
    ASSERT_TRUE(in.lexer.ReadWord(in.c, word) && Format::ReadInteger(in.lexer, in.c, type) &&
                Format::ReadString(in.lexer, in.c, word) && in.lexer.EndOfLine(in.c));
    in.lexer.SavePosition();
    EXPECT_EQ(in.lexer.SavedPosition(), 7);
    EXPECT_EQ(in.lexer.Next(), ':');
    while (in.lexer.Next() != KLexer::kEnd) {
    }
    Testing::WriteBytes(in.path, "I 1 x\r\n$SEF 1 a\r\n$ENDWAVE\r\n");
    ASSERT_TRUE(in.lexer.RestorePosition());
    EXPECT_EQ(in.lexer.Next(), '$');
    in.c = in.lexer.Next();
    EXPECT_TRUE(in.lexer.ReadWord(in.c, word) && word == "SEF");
}

}  // namespace
}  // namespace Tarvel
