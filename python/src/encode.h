// Python values as the numbers the writer stores: a scalar's value as its type's bytes read as
// a little-endian number, a bus's value as one such number per scalar element (leaf), and
// numpy arrays of either for store_many. Python binding layer; needs the GIL. Wrong values
// raise TypeError (no value of the kind) or ValueError (no value of the type).
//
// What each type takes: enumerations a code (int, the literal's index), a literal as text
// ("1", "RUN"; a character literal also quoted, "'1'") or a bool (the literal '1' or '0' when
// the type has them, else code 1 or 0); integers an int in their range, or its text; reals a
// float or an int; buses of '0'/'1' elements an int (position 0 is the highest bit) or a string
// of one character per element; any bus a sequence of its elements' values, a record also a
// dict by field name.
#ifndef TARVEL_PYTHON_ENCODE_H
#define TARVEL_PYTHON_ENCODE_H

#include <cstdint>
#include <string>
#include <vector>

#include "bindings.h"
#include "types.h"
#include "write_file.h"

namespace TarvelPython {

// One value of a scalar type; `who` names the signal in messages.
std::uint64_t EncodeScalar(const TypeFacts& type, py::handle value, const std::string& who);

// The scalar elements of the bus `bus` (of elements that are buses: theirs), in value order.
std::vector<int> Leaves(const WriteFile& file, int bus);

// One value of the bus `bus`: appends one number per leaf to `raws`.
void EncodeBus(const WriteFile& file, int bus, py::handle value, std::vector<std::uint64_t>* raws);

// `count` values of the scalar `handle` (a sequence or an array).
std::vector<std::uint64_t> EncodeScalars(const TypeFacts& type, py::handle values, const std::string& who);

// `count` values of the bus `bus`: for each leaf, its numbers.
std::vector<std::vector<std::uint64_t>> EncodeBuses(const WriteFile& file, int bus, py::handle values);

// Times (and deltas) of store_many as int64 (uint32); TypeError for what holds no integers.
std::vector<std::int64_t> IntegerTimes(py::handle times);
std::vector<std::uint32_t> IntegerDeltas(py::handle deltas);

}  // namespace TarvelPython

#endif  // TARVEL_PYTHON_ENCODE_H
