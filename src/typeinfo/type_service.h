// The waveform library's access to the type-information service: TypeHandle wraps one
// Sorvat::KTypeInfo. Type layer (src/typeinfo), the only part of the library that includes
// sorvat/typeinfo.h. Threads: handles are immutable and copies share one description; any
// threads may query a handle at once, and distinct handles may be used on different threads.
#ifndef TARVEL_TYPEINFO_TYPE_SERVICE_H
#define TARVEL_TYPEINFO_TYPE_SERVICE_H

#include <sorvat/typeinfo.h>

#include <cstdint>
#include <string>
#include <utility>

namespace Tarvel {

// Kind numbers of types (TypeHandle::Kind), as the files record them.
enum TypeKind : int {
    kTypeUnknown = Sorvat::kKindUnknown,
    kTypeEnumeration = Sorvat::kKindEnumeration,
    kTypeInteger = Sorvat::kKindInteger,
    kTypeFloat = Sorvat::kKindFloat,
    kTypeArray = Sorvat::kKindArray,
    kTypeRecord = Sorvat::kKindRecord,
    kTypePhysical = Sorvat::kKindPhysical,
    kTypeAccess = Sorvat::kKindAccess,
    kTypeFile = Sorvat::kKindFile,
    kTypeLongInteger = Sorvat::kKindLongInteger,
};

// The two spellings of the std_logic type (its value characters are Sorvat::kStdLogicCharacters).
inline constexpr char kStdLogicTypeString[] = "e#9#std_logicc9 UX01ZWLH-";
inline constexpr char kStdLogicSubtypeString[] = "c#9#std_logicc9 UX01ZWLH-";

// Returns true iff `text` (null allowed) is exactly one of the two std_logic spellings.
bool IsStdLogicTypeString(const char* text);

class TypeHandle {
public:
    // An invalid handle: every query answers false, 0 or "".
    TypeHandle() = default;
    // Parses `text` (null allowed); valid iff IsWellFormed(text). May throw std::bad_alloc.
    explicit TypeHandle(const char* text);

    // Returns true iff `text` is a well-formed type-information string.
    static bool IsWellFormed(const char* text);

    bool IsValid() const { return m_info.IsValid(); }
    // One of TypeKind.
    int Kind() const { return m_info.GetKind(); }
    bool IsScalar() const { return m_info.IsScalar(); }
    // Bytes of one value (0 for access, file and opaque types).
    std::int64_t ValueSize() const { return m_info.GetSimpleSize_OldFormat(); }
    // The type-information string; "" when invalid. Lives as long as the handle or a copy.
    const char* Text() const { return m_info.GetTypeInfoString(); }
    // Returns true iff the string is one of the two std_logic spellings.
    bool IsStdLogic() const { return IsStdLogicTypeString(Text()); }
    // Returns true iff every literal is a character among "UX01ZWLH-".
    bool AllowsStdLogicConversion() const { return m_info.IsStdLogicConversionAllowed(); }
    // Returns true iff the enumeration value (4 bytes) names a character literal.
    bool IsCharValue(const unsigned char* value) const { return m_info.IsCharValue(value); }

    // Sets `text` to the text of a scalar value (ValueSize() bytes at `value`): an enumeration
    // literal as written, or a number. Returns false (text cleared) when there is none.
    bool ValueText(const unsigned char* value, std::string& text) const;
    // Writes the text of the enumeration literal at the value's position (4 bytes at `value`)
    // into `buffer` (NUL-terminated); false when it is no literal or the buffer is too small.
    bool LiteralText(const unsigned char* value, char* buffer, int size) const {
        return m_info.GetValueString_OldFormatLen(buffer, size, value, 0, 0);
    }
    // Writes the ValueSize() bytes of the value that `text` names into `buffer`; false when
    // `text` is no value of the type or the buffer is smaller than ValueSize().
    bool TextToValue(const char* text, unsigned char* buffer, int bufferSize) const {
        return m_info.GetBytes_OldFormat(text, buffer, bufferSize);
    }

    // Elements of an array (all dimensions) or fields of a record; 0 for other kinds.
    std::int64_t ChildCount() const { return m_info.GetNbOfChildren(); }
    // Name of a child relative to this type: "(7)", "(1,0)" or a field name; "" out of range.
    std::string ChildName(std::int64_t child) const;
    // Type of a child; invalid out of range.
    TypeHandle ChildType(std::int64_t child) const { return TypeHandle(m_info.GetChildType(child)); }

private:
    explicit TypeHandle(Sorvat::KTypeInfo info) : m_info(std::move(info)) {}

    Sorvat::KTypeInfo m_info;
};

}  // namespace Tarvel

#endif  // TARVEL_TYPEINFO_TYPE_SERVICE_H
