// What the Python module needs to know about a type string: how its values come out as numpy
// arrays and Python objects, how values go in from Python, and how a person reads the type.
// Python binding layer, built on Sorvat::KTypeInfo only. Immutable once made; any thread.
#ifndef TARVEL_PYTHON_TYPES_H
#define TARVEL_PYTHON_TYPES_H

#include <sorvat/typeinfo.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace TarvelPython {

// How one value of a scalar type is kept in arrays.
enum class ValueKind {
    kNone,     // no values: scopes, virtual buses, composite and opaque types
    kCode,     // enumeration: the literal's position (uint8 when the type has at most 255 literals)
    kInt32,    // integer
    kInt64,    // long integer, physical
    kFloat64,  // floating point
};

// The facts of one type that reading and writing values ask for again and again.
class TypeFacts {
public:
    // REQUIRES: `type` is valid.
    explicit TypeFacts(const Sorvat::KTypeInfo& type);

    const Sorvat::KTypeInfo& Type() const { return m_type; }
    ValueKind Kind() const { return m_kind; }
    // Enumerations: 1 when codes fit a uint8 array, else 4; other kinds: their value size.
    int ArrayBytes() const { return m_arrayBytes; }
    // The literals of an enumeration in code order ("1", "RUN"); empty for other kinds.
    const std::vector<std::string>& Literals() const { return m_literals; }
    // True when every literal of the enumeration is a character literal ('0', 'U', 'a').
    bool AllCharacters() const { return m_allCharacters; }
    // The bit of code `code` when its literal is the character '0' or '1'; -1 otherwise.
    int BitOf(std::uint32_t code) const { return code < m_bits.size() ? m_bits[code] : -1; }
    // True when the code's literal is a character literal.
    bool IsCharacter(std::uint32_t code) const { return code < m_characters.size() && m_characters[code] != '\0'; }
    // The character a code shows as in text: its literal when it is a character, '?' otherwise.
    char CharacterOf(std::uint32_t code) const { return IsCharacter(code) ? m_characters[code] : '?'; }
    // The code of the character literal `c`; -1 when the type has none.
    int CodeOfCharacter(char c) const;

private:
    Sorvat::KTypeInfo m_type;
    ValueKind m_kind;
    int m_arrayBytes;
    std::vector<std::string> m_literals;
    std::vector<std::int8_t> m_bits;  // by code: 0, 1 or -1
    std::vector<char> m_characters;   // by code: the character literal, '\0' for an identifier
    bool m_allCharacters = false;
};

// A type for people: "std_logic", "state (IDLE, LOAD, RUN, DONE)", "integer", "real",
// "std_logic_vector(7 downto 0) of std_logic", "packet: record (addr: integer; valid: boolean)".
// Enumerations list at most a dozen literals. "?" for an invalid type.
std::string DescribeType(const Sorvat::KTypeInfo& type);

// The kind's word: "enumeration", "integer", "real", "physical", "long integer", "array",
// "record", "access", "file", "opaque".
const char* KindWord(const Sorvat::KTypeInfo& type);

}  // namespace TarvelPython

#endif  // TARVEL_PYTHON_TYPES_H
