// The index-list field ("$WAVES", "$SC", "$SCBUS", "$CHILD" and "P" lines), writing and reading
// side by side: relative integers separated by spaces, where a run of evenly spaced values may
// stand as "first-last" (step 1, rising or falling) or "first-last/step". Format layer;
// thread-safe as its arguments are.
#ifndef TARVEL_FORMAT_INDEX_LISTS_H
#define TARVEL_FORMAT_INDEX_LISTS_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "foundation/memory.h"
#include "format/lexer.h"
#include "format/numbers.h"

namespace Tarvel::Format {

// Most items a list may hold unless its reader says less.
inline constexpr std::size_t kIndexListLimit = std::size_t{1} << 22;
// Runs shorter than this are written value by value: "a-b" saves nothing over "a b".
inline constexpr std::size_t kShortestRange = 3;

// ---- Writing ----------------------------------------------------------------------------------

// Length of the run of evenly spaced values that starts at values[0] (at least 1, for count >= 1)
// and its step in *step. Only steps that fit a plain integer and are not 0 make runs.
std::size_t RunLength(const std::int32_t* values, std::size_t count, std::int64_t* step) noexcept;

enum class ListWritten { kDone, kWriteFailed, kDoubleIndex };

// Writes " " and an item for each run of kShortestRange or more evenly spaced values and for
// every other value, its numbers in the relative form against `previous` (see PutRelative); an
// empty list writes nothing. kDoubleIndex reports a range that would repeat a value (a step of
// 0), which RunLength never makes: an internal fault of the caller.
template <class Sink>
ListWritten PutIndexList(Sink& out, const std::int32_t* values, std::size_t count, std::int32_t& previous) {
    auto item = [&](std::int32_t first, std::int64_t last, std::int64_t step) {
        if (!out.Put(kFieldSeparator) || !PutRelative(out, first, previous)) return ListWritten::kWriteFailed;
        if (last == first) return ListWritten::kDone;
        if (step == 0) return ListWritten::kDoubleIndex;
        if (!out.Put(kRangeSeparator) || !PutRelative(out, static_cast<std::int32_t>(last), previous)) return ListWritten::kWriteFailed;
        if (step == 1 || step == -1) return ListWritten::kDone;
        return out.Put(kStepSeparator) && PutInteger(out, static_cast<std::int32_t>(std::llabs(step))) ? ListWritten::kDone
                                                                                                  : ListWritten::kWriteFailed;
    };
    for (std::size_t at = 0; at < count;) {
        std::int64_t step = 0;
        const std::size_t run = RunLength(values + at, count - at, &step);
        const bool range = run >= kShortestRange;
        const ListWritten written = range ? item(values[at], values[at + run - 1], step) : item(values[at], values[at], 0);
        if (written != ListWritten::kDone) return written;
        at += range ? run : 1;
    }
    return ListWritten::kDone;
}

// ---- Reading ----------------------------------------------------------------------------------

// Clears `list`, then reads items until the line holds no further number (LF, the end of the
// file, or a character that cannot start a number is left in `c`; an empty list is fine). An
// item is a relative integer a, a range a-b of relative integers (step 1), or a-b/s with a
// plain step s >= 1: a, a+s, a+2s, ... while not past b, counting down (a, a-s, ...) when
// a >= b. A "-" starts a range only right after a number; the range end becomes the lexer's last
// relative number, the step does not. Fails on a malformed number or a step below 1, and,
// before a range is expanded, when the list would hold more than `limit` items. May throw
// std::bad_alloc while `list` grows.
bool ReadIndexList(KLexer& lexer, int& c, Vector<std::int32_t>& list, std::size_t limit = kIndexListLimit);

}  // namespace Tarvel::Format

#endif  // TARVEL_FORMAT_INDEX_LISTS_H
