// Value bytes <-> text for the scalar kinds, and array element names. Private to the sorvat
// library; no state, safe on any thread. Values are little-endian whatever the host's order.
#include "value_text.h"

#include <bit>
#include <charconv>
#include <cstring>
#include <string_view>
#include <system_error>

namespace Sorvat {
namespace {

std::uint64_t LoadLittleEndian(const unsigned char* bytes, int count) {
    std::uint64_t value = 0;
    for (int i = count - 1; i >= 0; --i) value = (value << 8) | bytes[i];
    return value;
}

void StoreLittleEndian(std::uint64_t value, unsigned char* bytes, int count) {
    for (int i = 0; i < count; ++i) {
        bytes[i] = static_cast<unsigned char>(value & 0xff);
        value >>= 8;
    }
}

// Writes NUL-terminated text into a caller's buffer, failing when it does not fit.
class BufferWriter {
public:
    BufferWriter(char* buffer, int size) : m_buffer(buffer), m_size(buffer ? size : 0) {}

    bool Append(std::string_view text) {
        if (!m_ok || m_size <= 0 || text.size() >= std::size_t(m_size) - m_used) return m_ok = false;
        std::memcpy(m_buffer + m_used, text.data(), text.size());
        m_used += text.size();
        m_buffer[m_used] = '\0';
        return true;
    }

    bool AppendNumber(std::int64_t number) {
        char digits[24];
        const auto result = std::to_chars(digits, digits + sizeof digits, number);
        return Append(std::string_view(digits, std::size_t(result.ptr - digits)));
    }

    // Returns true iff `ok` and every append succeeded; otherwise leaves "" in the buffer.
    bool Finish(bool ok) {
        m_ok = m_ok && ok;
        if (!m_ok && m_size > 0) m_buffer[0] = '\0';
        return m_ok;
    }

private:
    char* m_buffer;
    int m_size;
    std::size_t m_used = 0;
    bool m_ok = true;
};

bool FloatText(double number, BufferWriter& out) {
    char digits[40];
    const auto result = std::to_chars(digits, digits + sizeof digits, number);
    return result.ec == std::errc() && out.Append(std::string_view(digits, std::size_t(result.ptr - digits)));
}

bool InRange(const KTypeNode& node, std::int64_t number) {
    if (!node.hasRange) return true;
    const std::int64_t low = node.range.left < node.range.right ? node.range.left : node.range.right;
    const std::int64_t high = node.range.left < node.range.right ? node.range.right : node.range.left;
    return number >= low && number <= high;
}

// The whole of `text` as a signed decimal integer ('-' allowed, no '+', no blanks).
bool ParseWholeInteger(std::string_view text, std::int64_t& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

bool ParseWholeFloat(std::string_view text, double& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

// Position of the first literal spelled `text`, or of the character literal c given as 'c'.
bool FindLiteral(const KTypeNode& node, std::string_view text, std::uint32_t& position) {
    for (std::size_t i = 0; i < node.literals.size(); ++i) {
        if (node.literals[i].text == text) {
            position = std::uint32_t(i);
            return true;
        }
    }
    if (text.size() != 3 || text[0] != '\'' || text[2] != '\'') return false;
    for (std::size_t i = 0; i < node.literals.size(); ++i) {
        if (node.literals[i].isCharacter && node.literals[i].text[0] == text[1]) {
            position = std::uint32_t(i);
            return true;
        }
    }
    return false;
}

bool IntegerToValue(const KTypeNode& node, std::string_view text, unsigned char* buffer) {
    std::int64_t number = 0;
    if (!ParseWholeInteger(text, number) || !InRange(node, number)) return false;
    if (node.kind == kKindInteger && (number < INT32_MIN || number > INT32_MAX)) return false;
    StoreLittleEndian(std::uint64_t(number), buffer, int(node.valueSize));
    return true;
}

bool ArrayElementName(const KTypeNode& node, std::int64_t child, BufferWriter& out) {
    // Peel the dimensions off from the left: each step divides by the lengths still to come.
    std::int64_t remaining = node.elementCount;
    bool ok = out.Append("(");
    for (std::size_t d = 0; ok && d < node.dimensions.size(); ++d) {
        const KRange& range = node.dimensions[d];
        std::int64_t length = 1;
        RangeLength(range, length);
        remaining /= length;
        const std::int64_t offset = child / remaining;
        child %= remaining;
        const std::int64_t index = range.left <= range.right ? range.left + offset : range.left - offset;
        ok = (d == 0 || out.Append(",")) && out.AppendNumber(index);
    }
    return ok && out.Append(")");
}

}  // namespace

bool LiteralPosition(const KTypeNode& node, const unsigned char* value, std::uint32_t& position) {
    if (node.kind != kKindEnumeration || value == nullptr) return false;
    position = std::uint32_t(LoadLittleEndian(value, 4));
    return position < node.literals.size();
}

bool ValueToText(const KTypeNode& node, const unsigned char* value, char* buffer, int bufferSize) {
    BufferWriter out(buffer, bufferSize);
    bool ok = value != nullptr;
    if (ok) {
        switch (node.kind) {
        case kKindEnumeration: {
            std::uint32_t position = 0;
            ok = LiteralPosition(node, value, position) && out.Append(node.literals[position].text);
            break;
        }
        case kKindInteger:
            ok = out.AppendNumber(std::int32_t(std::uint32_t(LoadLittleEndian(value, 4))));
            break;
        case kKindPhysical:
        case kKindLongInteger: ok = out.AppendNumber(std::int64_t(LoadLittleEndian(value, 8))); break;
        case kKindFloat: ok = FloatText(std::bit_cast<double>(LoadLittleEndian(value, 8)), out); break;
        default: ok = false; break;
        }
    }
    return out.Finish(ok);
}

bool TextToValue(const KTypeNode& node, const char* text, unsigned char* buffer, int bufferSize) {
    if (text == nullptr || buffer == nullptr || node.valueSize == 0 || bufferSize < node.valueSize) return false;
    const std::string_view view(text);
    switch (node.kind) {
    case kKindEnumeration: {
        std::uint32_t position = 0;
        if (!FindLiteral(node, view, position)) return false;
        StoreLittleEndian(position, buffer, 4);
        return true;
    }
    case kKindInteger:
    case kKindPhysical:
    case kKindLongInteger: return IntegerToValue(node, view, buffer);
    case kKindFloat: {
        double number = 0;
        if (!ParseWholeFloat(view, number)) return false;
        StoreLittleEndian(std::bit_cast<std::uint64_t>(number), buffer, 8);
        return true;
    }
    default: return false;
    }
}

bool ChildName(const KTypeNode& node, std::int64_t child, char* buffer, int bufferSize) {
    BufferWriter out(buffer, bufferSize);
    bool ok = false;
    if (node.kind == kKindArray && child >= 0 && child < node.elementCount) {
        ok = ArrayElementName(node, child, out);
    } else if (node.kind == kKindRecord && child >= 0 && std::uint64_t(child) < node.fieldNames.size()) {
        ok = out.Append(node.fieldNames[std::size_t(child)]);
    }
    return out.Finish(ok);
}

}  // namespace Sorvat
