// Access from the library's own layers (and tests) to the body behind a KEventsStore handle.
// Store layer; the same threading rules as the handle.
#ifndef TARVEL_STORE_STORE_ACCESS_H
#define TARVEL_STORE_STORE_ACCESS_H

#include "store/events_store_body.h"
#include "tarvel/events_store.h"

namespace Tarvel {

struct StoreAccess {
    static KEventsStoreBody* Body(const KEventsStore& store) { return store.m_body; }
};

}  // namespace Tarvel

#endif  // TARVEL_STORE_STORE_ACCESS_H
