// Parser of type-information strings: one recursive-descent function per grammar element,
// building the immutable KTypeNode tree. Private to the sorvat library; a parser object belongs
// to one call on one thread.
#include "type_node.h"

#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>

namespace Sorvat {
namespace {

// Lengths of names and counts of literals, fields and dimensions stay below this bound, so that
// positions and counts fit the 32-bit values of the interface.
constexpr std::int64_t kMaxCount = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kMaxInt64 = std::numeric_limits<std::int64_t>::max();

bool MultiplyChecked(std::int64_t a, std::int64_t b, std::int64_t& product) {
    return !__builtin_mul_overflow(a, b, &product);
}

bool AddChecked(std::int64_t a, std::int64_t b, std::int64_t& sum) {
    return !__builtin_add_overflow(a, b, &sum);
}

class TypeParser {
public:
    explicit TypeParser(std::string_view text) : m_text(text) {}

    // The whole string is one type, with nothing after it.
    bool ParseWhole(KTypeNode& node) { return ParseType(node, 1) && AtEnd(); }

private:
    bool AtEnd() const { return m_pos >= m_text.size(); }
    char Peek() const { return AtEnd() ? '\0' : m_text[m_pos]; }
    bool IsDigit() const { return Peek() >= '0' && Peek() <= '9'; }
    bool Accept(char c) {
        if (AtEnd() || m_text[m_pos] != c) return false;
        ++m_pos;
        return true;
    }

    // type := kind name body
    bool ParseType(KTypeNode& node, int depth) {
        if (depth > KTypeInfo::kMaxNesting || AtEnd()) return false;
        const std::size_t start = m_pos;
        const char kindLetter = m_text[m_pos++];
        if (!ParseName(node.name) || !ParseBody(kindLetter, node, depth)) return false;
        node.text.assign(m_text.substr(start, m_pos - start));
        return true;
    }

    bool ParseBody(char kindLetter, KTypeNode& node, int depth) {
        switch (kindLetter) {
        case 'e':
        case 'c': return ParseEnumerationBody(node);
        case 'i': return ParseIntegerBody(node, kKindInteger, std::numeric_limits<std::int32_t>::min(),
                                          std::numeric_limits<std::int32_t>::max(), 4);
        case 'l': return ParseIntegerBody(node, kKindLongInteger, std::numeric_limits<std::int64_t>::min(),
                                          kMaxInt64, 8);
        case 'f': return SetScalar(node, kKindFloat, 8);
        case 'p': return ParsePhysicalBody(node);
        case 'a': return ParseArrayBody(node, depth);
        case 'r': return ParseRecordBody(node, depth);
        case 'x': return SetScalar(node, kKindAccess, 0);
        case 'y': return SetScalar(node, kKindFile, 0);
        case 'u': return SetScalar(node, kKindUnknown, 0);
        default: return false;
        }
    }

    static bool SetScalar(KTypeNode& node, int kind, std::int64_t size) {
        node.kind = kind;
        node.valueSize = size;
        return true;
    }

    // Unsigned decimal: a length or a count, at most kMaxCount.
    bool ParseCount(std::int64_t& value) {
        if (!IsDigit()) return false;
        value = 0;
        while (IsDigit()) {
            value = value * 10 + (m_text[m_pos++] - '0');
            if (value > kMaxCount) return false;
        }
        return true;
    }

    // int := ['-'] digits, within the signed 64-bit range.
    bool ParseInteger(std::int64_t& value) {
        const bool negative = Accept('-');
        if (!IsDigit()) return false;
        const std::uint64_t limit = negative ? std::uint64_t{1} << 63 : std::uint64_t(kMaxInt64);
        std::uint64_t magnitude = 0;
        while (IsDigit()) {
            const unsigned digit = unsigned(m_text[m_pos++] - '0');
            if (magnitude > (limit - digit) / 10) return false;
            magnitude = magnitude * 10 + digit;
        }
        value = negative ? std::int64_t(0 - magnitude) : std::int64_t(magnitude);
        return true;
    }

    // name := '#' length '#' bytes
    bool ParseName(std::string& name) {
        std::int64_t length = 0;
        if (!Accept('#') || !ParseCount(length) || !Accept('#')) return false;
        if (std::uint64_t(length) > m_text.size() - m_pos) return false;
        name.assign(m_text.substr(m_pos, std::size_t(length)));
        m_pos += std::size_t(length);
        return true;
    }

    // range := '[' int dir int ']'
    bool ParseRange(KRange& range) {
        if (!Accept('[') || !ParseInteger(range.left)) return false;
        if (Accept('t')) {
            range.direction = KDirection::kTo;
        } else if (Accept('d')) {
            range.direction = KDirection::kDownto;
        } else {
            return false;
        }
        return ParseInteger(range.right) && Accept(']');
    }

