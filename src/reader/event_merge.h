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
// front. Per event: a read of the entry's decoded events and a prepend (the slot of the last
// stamp used is kept, so stores that change together find it without hashing); per distinct
// stamp: one heap push and pop. Everything is allocated when the pass starts; stepping never
// allocates.
//
// Memory layout. Walking many stores in time order meets each store's cursor, body and chunks
// out of cache, so each entry decodes its store's next events (up to kAhead) at once into a
// run of its own in one shared array; the per-event work touches only a small array of hot
// entry state and the current item of the entry's run, which is prefetched while the event
// before it is handed out (with the item after it).
//
// Refills run late. A refill meets its store's cursor, handle, body, chunk tables and bytes out
// of cache; the store layer tells, after each refill, where the next one will read. When an
// entry steps onto the last item of its run it joins a short queue of pending refills: a few
// events later the places of its next refill are prefetched, a few more and the refill runs,
// keeping the current item as the run's first, while other events are handed out meanwhile. An
// entry that must step past its last item before its turn in the queue refills at once.
#ifndef TARVEL_READER_EVENT_MERGE_H
#define TARVEL_READER_EVENT_MERGE_H

#include <cstdint>
#include <cstring>

#include "foundation/memory.h"
#include "store/store_access.h"
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
        std::int32_t handle;        // what CurrentHandle() answers for its events
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
    inline bool Next();

    // The current event. REQUIRES: the last Start or Next returned true.
    std::int32_t CurrentHandle() const { return m_handle; }
    const Stamp& CurrentStamp() const { return m_now; }
    // Copies the current event's value (its store's value size; nothing for a store without
    // values) into `buffer`.
    inline void CurrentValue(unsigned char* buffer) const;

