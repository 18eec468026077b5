// KEventMerge: one pass over the events of many stores, merged into ascending (time, delta) with
// the newest waiting store first among equal stamps. Reader facade layer; one thread at a time.
//
// The order is that of a map from (time, delta) to a list of stores: every store waits in the
// list of its current event's stamp, appended at the end; the next event is the last store of
// the smallest stamp's list, which then steps and is appended to its next stamp's list.
//
// How it gets that order cheaply. Each stamp that has waiting stores is one slot of a hash
// table holding the head of an intrusive list through the entries; a store is prepended, so a
// list read from its head is that stamp's list from the end. A min-heap holds the distinct
// stamps. The smallest stamp is taken out of both at once and its list becomes the batch of
// current events; a store whose next event has the batch's stamp goes back on the batch's
// front. Per event: one store step and a prepend (the slot of the last stamp used is kept, so
// stores that change together find it without hashing); per distinct stamp: one heap push and
// pop. Everything is allocated when the pass starts; stepping never allocates.
#ifndef TARVEL_READER_EVENT_MERGE_H
#define TARVEL_READER_EVENT_MERGE_H

#include <cstdint>

#include "foundation/memory.h"
#include "tarvel/events_store.h"

namespace Tarvel {

// A (time, delta) point; ordered by time, then delta, both signed.
struct Stamp {
    int64 time;
    std::int32_t delta;

    friend bool operator==(const Stamp& a, const Stamp& b) { return a.time == b.time && a.delta == b.delta; }
    friend bool operator<(const Stamp& a, const Stamp& b) {
        return a.time < b.time || (a.time == b.time && a.delta < b.delta);
    }
};

class KEventMerge {
public:
    // One store taking part, in the order the stores are given (the entry order).
    struct Source {
        std::int32_t handle;        // what Current() answers for its events
        const KEventsStore* store;  // must stay unchanged while the merge lives
    };

    // Prepares a pass over `sources` (stores without events may be among them). May throw
    // std::bad_alloc; nothing is then left allocated.
    explicit KEventMerge(const Vector<Source>& sources);
    ~KEventMerge();
    KEventMerge(const KEventMerge&) = delete;
    KEventMerge& operator=(const KEventMerge&) = delete;

    // Puts every store on its first event, in entry order, and stands on the first event of the
    // merged order. Returns false when no store has an event. Call once.
    bool Start();
    // Steps to the next event; false after the last (the merge is then exhausted).
    bool Next();

    // The current event. REQUIRES: the last Start or Next returned true.
    std::int32_t CurrentHandle() const { return m_entries[m_batch].handle; }
    const Stamp& CurrentStamp() const { return m_now; }
    // Copies the current event's value (its store's value size; nothing for a store without
    // values) into `buffer`.
    void CurrentValue(unsigned char* buffer) const;

    // Bytes this merge holds on the heap (its tables and cursors), for the benchmarks.
    std::uint64_t MemoryBytes() const;

private:
    struct Entry {
        Entry(std::int32_t h, const KEventsStore* s) : handle(h), valueSize(s->GetSize()), store(s) {}
        std::int32_t handle;
        std::int32_t next = -1;     // the entry after this one in its list; -1 at the end
        std::int32_t valueSize;     // the store's value size (0, 4 or 8)
        const KEventsStore* store;
        KEventData cursor;          // standing on the entry's current event
    };
    // A hash slot: a stamp with waiting entries, and the head of their list (-1: slot free).
    struct Slot {
        int64 time;
        std::int32_t delta;
        std::int32_t head;
    };

    void FreeAll() noexcept;
    static Stamp StampOf(const Entry& entry);
    std::uint32_t Home(const Stamp& stamp) const;
    // The slot holding `stamp`, or the free slot where it belongs.
    std::uint32_t Probe(const Stamp& stamp) const;
    // The slot of `stamp`, made (with an empty list, and pushed on the heap) when it has none.
    std::uint32_t SlotFor(const Stamp& stamp);
    // Puts `entry` in front of the list of `stamp`.
    void Wait(std::int32_t entry, const Stamp& stamp);
    // Makes the smallest waiting stamp the current batch; false when nothing waits.
    bool TakeSmallest();
    // Removes the slot at `index`, moving later slots of its probe run back.
    void EraseSlot(std::uint32_t index);
    void HeapPush(const Stamp& stamp);
    Stamp HeapPop();

    Entry* m_entries = nullptr;     // one per source, in entry order
    std::int32_t m_entryCount = 0;  // entries constructed so far
    Slot* m_slots = nullptr;        // open-addressed with linear probing; a power of two of them
    std::uint32_t m_mask = 0;       // slot count - 1
    int m_shift = 0;                // 64 - log2(slot count), for the multiplicative hash
    Stamp* m_heap = nullptr;        // min-heap of the stamps that have a slot
    std::uint32_t m_heapSize = 0;
    std::uint32_t m_lastSlot = 0;   // the slot Wait used last ...
    Stamp m_lastStamp{0, 0};        // ... and its stamp, valid while m_lastValid
    bool m_lastValid = false;
    std::int32_t m_batch = -1;      // the current entry, head of the current batch; -1 when none
    Stamp m_now{0, 0};              // the current batch's stamp
};

}  // namespace Tarvel

#endif  // TARVEL_READER_EVENT_MERGE_H
