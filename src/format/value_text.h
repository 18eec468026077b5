// Value text, the items of an event block's value part, writing and reading side by side. A
// value's text follows its type: the std_logic type writes one character of "UX01ZWLH-" ("?" for
// a larger code); otherwise by the type's kind:
//   enumeration  the literal: bare when every literal is a std_logic character, 'c' for a
//                character literal, else as a string (4 value bytes: the literal's position)
//   integer      decimal (4 bytes, signed)
//   float        "NaN", else as printf's "%g" (8 bytes, IEEE double)
//   physical, 64-bit integer: decimal (8 bytes, signed)
// Other kinds (array, record, access, file, unknown) have no value text: their signals write no
// event blocks. Value bytes are little-endian. Format layer; thread-safe as its arguments are.
#ifndef TARVEL_FORMAT_VALUE_TEXT_H
#define TARVEL_FORMAT_VALUE_TEXT_H

#include <cstdint>
#include <string_view>

#include "foundation/little_endian.h"
#include "foundation/memory.h"
#include "format/lexer.h"
#include "format/numbers.h"
#include "format/strings.h"
#include "format/vocabulary.h"
#include "typeinfo/type_service.h"

namespace Tarvel::Format {

// True when values of this kind have a text (and their signals write event blocks).
constexpr bool HasValueText(int kind) noexcept {
    return kind == kTypeEnumeration || kind == kTypeInteger || kind == kTypeFloat || kind == kTypePhysical ||
           kind == kTypeLongInteger;
}
inline bool HasValueText(const TypeHandle& type) { return HasValueText(type.Kind()); }

// ---- Writing ----------------------------------------------------------------------------------

enum class ValueWritten {
    kDone,
    kWriteFailed,  // the sink refused
    kNoLiteral,    // an enumeration value that names no literal
    kNoText,       // a kind without value text
};

// Longest enumeration literal written.
inline constexpr int kLiteralRoom = 512;

// The std_logic value of the 4 bytes at `bytes` (a code 0 to 8, or "?").
template <class Sink>
bool PutStdLogicText(Sink& out, const unsigned char* bytes) {
    return out.Put(StdLogicChar(LittleEndian::Load<std::uint32_t>(bytes)));
}

// The float text: "NaN" or "%g"; at most 40 bytes at `out`. Returns the text.
std::string_view FloatText(const unsigned char* bytes, char (&out)[40]) noexcept;

// The text of an enumeration value (4 bytes at `bytes`: the literal's position).
template <class Sink>
ValueWritten PutEnumerationText(Sink& out, const TypeHandle& type, const unsigned char* bytes) {
    char text[kLiteralRoom];
    if (!type.LiteralText(bytes, text, sizeof text)) return ValueWritten::kNoLiteral;
    bool ok;
    if (type.AllowsStdLogicConversion()) {
        ok = out.Put(text[0]);
    } else if (type.IsCharValue(bytes)) {
        const char quoted[3] = {kCharacterQuote, text[0], kCharacterQuote};
        ok = out.Write(std::string_view(quoted, 3));
    } else {
        ok = PutString(out, text);
    }
    return ok ? ValueWritten::kDone : ValueWritten::kWriteFailed;
}

// The text of the value at `bytes` of `type` (not the std_logic type, see PutStdLogicText).
// Written once per value of a block: the numeric kinds stay small enough to inline.
template <class Sink>
inline ValueWritten PutValueText(Sink& out, const TypeHandle& type, const unsigned char* bytes) {
    bool ok;
    switch (type.Kind()) {
        case kTypeEnumeration: return PutEnumerationText(out, type, bytes);
        case kTypeInteger: ok = PutInteger(out, static_cast<std::int32_t>(LittleEndian::Load<std::uint32_t>(bytes))); break;
        case kTypeFloat: {
            char text[40];
            ok = out.Write(FloatText(bytes, text));
            break;
        }
        case kTypePhysical:
        case kTypeLongInteger: ok = PutWide(out, static_cast<std::int64_t>(LittleEndian::Load<std::uint64_t>(bytes))); break;
        default: return ValueWritten::kNoText;
    }
    return ok ? ValueWritten::kDone : ValueWritten::kWriteFailed;
}

// ---- Reading ----------------------------------------------------------------------------------

// The fault of an enumeration value text that names no literal of the type.
inline constexpr const char* kNotALiteral = "'%s' is no literal of the signal's type";

// One std_logic character at `c` into 4 bytes (its code; "?" reads as 9). False for any other
// character.
bool ReadStdLogicText(KLexer& lexer, int& c, unsigned char* bytes) noexcept;
// The value text at `c` of `type` into `bytes` (8 bytes of room; the type's value size is
// written): a 32-bit integer, a 64-bit integer, a double (the whole token must be a number), or
// an enumeration literal as the type service reads it. False for other kinds and malformed
// text. `scratch` is working space. May throw std::bad_alloc while `scratch` grows.
bool ReadValueText(KLexer& lexer, int& c, const TypeHandle& type, unsigned char* bytes, String& scratch);

}  // namespace Tarvel::Format

#endif  // TARVEL_FORMAT_VALUE_TEXT_H
