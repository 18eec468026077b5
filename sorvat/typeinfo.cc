// KTypeInfo: the exported face of the sorvat type-information library, a shared handle on an
// immutable parsed description. Element and field types share the whole tree through aliasing
// shared pointers, so they cost no allocation. Safe on any threads (see the public header).
#include <sorvat/typeinfo.h>

#include "type_node.h"
#include "value_text.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace Sorvat {

KTypeInfo::KTypeInfo() noexcept = default;

KTypeInfo::KTypeInfo(const char* typeInfo) {
    if (typeInfo != nullptr) m_node = ParseTypeInfo(std::string_view(typeInfo));
}

KTypeInfo::KTypeInfo(std::shared_ptr<const KTypeNode> node) noexcept : m_node(std::move(node)) {}
KTypeInfo::KTypeInfo(const KTypeInfo& other) noexcept = default;
KTypeInfo::KTypeInfo(KTypeInfo&& other) noexcept = default;
KTypeInfo& KTypeInfo::operator=(const KTypeInfo& other) noexcept = default;
KTypeInfo& KTypeInfo::operator=(KTypeInfo&& other) noexcept = default;
KTypeInfo::~KTypeInfo() = default;

bool KTypeInfo::CheckTypeInfo(const char* typeInfo) {
    return typeInfo != nullptr && ParseTypeInfo(std::string_view(typeInfo)) != nullptr;
}

bool KTypeInfo::IsValid() const noexcept { return m_node != nullptr; }

const char* KTypeInfo::GetTypeInfoString() const noexcept { return m_node ? m_node->text.c_str() : ""; }

const char* KTypeInfo::GetTypeName() const noexcept { return m_node ? m_node->name.c_str() : ""; }

int KTypeInfo::GetKind() const noexcept { return m_node ? m_node->kind : kKindUnknown; }

bool KTypeInfo::IsScalar() const noexcept {
    switch (GetKind()) {
    case kKindEnumeration:
    case kKindInteger:
    case kKindFloat:
    case kKindPhysical:
    case kKindLongInteger: return true;
    default: return false;
    }
}

std::int64_t KTypeInfo::GetSimpleSize_OldFormat() const noexcept { return m_node ? m_node->valueSize : 0; }

int KTypeInfo::GetNbOfLiterals() const noexcept { return m_node ? int(m_node->literals.size()) : 0; }

bool KTypeInfo::GetValueString_OldFormatLen(char* buffer, int bufferSize, const unsigned char* value,
                                            int /*reserved1*/, int /*reserved2*/) const noexcept {
    if (m_node) return ValueToText(*m_node, value, buffer, bufferSize);
    if (buffer != nullptr && bufferSize > 0) buffer[0] = '\0';
    return false;
}

bool KTypeInfo::GetBytes_OldFormat(const char* text, unsigned char* buffer, int bufferSize) const noexcept {
    return m_node && TextToValue(*m_node, text, buffer, bufferSize);
}

bool KTypeInfo::IsStdLogicConversionAllowed() const noexcept { return m_node && m_node->stdLogicCompatible; }

bool KTypeInfo::IsCharValue(const unsigned char* value) const noexcept {
    std::uint32_t position = 0;
    return m_node && LiteralPosition(*m_node, value, position) && m_node->literals[position].isCharacter;
}

std::int64_t KTypeInfo::GetNbOfElements() const noexcept {
    return GetKind() == kKindArray ? m_node->elementCount : 0;
}

int KTypeInfo::GetNbOfDimensions() const noexcept { return m_node ? int(m_node->dimensions.size()) : 0; }

int KTypeInfo::GetArrayDimensionRanges(KRange* ranges, int capacity) const noexcept {
    const int count = GetNbOfDimensions();
    if (m_node && ranges != nullptr && capacity > 0) {
        std::copy_n(m_node->dimensions.data(), std::min(count, capacity), ranges);
    }
    return count;
}

KTypeInfo KTypeInfo::GetElementType() const noexcept {
    if (GetKind() != kKindArray) return KTypeInfo();
    return KTypeInfo(std::shared_ptr<const KTypeNode>(m_node, &m_node->children[0]));
}

int KTypeInfo::GetNbOfFields() const noexcept {
    return GetKind() == kKindRecord ? int(m_node->fieldNames.size()) : 0;
}

const char* KTypeInfo::GetFieldName(int field) const noexcept {
    if (field < 0 || field >= GetNbOfFields()) return "";
    return m_node->fieldNames[std::size_t(field)].c_str();
}

KTypeInfo KTypeInfo::GetFieldType(int field) const noexcept {
    if (field < 0 || field >= GetNbOfFields()) return KTypeInfo();
    return KTypeInfo(std::shared_ptr<const KTypeNode>(m_node, &m_node->children[std::size_t(field)]));
}

std::int64_t KTypeInfo::GetNbOfChildren() const noexcept {
    return GetKind() == kKindArray ? GetNbOfElements() : GetNbOfFields();
}

bool KTypeInfo::GetChildName(std::int64_t child, char* buffer, int bufferSize) const noexcept {
    if (m_node) return ChildName(*m_node, child, buffer, bufferSize);
    if (buffer != nullptr && bufferSize > 0) buffer[0] = '\0';
    return false;
}

KTypeInfo KTypeInfo::GetChildType(std::int64_t child) const noexcept {
    if (child < 0 || child >= GetNbOfChildren()) return KTypeInfo();
    return GetKind() == kKindArray ? GetElementType() : GetFieldType(int(child));
}

}  // namespace Sorvat
