// DiagnoseTarvelFile on hand-broken files: the place (line, column) and the reason of each fault,
// where a read ends, and its agreement with CreateRawTarvelRead. Every prefix of a writer-made
// file is raw_reader_test.cc's, damaged files the reliability campaign's (DamagedFiles). Tests of
// the raw reader layer; single-threaded.
#include <gtest/gtest.h>

#include <string>

#include "format/lexer_test_support.h"
#include "tarvel/diagnostics.h"
#include "tarvel/raw_reader.h"

namespace Tarvel::Testing {
namespace {

constexpr const char* kHead = "$WAVE4TIMED\r\nI 1 \"e#9#std_logicc9 UX01ZWLH-\"\r\nI 2 \"e#5#staten2#4#IDLE#3#RUN\"\r\n"
                              "$IN 1 1 clk\r\n$S 2 2 state\r\n";  // lines 1 to 5
constexpr const char* kBlock = "$WAVES 1\r\nT 0\r\nR 1 3 T 5k\r\n$VALUES\r\n0\r\n1\r\n0\r\n1\r\n$END\r\n";  // lines 6 to 14

// The diagnosis of a file holding `bytes`, checked against the reader's verdict.
TarvelDiagnosis DiagnosisOf(const std::string& bytes) {
    ScratchFolder folder;
    const std::string path = folder.File("f.twf");
    WriteBytes(path, bytes);
    TarvelDiagnosis d;
    const bool readable = DiagnoseTarvelFile(path.c_str(), &d);
    IRawTarvelRead* reader = CreateRawTarvelRead(path.c_str());
    EXPECT_EQ(readable, reader != nullptr) << bytes;
    EXPECT_EQ(readable, d.readable);
    DeleteRawTarvelRead(reader);
    return d;
}

std::string Place(const TarvelDiagnosis& d) {
    return std::to_string(d.line) + ":" + std::to_string(d.column) + ": " + d.reason;
}

TEST(Diagnostics, BrokenFilesNameTheLineColumnAndReasonOfTheirFault) {
    const std::string head = kHead, block = kBlock, end = "$ENDWAVE\r\n";
    const std::string old = "$WAVE\r\nI 1 \"i#7#integer\"\r\nSIGNAL 1 a 1\r\n";
    const struct {
        std::string bytes;
        std::string expected;
    } cases[] = {
        // Keywords, line kinds, headers.
        {head + "$FOO 3\r\n" + end, "6:1: unknown keyword '$FOO'"},
        {head + "$ 3\r\n" + end, "6:2: keyword expected after '$'"},
        {head + "X 1\r\n" + end, "6:1: unknown line 'X'"},
        {head + "\r\n" + end, "6:1: empty line"},
        {head + "$BUS WIRE 7 1 0 b\r\n" + end, "6:6: unknown port mode 'WIRE'"},
        {"", "1:1: the file is empty"},
        {"$WAVE9\r\n", "1:1: unknown header '$WAVE9'"},
        {"$WAVE4 x\r\n", "1:8: unexpected 'x' where the line should end"},
        {"hello\r\n", "1:1: no waveform file: the first line is no $WAVE header"},
        {"$" + std::string(60, 'x') + "\x01\r\n", "1:1: unknown header '$" + std::string(39, 'x') + "...'"},
        {head + "$Q\x01\xff\r\n" + end, "6:1: unknown keyword '$Q\\x01\\xFF'"},
        // Numbers and fields.
        {head + "$RESOLUTION 0\r\n" + end, "6:13: resolution must be above 0"},
        {head + "$RESOLUTION   -1000\r\n" + end, "6:15: resolution must be above 0"},
        {head + "$RESOLUTION 12a\r\n" + end, "6:15: unexpected 'a' where the line should end"},
        {head + "$RESOLUTION\r\n" + end, "6:12: number expected"},
        {head + "$IN 3 x c\r\n" + end, "6:7: number expected"},
        {head + "$WAVES 1\r\nT -x\r\n", "7:4: number expected"},
        {head + "$WAVES 1\r\nR 5 2 T 1\r\n", "7:3: run length must be 1 to 4"},
        {head + "$WAVES 1\r\nR 1 -2 T 1\r\n", "7:5: repeat count must not be negative"},
        {head + "$WAVES 1\r\n*7\r\n", "7:1: time-point slot '*7' is not defined"},
        {head + "$WAVES 1\r\nT 0\r\n$VALUEZ\r\n", "8:1: $VALUES expected, not '$VALUEZ'"},
        {head + "$WAVES 1\r\nT 0\r\n$VALUES\r\n7\r\n", "9:1: std_logic value (one of UX01ZWLH-) expected"},
        {head + "$WAVES 2\r\nT 0\r\n$VALUES\r\nRUNX\r\n$END\r\n" + end, "9:1: 'RUNX' is no literal of the signal's type"},
        {head + "$WAVES 1\r\nT 0\r\n$VALUES\r\n0\r\n$ENDE\r\n", "10:1: $SOURCES or $END expected, not '$ENDE'"},
        {head + "$WAVES 9\r\nT 0\r\n", "6:1: $WAVES lists a signal that is not declared"},
        {head + "$WAVES 1 2 1\r\nT 0\r\n", "6:12: list names more items than allowed here"},
        {head + "$WAVES 1-3/0\r\n", "6:8: range step must be at least 1"},
        {head + "$IN 3 1 40 0 x\r\n" + end, "6:12: compressed name keeps more characters than the previous name has"},
        {head + "I 3 \"q#1#x\"\r\n" + end, "6:5: malformed type string"},
        {head + "$SCBUS 9 1\r\n" + end, "6:1: element list of a bus that is not declared"},
        // Files that end too early.
        {head, "6:1: file ends without $ENDWAVE or a commit mark"},
        {head + block.substr(0, block.size() - 11), "12:2: file ends inside a block"},
        {head + "$IN 3 1 \"my sig", "6:16: file ends inside a quoted string"},
        {head + "$IN 3 1 my_s", "6:13: file ends inside a declaration"},
        {head + "$FO", "6:4: file ends inside a line"},
        // The oldest layout.
        {old + "EVENTZ 1\r\n", "4:1: unknown line 'EVENTZ'"},
        {old + "EVENTS 1\r\n5 0\r\n3 1\r\n", "6:1: time goes back"},
    };
    for (const auto& test : cases) {
        const TarvelDiagnosis d = DiagnosisOf(test.bytes);
        EXPECT_FALSE(d.readable) << test.bytes;
        EXPECT_EQ(Place(d), test.expected) << test.bytes;
    }
}

TEST(Diagnostics, ReadableFilesTellWhereTheirReadEnds) {
    const std::string body = std::string(kHead) + kBlock;
    TarvelDiagnosis d = DiagnosisOf(body + "$ENDWAVE\r\n");
    EXPECT_TRUE(d.readable && d.atTerminator && d.timed);
    EXPECT_EQ(d.version, 4);
    EXPECT_EQ(Place(d), "15:1: ");
    EXPECT_EQ(d.offset, static_cast<int64>(body.size()));
    // A writer that resumed overwrote the terminator's first byte with the commit mark.
    d = DiagnosisOf(body + ":SEF 1 a.vhd\r\n$SEL 1 1 4\r\n$END");
    EXPECT_TRUE(d.readable);
    EXPECT_FALSE(d.atTerminator);
    EXPECT_EQ(Place(d), "15:1: ");
    d = DiagnosisOf("$WAVE2\r\n$ENDWAVE");
    EXPECT_TRUE(d.readable && d.atTerminator && !d.timed);
    EXPECT_EQ(d.version, 2);
    d = DiagnosisOf("$WAVE\r\nSIGNAL 1 a\r\nENDWAVE\r\n");
    EXPECT_TRUE(d.readable && d.atTerminator);
    EXPECT_EQ(d.version, 1);
    EXPECT_EQ(Place(d), "3:1: ");
    // A file that does not open has no place.
    EXPECT_FALSE(DiagnoseTarvelFile("/nonexistent/f.twf", &d));
    EXPECT_EQ(Place(d), "0:0: cannot open the file");
    EXPECT_FALSE(DiagnoseTarvelFile(nullptr, &d));
}

}  // namespace
}  // namespace Tarvel::Testing
