// Number fields: writing and reading. Format layer; see the header.
#include "format/numbers.h"

#include <charconv>

namespace Tarvel::Format {
namespace {

// Accumulates the digits starting at `c` (a digit) as value * 10 + digit in the width of
// Unsigned, wrapping around; leaves `c` on the first non-digit.
template <class Unsigned>
inline Unsigned ReadDigits(KLexer& lexer, int& c) noexcept {
    Unsigned value = 0;
    int current = c;  // a local copy, so that the loop keeps it in a register
    do {
        value = static_cast<Unsigned>(value * 10u + static_cast<unsigned>(current - '0'));
        current = lexer.Next();
    } while (KLexer::IsDigit(current));
    c = current;
    return value;
}

// "-"? digits, modulo 2^32; no blanks skipped.
inline bool ReadSignedDigits(KLexer& lexer, int& c, std::int32_t& value) noexcept {
    const bool negative = c == '-';
    if (negative) c = lexer.Next();
    if (!KLexer::IsDigit(c)) return lexer.Fail(c, KLexer::kNumberExpected);
    const std::uint32_t magnitude = ReadDigits<std::uint32_t>(lexer, c);
    value = static_cast<std::int32_t>(negative ? 0u - magnitude : magnitude);
    return true;
}

}  // namespace

// ---- Writing ----------------------------------------------------------------------------------

NumberText DecimalText(std::int64_t value) noexcept {
    NumberText out;
    out.length = static_cast<std::size_t>(std::to_chars(out.text, out.text + kNumberRoom, value).ptr - out.text);
    return out;
}

NumberText DecimalText(std::int32_t value) noexcept {
    NumberText out;
    out.length = static_cast<std::size_t>(std::to_chars(out.text, out.text + kNumberRoom, value).ptr - out.text);
    return out;
}

char* PutEventTimeText(std::int64_t time, char* out, char* limit) noexcept {
    if (time == 0 || time % kThousand != 0) return std::to_chars(out, limit, time).ptr;
    char* end = std::to_chars(out, limit - 1, time / kThousand).ptr;  // room for the suffix
    *end++ = kThousandsSuffix;
    return end;
}

NumberText EventTimeText(std::int64_t time) noexcept {
    NumberText out;
    out.length = static_cast<std::size_t>(PutEventTimeText(time, out.text, out.text + kNumberRoom) - out.text);
    return out;
}

NumberText RelativeText(std::int32_t value, std::int32_t& previous) noexcept {
    NumberText full = DecimalText(value);
    const NumberText difference = DecimalText(std::int64_t{value} - previous);
    previous = value;
    if (full.length <= difference.length) return full;
    full.text[0] = kRelativePrefix;
    for (std::size_t i = 0; i < difference.length; ++i) full.text[i + 1] = difference.text[i];
    full.length = difference.length + 1;
    return full;
}

// ---- Reading ----------------------------------------------------------------------------------

bool ReadInteger(KLexer& lexer, int& c, std::int32_t& value) noexcept {
    if (!lexer.SkipBlanks(c)) return lexer.Fail(c, KLexer::kNumberExpected);
    return ReadSignedDigits(lexer, c, value);
}

bool ReadRelative(KLexer& lexer, int& c, std::int32_t& value) noexcept {
    if (!lexer.SkipBlanks(c)) return lexer.Fail(c, KLexer::kNumberExpected);
    const bool difference = c == kRelativePrefix;
    if (difference) c = lexer.Next();
    std::int32_t number = 0;
    if (!ReadSignedDigits(lexer, c, number)) return false;
    if (difference) {
        number = static_cast<std::int32_t>(static_cast<std::uint32_t>(lexer.LastRelative()) + static_cast<std::uint32_t>(number));
    }
    lexer.SetLastRelative(number);
    value = number;
    return true;
}

bool ReadWide(KLexer& lexer, int& c, std::int64_t& value) noexcept {
    if (!lexer.SkipBlanks(c)) return lexer.Fail(c, KLexer::kNumberExpected);
    const bool negative = c == '-';
    if (negative) c = lexer.Next();
    if (!KLexer::IsDigit(c)) return lexer.Fail(c, KLexer::kNumberExpected);
    std::uint64_t magnitude = ReadDigits<std::uint64_t>(lexer, c);
    if (c == kThousandsSuffix) {
        magnitude *= static_cast<std::uint64_t>(kThousand);
        c = lexer.Next();
    }
    value = static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude);
    return true;
}

}  // namespace Tarvel::Format
