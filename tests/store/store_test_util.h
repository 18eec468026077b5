// Test helpers for the events store: a reference model of events, seeded stream generators,
// a walker that collects a store's events, and writers that record emission calls.
#ifndef TARVEL_TESTS_STORE_TEST_UTIL_H
#define TARVEL_TESTS_STORE_TEST_UTIL_H

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tarvel/tarvel.h"

namespace TarvelTest {

using Tarvel::int64;

struct Event {
    int64 time;
    unsigned delta;
    std::uint64_t value;
    int source;
    bool operator==(const Event& o) const {
        return time == o.time && delta == o.delta && value == o.value && source == o.source;
    }
};

inline std::string Describe(const Event& e) {
    return "(" + std::to_string(e.time) + "," + std::to_string(e.delta) + "," + std::to_string(e.value) + "," +
           std::to_string(e.source) + ")";
}

// Bytes of `value` as a store of `width` (4 or 8) stored bytes takes them.
inline void ToBytes(std::uint64_t value, unsigned char* bytes, int width) {
    for (int i = 0; i < width; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
}

inline void Push(Tarvel::KEventsStore& store, const Event& e, int width) {
    unsigned char bytes[8] = {};
    ToBytes(e.value, bytes, width);
    store.push_back(e.time, static_cast<int>(e.delta), bytes, e.source);
}

// Walks the whole store from its first event.
inline std::vector<Event> Collect(const Tarvel::KEventsStore& store) {
    std::vector<Event> events;
    Tarvel::KEventData data;
    const int width = store.GetSize();
    for (bool ok = store.GetFirstEvent(&data); ok; ok = store.GetNextEvent(&data)) {
        unsigned char bytes[8] = {};
        std::uint64_t value = 0;
        if (width > 0 && data.GetValue(bytes, 8)) {
            for (int i = width; i-- > 0;) value = (value << 8) | bytes[i];
        }
        events.push_back({data.GetTime(), data.GetDelta(), value, data.GetSource()});
    }
    return events;
}

// Kinds of generated event streams.
enum class Shape { kRandom, kClock, kCounterBit, kBursts, kDeltaCycles, kWideTimes, kMixed };

// A generated stream: events in time order, with values that fit `width` bytes (`size` is the
// SetSize argument: 1, 4 or 8).
inline std::vector<Event> Generate(Shape shape, int size, bool sources, std::uint32_t seed, int n) {
    std::mt19937_64 rng(seed);
    std::vector<Event> events;
    int64 time = shape == Shape::kWideTimes ? (int64{1} << 40) : 0;
    unsigned delta = 0;
    std::uint64_t value = 0;
    const std::uint64_t valueMask = size == 8 ? ~0ull : size == 4 ? 0xFFFFFFFFull : 0xFFull;
    for (int i = 0; i < n; ++i) {
        int64 gap = 0;
        switch (shape) {
            case Shape::kRandom: gap = static_cast<int64>(rng() % 1000); break;
            case Shape::kClock: gap = 5; break;
            case Shape::kCounterBit: gap = 10 << (seed % 4); break;
            case Shape::kBursts: gap = (i % 50 == 0) ? static_cast<int64>(rng() % 100000) : 1; break;
            case Shape::kDeltaCycles: gap = (rng() % 4 == 0) ? static_cast<int64>(rng() % 3000) : 0; break;
            case Shape::kWideTimes: gap = static_cast<int64>(rng() % (int64{1} << 35)); break;
            case Shape::kMixed: gap = (i / 100) % 2 ? 7 : static_cast<int64>(rng() % 20) * 1000; break;
        }
        if (gap == 0 && i > 0) {
            delta = shape == Shape::kDeltaCycles ? delta + 1 + static_cast<unsigned>(rng() % 300) : delta + 1;
        } else {
            delta = 0;
        }
        time += gap;
        switch (shape) {
            case Shape::kClock:
            case Shape::kCounterBit: value = value == 2 ? 3 : 2; break;
            case Shape::kMixed: value = (i / 64) % 2 ? (value + 1) & valueMask : rng() & valueMask; break;
            default: value = (rng() % 3 == 0) ? value : (rng() & valueMask); break;
        }
        // Values above one byte still reach the size-1 kind: it must keep them exactly.
        if (size == 1 && rng() % 97 == 0) value = rng() & 0xFFFFFFFFull;
        int source = 0;
        if (sources && rng() % 3 != 0) source = static_cast<int>(rng() % 5);
        events.push_back({time, delta & 0xFFFF, value, source});
    }
    return events;
}

// Records every call a store makes while emitting.
struct RecordingWriter final : Tarvel::ITimeDeltaWriter, Tarvel::IValueWriter, Tarvel::ISourceWriter {
    std::vector<std::string> calls;
    int width = 4;
    bool pushTimeDelta(const int64& difference, int delta) override {
        calls.push_back("T " + std::to_string(difference) + " " + std::to_string(delta));
        return true;
    }
    bool pushRepeat(int length, const int64& count, const std::pair<int64, int>* steps) override {
        std::string s = "R " + std::to_string(length) + " " + std::to_string(count);
        for (int i = 0; i < length; ++i) s += " " + std::to_string(steps[i].first) + "/" + std::to_string(steps[i].second);
        calls.push_back(s);
        return true;
    }
    bool pushEnd(const int64& endTime) override {
        calls.push_back("E " + std::to_string(endTime));
        return true;
    }
    bool pushCount(int count) override {
        calls.push_back("C " + std::to_string(count));
        return true;
    }
    bool pushValue(const unsigned char* value) override {
        calls.push_back("V " + Hex(value));
        return true;
    }
    bool pushRepeatedValue(int length, const int64& count, const unsigned char* const* values) override {
        std::string s = "RV " + std::to_string(length) + " " + std::to_string(count);
        for (int i = 0; i < length; ++i) s += " " + Hex(values[i]);
        calls.push_back(s);
        return true;
    }
    bool pushSource(int source) override {
        calls.push_back("S " + std::to_string(source));
        return true;
    }
    bool pushRepeatedSource(int length, const int64& count, const int* sources) override {
        std::string s = "RS " + std::to_string(length) + " " + std::to_string(count);
        for (int i = 0; i < length; ++i) s += " " + std::to_string(sources[i]);
        calls.push_back(s);
        return true;
    }
    std::string Hex(const unsigned char* v) const {
        static const char* digits = "0123456789abcdef";
        std::string s;
        for (int i = width; i-- > 0;) {
            s += digits[v[i] >> 4];
            s += digits[v[i] & 15];
        }
        return s;
    }
};

}  // namespace TarvelTest

#endif  // TARVEL_TESTS_STORE_TEST_UTIL_H
