// The parsed, immutable description of one type-information string, and the parser that builds
// it. Private to the sorvat library. A finished node is never modified, so any number of threads
// may read it at once.
#ifndef SORVAT_TYPE_NODE_H
#define SORVAT_TYPE_NODE_H

#include <sorvat/typeinfo.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Sorvat {

// One enumeration literal: a character literal (one byte of text) or an identifier.
struct KLiteral {
    std::string text;
    bool isCharacter = false;
};

struct KTypeNode {
    int kind = kKindUnknown;
    std::string text;                 // this type's part of the string, NUL-terminated
    std::string name;                 // the type's name
    std::int64_t valueSize = 0;       // bytes of one value
    std::vector<KLiteral> literals;   // enumerations
    bool stdLogicCompatible = false;  // enumerations of "UX01ZWLH-" characters only
    bool hasRange = false;            // integers and long integers with a range
    KRange range;
    std::string unit;                 // physical types: the primary unit, may be empty
    std::vector<KRange> dimensions;   // arrays
    std::int64_t elementCount = 0;    // arrays: product of the dimension lengths
    std::vector<KTypeNode> children;  // arrays: the element type; records: the field types
    std::vector<std::string> fieldNames;  // records
};

// Parses `text` as one whole type. Returns null iff it is malformed (see
// KTypeInfo::CheckTypeInfo). May throw std::bad_alloc.
std::shared_ptr<const KTypeNode> ParseTypeInfo(std::string_view text);

// Number of elements of a range, |left - right| + 1; false when it does not fit in int64.
bool RangeLength(const KRange& range, std::int64_t& length);

}  // namespace Sorvat

#endif  // SORVAT_TYPE_NODE_H
