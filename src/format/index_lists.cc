// The index-list field: runs and reading. Format layer; see the header.
#include "format/index_lists.h"

#include <limits>

namespace Tarvel::Format {
namespace {

// Appends a to b in steps of `step` (counting down when a >= b); 64-bit so that no step past
// either end of the 32-bit range can overflow.
void PushRange(Vector<std::int32_t>& list, std::int64_t first, std::int64_t last, std::int64_t step) {
    if (first >= last) {
        for (std::int64_t value = first; value >= last; value -= step) list.push_back(static_cast<std::int32_t>(value));
    } else {
        for (std::int64_t value = first; value <= last; value += step) list.push_back(static_cast<std::int32_t>(value));
    }
}

constexpr const char* kTooLong = "list names more items than allowed here";

}  // namespace

std::size_t RunLength(const std::int32_t* values, std::size_t count, std::int64_t* step) noexcept {
    if (count < 2) return count;
    *step = std::int64_t{values[1]} - values[0];
    if (*step == 0 || std::llabs(*step) > std::numeric_limits<std::int32_t>::max()) return 1;
    std::size_t length = 2;
    while (length < count && std::int64_t{values[length]} - values[length - 1] == *step) ++length;
    return length;
}

bool ReadIndexList(KLexer& lexer, int& c, Vector<std::int32_t>& list, std::size_t limit) {
    list.clear();
    while (lexer.SkipBlanks(c) && CanStartNumber(c)) {
        std::int32_t first = 0;
        if (!ReadRelative(lexer, c, first)) return false;
        if (c != kRangeSeparator) {
            if (list.size() >= limit) return lexer.FailAfterToken(c, kTooLong);
            list.push_back(first);
            continue;
        }
        c = lexer.Next();
        std::int32_t last = 0;
        std::int32_t step = 1;
        if (!ReadRelative(lexer, c, last)) return false;
        if (c == kStepSeparator) {
            c = lexer.Next();
            if (!ReadInteger(lexer, c, step)) return false;
            if (step < 1) return lexer.FailAfterToken(c, "range step must be at least 1");
        }
        const std::uint64_t span = static_cast<std::uint64_t>(first >= last ? std::int64_t{first} - last : std::int64_t{last} - first);
        if (span / static_cast<std::uint64_t>(step) + 1 > limit - list.size()) return lexer.FailAfterToken(c, kTooLong);
        PushRange(list, first, last, step);
    }
    return true;
}

}  // namespace Tarvel::Format
