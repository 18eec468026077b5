// The merged pass. Python binding layer.
#include "event_pass.h"

#include <algorithm>

#include "decode.h"

namespace TarvelPython {
namespace {

// Stands `cursor` on the store's event `index`; false when the store has no such event.
bool Seek(const Tarvel::KEventsStore& store, unsigned index, std::int64_t fromTime, Tarvel::KEventData* cursor) {
    // GetFirstEvent(time) stands on the last event before `time`, jumping over whole runs.
    bool more = fromTime > 0 ? store.GetFirstEvent(fromTime, cursor, nullptr) : store.GetFirstEvent(cursor);
    if (more && static_cast<unsigned>(cursor->GetIndex()) > index) more = store.GetFirstEvent(cursor);
    while (more && static_cast<unsigned>(cursor->GetIndex()) < index) more = store.GetNextEvent(cursor);
    return more;
}

}  // namespace

EventPass::EventPass(const std::vector<Start>& starts) {
    m_entries.reserve(starts.size());
    for (const Start& start : starts) m_entries.push_back(Entry{start.store, Tarvel::KEventData()});
    for (std::size_t i = 0; i < starts.size(); ++i) {
        Entry& entry = m_entries[i];
        if (entry.store && Seek(*entry.store, starts[i].firstIndex, starts[i].fromTime, &entry.cursor)) {
            Wait(static_cast<std::int32_t>(i));
        }
    }
}

bool EventPass::After(const Waiting& a, const Waiting& b) {
    if (a.time != b.time) return a.time > b.time;
    if (a.delta != b.delta) return a.delta > b.delta;
    return a.arrival < b.arrival;
}

void EventPass::Wait(std::int32_t entry) {
    const Tarvel::KEventData& cursor = m_entries[static_cast<std::size_t>(entry)].cursor;
    m_heap.push_back(Waiting{cursor.GetTime(), m_arrivals++, static_cast<std::int32_t>(cursor.GetDelta()), entry});
    std::push_heap(m_heap.begin(), m_heap.end(), After);
}

std::size_t EventPass::Fill(PassEvent* out, std::size_t capacity) {
    std::size_t n = 0;
    while (n < capacity && !m_heap.empty()) {
        std::pop_heap(m_heap.begin(), m_heap.end(), After);
        const std::int32_t index = m_heap.back().entry;
        m_heap.pop_back();
        Entry& entry = m_entries[static_cast<std::size_t>(index)];
        out[n++] = PassEvent{entry.cursor.GetTime(), RawValue(entry.cursor), index, entry.cursor.GetDelta()};
        if (entry.store->GetNextEvent(&entry.cursor)) Wait(index);
    }
    return n;
}

}  // namespace TarvelPython
