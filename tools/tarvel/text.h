// How the `tarvel` tool spells what a file holds: types (from Sorvat::KTypeInfo), values by their
// type, port modes, and times in the file's resolution (and reads times given on the command
// line). Tool layer; pure functions, thread-safe as their arguments are.
#ifndef TARVEL_TOOLS_TARVEL_TEXT_H
#define TARVEL_TOOLS_TARVEL_TEXT_H

#include <sorvat/typeinfo.h>
#include <tarvel/config.h>

#include <string>
#include <string_view>

namespace TarvelTool {

using Tarvel::int64;

// A type for people: "std_logic", "state (IDLE, LOAD, RUN, DONE)", "integer", "real",
// "std_logic_vector(7 downto 0) of std_logic", "packet: record (addr: integer; valid: boolean)".
// Enumerations list at most a dozen literals. "?" for an invalid type.
std::string TypeText(const Sorvat::KTypeInfo& type);

// The value at `bytes` (the type's value size) as the file writes it: std_logic and bit values
// as their character, other character literals between single quotes, identifiers, numbers.
// "?" and the code for a value that names no literal ("?9").
std::string ValueText(const Sorvat::KTypeInfo& type, const unsigned char* bytes);

// The word of a port mode ("in", "out", "inout", "buffer", "linkage", "signal", "variable",
// "-" for none, "vbus"); "?" for any other number.
const char* ModeText(int mode);

// Times of one file: the resolution (femtoseconds per unit) decides the unit times are shown in.
class TimeFormat {
public:
    explicit TimeFormat(int64 resolution);
    // "5000ps", "12ns"; a resolution that is no power of ten shows "7*250fs".
    std::string Text(int64 time) const;
    // The time in the largest unit it reaches, to six digits: "10 ms", "9.999995 ms", "250 fs".
    std::string ReadableText(int64 time) const;
    // The resolution for people: "1 ps", "10 ns", "250 fs".
    std::string UnitText() const;
    // Reads a time of the command line: a whole number of file units ("5000"), or a number with
    // a unit fs, ps, ns, us, ms or s ("10ns", "2.5 us"), rounded to the nearest file unit.
    // False for anything else.
    bool Parse(std::string_view text, int64* time) const;

private:
    int64 m_resolution;  // femtoseconds per file unit
    int64 m_scale = 1;   // shown value = time * m_scale in m_unit (0: no power of ten)
    const char* m_unit = "fs";
};

}  // namespace TarvelTool

#endif  // TARVEL_TOOLS_TARVEL_TEXT_H
