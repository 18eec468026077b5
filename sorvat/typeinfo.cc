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
    if (typeInfo != nullptr) node_ = ParseTypeInfo(std::string_view(typeInfo));
}

KTypeInfo::KTypeInfo(std::shared_ptr<const KTypeNode> node) noexcept : node_(std::move(node)) {}
KTypeInfo::KTypeInfo(const KTypeInfo& other) noexcept = default;
KTypeInfo::KTypeInfo(KTypeInfo&& other) noexcept = default;
KTypeInfo& KTypeInfo::operator=(const KTypeInfo& other) noexcept = default;
KTypeInfo& KTypeInfo::operator=(KTypeInfo&& other) noexcept = default;
KTypeInfo::~KTypeInfo() = default;

bool KTypeInfo::CheckTypeInfo(const char* typeInfo) {
    return typeInfo != nullptr && ParseTypeInfo(std::string_view(typeInfo)) != nullptr;
}

bool KTypeInfo::IsValid() const noexcept { return node_ != nullptr; }

const char* KTypeInfo::GetTypeInfoString() const noexcept { return node_ ? node_->text.c_str() : ""; }

const char* KTypeInfo::GetTypeName() const noexcept { return node_ ? node_->name.c_str() : ""; }

int KTypeInfo::GetKind() const noexcept { return node_ ? node_->kind : kKindUnknown; }

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

std::int64_t KTypeInfo::GetSimpleSize_OldFormat() const noexcept { return node_ ? node_->valueSize : 0; }

int KTypeInfo::GetNbOfLiterals() const noexcept { return node_ ? int(node_->literals.size()) : 0; }

bool KTypeInfo::GetValueString_OldFormatLen(char* buffer, int bufferSize, const unsigned char* value,
                                            int /*reserved1*/, int /*reserved2*/) const noexcept {
    if (node_) return ValueToText(*node_, value, buffer, bufferSize);
    if (buffer != nullptr && bufferSize > 0) buffer[0] = '\0';
    return false;
}

bool KTypeInfo::GetBytes_OldFormat(const char* text, unsigned char* buffer, int bufferSize) const noexcept {
    return node_ && TextToValue(*node_, text, buffer, bufferSize);
}

bool KTypeInfo::IsStdLogicConversionAllowed() const noexcept { return node_ && node_->stdLogicCompatible; }

bool KTypeInfo::IsCharValue(const unsigned char* value) const noexcept {
    std::uint32_t position = 0;
    return node_ && LiteralPosition(*node_, value, position) && node_->literals[position].isCharacter;
}

std::int64_t KTypeInfo::GetNbOfElements() const noexcept {
    return GetKind() == kKindArray ? node_->elementCount : 0;
}

int KTypeInfo::GetNbOfDimensions() const noexcept { return node_ ? int(node_->dimensions.size()) : 0; }

int KTypeInfo::GetArrayDimensionRanges(KRange* ranges, int capacity) const noexcept {
    const int count = GetNbOfDimensions();
    if (node_ && ranges != nullptr && capacity > 0) {
        std::copy_n(node_->dimensions.data(), std::min(count, capacity), ranges);
    }
    return count;
}

KTypeInfo KTypeInfo::GetElementType() const noexcept {
    if (GetKind() != kKindArray) return KTypeInfo();
    return KTypeInfo(std::shared_ptr<const KTypeNode>(node_, &node_->children[0]));
}

int KTypeInfo::GetNbOfFields() const noexcept {
    return GetKind() == kKindRecord ? int(node_->fieldNames.size()) : 0;
}

const char* KTypeInfo::GetFieldName(int field) const noexcept {
    if (field < 0 || field >= GetNbOfFields()) return "";
    return node_->fieldNames[std::size_t(field)].c_str();
}

KTypeInfo KTypeInfo::GetFieldType(int field) const noexcept {
    if (field < 0 || field >= GetNbOfFields()) return KTypeInfo();
    return KTypeInfo(std::shared_ptr<const KTypeNode>(node_, &node_->children[std::size_t(field)]));
}

std::int64_t KTypeInfo::GetNbOfChildren() const noexcept {
    return GetKind() == kKindArray ? GetNbOfElements() : GetNbOfFields();
}

bool KTypeInfo::GetChildName(std::int64_t child, char* buffer, int bufferSize) const noexcept {
    if (node_) return ChildName(*node_, child, buffer, bufferSize);
    if (buffer != nullptr && bufferSize > 0) buffer[0] = '\0';
    return false;
}

KTypeInfo KTypeInfo::GetChildType(std::int64_t child) const noexcept {
    if (child < 0 || child >= GetNbOfChildren()) return KTypeInfo();
    return GetKind() == kKindArray ? GetElementType() : GetFieldType(int(child));
}

}  // namespace Sorvat