private:
    // Events decoded at a time per entry: at most kAhead (fewer for a store that holds fewer),
    // halved down to kLeastAhead while the runs would take more than kRunBudget bytes. Fewer
    // refills matter most when thousands of stores take turns; see docs/design.md.
    static constexpr unsigned kAhead = 128;
    static constexpr unsigned kLeastAhead = 32;
    static constexpr std::uint64_t kRunBudget = std::uint64_t{32} << 20;
    // A pass over few stores decodes up to kMostAhead at a time while all runs together stay
    // within kSmallRunBudget (cache-sized): a lone clock then refills 8 times less often.
    static constexpr unsigned kMostAhead = 1024;
    static constexpr std::uint64_t kSmallRunBudget = std::uint64_t{256} << 10;
    // How far ahead in the current batch the items of the entries to come are prefetched, and
    // (twice as far) their entry state, which the item's address and the list link come from.
    static constexpr unsigned kPrefetchDistance = 8;
    // Pending refills: events after an entry joins the queue until the places its refill reads
    // are prefetched, and until the refill runs; the queue's room (a power of two, more than it
    // ever holds: at most one entry joins per event).
    static constexpr std::uint32_t kPrefetchRefillAfter = 20;
    static constexpr std::uint32_t kRefillAfter = 48;
    static constexpr std::uint32_t kQueueRoom = 64;
    static_assert(kPrefetchRefillAfter < kRefillAfter && kRefillAfter < kQueueRoom && (kQueueRoom & (kQueueRoom - 1)) == 0);
    // The stamp table's slots at the start of a pass (fewer when the entries need fewer).
    static constexpr std::uint32_t kFirstSlots = 256;
    // A decoded event: the time at byte 0, the delta at 8, the value bytes at 12 (4 or 8 of
    // them); items are 16 bytes apart, 24 for stores of 8-byte values.
    static constexpr unsigned kTimeAt = 0, kDeltaAt = 8, kValueAt = 12;
    static unsigned ItemBytes(unsigned valueSize) { return 16 + (valueSize & 8); }
    // What the merge reads for every event of the entry.
    struct Hot {
        std::int32_t handle;
        std::uint32_t base;      // byte offset of the entry's first item in m_decoded
        std::uint16_t room;      // the entry's items in m_decoded
        std::uint16_t at;        // the current event among them
        std::uint16_t count;     // events decoded into them
        std::uint8_t valueSize;  // the store's value size (0, 4 or 8)
        std::uint8_t state;      // kMore, kFinished (no events beyond those decoded) or kPending (queued for a refill)
    };
    enum : std::uint8_t { kMore = 0, kFinished = 1, kPending = 2 };
    // A queued refill and the step at which it joined.
    struct Pending {
        std::int32_t entry;
        std::uint32_t step;
    };
    // What the entry needs once per refill.
    struct Cold {
        explicit Cold(const KEventsStore* s) : store(s) {}
        const KEventsStore* store;
        KEventData cursor;  // stands on the last event decoded
    };
    // A hash slot: a stamp with waiting entries, and the head of their list (-1: slot free).
    struct Slot {
        int64 time;
        std::int32_t delta;
        std::int32_t head;
    };

    void FreeAll() noexcept;
    // Decodes the entry's next events from its run's start; false when its store has no more.
    bool Refill(std::int32_t entry);
    // Decodes the entry's next events behind its current (last) item, which moves to the run's start.
    void RefillBehind(std::int32_t entry);
    // Decodes `capacity` events (at most) into the entry's items from `first` on; returns how many.
    int Decode(std::int32_t entry, unsigned first, unsigned capacity);
    // Queues the entry's refill (it stands on its run's last item, its store has more).
    void Defer(std::int32_t entry);
    // Advances the queue by one event: prefetches and refills those whose time has come.
    void RunQueue();
    const void** RefillAt(std::int32_t entry) const {
        return m_refillAt + std::size_t{static_cast<std::uint32_t>(entry)} * kRefillAddresses;
    }
    template <unsigned kValueSize>
    static void SpreadItems(unsigned char* run, int n, const int64* times, const unsigned* deltas, const unsigned char* values);
    const unsigned char* Current(std::int32_t entry) const {
        const Hot& hot = m_hot[entry];
        return m_decoded + hot.base + std::size_t{hot.at} * ItemBytes(hot.valueSize);
    }
    void StandOn(const Hot& hot, const unsigned char* item) {
        m_item = item;
        m_handle = hot.handle;
        m_valueSize = hot.valueSize;
    }
    Stamp StampOf(std::int32_t entry) const {
        const unsigned char* item = Current(entry);
        Stamp stamp;
        std::memcpy(&stamp.time, item + kTimeAt, sizeof stamp.time);
        std::memcpy(&stamp.delta, item + kDeltaAt, sizeof stamp.delta);
        return stamp;
    }
    std::uint32_t Home(Stamp stamp) const;
    // The slot holding `stamp`, or the free slot where it belongs.
    std::uint32_t Probe(Stamp stamp) const;
    // The slot of `stamp`, made (with an empty list, and pushed on the heap) when it has none.
    std::uint32_t SlotFor(Stamp stamp);
    void SetSlotCount(std::uint32_t slots);
    // Doubles the slots in use (within m_slotRoom). Moves slots: m_lastSlot becomes invalid.
    void GrowSlots();
    // Puts `entry` in front of the list of `stamp`.
    void Wait(std::int32_t entry, Stamp stamp) {
        const std::uint32_t i = m_lastValid && m_lastStamp == stamp ? m_lastSlot : SlotFor(stamp);
        Slot& slot = m_slots[i];
        m_next[entry] = slot.head;
        slot.head = entry;
    }
    // The rest of the batch waits again under its stamp, in its order (a store went back in time).
    void PutBackBatch();
    // Makes the smallest waiting stamp the current batch; false when nothing waits.
    bool TakeSmallest();
    // Removes the slot at `index`, moving later slots of its probe run back.
    void EraseSlot(std::uint32_t index);
    void HeapPush(Stamp stamp);
    Stamp HeapPop();
    void Prefetch(std::int32_t entry) const {
#if defined(__GNUC__) || defined(__clang__)
        const unsigned char* item = Current(entry);
        __builtin_prefetch(item);
        __builtin_prefetch(item + ItemBytes(m_hot[entry].valueSize));
#else
        (void)entry;
#endif
    }
    static void PrefetchLine(const void* address) {
#if defined(__GNUC__) || defined(__clang__)
        __builtin_prefetch(address);
#else
        (void)address;
#endif
    }
    void PrefetchHot(std::int32_t entry) const {
#if defined(__GNUC__) || defined(__clang__)
        __builtin_prefetch(&m_hot[entry]);
#else
        (void)entry;
#endif
    }
    // Starts prefetching the current batch: the items of its first kPrefetchDistance entries, the
    // entry state of as many more.
    void PrefetchBatch() {
        m_ahead = m_batch;
        for (unsigned i = 0; i < kPrefetchDistance && m_ahead >= 0; ++i, m_ahead = m_next[m_ahead]) Prefetch(m_ahead);
        m_link = m_ahead;
        for (unsigned i = 0; i < kPrefetchDistance && m_link >= 0; ++i, m_link = m_next[m_link]) PrefetchHot(m_link);
    }
    // One step of both prefetch cursors. The links are a small array of their own, so walking
    // them ahead meets no cache miss; the entry state comes kPrefetchDistance events before the
    // item prefetch needs it, and the item as long before the event.
    void PrefetchStep() {
        if (m_ahead < 0) return;
        Prefetch(m_ahead);
        m_ahead = m_next[m_ahead];
        if (m_link < 0) return;
        PrefetchHot(m_link);
        m_link = m_next[m_link];
    }

    Hot* m_hot = nullptr;           // one per source, in entry order
    std::int32_t* m_next = nullptr; // per entry, the entry after it in its list; -1 at the end
    Cold* m_cold = nullptr;         // one per source, in entry order
    const void** m_refillAt = nullptr;  // per entry, kRefillAddresses places its next refill reads
    Pending m_queue[kQueueRoom];    // pending refills, a ring from m_queueHead to m_queueTail
    std::uint32_t m_queueHead = 0, m_queueTail = 0;  // counters; index modulo kQueueRoom
    std::uint32_t m_queuePrefetched = 0;  // queue counter whose places are prefetched next (head <= it <= tail)
    std::uint32_t m_step = 0;       // events stepped so far (wraps)
    unsigned char* m_decoded = nullptr;  // the entries' decoded events, one run of `room` items per entry
    std::uint64_t m_decodedBytes = 0;
    std::int32_t m_entryCount = 0;  // entries constructed so far
    Slot* m_slots = nullptr;        // open-addressed with linear probing; a power of two of them
    Slot* m_spare = nullptr;        // room for the slots while the table doubles (half of m_slotRoom)
    std::uint32_t m_slotRoom = 0;   // the slots allocated; the table uses the first m_mask + 1
    std::uint32_t m_mask = 0;       // slot count - 1
    int m_shift = 0;                // 64 - log2(slot count), for the multiplicative hash
    Stamp* m_heap = nullptr;        // min-heap of the stamps that have a slot
    std::uint32_t m_heapSize = 0;
    std::uint32_t m_lastSlot = 0;   // the slot SlotFor answered last ...
    Stamp m_lastStamp{0, 0};        // ... and its stamp, valid while m_lastValid (erasing moves slots)
    bool m_lastValid = false;
    std::int32_t m_batch = -1;      // the current entry, head of the current batch; -1 when none
    std::int32_t m_ahead = -1;      // the batch's entry kPrefetchDistance after it, item prefetched next; -1 when none
    std::int32_t m_link = -1;       // the entry as far after that, entry state prefetched next; -1 when none
    Stamp m_now{0, 0};              // the current batch's stamp
    // The current event, kept when it is chosen so that the accessors need not find it again.
    const unsigned char* m_item = nullptr;  // its item in m_decoded
    std::int32_t m_handle = -1;             // its entry's handle
    std::uint8_t m_valueSize = 0;           // its store's value size
};

