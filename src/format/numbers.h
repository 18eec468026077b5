// Number fields of the waveform file, each field's writing and reading side by side: plain
// integers (32-bit), wide integers (64-bit, read with an optional "k" for thousands), relative
// integers (the value, or "+" and its difference to the previous relative value, whichever is
// shorter) and event times (written with "k" for whole thousands). Format layer. Functions are
// pure or work on the caller's sink or lexer: thread-safe as their arguments are.
//
// Writing goes to a Sink: any object with `bool Write(std::string_view)` and `bool Put(char)`
// (the writer's output stream, a test's string). Reading takes the lexer and its current
// character (see format/lexer.h) and accumulates digits as value * 10 + digit in the field's
// width, wrapping around; the callers bound what a number drives.
#ifndef TARVEL_FORMAT_NUMBERS_H
#define TARVEL_FORMAT_NUMBERS_H

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "format/lexer.h"
#include "format/vocabulary.h"

namespace Tarvel::Format {

// Room for any 64-bit number, a sign and a suffix.
inline constexpr std::size_t kNumberRoom = 24;

// The decimal text of a number, held by value.
struct NumberText {
    char text[kNumberRoom];
    std::size_t length;
    std::string_view View() const noexcept { return {text, length}; }
};

// ---- Writing ----------------------------------------------------------------------------------

// Decimal, with "-" when negative (the 32-bit form converts faster).
NumberText DecimalText(std::int64_t value) noexcept;
NumberText DecimalText(std::int32_t value) noexcept;
// The event-time form: "0"; a non-zero multiple of 1000 as its quotient followed by "k" (the
// quotient is not divided again); anything else in full.
NumberText EventTimeText(std::int64_t time) noexcept;
// The event-time form written at `out`; returns the end of the text (at most 21 bytes before
// `limit`).
char* PutEventTimeText(std::int64_t time, char* out, char* limit) noexcept;
// The relative form of `value` after `previous`: "+" and the difference when `value` has more
// characters than the difference, else `value` itself. `previous` becomes `value`. The
// difference is computed in 64 bits; whenever it is the shorter form it fits 32.
NumberText RelativeText(std::int32_t value, std::int32_t& previous) noexcept;

template <class Sink>
bool PutInteger(Sink& out, std::int32_t value) {
    if constexpr (requires { out.Reserve(kNumberRoom); }) {  // straight into a buffer with room
        if (char* at = out.Reserve(kNumberRoom)) {
            out.Advance(static_cast<std::size_t>(std::to_chars(at, at + kNumberRoom, value).ptr - at));
            return true;
        }
    }
    return out.Write(DecimalText(value).View());
}
template <class Sink>
bool PutWide(Sink& out, std::int64_t value) {
    if constexpr (requires { out.Reserve(kNumberRoom); }) {
        if (char* at = out.Reserve(kNumberRoom)) {
            out.Advance(static_cast<std::size_t>(std::to_chars(at, at + kNumberRoom, value).ptr - at));
            return true;
        }
    }
    return out.Write(DecimalText(value).View());
}
template <class Sink>
bool PutEventTime(Sink& out, std::int64_t time) {
    return out.Write(EventTimeText(time).View());
}
template <class Sink>
bool PutRelative(Sink& out, std::int32_t value, std::int32_t& previous) {
    return out.Write(RelativeText(value, previous).View());
}

// ---- Reading ----------------------------------------------------------------------------------

// Plain integer: skips blanks, an optional "-", at least one digit; modulo 2^32. The first
// non-digit stays in `c`.
bool ReadInteger(KLexer& lexer, int& c, std::int32_t& value) noexcept;
// Relative integer: skips blanks, an optional "+" (a difference added to the lexer's last
// relative number, modulo 2^32), then a plain integer with no blanks after the "+". Either way
// the result becomes the last relative number.
bool ReadRelative(KLexer& lexer, int& c, std::int32_t& value) noexcept;
// Wide integer: skips blanks, an optional "-", digits, an optional "k" (times 1000, consumed);
// the sign applies last; modulo 2^64. Event times are read this way.
bool ReadWide(KLexer& lexer, int& c, std::int64_t& value) noexcept;

// True when `c` can start a number of an index list (a digit, "-" or "+").
inline bool CanStartNumber(int c) noexcept {
    return KLexer::IsDigit(c) || c == '-' || c == kRelativePrefix;
}

}  // namespace Tarvel::Format

#endif  // TARVEL_FORMAT_NUMBERS_H
