// The merged event pass: entries with their decoded events, the hash table of waiting stamps
// and the heap that orders them. Reader facade layer; one thread at a time.
#include "reader/event_merge.h"

#include <new>

#include "foundation/platform.h"

namespace Tarvel {
namespace {

// Smallest power of two that is at least `n` (n >= 1).
std::uint32_t PowerOfTwoAtLeast(std::uint64_t n) {
    std::uint32_t p = 1;
    while (p < n) p <<= 1;
    return p;
}

// The items of an entry whose store holds `events`, decoding up to `ahead` at a time.
unsigned RoomFor(unsigned events, unsigned ahead) { return events < ahead ? (events > 0 ? events : 1) : ahead; }

template <class T>
T* AllocateArray(std::size_t count) {
    return static_cast<T*>(Allocate(count * sizeof(T)));
}

}  // namespace

KEventMerge::KEventMerge(const Vector<Source>& sources) {
    const std::size_t n = sources.size();
    try {
        // Every stamp in the table has an entry waiting on it, so the table never holds more than
        // n stamps; twice that many slots keep the probe runs short. That room is allocated now,
        // but the table starts small and doubles when half full, so that it stays in the cache
        // while few stamps wait (random changes of 10,000 signals keep a few hundred waiting).
        m_slotRoom = PowerOfTwoAtLeast(2 * static_cast<std::uint64_t>(n) + 2);
        m_slots = AllocateArray<Slot>(m_slotRoom);
        m_spare = AllocateArray<Slot>(m_slotRoom / 2);
        SetSlotCount(m_slotRoom < kFirstSlots ? m_slotRoom : kFirstSlots);
        for (std::uint32_t i = 0; i <= m_mask; ++i) m_slots[i] = Slot{0, 0, -1};
        m_heap = AllocateArray<Stamp>(n + 1);
        m_hot = AllocateArray<Hot>(n);
        m_next = AllocateArray<std::int32_t>(n);
        m_cold = AllocateArray<Cold>(n);
        m_refillAt = AllocateArray<const void*>(n * kRefillAddresses);
        unsigned ahead = kMostAhead;
        for (; ahead > kLeastAhead; ahead /= 2) {
            std::uint64_t bytes = 0;
            for (const Source& source : sources) {
                const unsigned valueSize = static_cast<unsigned>(source.store->GetSize());
                bytes += std::uint64_t{RoomFor(source.store->count(), ahead)} * ItemBytes(valueSize);
            }
            if (bytes <= (ahead > kAhead ? kSmallRunBudget : kRunBudget)) break;
        }
        for (const Source& source : sources) {
            const auto room = static_cast<std::uint16_t>(RoomFor(source.store->count(), ahead));
            const auto valueSize = static_cast<std::uint8_t>(source.store->GetSize());
            if (m_decodedBytes > 0xFFFFFFFFu - 24u * kMostAhead) throw std::bad_alloc();  // byte offsets are 32-bit
            m_hot[m_entryCount] = Hot{source.handle, static_cast<std::uint32_t>(m_decodedBytes), room, 0, 0, valueSize, kMore};
            m_next[m_entryCount] = -1;
            m_decodedBytes += std::uint64_t{room} * ItemBytes(valueSize);
            new (&m_cold[m_entryCount]) Cold(source.store);
            ++m_entryCount;
        }
        m_decoded = static_cast<unsigned char*>(Allocate(m_decodedBytes));
        Platform::AdviseRandomAccess(m_decoded, m_decodedBytes);
    } catch (...) {
        FreeAll();
        throw;
    }
}

KEventMerge::~KEventMerge() { FreeAll(); }

void KEventMerge::FreeAll() noexcept {
    for (std::int32_t i = m_entryCount; i-- > 0;) m_cold[i].~Cold();
    m_entryCount = 0;
    Free(m_decoded);
    Free(m_cold);
    Free(m_refillAt);
    Free(m_hot);
    Free(m_next);
    Free(m_heap);
    Free(m_slots);
    Free(m_spare);
    m_decoded = nullptr;
    m_cold = nullptr;
    m_refillAt = nullptr;
    m_hot = nullptr;
    m_next = nullptr;
    m_heap = nullptr;
    m_slots = nullptr;
    m_spare = nullptr;
}

// Writes `n` decoded events into the items at `run`.
template <unsigned kValueSize>
void KEventMerge::SpreadItems(unsigned char* run, int n, const int64* times, const unsigned* deltas, const unsigned char* values) {
    unsigned char* item = run;
    for (int i = 0; i < n; ++i, item += ItemBytes(kValueSize)) {
        const auto delta = static_cast<std::int32_t>(deltas[i]);
        std::memcpy(item + kTimeAt, &times[i], 8);
        std::memcpy(item + kDeltaAt, &delta, 4);
        if constexpr (kValueSize > 0) std::memcpy(item + kValueAt, values + std::size_t{static_cast<unsigned>(i)} * kValueSize, kValueSize);
    }
}

int KEventMerge::Decode(std::int32_t entry, unsigned first, unsigned capacity) {
    Hot& hot = m_hot[entry];
    Cold& cold = m_cold[entry];
    int64 times[kMostAhead];
    unsigned deltas[kMostAhead];
    unsigned char values[kMostAhead * 8];
    const unsigned valueSize = hot.valueSize;
    const int n =
        cold.store->GetNextEvents(&cold.cursor, static_cast<int>(capacity), times, deltas, valueSize > 0 ? values : nullptr, nullptr);
    unsigned char* run = m_decoded + hot.base + std::size_t{first} * ItemBytes(valueSize);
    switch (valueSize) {
        case 4: SpreadItems<4>(run, n, times, deltas, values); break;
        case 8: SpreadItems<8>(run, n, times, deltas, values); break;
        default: SpreadItems<0>(run, n, times, deltas, values); break;
    }
    hot.state = static_cast<unsigned>(n) < capacity ? kFinished : kMore;
    if (hot.state == kMore) RefillAddresses(*cold.store, cold.cursor, RefillAt(entry));
    return n;
}

// One batch of the store's next events, spread into the entry's items.
bool KEventMerge::Refill(std::int32_t entry) {
    Hot& hot = m_hot[entry];
    hot.at = 0;
    hot.count = 0;
    if (hot.state == kFinished) return false;
    const int n = Decode(entry, 0, hot.room);
    hot.count = static_cast<std::uint16_t>(n);
    return n > 0;
}

void KEventMerge::RefillBehind(std::int32_t entry) {
    Hot& hot = m_hot[entry];
    const unsigned itemBytes = ItemBytes(hot.valueSize);
    unsigned char* run = m_decoded + hot.base;
    std::memcpy(run, run + std::size_t{hot.at} * itemBytes, itemBytes);
    hot.at = 0;
    hot.count = static_cast<std::uint16_t>(1 + Decode(entry, 1, hot.room - 1u));
}

// At most one entry joins per event and the oldest leaves kRefillAfter events after it joined,
// so the queue never holds more than kRefillAfter.
void KEventMerge::Defer(std::int32_t entry) {
    m_hot[entry].state = kPending;
    const auto* at = reinterpret_cast<const unsigned char*>(RefillAt(entry));
    PrefetchLine(at);
    PrefetchLine(at + kRefillAddresses * sizeof(void*) / 2);
    PrefetchLine(at + kRefillAddresses * sizeof(void*) - 1);
    m_queue[m_queueTail % kQueueRoom] = Pending{entry, m_step};
    ++m_queueTail;
}

void KEventMerge::RunQueue() {
    if (m_queuePrefetched != m_queueTail) {
        const Pending& p = m_queue[m_queuePrefetched % kQueueRoom];
        if (m_step - p.step >= kPrefetchRefillAfter) {
            if (m_hot[p.entry].state == kPending) {
                const void* const* at = RefillAt(p.entry);
                for (unsigned i = 0; i < kRefillAddresses; ++i) {
                    if (at[i]) PrefetchLine(at[i]);
                }
                PrefetchLine(m_decoded + m_hot[p.entry].base);
            }
            ++m_queuePrefetched;
        }
    }
    const Pending& p = m_queue[m_queueHead % kQueueRoom];
    if (m_step - p.step < kRefillAfter) return;
    ++m_queueHead;
    if (m_hot[p.entry].state == kPending) RefillBehind(p.entry);
}

// Fibonacci hashing of the time with the delta folded in (deltas are small, times are often
// multiples of a period: the multiplication spreads both over the top bits).
std::uint32_t KEventMerge::Home(Stamp stamp) const {
    const std::uint64_t key =
        static_cast<std::uint64_t>(stamp.time) ^ (static_cast<std::uint64_t>(static_cast<std::uint32_t>(stamp.delta)) * 0xFF51AFD7ED558CCDull);
    return static_cast<std::uint32_t>((key * 0x9E3779B97F4A7C15ull) >> m_shift);
}

bool KEventMerge::Start() {
    for (std::int32_t e = 0; e < m_entryCount; ++e) {
        if (Refill(e)) Wait(e, StampOf(e));
    }
    return TakeSmallest();
}

std::uint32_t KEventMerge::Probe(Stamp stamp) const {
    std::uint32_t i = Home(stamp);
    while (m_slots[i].head >= 0 && !(m_slots[i].time == stamp.time && m_slots[i].delta == stamp.delta)) i = (i + 1) & m_mask;
    return i;
}

void KEventMerge::SetSlotCount(std::uint32_t slots) {
    m_mask = slots - 1;
    m_shift = 64;
    for (std::uint32_t s = slots; s > 1; s >>= 1) --m_shift;
}

// Doubles the table: its slots go to the spare array and come back under the wider hash.
void KEventMerge::GrowSlots() {
    const std::uint32_t old = m_mask + 1;
    std::memcpy(m_spare, m_slots, old * sizeof(Slot));
    SetSlotCount(2 * old);
    for (std::uint32_t i = 0; i <= m_mask; ++i) m_slots[i].head = -1;
    for (std::uint32_t j = 0; j < old; ++j) {
        if (m_spare[j].head >= 0) m_slots[Probe(Stamp{m_spare[j].time, m_spare[j].delta})] = m_spare[j];
    }
    m_lastValid = false;
}

std::uint32_t KEventMerge::SlotFor(Stamp stamp) {
    std::uint32_t i = Probe(stamp);
    if (m_slots[i].head < 0) {  // a new stamp (its list is filled by the caller)
        if (2 * (m_heapSize + 1) > m_mask + 1 && m_mask + 1 < m_slotRoom) {
            GrowSlots();
            i = Probe(stamp);
        }
        m_slots[i] = Slot{stamp.time, stamp.delta, -1};
        HeapPush(stamp);
    }
    m_lastSlot = i;
    m_lastStamp = stamp;
    m_lastValid = true;
    return i;
}

void KEventMerge::PutBackBatch() {
    m_ahead = m_link = -1;
    if (m_batch < 0) return;
    m_slots[SlotFor(m_now)].head = m_batch;
    m_batch = -1;
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
    PrefetchBatch();
    StandOn(m_hot[m_batch], Current(m_batch));
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

void KEventMerge::HeapPush(Stamp stamp) {
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

}  // namespace Tarvel
