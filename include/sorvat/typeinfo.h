// Sorvat::KTypeInfo: reads a type-information string ("e#9#std_logicc9 UX01ZWLH-") and answers
// what kind of type it describes, how large its values are and how values read as text.
// Public header of the sorvat type-information library; compiles as C++17 and later.
//
// Threads. The parsed description is immutable and shared by copies through an atomic reference
// count, so copying is cheap. Any number of threads may query one object at once, and distinct
// objects (copies of each other included) may be used, copied and destroyed on different threads
// at the same time; only assigning to an object that another thread is using needs a lock.
//
// Errors. No member prints, aborts or throws, except that construction and CheckTypeInfo may
// throw std::bad_alloc when memory is exhausted. A default-constructed object and one built from
// a malformed string are "invalid": every query on them answers false, 0, an empty string or
// another invalid object.
//
// Grammar. A type-information string is exactly one type; nothing may follow it.
//
//   type   := kind name body
//   name   := '#' length '#' bytes      exactly <length> bytes, any but NUL ("#3#bit"; "#0#")
//   range  := '[' int dir int ']'       dir 't' ("to") or 'd' ("downto"); int: ['-'] digits
//   length, count := digits             no sign; at most 2^31 - 1
//
//   kind  what                           body after the name               value bytes
//   e, c  enumeration (c: a subtype       literal groups, at least one      4: position of
//         that lists its literals)        literal in all (below)            the literal
//   i     integer                        [range] (bounds within 32 bits)   4: signed
//   l     long integer                   [range]                           8: signed
//   f     floating point                 nothing                           8: IEEE double
//   p     physical (time)                [name] (its primary unit)         8: signed count
//                                                                             of the unit
//   a     array                          range {range} type (the element)  element size x
//                                                                             element count
//   r     record                         count {name type} (the fields)    the fields' bytes
//   x, y, u  access, file, unknown       nothing                           0 (no value)
//
//   Literal groups, in any order, numbered together from 0 in the order written:
//     'c' count ' ' bytes                count character literals, one byte each ("c2 01")
//     'n' count {name}                   count identifier literals ("n2#5#FALSE#4#TRUE")
//   An array dimension has |left - right| + 1 elements; several ranges make several
//   dimensions. A value of an array is its elements in order: the left index of each
//   dimension first, the last dimension varying fastest. A record's value is its fields in
//   order. All numbers in values are little-endian. docs/typeinfo.md gives the full rules.
//
// Common types (the strings our tools write; the name inside a string is free text):
//
//   VHDL std_logic, std_ulogic     e#9#std_logicc9 UX01ZWLH-         4: 0-8 for U X 0 1 Z W L H -
//                                                                       ('1' is 3, '0' is 2)
//   std_logic_vector(7 downto 0)   a#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-
//                                                                    32: (7), (6), ... (0)
//   bit / bit_vector(0 to 3)       e#3#bitc2 01 / a#10#bit_vector[0t3]e#3#bitc2 01
//                                                                    4: 0 or 1 / 16
//   boolean                        e#7#booleann2#5#FALSE#4#TRUE      4: 0 FALSE, 1 TRUE
//   integer                        i#7#integer                       4: signed
//   natural                        i#7#natural[0t2147483647]         4
//   real                           f#4#real                          8: IEEE double
//   time                           p#4#time#2#fs                     8: signed count of fs
//   type state is (IDLE, LOAD, RUN)  e#5#staten3#4#IDLE#4#LOAD#3#RUN  4: 0 IDLE, 1 LOAD, 2 RUN
//   record addr: integer; data: std_logic_vector(7 downto 0); end record
//                                  r#6#packet2#4#addri#7#integer#4#dataa#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-
//                                                                    36: addr, then data
//   array (0 to 1, 3 downto 0) of integer
//                                  a#6#matrix[0t1][3d0]i#7#integer   32: (0,3) (0,2) .. (1,0)
//   Verilog wire, reg, logic       e#5#logicc4 01XZ                  4: 0 '0', 1 '1', 2 X, 3 Z
//   logic [7:0]                    a#5#logic[7d0]e#5#logicc4 01XZ    32: [7] first
//   bit (2-state)                  e#3#bitc2 01                      4: 0 or 1
//   int, integer                   i#3#int, i#7#integer              4: signed
//   longint, time                  l#7#longint, l#4#time             8: signed
//   real                           f#4#real                          8: IEEE double
//   typedef enum {IDLE, LOAD, RUN} e#5#staten3#4#IDLE#4#LOAD#3#RUN  4: position
//
// A waveform writer keeps values of scalar types only (4 or 8 bytes); an array or record is
// written as a bus whose elements (or fields) are signals of their own, each with its type.
#ifndef SORVAT_TYPEINFO_H
#define SORVAT_TYPEINFO_H