    // Literal groups, any number in any order, at least one literal in all.
    bool ParseEnumerationBody(KTypeNode& node) {
        node.kind = kKindEnumeration;
        node.valueSize = 4;
        for (;;) {
            if (Peek() == 'c') {
                if (!ParseCharacterGroup(node.literals)) return false;
            } else if (Peek() == 'n') {
                if (!ParseIdentifierGroup(node.literals)) return false;
            } else {
                break;
            }
            if (std::int64_t(node.literals.size()) > kMaxCount) return false;
        }
        if (node.literals.empty()) return false;
        node.stdLogicCompatible = IsStdLogicCompatible(node.literals);
        return true;
    }

    // 'c' count ' ' bytes: `count` one-byte character literals.
    bool ParseCharacterGroup(std::vector<KLiteral>& literals) {
        std::int64_t count = 0;
        if (!Accept('c') || !ParseCount(count) || !Accept(' ')) return false;
        if (std::uint64_t(count) > m_text.size() - m_pos) return false;
        for (std::int64_t i = 0; i < count; ++i) {
            const char c = m_text[m_pos++];
            if (c == '\0') return false;
            literals.push_back(KLiteral{std::string(1, c), true});
        }
        return true;
    }

    // 'n' count name...: `count` identifier literals.
    bool ParseIdentifierGroup(std::vector<KLiteral>& literals) {
        std::int64_t count = 0;
        if (!Accept('n') || !ParseCount(count)) return false;
        for (std::int64_t i = 0; i < count; ++i) {
            KLiteral literal;
            if (!ParseName(literal.text)) return false;
            literals.push_back(std::move(literal));
        }
        return true;
    }

    static bool IsStdLogicCompatible(const std::vector<KLiteral>& literals) {
        for (const KLiteral& literal : literals) {
            if (!literal.isCharacter || std::string_view(kStdLogicCharacters).find(literal.text[0]) == std::string_view::npos) {
                return false;
            }
        }
        return true;
    }

    // Integer kinds: an optional range whose bounds lie within [low, high].
    bool ParseIntegerBody(KTypeNode& node, int kind, std::int64_t low, std::int64_t high, std::int64_t size) {
        SetScalar(node, kind, size);
        if (Peek() != '[') return true;
        node.hasRange = true;
        return ParseRange(node.range) && node.range.left >= low && node.range.left <= high &&
               node.range.right >= low && node.range.right <= high;
    }

    // Physical: an optional primary unit in name form. A type is always followed by the end of
    // the string or by a record field's name, and a field name is always followed by a kind
    // letter; so a name that is followed by the end or by '#' is the unit, and any other name
    // belongs to the enclosing record.
    bool ParsePhysicalBody(KTypeNode& node) {
        SetScalar(node, kKindPhysical, 8);
        if (Peek() != '#') return true;
        const std::size_t start = m_pos;
        if (ParseName(node.unit) && (AtEnd() || Peek() == '#')) return true;
        m_pos = start;
        node.unit.clear();
        return true;
    }

    // One or more ranges, then the element type.
    bool ParseArrayBody(KTypeNode& node, int depth) {
        node.kind = kKindArray;
        node.elementCount = 1;
        while (Peek() == '[') {
            KRange range;
            std::int64_t length = 0;
            if (!ParseRange(range) || !RangeLength(range, length) ||
                !MultiplyChecked(node.elementCount, length, node.elementCount)) {
                return false;
            }
            node.dimensions.push_back(range);
            if (std::int64_t(node.dimensions.size()) > kMaxCount) return false;
        }
        if (node.dimensions.empty()) return false;
        KTypeNode element;
        if (!ParseType(element, depth + 1)) return false;
        node.children.push_back(std::move(element));
        return MultiplyChecked(node.children[0].valueSize, node.elementCount, node.valueSize);
    }

    // Field count, then that many fields: name and type.
    bool ParseRecordBody(KTypeNode& node, int depth) {
        node.kind = kKindRecord;
        std::int64_t count = 0;
        if (!ParseCount(count)) return false;
        for (std::int64_t i = 0; i < count; ++i) {
            std::string fieldName;
            KTypeNode field;
            if (!ParseName(fieldName) || !ParseType(field, depth + 1) ||
                !AddChecked(node.valueSize, field.valueSize, node.valueSize)) {
                return false;
            }
            node.fieldNames.push_back(std::move(fieldName));
            node.children.push_back(std::move(field));
        }
        return true;
    }

    std::string_view m_text;
    std::size_t m_pos = 0;
};

}  // namespace

bool RangeLength(const KRange& range, std::int64_t& length) {
    const std::uint64_t difference = range.left >= range.right
                                         ? std::uint64_t(range.left) - std::uint64_t(range.right)
                                         : std::uint64_t(range.right) - std::uint64_t(range.left);
    if (difference >= std::uint64_t(kMaxInt64)) return false;
    length = std::int64_t(difference + 1);
    return true;
}

std::shared_ptr<const KTypeNode> ParseTypeInfo(std::string_view text) {
    auto node = std::make_shared<KTypeNode>();
    if (!TypeParser(text).ParseWhole(*node)) return nullptr;
    return node;
}

}  // namespace Sorvat
