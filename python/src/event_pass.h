// The events of many signals merged into one time order, in the order of the reader facades'
// pass (include/tarvel/reader.h): ascending (time, delta), and at one (time, delta) the newest
// waiting first: at the start the signal later in declaration order, afterwards the signal that
// arrived at that (time, delta) last. The facade opens a file by name, so it cannot walk a
// filtered reader, and its pass always starts at the first event, which a follower of a growing
// file does not want; this pass does both. Python binding layer, plain C++: one thread at a
// time, and the stores must not change while it lives.
#ifndef TARVEL_PYTHON_EVENT_PASS_H
#define TARVEL_PYTHON_EVENT_PASS_H

#include <tarvel/events_store.h>

#include <cstdint>
#include <vector>

namespace TarvelPython {

// One event of the pass.
struct PassEvent {
    std::int64_t time;
    std::uint64_t value;  // the value's bytes, little-endian, zero above the store's size
    std::int32_t signal;  // the signal's index among the pass's starts
    std::uint32_t delta;
};

class EventPass {
public:
    // One signal of the pass: its store, and the index of its first event to give (events
    // before it were given already; the walk there starts near `fromTime`, which is not later
    // than that event's time).
    struct Start {
        const Tarvel::KEventsStore* store;  // null or empty: the signal takes no part
        unsigned firstIndex;
        std::int64_t fromTime;
    };
    // The pass over `starts`, in declaration order (their position is the tie-break above).
    explicit EventPass(const std::vector<Start>& starts);

    // Writes up to `capacity` next events to `out` and returns how many; 0 at the end.
    std::size_t Fill(PassEvent* out, std::size_t capacity);

private:
    struct Entry {
        const Tarvel::KEventsStore* store;
        Tarvel::KEventData cursor;
    };
    struct Waiting {
        std::int64_t time;
        std::uint64_t arrival;  // larger: arrived later, comes first
        std::int32_t delta;
        std::int32_t entry;
    };
    static bool After(const Waiting& a, const Waiting& b);
    void Wait(std::int32_t entry);

    std::vector<Entry> m_entries;    // by signal index
    std::vector<Waiting> m_heap;     // a min-heap by (time, delta, newest arrival)
    std::uint64_t m_arrivals = 0;
};

}  // namespace TarvelPython

#endif  // TARVEL_PYTHON_EVENT_PASS_H
