// The merged event pass: entries with their cursors, the hash table of waiting stamps and the
// heap that orders them. Reader facade layer; one thread at a time.
#include "reader/event_merge.h"

#include <new>

#include "store/event_cursor.h"

namespace Tarvel {
namespace {

// Smallest power of two that is at least `n` (n >= 1).
std::uint32_t PowerOfTwoAtLeast(std::uint64_t n) {
    std::uint32_t p = 1;
    while (p < n) p <<= 1;
    return p;
}

template <class T>
T* AllocateArray(std::size_t count) {
    return static_cast<T*>(Allocate(count * sizeof(T)));
}

}  // namespace

KEventMerge::KEventMerge(const Vector<Source>& sources) {
    const std::size_t n = sources.size();
    try {
        // Every stamp in the table has an entry waiting on it, so the table never holds more than
        // n stamps; twice that many slots keep the probe runs short.
        const std::uint32_t slots = PowerOfTwoAtLeast(2 * static_cast<std::uint64_t>(n) + 2);
        m_slots = AllocateArray<Slot>(slots);
        m_mask = slots - 1;
        m_shift = 64;
        for (std::uint32_t s = slots; s > 1; s >>= 1) --m_shift;
        for (std::uint32_t i = 0; i < slots; ++i) m_slots[i] = Slot{0, 0, -1};
        m_heap = AllocateArray<Stamp>(n + 1);
        m_entries = AllocateArray<Entry>(n);
        for (const Source& source : sources) {
            new (&m_entries[m_entryCount]) Entry(source.handle, source.store);
            ++m_entryCount;
        }
    } catch (...) {
        FreeAll();
        throw;
    }
}

KEventMerge::~KEventMerge() { FreeAll(); }

void KEventMerge::FreeAll() noexcept {
    for (std::int32_t i = m_entryCount; i-- > 0;) m_entries[i].~Entry();
    m_entryCount = 0;
    Free(m_entries);
    Free(m_heap);
    Free(m_slots);
    m_entries = nullptr;
    m_heap = nullptr;
    m_slots = nullptr;
}

Stamp KEventMerge::StampOf(const Entry& entry) {
    return Stamp{entry.cursor.GetTime(), static_cast<std::int32_t>(entry.cursor.GetDelta())};
}

// Fibonacci hashing of the time with the delta folded in (deltas are small, times are often
// multiples of a period: the multiplication spreads both over the top bits).
std::uint32_t KEventMerge::Home(const Stamp& stamp) const {
    const std::uint64_t key =
        static_cast<std::uint64_t>(stamp.time) ^ (static_cast<std::uint64_t>(static_cast<std::uint32_t>(stamp.delta)) * 0xFF51AFD7ED558CCDull);
    return static_cast<std::uint32_t>((key * 0x9E3779B97F4A7C15ull) >> m_shift);
}

bool KEventMerge::Start() {
    for (std::int32_t e = 0; e < m_entryCount; ++e) {
        Entry& entry = m_entries[e];
        if (entry.store->GetFirstEvent(&entry.cursor)) Wait(e, StampOf(entry));
    }
    return TakeSmallest();
}

bool KEventMerge::Next() {
    if (m_batch < 0) return false;
    const std::int32_t e = m_batch;
    Entry& entry = m_entries[e];
    m_batch = entry.next;
    if (entry.store->GetNextEvent(&entry.cursor)) {
        const Stamp stamp = StampOf(entry);
        if (stamp == m_now) {  // another event at the same stamp: it is the newest, so it is next
            entry.next = m_batch;
            m_batch = e;
            return true;
        }
        if (stamp < m_now && m_batch >= 0) {
            // A store whose time goes back: the rest of the batch waits again under its stamp,
            // in the same order, and the earlier stamp comes first.
            const std::uint32_t rest = SlotFor(m_now);
            m_slots[rest].head = m_batch;
            m_batch = -1;
        }
        Wait(e, stamp);
    }
    return m_batch >= 0 || TakeSmallest();
}

void KEventMerge::CurrentValue(unsigned char* buffer) const {
    const Entry& entry = m_entries[m_batch];
    if (entry.valueSize > 0) entry.cursor.GetValue(buffer, static_cast<unsigned>(entry.valueSize));
}

std::uint32_t KEventMerge::Probe(const Stamp& stamp) const {
    std::uint32_t i = Home(stamp);
    while (m_slots[i].head >= 0 && !(m_slots[i].time == stamp.time && m_slots[i].delta == stamp.delta)) i = (i + 1) & m_mask;
    return i;
}

std::uint32_t KEventMerge::SlotFor(const Stamp& stamp) {
    if (m_lastValid && m_lastStamp == stamp) return m_lastSlot;
    const std::uint32_t i = Probe(stamp);
    if (m_slots[i].head < 0) {  // a new stamp (its list is filled by the caller)
        m_slots[i] = Slot{stamp.time, stamp.delta, -1};
        HeapPush(stamp);
    }
    m_lastSlot = i;
    m_lastStamp = stamp;
    m_lastValid = true;
    return i;
}

void KEventMerge::Wait(std::int32_t entry, const Stamp& stamp) {
    Slot& slot = m_slots[SlotFor(stamp)];
    m_entries[entry].next = slot.head;
    slot.head = entry;
}

bool KEventMerge::TakeSmallest() {
    if (m_heapSize == 0) {
        m_batch = -1;
        return false;
    }
    m_now = HeapPop();
    const std::uint32_t i = Probe(m_now);  // every stamp on the heap has its slot
    m_batch = m_slots[i].head;
    EraseSlot(i);
    return true;
}

// Backward-shift deletion: later slots of the probe run whose home does not lie cyclically in
// (hole, slot] move into the hole, so lookups never need tombstones.
void KEventMerge::EraseSlot(std::uint32_t hole) {
    m_lastValid = false;
    for (std::uint32_t j = (hole + 1) & m_mask; m_slots[j].head >= 0; j = (j + 1) & m_mask) {
        const std::uint32_t home = Home(Stamp{m_slots[j].time, m_slots[j].delta});
        const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (stays) continue;
        m_slots[hole] = m_slots[j];
        hole = j;
    }
    m_slots[hole].head = -1;
}

void KEventMerge::HeapPush(const Stamp& stamp) {
    std::uint32_t i = m_heapSize++;
    while (i > 0) {
        const std::uint32_t parent = (i - 1) / 2;
        if (!(stamp < m_heap[parent])) break;
        m_heap[i] = m_heap[parent];
        i = parent;
    }
    m_heap[i] = stamp;
}

Stamp KEventMerge::HeapPop() {
    const Stamp top = m_heap[0];
    const Stamp last = m_heap[--m_heapSize];
    std::uint32_t i = 0;
    for (;;) {
        std::uint32_t child = 2 * i + 1;
        if (child >= m_heapSize) break;
        if (child + 1 < m_heapSize && m_heap[child + 1] < m_heap[child]) ++child;
        if (!(m_heap[child] < last)) break;
        m_heap[i] = m_heap[child];
        i = child;
    }
    m_heap[i] = last;
    return top;
}

std::uint64_t KEventMerge::MemoryBytes() const {
    const std::uint64_t n = static_cast<std::uint64_t>(m_entryCount);
    return (std::uint64_t{m_mask} + 1) * sizeof(Slot) + (n + 1) * sizeof(Stamp) + n * sizeof(Entry) +
           n * sizeof(EventCursor);
}

}  // namespace Tarvel
