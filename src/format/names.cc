// The name field: compression and reading. Format layer; see the header.
#include "format/names.h"

namespace Tarvel::Format {
namespace {

std::size_t DigitCount(std::size_t value) noexcept {
    std::size_t digits = 1;
    for (; value >= 10; value /= 10) ++digits;
    return digits;
}

std::size_t CommonPrefix(std::string_view a, std::string_view b) noexcept {
    const std::size_t limit = a.size() < b.size() ? a.size() : b.size();
    std::size_t length = 0;
    while (length < limit && a[length] == b[length]) ++length;
    return length;
}

std::size_t CommonSuffix(std::string_view a, std::string_view b) noexcept {
    const std::size_t limit = a.size() < b.size() ? a.size() : b.size();
    std::size_t length = 0;
    while (length < limit && a[a.size() - 1 - length] == b[b.size() - 1 - length]) ++length;
    return length;
}

}  // namespace

NameCompression CompressName(std::string_view name, std::string_view previous) noexcept {
    std::size_t front = CommonPrefix(name, previous);
    std::size_t back = CommonSuffix(name, previous);
    if (front + back > name.size()) {
        if (back <= front) {
            back = 0;
        } else {
            front = 0;
        }
    }
    const std::string_view middle = name.substr(front, name.size() - front - back);
    const bool compressed = DigitCount(front) + DigitCount(back) + middle.size() + 2 < name.size();
    return NameCompression{front, back, middle, compressed};
}

bool ReadName(KLexer& lexer, int& c, String& name, String& scratch) {
    if (!lexer.SkipBlanks(c)) return lexer.Fail(c, "name expected");
    if (!KLexer::IsDigit(c)) {
        if (!ReadString(lexer, c, scratch)) return false;
        name.swap(scratch);
        return true;
    }
    std::int32_t keepFront = 0;
    std::int32_t keepBack = 0;
    if (!ReadInteger(lexer, c, keepFront) || !ReadInteger(lexer, c, keepBack)) return false;
    const auto size = static_cast<std::int64_t>(name.size());
    if (keepFront < 0 || keepBack < 0 || keepFront > size || keepBack > size) {
        return lexer.FailAfterToken(c, "compressed name keeps more characters than the previous name has");
    }
    if (!ReadString(lexer, c, scratch)) return false;
    const auto front = static_cast<std::size_t>(keepFront);
    const auto back = static_cast<std::size_t>(keepBack);
    scratch.insert(0, name, 0, front);
    scratch.append(name, name.size() - back, back);
    name.swap(scratch);
    return true;
}

}  // namespace Tarvel::Format
