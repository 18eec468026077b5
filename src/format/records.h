// The record shapes of an event block's parts, writing and reading side by side: a run record
// "R L N items" (a pattern of L items played N times) and a count record "V n". The items
// themselves are time points, value texts or source numbers. Format layer; thread-safe as its
// arguments are.
#ifndef TARVEL_FORMAT_RECORDS_H
#define TARVEL_FORMAT_RECORDS_H

#include <cstdint>

#include "format/lexer.h"
#include "format/numbers.h"
#include "format/vocabulary.h"

namespace Tarvel::Format {

// Longest pattern of a run record: the cursors of the stores keep four steps.
inline constexpr int kMaxRunLength = 4;

// ---- Writing ----------------------------------------------------------------------------------

// "R L N"; the caller writes each item after a space, then the line end.
template <class Sink>
bool PutRunHeader(Sink& out, int length, std::int64_t count) {
    return out.Put(kRunLead) && out.Put(kFieldSeparator) && PutInteger(out, length) && out.Put(kFieldSeparator) &&
           PutWide(out, count);
}
// "V n"; the caller writes the line end.
template <class Sink>
bool PutCountRecord(Sink& out, std::int32_t count) {
    return out.Put(kCountLead) && out.Put(kFieldSeparator) && PutInteger(out, count);
}

// ---- Reading ----------------------------------------------------------------------------------

// After the "R": the pattern length L (1 to kMaxRunLength) and the repeat count N (a wide
// integer, not negative). False for anything else; the items follow in `c`.
bool ReadRunHeader(KLexer& lexer, int& c, int& length, std::int64_t& count) noexcept;
// After the "V": the count and the line end.
bool ReadCountRecord(KLexer& lexer, int& c, std::int32_t& count) noexcept;

}  // namespace Tarvel::Format

#endif  // TARVEL_FORMAT_RECORDS_H
