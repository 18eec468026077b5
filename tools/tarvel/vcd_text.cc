// The VCD vocabulary of import-vcd and export-vcd. Tool layer.
#include "vcd_text.h"

#include <sorvat/typeinfo.h>

#include <charconv>
#include <cctype>

namespace TarvelTool::Vcd {
namespace {

struct Unit {
    const char* name;
    std::int64_t femtoseconds;
};
// Largest first: TimescaleFor takes the first that fits.
constexpr Unit kUnits[] = {{"s", 1000000000000000}, {"ms", 1000000000000}, {"us", 1000000000},
                           {"ns", 1000000},          {"ps", 1000},          {"fs", 1}};

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

// "#<length>#<name>"
std::string TypeName(std::string_view name) {
    std::string text("#");
    text.append(std::to_string(name.size())).append("#").append(name);
    return text;
}

// "[7:0]" or "[3]" at the end of `text` (no blanks inside), as a range.
std::optional<Range> ParseRange(std::string_view text) {
    if (text.size() < 3 || text.front() != '[' || text.back() != ']') return std::nullopt;
    text = text.substr(1, text.size() - 2);
    Range range;
    const char* end = text.data() + text.size();
    auto [after, error] = std::from_chars(text.data(), end, range.left);
    if (error != std::errc()) return std::nullopt;
    range.right = range.left;
    if (after != end) {
        if (*after != ':') return std::nullopt;
        auto [last, error2] = std::from_chars(after + 1, end, range.right);
        if (error2 != std::errc() || last != end) return std::nullopt;
    }
    return range;
}

ExportType Simple(ExportClass exportClass, std::string keyword, std::uint32_t width) {
    ExportType type;
    type.exportClass = exportClass;
    type.keyword = std::move(keyword);
    type.width = width;
    return type;
}

}  // namespace

std::optional<std::int64_t> ParseTimescale(std::string_view text) {
    std::string compact;
    for (char c : text) {
        if (!IsBlank(c)) compact += c;
    }
    std::int64_t number = 0;
    auto [rest, error] = std::from_chars(compact.data(), compact.data() + compact.size(), number);
    if (error != std::errc() || number <= 0) return std::nullopt;
    const std::string_view unit(rest, static_cast<std::size_t>(compact.data() + compact.size() - rest));
    for (const Unit& u : kUnits) {
        if (unit == u.name) {
            if (number > INT64_MAX / u.femtoseconds) return std::nullopt;
            return number * u.femtoseconds;
        }
    }
    return std::nullopt;
}

Timescale TimescaleFor(std::int64_t resolution) {
    for (const Unit& u : kUnits) {
        for (std::int64_t mantissa : {100, 10, 1}) {
            const std::int64_t step = mantissa * u.femtoseconds;
            if (resolution % step == 0) return {std::to_string(mantissa) + " " + u.name, resolution / step};
        }
    }
    return {"1 fs", resolution};  // not reached: 1 fs divides every resolution
}

VarClass ClassifyVarType(std::string_view keyword) {
    static constexpr const char* kLogicKeywords[] = {
        "wire", "reg", "logic", "bit", "tri", "triand", "trior", "trireg", "tri0", "tri1", "wand", "wor",
        "supply0", "supply1", "uwire", "port", "parameter", "sparam", "in", "out", "inout", "buffer", "linkage"};
    for (const char* k : kLogicKeywords) {
        if (keyword == k) return VarClass::kLogic;
    }
    for (const char* k : {"integer", "int", "shortint", "longint", "byte", "time"}) {
        if (keyword == k) return VarClass::kInteger;
    }
    for (const char* k : {"real", "realtime", "shortreal", "real_parameter"}) {
        if (keyword == k) return VarClass::kReal;
    }
    if (keyword == "event") return VarClass::kEvent;
    if (keyword == "string") return VarClass::kString;
    return VarClass::kUnknown;
}

std::string ScalarType(VarClass varClass, std::string_view keyword, std::uint32_t width) {
    std::string type(varClass == VarClass::kReal ? "f" : width <= 32 ? "i" : "l");
    return type.append(TypeName(varClass == VarClass::kReal && keyword == "real_parameter" ? "real" : keyword));
}

std::string VectorType(const Range& range) {
    return "a#16#std_logic_vector[" + std::to_string(range.left) + (range.left >= range.right ? "d" : "t") +
           std::to_string(range.right) + "]" + kStdLogicType;
}

std::string RangeText(const Range& range) {
    if (range.left == range.right) return " [" + std::to_string(range.left) + "]";
    return " [" + std::to_string(range.left) + ":" + std::to_string(range.right) + "]";
}

Reference SplitReference(std::string_view reference, std::uint32_t size) {
    Reference result;
    result.name = std::string(reference);
    result.range = {static_cast<std::int64_t>(size) - 1, 0};
    // The range is the last word ("count [7:0]") or the tail of the only one ("count[7:0]").
    std::size_t open = reference.rfind('[');
    if (open == std::string_view::npos || open == 0) return result;
    std::string_view name = reference.substr(0, open);
    std::string compactRange;
    for (char c : reference.substr(open)) {
        if (!IsBlank(c)) compactRange += c;
    }
    while (!name.empty() && IsBlank(name.back())) name.remove_suffix(1);
    const std::optional<Range> range = ParseRange(compactRange);
    if (name.empty() || !range || range->Width() != size) return result;
    result.name = std::string(name);
    result.range = *range;
    result.hasRange = true;
    return result;
}

ExportType ClassifyType(const char* typeInfo) {
    const Sorvat::KTypeInfo type(typeInfo);
    ExportType result;
    const std::string name = type.GetTypeName();
    switch (type.GetKind()) {
        case Sorvat::kKindEnumeration: {
            const int literals = type.GetNbOfLiterals();
            for (int position = 0; position < literals; ++position) {
                const std::uint32_t value = static_cast<std::uint32_t>(position);
                char text[256];
                const unsigned char bytes[4] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
                                                static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
                std::string literal = type.GetValueString_OldFormatLen(text, sizeof text, bytes, 0, 0) ? text : "?";
                if (type.IsStdLogicConversionAllowed()) {
                    result.characters += kLogicCharacters[LogicCode(literal[0])];
                } else {
                    for (char& c : literal) {
                        if (IsBlank(c) || c == '\0') c = '_';
                    }
                    result.literals.push_back(literal.empty() ? "_" : literal);
                }
            }
            if (type.IsStdLogicConversionAllowed()) {
                result.exportClass = ExportClass::kLogic;
                result.keyword = name == "event" ? "event" : "reg";
            } else {
                result.exportClass = ExportClass::kString;
                result.keyword = "string";
            }
            result.width = 1;
            break;
        }
        case Sorvat::kKindInteger:
            result = Simple(ExportClass::kInteger, "integer", 32);
            break;
        case Sorvat::kKindLongInteger:
        case Sorvat::kKindPhysical:
            result = Simple(ExportClass::kInteger, name == "time" && type.GetKind() == Sorvat::kKindLongInteger ? "time" : "integer", 64);
            break;
        case Sorvat::kKindFloat:
            result = Simple(ExportClass::kReal, name == "realtime" || name == "shortreal" ? name : "real", 64);
            break;
        case Sorvat::kKindArray: {
            const ExportType element = ClassifyType(type.GetElementType().GetTypeInfoString());
            Sorvat::KRange range;
            if (type.GetNbOfDimensions() == 1 && element.exportClass == ExportClass::kLogic &&
                type.GetNbOfElements() <= UINT32_MAX && type.GetArrayDimensionRanges(&range, 1) == 1) {
                result = Simple(ExportClass::kVector, "reg", static_cast<std::uint32_t>(type.GetNbOfElements()));
                result.range = {range.left, range.right};
                result.characters = element.characters;
            } else {
                result.exportClass = ExportClass::kGroup;
            }
            break;
        }
        case Sorvat::kKindRecord:
            result.exportClass = ExportClass::kGroup;
            break;
        default:
            break;
    }
    return result;
}

std::string IdentifierCode(std::uint64_t index) {
    std::string code;
    do {
        code += static_cast<char>('!' + index % 94);
        index /= 94;
    } while (index != 0);
    return code;
}

}  // namespace TarvelTool::Vcd