#include <cstdint>
#include <memory>

#if defined(_WIN32)
#  if defined(SORVAT_BUILDING_LIBRARY)
#    define SORVAT_API __declspec(dllexport)
#  else
#    define SORVAT_API __declspec(dllimport)
#  endif
#else
#  define SORVAT_API __attribute__((visibility("default")))
#endif

namespace Sorvat {

// The characters of the nine std_logic values, codes 0 to 8 in this order.
inline constexpr char kStdLogicCharacters[] = "UX01ZWLH-";

// The kind numbers that GetKind answers, one per kind letter of the string.
enum KTypeKind : int {
    kKindUnknown = 0,      // 'u' opaque / unknown, and every invalid object
    kKindEnumeration = 1,  // 'e' enumeration type, 'c' enumeration subtype
    kKindInteger = 2,      // 'i' 32-bit signed integer
    kKindFloat = 3,        // 'f' IEEE double
    kKindArray = 4,        // 'a'
    kKindRecord = 5,       // 'r'
    kKindPhysical = 6,     // 'p' 64-bit count of the primary unit
    kKindAccess = 7,       // 'x'
    kKindFile = 8,         // 'y'
    kKindLongInteger = 9,  // 'l' 64-bit signed integer
};

// Direction of a range: 't' ("to", ascending) or 'd' ("downto", descending).
enum class KDirection : int { kTo = 0, kDownto = 1 };

// One range as written in the string. Its number of elements is |left - right| + 1, whatever the
// direction says; the library guarantees that this count fits in 64 bits.
struct KRange {
    std::int64_t left = 0;
    std::int64_t right = 0;
    KDirection direction = KDirection::kTo;
};

struct KTypeNode;  // the parsed description; private to the library

class SORVAT_API KTypeInfo {
public:
    // An invalid object.
    KTypeInfo() noexcept;
    // Parses `typeInfo` (null allowed). The object is valid iff CheckTypeInfo(typeInfo) is true.
    // The string is copied; the caller's buffer may go away afterwards.
    explicit KTypeInfo(const char* typeInfo);
    KTypeInfo(const KTypeInfo& other) noexcept;
    KTypeInfo(KTypeInfo&& other) noexcept;
    KTypeInfo& operator=(const KTypeInfo& other) noexcept;
    KTypeInfo& operator=(KTypeInfo&& other) noexcept;
    ~KTypeInfo();

    // Returns true iff `typeInfo` is not null and the bytes up to its terminating NUL are exactly
    // one type of the grammar, with nothing after it, nested at most kMaxNesting types deep, and
    // with an element count and a value size that fit in a signed 64-bit integer. Never reads
    // past the terminating NUL.
    static bool CheckTypeInfo(const char* typeInfo);
    // Deepest nesting of types that is accepted (the outermost type is level 1).
    static constexpr int kMaxNesting = 32;

    // Returns true iff the object holds a parsed type.
    bool IsValid() const noexcept;
    // The type's string, as given (for an element or field type: its part of the whole string);
    // "" when invalid. The pointer stays valid as long as this object or a copy of it lives.
    const char* GetTypeInfoString() const noexcept;
    // The type's name ("std_logic"); "" when invalid. Lifetime as GetTypeInfoString.
    const char* GetTypeName() const noexcept;
    // One of KTypeKind; kKindUnknown when invalid.
    int GetKind() const noexcept;
    // Returns true iff the kind is enumeration, integer, floating point, physical or long integer.
    bool IsScalar() const noexcept;
    // Bytes of one value: 4 for enumerations and integers, 8 for floating point, physical and
    // long integers, element size times element count for arrays, the sum of the field sizes for
    // records, 0 for access, file and opaque types and when invalid.
    std::int64_t GetSimpleSize_OldFormat() const noexcept;

    // --- Enumerations. Literal positions count from 0 in the order the string lists them.

