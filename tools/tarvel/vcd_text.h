// The VCD vocabulary that import-vcd and export-vcd share, both directions side by side: time
// units and resolutions, value characters and std_logic codes, variable types and the type
// strings they become, references with their bit ranges, identifier codes. docs/vcd.md states
// the mapping. Tool layer; functions of their arguments and constant tables, any thread.
#ifndef TARVEL_TOOLS_TARVEL_VCD_TEXT_H
#define TARVEL_TOOLS_TARVEL_VCD_TEXT_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace TarvelTool::Vcd {

// ---- Time units ----

// The text of a $timescale section ("1ps", "10 ns", "100 fs", blanks allowed anywhere) as a
// number of femtoseconds; nothing for anything else. Any positive whole number is taken, not only
// the 1, 10 and 100 that IEEE 1364 allows; units s, ms, us, ns, ps, fs.
std::optional<std::int64_t> ParseTimescale(std::string_view text);

// The $timescale that writes a resolution of `resolution` femtoseconds: the largest of 1, 10 and
// 100 times s ... fs that divides it; times are then multiplied by `multiplier`.
// REQUIRES: resolution > 0.
struct Timescale {
    std::string text;         // "1 ps", "10 ns"
    std::int64_t multiplier;  // resolution / unit, at least 1
};
Timescale TimescaleFor(std::int64_t resolution);

// ---- Values ----

// The std_logic type and its value characters.
inline constexpr const char* kStdLogicType = "e#9#std_logicc9 UX01ZWLH-";
// The character written for each std_logic code 0 ... 8 ('U' 'X' '0' '1' 'Z' 'W' 'L' 'H' '-').
// Lower case: GTKWave's converter reads scalar values in lower case only.
inline constexpr char kLogicCharacters[] = "ux01zwlh-";
inline constexpr std::uint8_t kNoCode = 0xFF;

// The std_logic code of a VCD value character, either case ('1' is 3, 'x' and 'X' are 1); kNoCode
// for a character that is no value.
namespace Detail {
constexpr std::array<std::uint8_t, 256> MakeLogicCodes() {
    std::array<std::uint8_t, 256> codes{};
    for (auto& code : codes) code = kNoCode;
    for (std::uint8_t code = 0; code < 9; ++code) {
        codes[static_cast<unsigned char>("UX01ZWLH-"[code])] = code;
        codes[static_cast<unsigned char>(kLogicCharacters[code])] = code;
    }
    return codes;
}
inline constexpr std::array<std::uint8_t, 256> kLogicCodes = MakeLogicCodes();
}  // namespace Detail
inline std::uint8_t LogicCode(char c) { return Detail::kLogicCodes[static_cast<unsigned char>(c)]; }

// A vector value's character at `position` (0: the leftmost, most significant bit) when the
// `digits` written are fewer than the variable's `width` bits: the digits are right-aligned and
// the missing bits on the left are '0' after a leading 0 or 1 and the leading character itself
// after x, z or another character (IEEE 1364 extends x and z; we extend all nine alike).
// REQUIRES: digits is not empty, position < width.
// More digits than bits: the rightmost `width` digits count.
inline char ExtendedDigit(std::string_view digits, std::uint32_t width, std::uint32_t position) {
    if (digits.size() >= width) return digits[digits.size() - width + position];
    const std::size_t pad = width - digits.size();
    if (position >= pad) return digits[position - pad];
    return digits[0] == '0' || digits[0] == '1' ? '0' : digits[0];
}

// ---- Variable types ----

// What a $var type keyword becomes when imported.
enum class VarClass {
    kLogic,    // wire, reg, logic, ...: std_logic, vectors as buses of std_logic
    kEvent,    // event: an enumeration of the nine characters named "event"
    kInteger,  // integer, int, shortint, longint, byte, time: integer types
    kReal,     // real, realtime, shortreal: f types
    kString,   // string (GTKWave's): the format has no strings; reported and skipped
    kUnknown,  // anything else: reported and skipped
};
VarClass ClassifyVarType(std::string_view keyword);

// The type string of an imported variable of an integer or real class: its keyword becomes the
// type's name, so that the export writes it back ("i#7#integer", "l#4#time", "f#8#realtime").
// Integers of up to 32 bits are 'i' types, of 33 to 64 bits 'l' types.
// REQUIRES: class kInteger with width 1 .. 64, or kReal.
std::string ScalarType(VarClass varClass, std::string_view keyword, std::uint32_t width);
// The type string of the std_logic events of an event variable.
inline constexpr const char* kEventType = "e#5#eventc9 UX01ZWLH-";

// A bit range written after a reference: [left:right], or [left] for a single bit.
struct Range {
    std::int64_t left = 0;
    std::int64_t right = 0;
    std::uint64_t Width() const {
        return left >= right ? static_cast<std::uint64_t>(left - right) + 1 : static_cast<std::uint64_t>(right - left) + 1;
    }
};
// The type string of a vector of std_logic with that range (a#16#std_logic_vector[7d0]e#9#...).
std::string VectorType(const Range& range);
// The text of a range: " [7:0]", or " [3]" when left equals right.
std::string RangeText(const Range& range);

// A $var reference split into its name and its range. The reference is the words between the
// identifier code and $end: "count [7:0]", "count[7:0]" (GHDL), "data [3]", "clk". The range is
// taken off only when its bit count equals the variable's size; otherwise it stays part of the
// name and the variable takes the range [size-1:0].
struct Reference {
    std::string name;
    Range range;
    bool hasRange = false;  // the reference gave a range of the right size
};
Reference SplitReference(std::string_view reference, std::uint32_t size);

// ---- What a type of the file becomes in an exported VCD ----

enum class ExportClass {
    kNone,     // no values (access, file, opaque types): not written
    kLogic,    // an enumeration of characters among U X 0 1 Z W L H - (std_logic, bit): a 1-bit var
    kString,   // any other enumeration: a string var whose values are the literals
    kInteger,  // integer, long integer and physical types: an integer var of 32 or 64 bits
    kReal,     // floating point: a real var
    kVector,   // a one-dimensional array of a kLogic type: a vector rebuilt from its elements
    kGroup,    // any other array, a record: a scope holding its elements or fields
};
struct ExportType {
    ExportClass exportClass = ExportClass::kNone;
    std::string keyword;    // the $var type: "reg", "event", "string", "integer", "time", "real", ...
    std::uint32_t width = 0;  // the $var size
    Range range;            // kVector: the array's range
    std::string characters;  // kLogic and kVector: the VCD character of each literal position
    std::vector<std::string> literals;  // kString: the text of each literal, blanks made '_'
};
// REQUIRES: typeInfo is a valid type string.
ExportType ClassifyType(const char* typeInfo);

// ---- Identifier codes ----

// The identifier code of the variable numbered `index` (0, 1, 2, ...): base 94 over '!' ... '~',
// least significant digit first, as simulators write them ("!", "\"", ..., "~", "!!", "\"!").
std::string IdentifierCode(std::uint64_t index);

}  // namespace TarvelTool::Vcd

#endif  // TARVEL_TOOLS_TARVEL_VCD_TEXT_H
