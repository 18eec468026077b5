// Run and count records: reading (writing is in the header). Format layer.
#include "format/records.h"

namespace Tarvel::Format {

bool ReadRunHeader(KLexer& lexer, int& c, int& length, std::int64_t& count) noexcept {
    std::int32_t items = 0;
    if (!ReadInteger(lexer, c, items) || items < 1 || items > kMaxRunLength) return false;
    if (!ReadWide(lexer, c, count) || count < 0) return false;
    length = items;
    return true;
}

bool ReadCountRecord(KLexer& lexer, int& c, std::int32_t& count) noexcept {
    return ReadInteger(lexer, c, count) && lexer.EndOfLine(c);
}

}  // namespace Tarvel::Format
