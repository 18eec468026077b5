// Appending events to a store body: the per-event steps shared by KEventsStore::push_back and
// the batch append that the writer uses when it hands a store a run of staged events at once.
// Store layer; the caller's handle must hold the body alone (see events_store_body.h).
#ifndef TARVEL_STORE_EVENT_APPEND_H
#define TARVEL_STORE_EVENT_APPEND_H

#include <cassert>
#include <cstddef>
#include <cstdint>

#include "store/events_store_body.h"
#include "foundation/little_endian.h"
#include "store/store_access.h"

namespace Tarvel {

inline int64 WrapSub(int64 a, int64 b) {
    return static_cast<int64>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

// Calls fn(concrete value store) without a virtual call; nothing is called without values.
template <class Fn>
inline void WithValueStore(KEventsStoreBody& body, Fn&& fn) {
    switch (body.valueKind) {
        case ValueKind::kSize1: fn(*static_cast<KValueStore<4, 1>*>(body.values)); break;
        case ValueKind::kSize4: fn(*static_cast<KValueStore<4, 4>*>(body.values)); break;
        case ValueKind::kSize8: fn(*static_cast<KValueStore<8, 8>*>(body.values)); break;
        case ValueKind::kNone: break;
    }
}

inline bool ValuesReady(KEventsStoreBody& body) {
    bool ready = true;
    WithValueStore(body, [&](auto& store) { ready = store.ReadyToAppend(); });
    return ready;
}

// Codes one step. REQUIRES: the time-delta store is ready to append.
inline void AppendStep(KEventsStoreBody& body, int64 time, int delta) {
    assert(body.timeDeltas.ReadyToAppend());
    const std::uint32_t d = static_cast<std::uint32_t>(delta) & 0xFFFF;
    KTimeDeltaStore& steps = body.timeDeltas;
    body.lastPushedTime = time;
    body.lastPushedDelta = static_cast<std::uint16_t>(d);
    steps.Append(TimeDelta{WrapSub(time, steps.lastTime), d});
    steps.lastTime = time;
    steps.lastDelta = d;
    body.lastResult = steps.eventCount++;
}

// Appends an event with value and source, making room first. Strongly exception safe: it
// throws std::bad_alloc before the first change or not at all.
void ApplyPushValue(KEventsStoreBody& body, int64 time, int delta, const unsigned char* value, int source);

namespace Detail {

// The batch loop for one concrete value store type (or none): room is checked per event, which
// costs two compares while the store's state is in cache.
template <class Store, class Events>
void AppendEventsTo(KEventsStoreBody& body, Store* values, std::size_t count, const Events& events) {
    KTimeDeltaStore& steps = body.timeDeltas;
    for (std::size_t i = 0; i < count; ++i) {
        const int source = events.Source(i);
        unsigned char value[8];
        LittleEndian::Store<std::uint64_t>(value, events.Bits(i));
        const bool ready = source == 0 && steps.ReadyToAppend() && (values == nullptr || values->ReadyToAppend());
        if (ready) {
            AppendStep(body, events.Time(i), static_cast<int>(events.Delta(i)));
            if (values) values->AppendValue(value);
        } else {
            ApplyPushValue(body, events.Time(i), static_cast<int>(events.Delta(i)), value, source);
        }
    }
}

}  // namespace Detail

// Appends `count` events to `store` in order, as `count` calls of push_back(time, delta, value,
// source) would. Events provides Time(i), Delta(i), Bits(i) (the value's bytes read as a
// little-endian number) and Source(i). When the handle holds its body alone the events go straight into the coders, without
// a check of the body per event. May throw std::bad_alloc; the events before the failing one are
// then stored.
template <class Events>
void AppendEvents(KEventsStore& store, std::size_t count, const Events& events) {
    KEventsStoreBody* body = StoreAccess::Body(store);
    if (!body->OwnedAlone()) {
        for (std::size_t i = 0; i < count; ++i) {
            unsigned char value[8];
            LittleEndian::Store<std::uint64_t>(value, events.Bits(i));
            store.push_back(events.Time(i), static_cast<int>(events.Delta(i)), value, events.Source(i));
        }
        return;
    }
    switch (body->valueKind) {
        case ValueKind::kSize1:
            Detail::AppendEventsTo(*body, static_cast<KValueStore<4, 1>*>(body->values), count, events);
            break;
        case ValueKind::kSize4:
            Detail::AppendEventsTo(*body, static_cast<KValueStore<4, 4>*>(body->values), count, events);
            break;
        case ValueKind::kSize8:
            Detail::AppendEventsTo(*body, static_cast<KValueStore<8, 8>*>(body->values), count, events);
            break;
        case ValueKind::kNone:
            Detail::AppendEventsTo(*body, static_cast<KValueStore<4, 4>*>(nullptr), count, events);
            break;
    }
}

}  // namespace Tarvel

#endif  // TARVEL_STORE_EVENT_APPEND_H
