// Types as the clients of the public interface (the tool's tree and the Python module's type
// descriptions) spell them for people: "std_logic", "state (IDLE, LOAD, RUN)",
// "word(7 downto 0) of std_logic", "packet: record (addr: integer; valid: boolean)". Header only.
#ifndef TARVEL_TOOLS_COMMON_TYPE_TEXT_H
#define TARVEL_TOOLS_COMMON_TYPE_TEXT_H

#include <cstdint>
#include <string>

#include "sorvat/typeinfo.h"

namespace Tarvel::Client {

// Literals (and record fields) a type's text lists before it says how many more there are.
inline constexpr int kLiteralsShown = 12;

inline bool IsStdLogic(const Sorvat::KTypeInfo& type) {
    const std::string text = type.GetTypeInfoString();
    return text == "e#9#std_logicc9 UX01ZWLH-" || text == "c#9#std_logicc9 UX01ZWLH-";
}

// An enumeration literal as a value is shown: an identifier as it is, a character between single
// quotes unless the type's literals are all logic characters (bit, std_ulogic: '0' shows as 0);
// "?code" for a code beyond the literals.
inline std::string LiteralText(const Sorvat::KTypeInfo& type, std::uint32_t code) {
    const unsigned char bytes[4] = {static_cast<unsigned char>(code), static_cast<unsigned char>(code >> 8),
                                    static_cast<unsigned char>(code >> 16), static_cast<unsigned char>(code >> 24)};
    char text[128];
    std::string out;
    if (!type.GetValueString_OldFormatLen(text, sizeof text, bytes, 0, 0)) return out.append("?").append(std::to_string(code));
    const bool quoted = !type.IsStdLogicConversionAllowed() && type.IsCharValue(bytes);
    if (quoted) out.push_back('\'');
    out.append(text);
    if (quoted) out.push_back('\'');
    return out;
}

inline std::string TypeText(const Sorvat::KTypeInfo& type);

namespace TypeTextDetail {

// "name (kind)", or just one of them when the other is empty or says the same.
inline std::string Named(const Sorvat::KTypeInfo& type, const char* kind) {
    const std::string name = type.GetTypeName();
    if (name.empty() || name == kind) return kind;
    return name + " (" + kind + ")";
}

inline std::string EnumerationText(const Sorvat::KTypeInfo& type) {
    if (IsStdLogic(type)) return "std_logic";
    std::string text = std::string(type.GetTypeName()) + " (";
    const int literals = type.GetNbOfLiterals();
    for (int i = 0; i < literals && i < kLiteralsShown; ++i) {
        if (i) text += ", ";
        text += LiteralText(type, static_cast<std::uint32_t>(i));
    }
    if (literals > kLiteralsShown) text += ", ... " + std::to_string(literals - kLiteralsShown) + " more";
    return text + ")";
}

inline std::string ArrayText(const Sorvat::KTypeInfo& type) {
    Sorvat::KRange ranges[8];
    const int dimensions = type.GetArrayDimensionRanges(ranges, 8);
    std::string text = std::string(type.GetTypeName()) + "(";
    for (int i = 0; i < dimensions && i < 8; ++i) {
        if (i) text += ", ";
        text += std::to_string(ranges[i].left);
        text += ranges[i].direction == Sorvat::KDirection::kDownto ? " downto " : " to ";
        text += std::to_string(ranges[i].right);
    }
    if (dimensions > 8) text += ", ...";
    return text + ") of " + TypeText(type.GetElementType());
}

// A field's type inside a record's text: its name, or its whole text when it has none.
inline std::string FieldTypeText(const Sorvat::KTypeInfo& type) {
    if (IsStdLogic(type)) return "std_logic";
    if (*type.GetTypeName() != '\0') return type.GetTypeName();
    return TypeText(type);
}

inline std::string RecordText(const Sorvat::KTypeInfo& type) {
    std::string text = std::string(type.GetTypeName()) + ": record (";
    const int fields = type.GetNbOfFields();
    for (int i = 0; i < fields && i < kLiteralsShown; ++i) {
        if (i) text += "; ";
        text += type.GetFieldName(i);
        text += ": ";
        text += FieldTypeText(type.GetFieldType(i));
    }
    if (fields > kLiteralsShown) text += "; ... " + std::to_string(fields - kLiteralsShown) + " more";
    return text + ")";
}

}  // namespace TypeTextDetail

inline std::string TypeText(const Sorvat::KTypeInfo& type) {
    using namespace TypeTextDetail;
    switch (type.GetKind()) {
        case Sorvat::kKindEnumeration: return EnumerationText(type);
        case Sorvat::kKindInteger: return Named(type, "integer");
        case Sorvat::kKindFloat: return Named(type, "real");
        case Sorvat::kKindPhysical: return Named(type, "physical");
        case Sorvat::kKindLongInteger: return Named(type, "64-bit integer");
        case Sorvat::kKindArray: return ArrayText(type);
        case Sorvat::kKindRecord: return RecordText(type);
        case Sorvat::kKindAccess: return Named(type, "access");
        case Sorvat::kKindFile: return Named(type, "file");
        default: return type.IsValid() ? Named(type, "opaque") : "?";
    }
}

}  // namespace Tarvel::Client

#endif  // TARVEL_TOOLS_COMMON_TYPE_TEXT_H
