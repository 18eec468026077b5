// Type registration and value text. Writer layer; see the header.
#include "writer/type_registry.h"

#include "format/value_text.h"

namespace Tarvel {

bool TypeRegistry::Register(const char* typeInfo, std::int32_t* typeIndex) {
    const String key(typeInfo ? typeInfo : "");
    const auto found = m_indexes.find(key);
    if (found != m_indexes.end()) {
        *typeIndex = found->second;
        return true;
    }
    if (!TypeHandle::IsWellFormed(typeInfo)) return m_writer.Error("Invalid typeinfo '%s'", typeInfo ? typeInfo : "");
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

bool TypeRegistry::PutValueText(KLineWriter& lines, std::int32_t typeIndex, const unsigned char* bytes) {
    if (typeIndex == m_stdLogic && m_stdLogic != 0) return Format::PutStdLogicText(lines.Stream(), bytes);
    const TypeHandle* type = Find(typeIndex);
    if (!type) return m_writer.Error("Unknown typeindex %d", typeIndex);
    switch (Format::PutValueText(lines.Stream(), *type, bytes)) {
        case Format::ValueWritten::kDone: return true;
        case Format::ValueWritten::kWriteFailed: return false;
        case Format::ValueWritten::kNoLiteral:
            return m_writer.Error("Cannot convert data %x %x %x %x to string", bytes[0], bytes[1], bytes[2], bytes[3]);
        case Format::ValueWritten::kNoText: break;
    }
    return m_writer.Error("Impossible error");
}

}  // namespace Tarvel
