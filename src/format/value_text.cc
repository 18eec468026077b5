// Value text: the float form and reading. Format layer; see the header.
#include "format/value_text.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Tarvel::Format {

std::string_view FloatText(const unsigned char* bytes, char (&out)[40]) noexcept {
    const std::uint64_t raw = LittleEndian::Load<std::uint64_t>(bytes);
    double value;
    std::memcpy(&value, &raw, sizeof value);
    if (std::isnan(value)) return kNotANumber;
    // As printf's "%g" in the C locale (six significant digits), which to_chars with a precision
    // is defined to match, at a fraction of its cost.
    const std::to_chars_result r = std::to_chars(out, out + sizeof out, value, std::chars_format::general, 6);
    return std::string_view(out, static_cast<std::size_t>(r.ptr - out));
}

bool ReadStdLogicText(KLexer& lexer, int& c, unsigned char* bytes) noexcept {
    const int code = c == kStdLogicInvalid ? kStdLogicInvalidCode : StdLogicCode(static_cast<char>(c));
    if (code < 0 || c == KLexer::kEnd) return lexer.Fail(c, "std_logic value (one of UX01ZWLH-) expected");
    LittleEndian::Store<std::uint32_t>(bytes, static_cast<std::uint32_t>(code));
    c = lexer.Next();
    return true;
}

bool ReadValueText(KLexer& lexer, int& c, const TypeHandle& type, unsigned char* bytes, String& scratch) {
    switch (type.Kind()) {
        case kTypeInteger: {
            std::int32_t value = 0;
            if (!ReadInteger(lexer, c, value)) return false;
            LittleEndian::Store<std::uint32_t>(bytes, static_cast<std::uint32_t>(value));
            return true;
        }
        case kTypePhysical:
        case kTypeLongInteger: {
            std::int64_t value = 0;
            if (!ReadWide(lexer, c, value)) return false;
            LittleEndian::Store<std::uint64_t>(bytes, static_cast<std::uint64_t>(value));
            return true;
        }
        case kTypeFloat: {
            if (!ReadString(lexer, c, scratch)) return false;
            char* end = nullptr;
            const double value = std::strtod(scratch.c_str(), &end);
            if (end == scratch.c_str() || *end != '\0') return lexer.FailAfterToken(c, "'%s' is no real number");
            std::uint64_t raw;
            std::memcpy(&raw, &value, sizeof raw);
            LittleEndian::Store<std::uint64_t>(bytes, raw);
            return true;
        }
        case kTypeEnumeration:
            if (!ReadString(lexer, c, scratch)) return false;
            return type.TextToValue(scratch.c_str(), bytes, 8) || lexer.FailAfterToken(c, kNotALiteral);
        default: return lexer.Fail(c, "values of a signal whose type has none");
    }
}

}  // namespace Tarvel::Format
