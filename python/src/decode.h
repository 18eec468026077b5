// Events of one signal as flat arrays: a scalar's store walked once into times, deltas, values
// and sources; a bus's elements merged into one value per (time, delta). Python binding layer,
// plain C++ (no Python objects, so it runs with the GIL released). One thread per call; the
// stores must not change during it.
#ifndef TARVEL_PYTHON_DECODE_H
#define TARVEL_PYTHON_DECODE_H

#include <tarvel/events_store.h>

#include <cstdint>
#include <vector>

#include "types.h"

namespace TarvelPython {

// The events of one scalar signal, in store order.
struct ScalarEvents {
    std::vector<std::int64_t> times;
    std::vector<std::uint16_t> deltas;
    // ArrayBytes() bytes per event, native order: uint8 or uint32 codes, int32, int64, double.
    std::vector<unsigned char> values;
    std::vector<std::int32_t> sources;  // empty when the store keeps none
};

// The event's value as a number: its bytes little-endian, zero above the store's value size.
std::uint64_t RawValue(const Tarvel::KEventData& event);

// Walks `store` (values read as `type` says; no values for kNone).
ScalarEvents DecodeScalar(const Tarvel::KEventsStore& store, const TypeFacts* type);

// One element of a bus: its store and its type (both null for a position no signal fills).
struct BusElement {
    const Tarvel::KEventsStore* store;
    const TypeFacts* type;
};

// The events of a bus whose elements are enumerations of character literals (std_logic, bit,
// Verilog's 01XZ): one event per (time, delta) at which some element has one, the elements'
// values after all their events there.
struct CharacterBusEvents {
    std::vector<std::int64_t> times;
    std::vector<std::uint16_t> deltas;
    std::vector<char> characters;  // width per event, position 0 first; '?' before an element's first event
    bool binary = true;            // every character of every event is '0' or '1'
    std::vector<std::uint64_t> bits;  // when binary and width <= 64: position 0 is the highest bit
};

CharacterBusEvents DecodeCharacterBus(const std::vector<BusElement>& elements);

// The events of any other bus of scalar elements (arrays of integers or reals, records), as
// rows of `rowBytes` bytes: each element's value at its offset, in its ArrayBytes() form (zero
// before the element's first event).
struct RowBusEvents {
    std::vector<std::int64_t> times;
    std::vector<std::uint16_t> deltas;
    std::vector<unsigned char> rows;
};

// REQUIRES: offsets[i] + elements[i].type->ArrayBytes() <= rowBytes for every typed element.
RowBusEvents DecodeRowBus(const std::vector<BusElement>& elements, const std::vector<std::size_t>& offsets, std::size_t rowBytes);

}  // namespace TarvelPython

#endif  // TARVEL_PYTHON_DECODE_H
