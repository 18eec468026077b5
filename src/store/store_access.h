// Access from the library's own layers (and tests) to the body behind a KEventsStore handle.
// Store layer; the same threading rules as the handle.
#ifndef TARVEL_STORE_STORE_ACCESS_H
#define TARVEL_STORE_STORE_ACCESS_H

#include "store/events_store_body.h"
#include "tarvel/events_store.h"

namespace Tarvel {

struct StoreAccess {
    static KEventsStoreBody* Body(const KEventsStore& store) { return store.m_body; }
    static KEventsStoreBody** BodySlot(KEventsStore& store) { return &store.m_body; }
    static const EventCursor* Cursor(const KEventData& data) { return data.m_cursor; }
};

// What the next KEventsStore::GetNextEvents of `store` on `data` (values wanted, sources not)
// reads first: the cursor, the handle, the body, and the chunk table slots and bytes of the
// time steps and values where the cursor stands. For a caller that walks many stores in turn
// and prefetches a store's state before its turn comes, while the state is still in cache from
// the last batch. Writes kRefillAddresses addresses to `out`, null where there is nothing.
inline constexpr unsigned kRefillAddresses = 12;
void RefillAddresses(const KEventsStore& store, const KEventData& data, const void** out);

// Refilling a store's time steps, as KDirectTimeDeltaStore does; the file reader's block parser
// uses these directly, without a virtual call per step.
// Opens a refill: makes the body private to the handle, codes what its coder holds back, drops
// its end code and keeps room for a new one. May throw std::bad_alloc.
void OpenDirectSteps(KEventsStoreBody** handleBody, DirectStepsState* state);
// Closes the refill: writes the end code and stores the counters back. Never fails.
void CloseDirectSteps(const DirectStepsState& state) noexcept;
// Appends one step coded in the narrowest unscaled form. May throw std::bad_alloc.
inline void AppendDirectStep(DirectStepsState& state, int64 difference, unsigned delta) {
    delta &= 0xFFFF;
    state.body->timeDeltas.AppendDirectStep(TimeDelta{difference, delta});
    ++state.count;
    state.time = static_cast<int64>(static_cast<std::uint64_t>(state.time) + static_cast<std::uint64_t>(difference));
    state.delta = delta;
}
// Gives back the unused end of a store's time steps when the handle holds its body alone (a
// shared body may be read on other threads meanwhile). Never fails.
inline void ShrinkTimeSteps(KEventsStore& store) noexcept {
    KEventsStoreBody* body = StoreAccess::Body(store);
    if (body->OwnedAlone()) body->timeDeltas.ShrinkToFit();
}
// Appends `count` values to a store whose values are open for a refill (a KDirectValueStore is
// alive on it), as as many KDirectValueStore::pushValue calls would, without a virtual call per
// value: each word's low bytes (the store's value size), little-endian, are a value. Nothing
// happens for a store without values. May throw std::bad_alloc; the values appended before stay.
void AppendDirectValues(KEventsStore& store, const std::uint64_t* words, std::size_t count);
// Appends a repeat code; false for a length outside 1-4 or a negative count.
bool AppendDirectRepeat(DirectStepsState& state, int length, int64 count, const std::pair<int64, int>* steps);

}  // namespace Tarvel

#endif  // TARVEL_STORE_STORE_ACCESS_H
