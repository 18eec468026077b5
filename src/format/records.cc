// Run and count records: reading (writing is in the header). Format layer.
#include "format/records.h"

namespace Tarvel::Format {

bool ReadRunHeader(KLexer& lexer, int& c, int& length, std::int64_t& count) noexcept {
    std::int32_t items = 0;
    if (!ReadInteger(lexer, c, items)) return false;
    if (items < 1 || items > kMaxRunLength) return lexer.FailAfterToken(c, "run length must be 1 to 4");
    if (!ReadWide(lexer, c, count)) return false;
    if (count < 0) return lexer.FailAfterToken(c, "repeat count must not be negative");
    length = items;
    return true;
}

bool ReadCountRecord(KLexer& lexer, int& c, std::int32_t& count) noexcept {
    return ReadInteger(lexer, c, count) && lexer.EndOfLine(c);
}

}  // namespace Tarvel::Format