    // Number of literals; 0 when not an enumeration.
    int GetNbOfLiterals() const noexcept;
    // Writes the NUL-terminated text of `value` into `buffer`. Enumerations: the literal at the
    // value's position (a character literal as its one character, an identifier as written).
    // Integer, physical and long integer: decimal. Floating point: the shortest text that reads
    // back to the same double ("inf", "-inf", "nan" or "-nan" for the special values).
    // REQUIRES: `value` points at GetSimpleSize_OldFormat() bytes. The two trailing parameters
    // are reserved; pass 0.
    // Returns false (leaving "" in the buffer when bufferSize > 0) iff the object is not scalar,
    // `buffer` or `value` is null, the position is not a literal of the type, or the text and its
    // NUL do not fit in bufferSize bytes.
    bool GetValueString_OldFormatLen(char* buffer, int bufferSize, const unsigned char* value,
                                     int reserved1, int reserved2) const noexcept;
    // The reverse: writes the GetSimpleSize_OldFormat() bytes of the value that `text` names
    // into `buffer`. Enumerations: the first literal whose text equals `text` exactly; a
    // character literal may also be given between single quotes ("'0'"). Integer, physical and
    // long integer: an optional '-' and decimal digits, within the type's range when it has one.
    // Floating point: an optional '-', decimal digits with an optional fraction and exponent, or
    // "inf", "infinity", "nan" (no blanks, no '+', no hexadecimal form).
    // Returns false (buffer untouched) iff the object is not scalar, `text` or `buffer` is null,
    // bufferSize is below the value size, or the whole of `text` is no value of the type.
    bool GetBytes_OldFormat(const char* text, unsigned char* buffer, int bufferSize) const noexcept;
    // Returns true iff the type is an enumeration whose literals are all character literals
    // among U X 0 1 Z W L H - (bit, std_ulogic, std_logic, a four-state "01XZ" type).
    bool IsStdLogicConversionAllowed() const noexcept;
    // Returns true iff the type is an enumeration and the literal at the position that `value`
    // (4 bytes, null allowed) holds exists and is a character literal.
    bool IsCharValue(const unsigned char* value) const noexcept;

    // --- Arrays.

    // Number of elements over all dimensions (the product of the dimension lengths); 0 when not
    // an array.
    std::int64_t GetNbOfElements() const noexcept;
    // Number of dimensions; 0 when not an array.
    int GetNbOfDimensions() const noexcept;
    // Copies the first min(capacity, GetNbOfDimensions()) ranges into `ranges` (null allowed
    // when capacity is 0) and returns GetNbOfDimensions().
    int GetArrayDimensionRanges(KRange* ranges, int capacity) const noexcept;
    // The element type; an invalid object when not an array. It shares this object's
    // description.
    KTypeInfo GetElementType() const noexcept;

    // --- Records.

    // Number of fields; 0 when not a record.
    int GetNbOfFields() const noexcept;
    // Name of field `field` (0-based); "" when not a record or out of range. Lifetime as
    // GetTypeInfoString.
    const char* GetFieldName(int field) const noexcept;
    // Type of field `field`; an invalid object when not a record or out of range.
    KTypeInfo GetFieldType(int field) const noexcept;

    // --- Children: the elements of an array (all dimensions, in value order, the left index
    // first and the last dimension varying fastest) or the fields of a record.

    // GetNbOfElements() for arrays, GetNbOfFields() for records, otherwise 0.
    std::int64_t GetNbOfChildren() const noexcept;
    // Writes the NUL-terminated name of child `child` (0-based) into `buffer`: for an array the
    // indices between parentheses, "(7)" or "(1,0)"; for a record the field name.
    // Returns false (leaving "" in the buffer when bufferSize > 0) iff `buffer` is null, `child`
    // is not below GetNbOfChildren(), or the name and its NUL do not fit in bufferSize bytes.
    bool GetChildName(std::int64_t child, char* buffer, int bufferSize) const noexcept;
    // Type of child `child`: the element type for arrays (any valid index), the field's type for
    // records; an invalid object when out of range.
    KTypeInfo GetChildType(std::int64_t child) const noexcept;

private:
    explicit KTypeInfo(std::shared_ptr<const KTypeNode> node) noexcept;

    std::shared_ptr<const KTypeNode> m_node;
};

}  // namespace Sorvat

#endif  // SORVAT_TYPEINFO_H
