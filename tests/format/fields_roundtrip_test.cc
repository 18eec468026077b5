// Round trips of every field form: random integers, relative integers, event times, strings,
// compressed names and index lists written by the writer's KLineWriter and read back by the
// lexer, with whole-block reads and with reads of 1 to 7 bytes. Seeded; a failure prints its seed,
// and TARVEL_TEST_SEED=<seed> replays it.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "format/index_lists.h"
#include "format/lexer_test_support.h"
#include "format/names.h"
#include "format/numbers.h"
#include "format/strings.h"

namespace Tarvel {
namespace {

// One field per line: a kind letter, then the field. Integers and relatives keep their value in
// `number`, texts and names in `text`, index lists in `list`.
struct Field {
    char kind = 'I';  // I integer, W wide, R relative, E event time, S string, N name, L list
    std::int64_t number = 0;
    std::string text;
    std::vector<std::int32_t> list;
};

struct FieldSource {
    std::mt19937_64 random;
    std::string name;  // the previous name

    std::uint64_t Below(std::uint64_t bound) { return random() % bound; }
    std::int64_t Number(bool wide) {
        std::int64_t value = static_cast<std::int64_t>(random()) >> Below(64);
        switch (Below(4)) {
            case 0: value = Below(2) ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min(); break;
            case 1: value = value / 1000 * 1000; break;  // the "k" form of event times
            default: break;
        }
        return wide ? value : value >> 32;  // a plain integer takes 32 bits, extremes included
    }
    std::string Text(std::uint64_t longest) {
        static const char kAlphabet[] = "ab_Z09 \"\\\n\t=-'.\xE9";
        std::string text(Below(longest + 1), ' ');
        for (char& c : text) c = kAlphabet[Below(sizeof kAlphabet - 1)];
        return text;
    }
    // Shares a front and a back with the previous name, as hierarchical names do.
    std::string Name() {
        const std::size_t front = Below(name.size() + 1);
        const std::size_t back = Below(name.size() - front + 1);
        return name = name.substr(0, front) + Text(4) + name.substr(name.size() - back);
    }
    // Runs of evenly spaced values (rising, falling, repeated) and single values.
    std::vector<std::int32_t> List() {
        std::vector<std::int32_t> list;
        for (std::uint64_t runs = Below(5); runs-- > 0;) {
            const std::int64_t step = static_cast<std::int64_t>(Below(7)) - 3;
            std::int64_t value = Number(false);
            for (std::uint64_t length = 1 + Below(6); length-- > 0 && value == std::int32_t(value); value += step) {
                list.push_back(static_cast<std::int32_t>(value));
            }
        }
        return list;
    }
    Field Next() {
        Field field;
        field.kind = "IWRESNL"[Below(7)];
        switch (field.kind) {
            case 'S': field.text = Text(12); break;
            case 'N': field.text = Name(); break;
            case 'L': field.list = List(); break;
            default: field.number = Number(field.kind == 'W' || field.kind == 'E');
        }
        return field;
    }
};

bool Write(KLineWriter& out, const Field& field) {
    const auto small = static_cast<std::int32_t>(field.number);
    if (!out.PutChar(field.kind) || !out.PutSpace()) return false;
    switch (field.kind) {
        case 'I': return out.PutInteger(small) && out.EndLine();
        case 'R': return out.PutRelative(small) && out.EndLine();
        case 'W': return out.PutWide(field.number) && out.EndLine();
        case 'E': return out.PutEventTime(field.number) && out.EndLine();
        case 'S': return out.PutString(field.text) && out.EndLine();
        case 'N': return out.PutName(field.text) && out.EndLine();
        default: return out.PutIndexList(field.list.data(), field.list.size()) && out.EndLine();
    }
}

// Reads the next line back into the form of a Field; nullopt when the lexer refuses it.
std::optional<Field> Read(KLexer& lexer, String& name, String& scratch) {
    Field field;
    field.kind = static_cast<char>(lexer.Next());
    int c = lexer.Next();
    std::int32_t small = 0;
    String text;
    Vector<std::int32_t> list;
    bool read = false;
    switch (field.kind) {
        case 'I': read = Format::ReadInteger(lexer, c, small) && (field.number = small, true); break;
        case 'R': read = Format::ReadRelative(lexer, c, small) && (field.number = small, true); break;
        case 'W':
        case 'E': read = Format::ReadWide(lexer, c, field.number); break;
        case 'S': read = Format::ReadString(lexer, c, text) && (field.text = text, true); break;
        case 'N': read = Format::ReadName(lexer, c, name, scratch) && (field.text = name, true); break;
        default: read = Format::ReadIndexList(lexer, c, list) && (field.list.assign(list.begin(), list.end()), true);
    }
    if (!read || !lexer.EndOfLine(c)) return std::nullopt;
    return field;
}

void RoundTrip(unsigned seed, std::size_t maxPiece) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", pieces of at most " + std::to_string(maxPiece) + " (0: blocks)");
    Testing::WrittenFile file;
    FieldSource source{std::mt19937_64(seed), {}};
    std::vector<Field> fields;
    for (int count = 0; count < 20000; ++count) {
        fields.push_back(source.Next());
        ASSERT_TRUE(Write(file.Lines(), fields.back()));
    }
    const std::string bytes = file.Finish();
    ASSERT_GT(bytes.size(), 2 * KLexer::kBufferSize);
    std::optional<Testing::ChoppyInput> choppy;
    if (maxPiece != 0) choppy.emplace(seed, maxPiece);
    KLexer lexer;
    ASSERT_TRUE(lexer.Open(file.Path().c_str()));
    String name, scratch;
    for (const Field& expected : fields) {
        const std::optional<Field> field = Read(lexer, name, scratch);
        ASSERT_TRUE(field && field->kind == expected.kind && field->number == expected.number &&
                    field->text == expected.text && field->list == expected.list)
            << "line " << (&expected - fields.data()) << " ends before byte " << lexer.Position();
    }
    EXPECT_EQ(lexer.Next(), KLexer::kEnd);
}

TEST(LexerRoundTrip, WriterFieldsReadBack) {
    std::vector<unsigned> seeds = {1, 2, 3, std::random_device{}()};
    if (const char* replay = std::getenv("TARVEL_TEST_SEED")) seeds = {unsigned(std::strtoul(replay, nullptr, 10))};
    for (unsigned seed : seeds) {
        RoundTrip(seed, 0);
        RoundTrip(seed, 7);
    }
}

}  // namespace
}  // namespace Tarvel
