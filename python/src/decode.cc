// Walking stores into arrays, and the merge of a bus's elements. Python binding layer.
#include "decode.h"

#include <algorithm>
#include <cstring>

namespace TarvelPython {
namespace {

// Writes `raw` at `out` in the array form of `type` (TypeFacts::ArrayBytes() bytes).
void PutValue(const TypeFacts& type, std::uint64_t raw, unsigned char* out) {
    switch (type.Kind()) {
        case ValueKind::kCode: {
            const std::uint32_t code = static_cast<std::uint32_t>(raw);
            if (type.ArrayBytes() == 1) {
                *out = static_cast<unsigned char>(std::min<std::uint32_t>(code, 255));
            } else {
                std::memcpy(out, &code, sizeof code);
            }
            return;
        }
        case ValueKind::kInt32: {
            const std::int32_t value = static_cast<std::int32_t>(static_cast<std::uint32_t>(raw));
            std::memcpy(out, &value, sizeof value);
            return;
        }
        case ValueKind::kInt64:
        case ValueKind::kFloat64: std::memcpy(out, &raw, sizeof raw); return;  // same bits
        case ValueKind::kNone: return;
    }
}

// The elements' cursors in one merge: walks all of them in (time, delta) order, one stamp at a
// time, keeping each element's value after its events at that stamp.
class ElementMerge {
public:
    explicit ElementMerge(const std::vector<BusElement>& elements) : m_elements(elements) {
        m_cursors.resize(elements.size());
        m_values.assign(elements.size(), 0);
        m_has.assign(elements.size(), false);
        for (std::size_t i = 0; i < elements.size(); ++i) {
            if (elements[i].store && elements[i].type && elements[i].store->GetFirstEvent(&m_cursors[i])) Push(i);
        }
    }

    // Steps to the next stamp; false after the last one.
    bool Next() {
        if (m_heap.empty()) return false;
        m_time = m_heap.front().time;
        m_delta = m_heap.front().delta;
        while (!m_heap.empty() && m_heap.front().time == m_time && m_heap.front().delta == m_delta) {
            std::pop_heap(m_heap.begin(), m_heap.end(), Later);
            const std::size_t i = m_heap.back().element;
            m_heap.pop_back();
            Consume(i);
        }
        return true;
    }

    std::int64_t Time() const { return m_time; }
    std::uint16_t Delta() const { return static_cast<std::uint16_t>(m_delta); }
    std::uint64_t Value(std::size_t element) const { return m_values[element]; }
    bool HasValue(std::size_t element) const { return m_has[element]; }
    std::size_t Width() const { return m_elements.size(); }

private:
    struct Stamp {
        std::int64_t time;
        int delta;
        std::size_t element;
    };
    static bool Later(const Stamp& a, const Stamp& b) { return a.time != b.time ? a.time > b.time : a.delta > b.delta; }

    void Push(std::size_t i) {
        m_heap.push_back(Stamp{m_cursors[i].GetTime(), static_cast<int>(m_cursors[i].GetDelta()), i});
        std::push_heap(m_heap.begin(), m_heap.end(), Later);
    }

    // Takes the element's events at the current stamp; the last one is its value.
    void Consume(std::size_t i) {
        Tarvel::KEventData& cursor = m_cursors[i];
        bool more = true;
        while (more && cursor.GetTime() == m_time && static_cast<int>(cursor.GetDelta()) == m_delta) {
            m_values[i] = RawValue(cursor);
            m_has[i] = true;
            more = m_elements[i].store->GetNextEvent(&cursor);
        }
        if (more) Push(i);
    }

    const std::vector<BusElement>& m_elements;
    std::vector<Tarvel::KEventData> m_cursors;
    std::vector<std::uint64_t> m_values;
    std::vector<bool> m_has;
    std::vector<Stamp> m_heap;  // each element with events left, at its next one
    std::int64_t m_time = 0;
    int m_delta = 0;
};

}  // namespace

std::uint64_t RawValue(const Tarvel::KEventData& event) {
    unsigned char bytes[8] = {};
    event.GetValue(bytes, sizeof bytes);
    std::uint64_t value = 0;
    for (int i = 7; i >= 0; --i) value = value << 8 | bytes[i];
    return value;
}

ScalarEvents DecodeScalar(const Tarvel::KEventsStore& store, const TypeFacts* type) {
    ScalarEvents out;
    const std::size_t count = store.count();
    const bool values = type && type->Kind() != ValueKind::kNone && store.GetSize() > 0;
    const std::size_t bytes = values ? static_cast<std::size_t>(type->ArrayBytes()) : 0;
    const bool sources = store.Sources();
    out.times.resize(count);
    out.deltas.resize(count);
    out.values.resize(count * bytes);
    if (sources) out.sources.resize(count);
    Tarvel::KEventData event;
    std::size_t i = 0;
    for (bool more = store.GetFirstEvent(&event); more && i < count; more = store.GetNextEvent(&event), ++i) {
        out.times[i] = event.GetTime();
        out.deltas[i] = static_cast<std::uint16_t>(event.GetDelta());
        if (values) PutValue(*type, RawValue(event), &out.values[i * bytes]);
        if (sources) out.sources[i] = event.GetSource();
    }
    out.times.resize(i);  // a store walks as many events as it counts; never more
    out.deltas.resize(i);
    out.values.resize(i * bytes);
    if (sources) out.sources.resize(i);
    return out;
}

CharacterBusEvents DecodeCharacterBus(const std::vector<BusElement>& elements) {
    CharacterBusEvents out;
    ElementMerge merge(elements);
    const std::size_t width = merge.Width();
    while (merge.Next()) {
        out.times.push_back(merge.Time());
        out.deltas.push_back(merge.Delta());
        std::uint64_t bits = 0;
        for (std::size_t i = 0; i < width; ++i) {
            const std::uint32_t code = static_cast<std::uint32_t>(merge.Value(i));
            const char c = merge.HasValue(i) ? elements[i].type->CharacterOf(code) : '?';
            out.characters.push_back(c);
            const int bit = merge.HasValue(i) ? elements[i].type->BitOf(code) : -1;
            out.binary = out.binary && bit >= 0;
            bits = bits << 1 | static_cast<std::uint64_t>(bit > 0);
        }
        if (out.binary && width <= 64) out.bits.push_back(bits);
    }
    if (!out.binary || width > 64) out.bits.clear();
    return out;
}

RowBusEvents DecodeRowBus(const std::vector<BusElement>& elements, const std::vector<std::size_t>& offsets, std::size_t rowBytes) {
    RowBusEvents out;
    ElementMerge merge(elements);
    while (merge.Next()) {
        out.times.push_back(merge.Time());
        out.deltas.push_back(merge.Delta());
        const std::size_t start = out.rows.size();
        out.rows.resize(start + rowBytes);
        for (std::size_t i = 0; i < merge.Width(); ++i) {
            if (elements[i].type && merge.HasValue(i)) PutValue(*elements[i].type, merge.Value(i), &out.rows[start + offsets[i]]);
        }
    }
    return out;
}

}  // namespace TarvelPython
