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
    const std::size_t mask = entries_.size() - 1;
    for (std::size_t at = static_cast<std::size_t>(HashOf(key) >> 32) & mask;; at = (at + 1) & mask) {
        Entry& entry = entries_[at];
        if (entry.slot == kEmpty || entry.key == key) return &entry;
    }
}

template <class Key>
void KTimePointDictionary::Table<Key>::Rebuild(std::size_t capacity) {
    // Taken points move over; candidates stay behind when the table is at its limit.
    const bool keepCandidates = capacity > entries_.size();
    Vector<Entry> previous(capacity, Entry{Key{}, kEmpty});
    previous.swap(entries_);  // entries_ is the fresh table now
    used_ = 0;
    for (const Entry& entry : previous) {
        if (entry.slot == kEmpty || (entry.slot == kSeen && !keepCandidates)) continue;
        *Probe(entry.key) = entry;
        ++used_;
    }
}

template <class Key>
void KTimePointDictionary::Table<Key>::Reserve() {
    if (entries_.empty()) {
        Rebuild(kFirstCapacity);
    } else if ((used_ + 1) * 2 > entries_.size()) {
        Rebuild(entries_.size() < kMaxCapacity ? entries_.size() * 2 : entries_.size());
    }
}

template <class Key>
typename KTimePointDictionary::Table<Key>::Entry* KTimePointDictionary::Table<Key>::Find(
    const Key& key, bool insert, bool* inserted) {
    *inserted = false;
    Entry* entry = entries_.empty() ? nullptr : Probe(key);
    if (entry != nullptr && entry->slot != kEmpty) return entry;
    if (!insert) return nullptr;
    if (entry == nullptr || (used_ + 1) * 2 > entries_.size()) {
        Reserve();
        entry = Probe(key);
    }
    *entry = Entry{key, kSeen};
    ++used_;
    *inserted = true;
    return entry;
}

bool KTimePointDictionary::WorthTaking(std::size_t fullLength) const noexcept {
    if (nextSlot_ >= kSlotLimit) return false;
    return static_cast<std::size_t>(1 + DigitCount(nextSlot_)) < fullLength;
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
    entry->slot = nextSlot_++;
    return Use{entry->slot, true, true};
}

KTimePointDictionary::Use KTimePointDictionary::Lookup(std::int64_t step, std::int32_t delta,
                                                       std::size_t fullLength) {
    if (cacheValid_ && step == cacheStep_ && delta == cacheDelta_) return Use{cacheSlot_, false, true};
    Use use{-1, false, false};
    const bool narrow = step >= 0 && step < (std::int64_t{1} << 31);
    const auto narrowStep = static_cast<std::uint32_t>(step);
    if (delta == 0) {
        use = narrow ? LookupIn(deltaZeroNarrow_, narrowStep, fullLength)
                     : LookupIn(deltaZeroWide_, step, fullLength);
    } else if (delta == 1) {
        use = narrow ? LookupIn(deltaOneNarrow_, narrowStep, fullLength)
                     : LookupIn(deltaOneWide_, step, fullLength);
    } else if (narrow) {
        const std::uint64_t key =
            (std::uint64_t{narrowStep} << 32) | static_cast<std::uint32_t>(delta);
        use = LookupIn(otherNarrow_, key, fullLength);
    } else {
        use = LookupIn(otherWide_, WideKey{step, delta}, fullLength);
    }
    if (use.slot >= 0) {
        cacheValid_ = true;
        cacheStep_ = step;
        cacheDelta_ = delta;
        cacheSlot_ = use.slot;
    }
    return use;
}

}  // namespace Tarvel
