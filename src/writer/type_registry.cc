// Type registration and value text. Writer layer; see the header.
#include "writer/type_registry.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "store/little_endian.h"
#include "writer/file_format.h"

namespace Tarvel {

bool TypeRegistry::Register(const char* typeInfo, std::int32_t* typeIndex) {
    const String key(typeInfo ? typeInfo : "");
    const auto found = m_indexes.find(key);
    if (found != m_indexes.end()) {
        *typeIndex = found->second;
        return true;
    }
    if (!TypeHandle::IsWellFormed(typeInfo)) return m_writer.ReportError("Invalid typeinfo '%s'", typeInfo ? typeInfo : "");
    m_types.push_back(TypeHandle(typeInfo));
    const std::int32_t index = static_cast<std::int32_t>(m_types.size());
    try {
        m_indexes.emplace(key, index);
    } catch (...) {
        m_types.pop_back();
        throw;
    }
    if (m_types.back().IsStdLogic()) m_stdLogic = index;
    *typeIndex = index;
    return m_writer.WriteTypeLine(index, typeInfo);
}

bool TypeRegistry::HasValueText(const TypeHandle& type) {
    switch (type.Kind()) {
        case kTypeEnumeration:
        case kTypeInteger:
        case kTypeFloat:
        case kTypePhysical:
        case kTypeLongInteger: return true;
        default: return false;
    }
}

bool TypeRegistry::PutValueText(KLineWriter& lines, std::int32_t typeIndex, const unsigned char* bytes) {
    if (typeIndex == m_stdLogic && m_stdLogic != 0) {
        return lines.PutChar(Format::StdLogicChar(LittleEndian::Load<std::uint32_t>(bytes)));
    }
    const TypeHandle* type = Find(typeIndex);
    if (!type) return m_writer.ReportError("Unknown typeindex %d", typeIndex);
    switch (type->Kind()) {
        case kTypeEnumeration: return PutEnumeration(lines, *type, bytes);
        case kTypeInteger: return lines.PutInteger(static_cast<std::int32_t>(LittleEndian::Load<std::uint32_t>(bytes)));
        case kTypeFloat: {
            const std::uint64_t raw = LittleEndian::Load<std::uint64_t>(bytes);
            double value;
            std::memcpy(&value, &raw, sizeof value);
            if (std::isnan(value)) return lines.PutText("NaN");
            char text[40];
            const int n = std::snprintf(text, sizeof text, "%g", value);
            return lines.PutText(std::string_view(text, static_cast<std::size_t>(n)));
        }
        case kTypePhysical:
        case kTypeLongInteger: return lines.PutWide(static_cast<std::int64_t>(LittleEndian::Load<std::uint64_t>(bytes)));
        default: return m_writer.ReportError("Impossible error");
    }
}

bool TypeRegistry::PutEnumeration(KLineWriter& lines, const TypeHandle& type, const unsigned char* bytes) {
    char text[512];
    if (!type.LiteralText(bytes, text, sizeof text)) {
        return m_writer.ReportError("Cannot convert data %x %x %x %x to string", bytes[0], bytes[1], bytes[2], bytes[3]);
    }
    if (type.AllowsStdLogicConversion()) return lines.PutChar(text[0]);
    if (type.IsCharValue(bytes)) {
        const char quoted[3] = {'\'', text[0], '\''};
        return lines.PutText(std::string_view(quoted, 3));
    }
    return lines.PutString(text);
}

}  // namespace Tarvel
