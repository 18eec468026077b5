// Conversions between value bytes and their text, and the names of array elements, for one
// parsed type. Private to the sorvat library; pure functions over immutable nodes, safe on any
// thread.
#ifndef SORVAT_VALUE_TEXT_H
#define SORVAT_VALUE_TEXT_H

#include "type_node.h"

#include <cstdint>

namespace Sorvat {

// The position held by an enumeration value (4 little-endian bytes); false when `value` is
// null or the position is no literal of `node`.
bool LiteralPosition(const KTypeNode& node, const unsigned char* value, std::uint32_t& position);

// Text of a scalar value into `buffer` (NUL-terminated); see
// KTypeInfo::GetValueString_OldFormatLen.
bool ValueToText(const KTypeNode& node, const unsigned char* value, char* buffer, int bufferSize);

// Value bytes of a scalar's text; see KTypeInfo::GetBytes_OldFormat.
bool TextToValue(const KTypeNode& node, const char* text, unsigned char* buffer, int bufferSize);

// Name of child `child` of an array or record; see KTypeInfo::GetChildName.
bool ChildName(const KTypeNode& node, std::int64_t child, char* buffer, int bufferSize);

}  // namespace Sorvat

#endif  // SORVAT_VALUE_TEXT_H
