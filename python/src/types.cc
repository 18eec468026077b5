// Type facts and type descriptions. Python binding layer.
#include "types.h"

namespace TarvelPython {
namespace {

constexpr int kLiteralsShown = 12;  // literals (and fields) a description lists

void PutCode(std::uint32_t code, unsigned char bytes[4]) {
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(code >> (8 * i));
}

bool IsStdLogic(const Sorvat::KTypeInfo& type) {
    const std::string text = type.GetTypeInfoString();
    return text == "e#9#std_logicc9 UX01ZWLH-" || text == "c#9#std_logicc9 UX01ZWLH-";
}

ValueKind KindOf(const Sorvat::KTypeInfo& type) {
    switch (type.GetKind()) {
        case Sorvat::kKindEnumeration: return ValueKind::kCode;
        case Sorvat::kKindInteger: return ValueKind::kInt32;
        case Sorvat::kKindLongInteger:
        case Sorvat::kKindPhysical: return ValueKind::kInt64;
        case Sorvat::kKindFloat: return ValueKind::kFloat64;
        default: return ValueKind::kNone;
    }
}

// "name (kind)", or just one of them when the other is empty or says the same.
std::string Named(const Sorvat::KTypeInfo& type, const char* kind) {
    const std::string name = type.GetTypeName();
    if (name.empty() || name == kind) return kind;
    return name + " (" + kind + ")";
}

std::string EnumerationText(const Sorvat::KTypeInfo& type) {
    if (IsStdLogic(type)) return "std_logic";
    const TypeFacts facts(type);
    std::string text = std::string(type.GetTypeName()) + " (";
    const int literals = static_cast<int>(facts.Literals().size());
    for (int i = 0; i < literals && i < kLiteralsShown; ++i) {
        const std::string& literal = facts.Literals()[static_cast<std::size_t>(i)];
        if (i) text += ", ";
        text += facts.IsCharacter(static_cast<std::uint32_t>(i)) ? "'" + literal + "'" : literal;
    }
    if (literals > kLiteralsShown) text += ", ... " + std::to_string(literals - kLiteralsShown) + " more";
    return text + ")";
}

std::string ArrayText(const Sorvat::KTypeInfo& type) {
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
    return text + ") of " + DescribeType(type.GetElementType());
}

// A field's type inside a record's description: its name, or its description when it has none.
std::string FieldTypeText(const Sorvat::KTypeInfo& type) {
    if (IsStdLogic(type)) return "std_logic";
    if (*type.GetTypeName() != '\0') return type.GetTypeName();
    return DescribeType(type);
}

std::string RecordText(const Sorvat::KTypeInfo& type) {
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

}  // namespace

TypeFacts::TypeFacts(const Sorvat::KTypeInfo& type) : m_type(type), m_kind(KindOf(type)) {
    m_arrayBytes = static_cast<int>(type.GetSimpleSize_OldFormat());
    if (m_kind != ValueKind::kCode) return;
    const int count = type.GetNbOfLiterals();
    m_arrayBytes = count <= 255 ? 1 : 4;
    m_literals.reserve(static_cast<std::size_t>(count));
    m_bits.reserve(static_cast<std::size_t>(count));
    m_allCharacters = true;
    for (int code = 0; code < count; ++code) {
        unsigned char bytes[4];
        PutCode(static_cast<std::uint32_t>(code), bytes);
        char text[512];
        if (!type.GetValueString_OldFormatLen(text, sizeof text, bytes, 0, 0)) text[0] = '\0';
        m_literals.emplace_back(text);
        const bool character = type.IsCharValue(bytes) && text[0] != '\0';
        m_allCharacters = m_allCharacters && character;
        m_characters.push_back(character ? text[0] : '\0');
        m_bits.push_back(static_cast<std::int8_t>(character && text[0] == '0' ? 0 : character && text[0] == '1' ? 1 : -1));
    }
}

int TypeFacts::CodeOfCharacter(char c) const {
    for (std::size_t code = 0; code < m_characters.size(); ++code) {
        if (c != '\0' && m_characters[code] == c) return static_cast<int>(code);
    }
    return -1;
}

std::string DescribeType(const Sorvat::KTypeInfo& type) {
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

const char* KindWord(const Sorvat::KTypeInfo& type) {
    switch (type.GetKind()) {
        case Sorvat::kKindEnumeration: return "enumeration";
        case Sorvat::kKindInteger: return "integer";
        case Sorvat::kKindFloat: return "real";
        case Sorvat::kKindPhysical: return "physical";
        case Sorvat::kKindLongInteger: return "long integer";
        case Sorvat::kKindArray: return "array";
        case Sorvat::kKindRecord: return "record";
        case Sorvat::kKindAccess: return "access";
        case Sorvat::kKindFile: return "file";
        default: return "opaque";
    }
}

}  // namespace TarvelPython
