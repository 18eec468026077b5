// TypeHandle: the waveform library's wrapper of Sorvat::KTypeInfo. Type layer (src/typeinfo).
// Stateless helpers over immutable handles; safe on any threads.
#include "typeinfo/type_service.h"

#include <climits>
#include <cstring>

namespace Tarvel {
namespace {

// Every literal, number and child name of a type is shorter than this: a literal or field name
// is part of the type's string, an index list needs at most 21 bytes per dimension and every
// dimension takes at least five bytes of the string ("[0t0]"), and a number at most 40 bytes.
std::size_t TextCapacity(const char* typeText) {
    const std::size_t length = std::strlen(typeText);
    return length < (INT_MAX - 64) / 6 ? 6 * length + 64 : INT_MAX;
}

}  // namespace

bool IsStdLogicTypeString(const char* text) {
    return text != nullptr &&
           (std::strcmp(text, kStdLogicTypeString) == 0 || std::strcmp(text, kStdLogicSubtypeString) == 0);
}

TypeHandle::TypeHandle(const char* text) : m_info(text) {}

bool TypeHandle::IsWellFormed(const char* text) { return Sorvat::KTypeInfo::CheckTypeInfo(text); }

bool TypeHandle::ValueText(const unsigned char* value, std::string& text) const {
    text.assign(TextCapacity(Text()), '\0');
    const bool ok = m_info.GetValueString_OldFormatLen(text.data(), int(text.size()), value, 0, 0);
    text.resize(ok ? std::strlen(text.c_str()) : 0);
    return ok;
}

std::string TypeHandle::ChildName(std::int64_t child) const {
    std::string name(TextCapacity(Text()), '\0');
    const bool ok = m_info.GetChildName(child, name.data(), int(name.size()));
    name.resize(ok ? std::strlen(name.c_str()) : 0);
    return name;
}

}  // namespace Tarvel
