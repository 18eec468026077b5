// The time-point dictionary's tables and slot rule. Writer layer (file format). Single-threaded.
#include "writer/time_point_dictionary.h"

namespace Tarvel {
namespace {

// A table starts at this many entries and doubles up to kMaxCapacity; it holds at most half as
// many entries as it has places, which keeps linear probes short.
constexpr std::size_t kFirstCapacity = 64;
constexpr std::size_t kMaxCapacity = 16384;
// Every table can hold all slots: a rebuild that drops the candidates always makes room.
static_assert(kMaxCapacity / 2 > static_cast<std::size_t>(KTimePointDictionary::kSlotLimit));

constexpr std::uint64_t kGolden = 0x9E3779B97F4A7C15ull;

constexpr std::uint64_t Mix(std::uint64_t x) noexcept {
    x ^= x >> 29;
    return x * kGolden;
}

std::uint64_t HashOf(std::uint32_t key) noexcept { return Mix(key); }
std::uint64_t HashOf(std::uint64_t key) noexcept { return Mix(key); }
std::uint64_t HashOf(std::int64_t key) noexcept { return Mix(static_cast<std::uint64_t>(key)); }
template <class Wide>
std::uint64_t HashOf(const Wide& key) noexcept {
    return Mix(static_cast<std::uint64_t>(key.step) ^
               (static_cast<std::uint64_t>(static_cast<std::uint32_t>(key.delta)) << 17));
}

int DigitCount(int value) noexcept {
    int digits = 1;
    for (; value >= 10; value /= 10) ++digits;
    return digits;
}

}  // namespace

template <class Key>
typename KTimePointDictionary::Table<Key>::Entry* KTimePointDictionary::Table<Key>::Probe(
    const Key& key) {
    const std::size_t mask = m_entries.size() - 1;
    for (std::size_t at = static_cast<std::size_t>(HashOf(key) >> 32) & mask;; at = (at + 1) & mask) {
        Entry& entry = m_entries[at];
        if (entry.slot == kEmpty || entry.key == key) return &entry;
    }
}

template <class Key>
void KTimePointDictionary::Table<Key>::Rebuild(std::size_t capacity) {
    // Taken points move over; candidates stay behind when the table is at its limit.
    const bool keepCandidates = capacity > m_entries.size();
    Vector<Entry> previous(capacity, Entry{Key{}, kEmpty});
    previous.swap(m_entries);  // m_entries is the fresh table now
    m_used = 0;
    for (const Entry& entry : previous) {
        if (entry.slot == kEmpty || (entry.slot == kSeen && !keepCandidates)) continue;
        *Probe(entry.key) = entry;
        ++m_used;
    }
}

template <class Key>
void KTimePointDictionary::Table<Key>::Reserve() {
    if (m_entries.empty()) {
        Rebuild(kFirstCapacity);
    } else if ((m_used + 1) * 2 > m_entries.size()) {
        Rebuild(m_entries.size() < kMaxCapacity ? m_entries.size() * 2 : m_entries.size());
    }
}

template <class Key>
typename KTimePointDictionary::Table<Key>::Entry* KTimePointDictionary::Table<Key>::Find(
    const Key& key, bool insert, bool* inserted) {
    *inserted = false;
    Entry* entry = m_entries.empty() ? nullptr : Probe(key);
    if (entry != nullptr && entry->slot != kEmpty) return entry;
    if (!insert) return nullptr;
    if (entry == nullptr || (m_used + 1) * 2 > m_entries.size()) {
        Reserve();
        entry = Probe(key);
    }
    *entry = Entry{key, kSeen};
    ++m_used;
    *inserted = true;
    return entry;
}

bool KTimePointDictionary::WorthTaking(std::size_t fullLength) const noexcept {
    if (m_nextSlot >= kSlotLimit) return false;
    return static_cast<std::size_t>(1 + DigitCount(m_nextSlot)) < fullLength;
}

template <class Key>
KTimePointDictionary::Use KTimePointDictionary::LookupIn(Table<Key>& table, const Key& key,
                                                         std::size_t fullLength) {
    // A point that could not be taken now is not remembered either: slot numbers only grow, so
    // "*slot" would never become shorter for it.
    const bool worth = WorthTaking(fullLength);
    bool inserted = false;
    auto* entry = table.Find(key, worth, &inserted);
    // Not worth a slot now is not worth one ever: slot numbers only grow longer.
    if (entry == nullptr) return Use{-1, false, true};
    if (entry->slot >= 0) return Use{entry->slot, false, true};
    // First use: written in full and remembered as a candidate.
    if (inserted || !worth) return Use{-1, false, !worth};
    // Second use of a candidate: take it.
    entry->slot = m_nextSlot++;
    return Use{entry->slot, true, true};
}

KTimePointDictionary::Use KTimePointDictionary::Lookup(std::int64_t step, std::int32_t delta,
                                                       std::size_t fullLength) {
    if (m_cacheValid && step == m_cacheStep && delta == m_cacheDelta) return Use{m_cacheSlot, false, true};
    Use use{-1, false, false};
    const bool narrow = step >= 0 && step < (std::int64_t{1} << 31);
    const auto narrowStep = static_cast<std::uint32_t>(step);
    if (delta == 0) {
        use = narrow ? LookupIn(m_deltaZeroNarrow, narrowStep, fullLength)
                     : LookupIn(m_deltaZeroWide, step, fullLength);
    } else if (delta == 1) {
        use = narrow ? LookupIn(m_deltaOneNarrow, narrowStep, fullLength)
                     : LookupIn(m_deltaOneWide, step, fullLength);
    } else if (narrow) {
        const std::uint64_t key =
            (std::uint64_t{narrowStep} << 32) | static_cast<std::uint32_t>(delta);
        use = LookupIn(m_otherNarrow, key, fullLength);
    } else {
        use = LookupIn(m_otherWide, WideKey{step, delta}, fullLength);
    }
    if (use.slot >= 0) {
        m_cacheValid = true;
        m_cacheStep = step;
        m_cacheDelta = delta;
        m_cacheSlot = use.slot;
    }
    return use;
}

}  // namespace Tarvel
