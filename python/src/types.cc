// Type facts and type descriptions. Python binding layer.
#include "types.h"

#include "type_text.h"

namespace TarvelPython {
namespace {

void PutCode(std::uint32_t code, unsigned char bytes[4]) {
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(code >> (8 * i));
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

std::string DescribeType(const Sorvat::KTypeInfo& type) { return Tarvel::Client::TypeText(type); }

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
