// Line kinds of the waveform file: golden files per group of lines (the field forms are
// tests/format's), and the time-point dictionary through a small reference decoder.
// Writer layer tests; single-threaded.
#include <cctype>
#include <random>

#include "format_test_support.h"
#include "format/vocabulary.h"

namespace Tarvel::Testing {
namespace {

TEST(LineWriterGolden, DeclarationsOfAnUntimedFile) {
    WrittenFile file(false);
    KLineWriter& w = file.Lines();
    w.WriteHeader();
    EXPECT_TRUE(w.WriteResolution(1000000));
    EXPECT_TRUE(w.WriteResolution(1000000));  // same value: succeeds, writes nothing
    EXPECT_FALSE(w.WriteResolution(10));      // another value: fails, writes nothing
    w.WriteTypeLine(1, kStdLogicTypeString);
    w.WriteTypeLine(2, "r#odd \"quote\" \\ here");
    w.WriteBusDeclaration({Format::kModeIn, 1000, 1, true, 8, "top.cpu.alu.result", false, {0, 7}, 0});
    w.WriteSignalDeclaration({Format::kModeSignal, 1001, 1, false, 0, "top.cpu.alu.carry", false, {1, 2}, 0});
    w.WriteSignalDeclaration({Format::kModeOut, 1002, 1, false, 0, "top.cpu.alu.carry", false, {1, 2}, 100});
    w.WriteSignalDeclaration({Format::kModeVariable, 5, 2, false, 0, "top.cpu.regs.r0", false, {0, 0}, 100});
    w.WriteSignalDeclaration({Format::kModeNone, 6, 2, false, 0, "x", true, {0, 0}, 500});
    w.WriteScalarElement(1003, 4);
    const std::int32_t elements[] = {1003, 1004, 1005, 1006, 1010};
    w.WriteElementList(1000, elements, 5);  // the bus declared last: "$SC"
    w.WriteElementEnd(1010, 200);
    w.WriteElementList(7, elements, 2);
    w.ForgetLastBus();
    w.WriteElementList(1000, elements + 3, 2);
    w.WriteChild(1000, 1001, 1002);
    const std::int32_t handles[] = {2, 4, 6, 8, 9};
    w.WriteProperty(0, handles, 5, "Comment", "two words");
    w.WriteProperty(250, handles + 4, 1, "Hidden", "");
    w.WriteSourceFile(1, "C:\\work\\top.vhd");
    w.WriteSourceLine(1, 1, 42);
    EXPECT_TRUE(file.Reporter().messages.empty());
    ExpectGolden("declarations_untimed.txt", file.Finish());
}

TEST(LineWriterGolden, DeclarationsOfATimedFileCarryNoTime) {
    WrittenFile file(true);
    KLineWriter& w = file.Lines();
    w.WriteHeader();
    w.WriteBusDeclaration({Format::kModeVirtualBus, 3, 1, true, 2, "vbus", false, {0, 1}, 700});
    w.WriteSignalDeclaration({Format::kModeInOut, 4, 1, false, 0, "vbus_a", false, {0, 0}, 900});
    EXPECT_TRUE(file.Commit(0));  // time is still the last end time (0): no end-time line
    file.Reporter().stream = nullptr;  // keep the file open through the refusals
    EXPECT_FALSE(w.WriteSignalDeclaration({Format::kModeVirtualBus, 1, 1, false, 0, "a", true, {}, 0}));
    EXPECT_FALSE(w.WriteBusDeclaration({8, 1, 1, false, 0, "a", true, {}, 0}));
    EXPECT_EQ(file.Reporter().messages, (std::vector<std::string>{"Unknown mode -1", "Unknown mode 8"}));
    ExpectGolden("declarations_timed.txt", file.Finish());
}

TEST(LineWriterGolden, EventBlockEndTimeAndTerminator) {
    WrittenFile file(true);
    KLineWriter& w = file.Lines();
    w.WriteHeader();
    const std::int32_t handles[] = {1, 2, 3, 7};
    w.WriteWavesLine(handles, 4);
    w.WriteTimePointLine(0, 0);
    w.WriteTimePointLine(5000, 0);                  // first use: in full
    const TimeStep pattern[] = {{5000, 0}, {5000, 1}};
    w.WriteTimeRun(2, 100, pattern);                // second use of T 5k: taken into slot 0
    w.WriteTimePointLine(5000, 1);                  // taken into slot 1
    w.WriteTimePointLine(5000, 0);                  // known: *0
    w.WriteTimePointLine(1500, 3);
    w.WriteTimePointLine(3000000000, 0);
    w.WriteTimePointLine(3000000000, 0);            // wide table, slot 2
    w.WriteValuesLine();
    w.WriteCountLine(3);
    w.BeginRun(2, 50) && w.PutSpace() && w.PutChar('0') && w.PutSpace() && w.PutString("HIGH") && w.EndLine();
    w.WriteSourcesLine();
    w.WriteSourceItemLine(1);
    const std::int32_t sources[] = {2};
    w.WriteSourceRun(1, 4, sources);
    w.WriteEndLine();
    EXPECT_TRUE(file.Commit(750000));
    ExpectGolden("event_block.txt", file.Finish());
}

// ---- The time-point dictionary through a reference decoder ------------------------------------

// Whitespace-separated tokens; a quoted string is one token, unescaped, marked by a leading '"'.
std::vector<std::string> Tokens(const std::string& text) {
    std::vector<std::string> tokens;
    for (std::size_t at = 0; at < text.size();) {
        if (isspace(static_cast<unsigned char>(text[at]))) {
            ++at;
        } else if (text[at] == '"') {
            tokens.emplace_back("\"");
            for (++at; text[at] != '"'; ++at) tokens.back() += text[at] == '\\' ? text[++at] : text[at];
            ++at;
        } else {
            const std::size_t end = text.find_first_of(" \r\n", at);
            tokens.push_back(text.substr(at, end - at));
            at = end;
        }
    }
    return tokens;
}

class LineWriterRoundTrip : public ::testing::Test {
protected:
    const unsigned m_seed = std::random_device{}();
    std::mt19937_64 m_random{m_seed};
    ::testing::ScopedTrace m_trace{__FILE__, __LINE__, "seed " + std::to_string(m_seed)};
};

TEST_F(LineWriterRoundTrip, TimePointDictionary) {
    std::vector<TimeStep> points;
    for (int i = 0; i < 150000; ++i) {
        const int kind = m_random() % 4;  // frequent points, one-offs, wide steps, odd deltas
        const std::uint64_t step = kind == 0 ? 1000 * (m_random() % 8) : kind == 2 ? m_random() >> 20 : m_random() % 100000;
        points.emplace_back(static_cast<std::int64_t>(step), static_cast<int>(m_random() % (kind == 3 ? 5 : 2)));
    }
    std::istringstream lines(Written([&](KLineWriter& w) {
        for (const TimeStep& point : points) w.WriteTimePointLine(point.first, point.second);
    }));
    std::vector<TimeStep> slots;  // the reader's flat slot array
    for (std::string line; const TimeStep& expected : points) {
        std::getline(lines, line);
        std::vector<std::string> tokens = Tokens(line);
        if (tokens[0][0] == '*') {
            ASSERT_EQ(slots.at(std::stoul(tokens[0].substr(1))), expected);
            continue;
        }
        const bool taken = tokens[0][0] == '=';
        if (taken) {
            ASSERT_EQ(std::stoul(tokens[0].substr(1)), slots.size()) << "slots are given in order";
            tokens.erase(tokens.begin());
        }
        const std::int64_t step = tokens[1].back() == 'k' ? 1000 * std::stoll(tokens[1]) : std::stoll(tokens[1]);
        const TimeStep decoded(step, tokens[0] == "T" ? 0 : std::stoi(tokens[2]));
        ASSERT_EQ(decoded, expected);
        ASSERT_EQ(tokens[0] == "T", expected.second == 0);
        if (taken) slots.push_back(decoded);
    }
    EXPECT_GT(slots.size(), 100u);
    EXPECT_LE(slots.size(), static_cast<std::size_t>(KTimePointDictionary::kSlotLimit));
}

}  // namespace
}  // namespace Tarvel::Testing
