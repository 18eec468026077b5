// The iteration state behind KEventData and the table behind KEventsStoreCache.
// Store layer; a cursor belongs to one thread at a time.
#ifndef TARVEL_STORE_EVENT_CURSOR_H
#define TARVEL_STORE_EVENT_CURSOR_H

#include "foundation/memory.h"
#include "store/events_store_body.h"

namespace Tarvel {

struct EventCursor {
    std::int32_t index = -1;               // event index, -1 before the first event
    int64 time = 0;                        // time of the event
    std::uint32_t delta = 0;               // delta of the event
    TimeCursor steps;                      // position in the time-delta stream
    PackCursor values;                     // position in the value store
    PackCursor sources;                    // position in the source store
    const KEventsStore* handle = nullptr;  // handle last positioned on
    const KEventsStoreBody* body = nullptr;  // that handle's body then
};

struct EventCursorCacheMap {
    HashMap<const KEventsStore*, EventCursor> map;
};

}  // namespace Tarvel

#endif  // TARVEL_STORE_EVENT_CURSOR_H
