// Types, values, port modes and times as the tool spells them. Tool layer.
#include "text.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

namespace TarvelTool {
namespace {

constexpr int kLiteralsShown = 12;  // literals (and fields) a type's text lists
constexpr const char* kUnits[] = {"fs", "ps", "ns", "us", "ms", "s"};

bool IsStdLogic(const Sorvat::KTypeInfo& type) {
    const std::string_view text = type.GetTypeInfoString();
    return text == "e#9#std_logicc9 UX01ZWLH-" || text == "c#9#std_logicc9 UX01ZWLH-";
}

// "name (kind)", or just one of them when the other is empty or says the same.
std::string Named(const Sorvat::KTypeInfo& type, const char* kind) {
    const std::string name = type.GetTypeName();
    if (name.empty() || name == kind) return kind;
    return name + " (" + kind + ")";
}

std::string LiteralText(const Sorvat::KTypeInfo& type, int position) {
    const unsigned char bytes[4] = {static_cast<unsigned char>(position), static_cast<unsigned char>(position >> 8),
                                    static_cast<unsigned char>(position >> 16), static_cast<unsigned char>(position >> 24)};
    return ValueText(type, bytes);
}

std::string EnumerationText(const Sorvat::KTypeInfo& type) {
    if (IsStdLogic(type)) return "std_logic";
    std::string text = std::string(type.GetTypeName()) + " (";
    const int literals = type.GetNbOfLiterals();
    for (int i = 0; i < literals && i < kLiteralsShown; ++i) text += (i ? ", " : "") + LiteralText(type, i);
    if (literals > kLiteralsShown) text += ", ... " + std::to_string(literals - kLiteralsShown) + " more";
    return text + ")";
}

std::string RangeText(const Sorvat::KRange& range) {
    return std::to_string(range.left) + (range.direction == Sorvat::KDirection::kDownto ? " downto " : " to ") +
           std::to_string(range.right);
}

std::string ArrayText(const Sorvat::KTypeInfo& type) {
    Sorvat::KRange ranges[8];
    const int dimensions = type.GetArrayDimensionRanges(ranges, 8);
    std::string text = std::string(type.GetTypeName()) + "(";
    for (int i = 0; i < dimensions && i < 8; ++i) text += (i ? ", " : "") + RangeText(ranges[i]);
    if (dimensions > 8) text += ", ...";
    return text + ") of " + TypeText(type.GetElementType());
}

// A field's type inside a record's text: its name, or its kind when it has none.
std::string ShortTypeText(const Sorvat::KTypeInfo& type) {
    if (IsStdLogic(type)) return "std_logic";
    if (*type.GetTypeName() != '\0') return type.GetTypeName();
    return TypeText(type);
}

std::string RecordText(const Sorvat::KTypeInfo& type) {
    std::string text = std::string(type.GetTypeName()) + ": record (";
    const int fields = type.GetNbOfFields();
    for (int i = 0; i < fields && i < kLiteralsShown; ++i) {
        text += (i ? "; " : "") + std::string(type.GetFieldName(i)) + ": " + ShortTypeText(type.GetFieldType(i));
    }
    if (fields > kLiteralsShown) text += "; ... " + std::to_string(fields - kLiteralsShown) + " more";
    return text + ")";
}

int64 PowerOfTen(int exponent) {
    int64 value = 1;
    while (exponent-- > 0) value *= 10;
    return value;
}

}  // namespace

std::string TypeText(const Sorvat::KTypeInfo& type) {
    switch (type.GetKind()) {
        case Sorvat::kKindEnumeration: return EnumerationText(type);
        case Sorvat::kKindInteger: return Named(type, "integer");
        case Sorvat::kKindFloat: return Named(type, "real");
        case Sorvat::kKindPhysical: return Named(type, "physical");
        case Sorvat::kKindLongInteger: return Named(type, "64-bit integer");
        case Sorvat::kKindArray: return ArrayText(type);
        case Sorvat::kKindRecord: return RecordText(type);
        case Sorvat::kKindAccess: return Named(type, "access");
        case Sorvat::kKindFile: return Named(type, "file");
        default: return type.IsValid() ? Named(type, "opaque") : "?";
    }
}

std::string ValueText(const Sorvat::KTypeInfo& type, const unsigned char* bytes) {
    char text[128];
    if (!type.GetValueString_OldFormatLen(text, sizeof text, bytes, 0, 0)) {
        if (type.GetKind() != Sorvat::kKindEnumeration) return "?";
        const std::uint32_t code = bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
        return "?" + std::to_string(code);
    }
    if (type.GetKind() == Sorvat::kKindEnumeration && !type.IsStdLogicConversionAllowed() && type.IsCharValue(bytes)) {
        return std::string("'") + text + "'";
    }
    return text;
}

const char* ModeText(int mode) {
    constexpr const char* kWords[] = {"-", "in", "out", "inout", "buffer", "linkage", "signal", "variable"};
    if (mode >= 0 && mode <= 7) return kWords[mode];
    return mode == -1 ? "vbus" : "?";
}

TimeFormat::TimeFormat(int64 resolution) : m_resolution(resolution) {
    int exponent = 0;
    int64 power = 1;
    while (power < resolution && power <= std::numeric_limits<int64>::max() / 10) {
        power *= 10;
        ++exponent;
    }
    if (power != resolution) {
        m_scale = 0;
        return;
    }
    const int unit = exponent / 3 < 5 ? exponent / 3 : 5;
    m_unit = kUnits[unit];
    m_scale = PowerOfTen(exponent - 3 * unit);
}

std::string TimeFormat::Text(int64 time) const {
    const int64 limit = m_scale ? std::numeric_limits<int64>::max() / m_scale : 0;
    if (m_scale == 0 || time > limit || time < -limit) return std::to_string(time) + "*" + std::to_string(m_resolution) + "fs";
    return std::to_string(time * m_scale) + m_unit;
}

std::string TimeFormat::ReadableText(int64 time) const {
    const long double fs = static_cast<long double>(time) * static_cast<long double>(m_resolution);
    int unit = 0;
    while (unit < 5 && std::fabs(fs) >= static_cast<long double>(PowerOfTen(3 * (unit + 1)))) ++unit;
    char text[64];
    std::snprintf(text, sizeof text, "%.7Lg %s", fs / static_cast<long double>(PowerOfTen(3 * unit)), kUnits[unit]);
    return text;
}

std::string TimeFormat::UnitText() const {
    if (m_scale == 0) return std::to_string(m_resolution) + " fs";
    return std::to_string(m_scale) + " " + m_unit;
}

bool TimeFormat::Parse(std::string_view text, int64* time) const {
    std::size_t end = 0;
    while (end < text.size() && (std::strchr("0123456789.-", text[end]) != nullptr)) ++end;
    const std::string number(text.substr(0, end));
    std::string_view unit = text.substr(end);
    while (!unit.empty() && unit.front() == ' ') unit.remove_prefix(1);
    if (number.empty() || number == "-" || number == ".") return false;
    char* stop = nullptr;
    if (unit.empty()) {  // file units: a whole number
        const long long value = std::strtoll(number.c_str(), &stop, 10);
        if (*stop != '\0') return false;
        *time = value;
        return true;
    }
    const long double value = std::strtold(number.c_str(), &stop);
    if (*stop != '\0') return false;
    for (int i = 0; i < 6; ++i) {
        if (unit != kUnits[i]) continue;
        const long double units = value * static_cast<long double>(PowerOfTen(3 * i)) / static_cast<long double>(m_resolution);
        if (!(std::fabs(units) < 9.2e18L)) return false;
        *time = static_cast<int64>(std::llround(units));
        return true;
    }
    return false;
}

}  // namespace TarvelTool