inline bool KEventMerge::Next() {
    if (m_batch < 0) return false;
    const std::int32_t e = m_batch;
    Hot& hot = m_hot[e];
    m_batch = m_next[e];
    PrefetchStep();
    ++m_step;
    if (m_queueHead != m_queueTail) RunQueue();
    if (++hot.at + 1 == hot.count && hot.state == kMore && hot.room > 1) Defer(e);
    if (hot.at < hot.count || Refill(e)) {
        const unsigned char* item = Current(e);
        Stamp stamp;
        std::memcpy(&stamp.time, item + kTimeAt, sizeof stamp.time);
        std::memcpy(&stamp.delta, item + kDeltaAt, sizeof stamp.delta);
        if (stamp == m_now) {  // another event at the same stamp: it is the newest, so it is next
            m_next[e] = m_batch;
            m_batch = e;
            StandOn(hot, item);
            return true;
        }
        if (m_batch < 0 && (m_heapSize == 0 || stamp < m_heap[0])) {
            // The batch is done and nothing waits at or before the store's next stamp: that stamp
            // would come straight back out of the table as a batch of this store alone, so it
            // becomes the current batch without passing through the table and the heap (a lone
            // signal, or one that changes ahead of all the others, costs no hashing).
            m_now = stamp;
            m_next[e] = -1;
            m_batch = e;
            m_ahead = m_link = -1;
            StandOn(hot, item);
            return true;
        }
        if (stamp < m_now) PutBackBatch();
        Wait(e, stamp);
    }
    if (m_batch < 0) return TakeSmallest();
    StandOn(m_hot[m_batch], Current(m_batch));
    return true;
}

inline void KEventMerge::CurrentValue(unsigned char* buffer) const {
    const unsigned char* value = m_item + kValueAt;
    switch (m_valueSize) {
        case 4: std::memcpy(buffer, value, 4); break;
        case 8: std::memcpy(buffer, value, 8); break;
        default: break;
    }
}

}  // namespace Tarvel

#endif  // TARVEL_READER_EVENT_MERGE_H
