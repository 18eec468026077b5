// Types, values, port modes and times as the tool spells them. Tool layer.
#include "text.h"

#include "type_text.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

namespace TarvelTool {
namespace {

constexpr const char* kUnits[] = {"fs", "ps", "ns", "us", "ms", "s"};

int64 PowerOfTen(int exponent) {
    int64 value = 1;
    while (exponent-- > 0) value *= 10;
    return value;
}

}  // namespace

std::string TypeText(const Sorvat::KTypeInfo& type) { return Tarvel::Client::TypeText(type); }

std::string ValueText(const Sorvat::KTypeInfo& type, const unsigned char* bytes) {
    if (type.GetKind() == Sorvat::kKindEnumeration) {
        return Tarvel::Client::LiteralText(type, bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<std::uint32_t>(bytes[3]) << 24);
    }
    char text[128];
    if (!type.GetValueString_OldFormatLen(text, sizeof text, bytes, 0, 0)) return "?";
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
