// The time-point dictionary of event blocks: remembers (time step, delta) points so that a point
// met again is written as "*slot" instead of in full. Writer layer (file format). One dictionary
// belongs to one writer and is used from one thread at a time.
//
// Slot rule. A point is taken into a slot on its second use, and only when "*slot" is shorter
// than the point written in full. Slots are numbered 0, 1, 2, ... in the order points are taken,
// are never given back or reused, and stop at kSlotLimit; after that no new point is taken, and
// points already taken are still written as "*slot". A reader therefore keeps one flat array of
// at most kSlotLimit points, fills slot k at "=k" and reads it at "*k", in file order.
//
// Layout. Six open-addressing tables: delta 0, delta 1 and any other delta, each split into
// steps in [0, 2^31) (narrow keys) and all other steps, plus a one-entry cache of the last point
// found. Points seen once are remembered as candidates; when a table reaches its size limit the
// candidates are dropped (taken points stay), so memory stays bounded. After warm-up no call
// allocates; a table grows by doubling up to its limit.
#ifndef TARVEL_WRITER_TIME_POINT_DICTIONARY_H
#define TARVEL_WRITER_TIME_POINT_DICTIONARY_H

#include <cstddef>
#include <cstdint>

#include "foundation/memory.h"

namespace Tarvel {

class KTimePointDictionary {
public:
    // Largest number of slots in one file; slot numbers stay below it (at most four digits).
    static constexpr int kSlotLimit = 4096;

    // How to write a point: `slot` < 0: in full; `taken`: "=slot " and the point in full;
    // otherwise "*slot" alone. `settled`: every later use of the point is written the same way
    // ("*slot" once taken; in full when it can never be taken), so a caller may keep its text.
    struct Use {
        int slot;
        bool taken;
        bool settled;
    };

    // Looks up the point (step, delta) and takes it into a slot when the rule above says so.
    // `fullLength` is the number of characters of the point written in full ("T 5k" has 4).
    // May throw std::bad_alloc while a table grows.
    Use Lookup(std::int64_t step, std::int32_t delta, std::size_t fullLength);

    // Number of slots given so far.
    int SlotCount() const noexcept { return m_nextSlot; }

    // One table of points with keys of type Key (see the .cc for the key types).
    template <class Key>
    class Table {
    public:
        // Entry state in `slot`: kEmpty, kSeen (candidate), or the slot number.
        static constexpr std::int32_t kEmpty = -2;
        static constexpr std::int32_t kSeen = -1;
        struct Entry {
            Key key;
            std::int32_t slot;
        };
        // The entry of `key`. When it is absent: with `insert`, a new entry (slot kSeen, and
        // *inserted set); otherwise null.
        Entry* Find(const Key& key, bool insert, bool* inserted);

    private:
        void Reserve();
        void Rebuild(std::size_t capacity);
        Entry* Probe(const Key& key);

        Vector<Entry> m_entries;   // capacity a power of two (or 0); empty entries have slot kEmpty
        std::size_t m_used = 0;    // entries that are not empty
    };

private:
    template <class Key>
    Use LookupIn(Table<Key>& table, const Key& key, std::size_t fullLength);
    bool WorthTaking(std::size_t fullLength) const noexcept;

    struct WideKey {
        std::int64_t step;
        std::int32_t delta;
        bool operator==(const WideKey&) const = default;
    };

    Table<std::uint32_t> m_deltaZeroNarrow;  // delta 0, step below 2^31
    Table<std::int64_t> m_deltaZeroWide;     // delta 0, other steps
    Table<std::uint32_t> m_deltaOneNarrow;   // delta 1, step below 2^31
    Table<std::int64_t> m_deltaOneWide;      // delta 1, other steps
    Table<std::uint64_t> m_otherNarrow;      // other deltas, step below 2^31: step << 32 | delta
    Table<WideKey> m_otherWide;              // other deltas, other steps
    int m_nextSlot = 0;                      // the slot the next taken point gets
    bool m_cacheValid = false;               // the cache holds a point that has a slot
    std::int64_t m_cacheStep = 0;            // the point found or taken last...
    std::int32_t m_cacheDelta = 0;
    int m_cacheSlot = 0;                     // ...and its slot
};

}  // namespace Tarvel

#endif  // TARVEL_WRITER_TIME_POINT_DICTIONARY_H
