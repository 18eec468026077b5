// The writer's flush: pending declarations, then the event blocks of the changed handles in
// phases (close the stores, group handles with equal events, write one block per group, empty
// the stores), and the commit and resume of the file. Writer layer; one thread at a time.
#include <algorithm>
#include <cstring>
#include <functional>

#include "foundation/little_endian.h"
#include "format/value_text.h"
#include "store/event_append.h"
#include "writer/block_writers.h"
#include "writer/tarvel_write.h"

namespace Tarvel {

// ---- Flushing and commits ---------------------------------------------------------------------

bool KTarvelWrite::Flush() {
    return Guard([&] { return FlushAll(); });
}

bool KTarvelWrite::FlushThunk(void* owner) { return static_cast<KTarvelWrite*>(owner)->FlushAll(); }

bool KTarvelWrite::FlushAll() {
    if (!WritePendingElements() || !WritePendingProperties()) return false;
    if (m_dirty && !WriteChangedStores()) return false;
    return m_stream.Flush();
}

// One changed handle at a flush. Handles whose events since the last flush are equal and whose
// types are equal form one group and are written as one block that lists them all; `group` is
// the member whose events the block takes. Groups are written by type index, then in the order
// in which their stores' bodies were made (a serial number), which keeps the order of the blocks
// the same from run to run.
struct FlushMember {
    std::int32_t typeIndex;
    std::int32_t serial;
    const void* body;
    std::uint32_t order;   // place in the list of changed handles
    std::int32_t handle;
    std::uint32_t first;   // the handle's range of the sorted staging log
    std::uint32_t count;
    bool logged;           // written straight from that range (else from its store)
    std::uint32_t events;  // events of the interval: the range's, or the store's
    std::uint64_t fingerprint = 0;
    std::uint32_t group = 0;  // index (in the member list) of the group's representative
    bool operator<(const FlushMember& other) const {
        if (typeIndex != other.typeIndex) return typeIndex < other.typeIndex;
        if (serial != other.serial) return serial < other.serial;
        if (body != other.body) return std::less<const void*>()(body, other.body);
        return order < other.order;
    }
};

namespace {

// A member's events as (time, delta, value bits, source), from its log range or its store.
class EventWalk {
public:
    EventWalk(const EventStage& stage, const FlushMember& member, const KEventsStore& store)
        : m_range(stage, member.first), m_logged(member.logged), m_count(member.events), m_store(store) {
        m_more = m_logged ? m_count > 0 : store.GetFirstEvent(&m_data);
    }
    bool More() const { return m_more; }
    // The current event folded into four words, then a step to the next.
    void Take(std::uint64_t words[4]) {
        if (m_logged) {
            words[0] = static_cast<std::uint64_t>(m_range.Time(m_index));
            words[1] = m_range.Delta(m_index) & 0xFFFF;
            words[2] = m_range.Bits(m_index);
            words[3] = static_cast<std::uint32_t>(m_range.Source(m_index));
            m_more = ++m_index < m_count;
            return;
        }
        unsigned char value[8] = {};
        m_data.GetValue(value, static_cast<unsigned>(m_store.GetSize()));
        words[0] = static_cast<std::uint64_t>(m_data.GetTime());
        words[1] = m_data.GetDelta() & 0xFFFF;
        words[2] = LittleEndian::Load<std::uint64_t>(value);
        words[3] = static_cast<std::uint32_t>(m_data.GetSource());
        m_more = m_store.GetNextEvent(&m_data);
    }

private:
    EventStage::Range m_range;
    bool m_logged;
    std::uint32_t m_count;
    std::uint32_t m_index = 0;
    const KEventsStore& m_store;
    KEventData m_data;
    bool m_more = false;
};

inline std::uint64_t MixWord(std::uint64_t hash, std::uint64_t word) {
    hash = (hash ^ word) * 0x9E3779B97F4A7C15ull;
    return hash ^ (hash >> 29);
}

// A hash of `count` words in four independent lanes, so that the multiplications overlap.
std::uint64_t HashWords(const std::uint64_t* words, std::size_t count) {
    std::uint64_t lane[4] = {1, 2, 3, 4};
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) {
        for (int k = 0; k < 4; ++k) lane[k] = MixWord(lane[k], words[i + static_cast<std::size_t>(k)]);
    }
    for (; i < count; ++i) lane[0] = MixWord(lane[0], words[i]);
    return MixWord(MixWord(lane[0], lane[1]), MixWord(lane[2], lane[3]));
}

}  // namespace

// The events of a logged member as the log keeps them: narrow entries and, when the log has
// them, wide ones. Within one filling of the log a time point's index names its (time, delta)
// alone, so equal entries are equal events.
std::uint64_t KTarvelWrite::LoggedFingerprint(const FlushMember& member) const {
    const std::uint64_t narrow = HashWords(reinterpret_cast<const std::uint64_t*>(m_stage.NarrowAt(member.first)), member.count);
    if (!m_stage.HasWide()) return narrow;
    return MixWord(narrow, HashWords(reinterpret_cast<const std::uint64_t*>(m_stage.WideAt(member.first)), member.count));
}

std::uint64_t KTarvelWrite::EventFingerprint(const FlushMember& member) const {
    EventWalk walk(m_stage, member, m_handles.At(member.handle).store);
    std::uint64_t hash = 5;
    std::uint64_t words[4];
    while (walk.More()) {
        walk.Take(words);
        hash = MixWord(hash, HashWords(words, 4));
    }
    return hash;
}

bool KTarvelWrite::SameEvents(const FlushMember& a, const FlushMember& b) const {
    if (a.body == b.body && !a.logged && !b.logged) return true;
    if (a.logged && b.logged) {
        const std::size_t n = a.count;
        if (std::memcmp(m_stage.NarrowAt(a.first), m_stage.NarrowAt(b.first), n * sizeof(EventStage::Narrow)) != 0) return false;
        return !m_stage.HasWide() || std::memcmp(m_stage.WideAt(a.first), m_stage.WideAt(b.first), n * sizeof(EventStage::Wide)) == 0;
    }
    EventWalk left(m_stage, a, m_handles.At(a.handle).store);
    EventWalk right(m_stage, b, m_handles.At(b.handle).store);
    std::uint64_t x[4], y[4];
    while (left.More() && right.More()) {
        left.Take(x);
        right.Take(y);
        if (std::memcmp(x, y, sizeof x) != 0) return false;
    }
    return left.More() == right.More();
}

// Gives every member its group: members of one type and one number of events are candidates,
// told apart by a fingerprint of their events and then compared in full.
void KTarvelWrite::GroupEqualEvents(Vector<FlushMember>& members) const {
    Vector<std::uint32_t> byCount(members.size());
    for (std::uint32_t i = 0; i < members.size(); ++i) {
        byCount[i] = i;
        members[i].group = i;
    }
    auto countKey = [&](std::uint32_t i) { return std::make_pair(members[i].typeIndex, members[i].events); };
    std::sort(byCount.begin(), byCount.end(), [&](std::uint32_t a, std::uint32_t b) {
        return countKey(a) != countKey(b) ? countKey(a) < countKey(b) : members[a] < members[b];
    });
    for (std::size_t first = 0; first < byCount.size();) {
        std::size_t last = first + 1;
        while (last < byCount.size() && countKey(byCount[last]) == countKey(byCount[first])) ++last;
        if (last - first > 1) {
            // Logged members alone compare their log entries; a store among them makes every
            // member walk its events.
            bool allLogged = true;
            for (std::size_t i = first; i < last; ++i) allLogged = allLogged && members[byCount[i]].logged;
            for (std::size_t i = first; i < last; ++i) {
                FlushMember& member = members[byCount[i]];
                member.fingerprint = allLogged ? LoggedFingerprint(member) : EventFingerprint(member);
            }
            // By fingerprint, then in member order (the members are sorted, so by index): a plain
            // sort, since a stable one would take a buffer from outside the allocation path.
            std::sort(byCount.begin() + static_cast<std::ptrdiff_t>(first), byCount.begin() + static_cast<std::ptrdiff_t>(last),
                      [&](std::uint32_t a, std::uint32_t b) {
                          return members[a].fingerprint != members[b].fingerprint ? members[a].fingerprint < members[b].fingerprint : a < b;
                      });
            for (std::size_t i = first; i < last; ++i) {
                FlushMember& member = members[byCount[i]];
                // Representatives met so far with the same fingerprint, first one first.
                for (std::size_t j = i; j-- > first && members[byCount[j]].fingerprint == member.fingerprint;) {
                    const std::uint32_t rep = byCount[j];
                    if (members[rep].group == rep && SameEvents(members[rep], member)) member.group = rep;
                }
            }
        }
        first = last;
    }
}

bool KTarvelWrite::WriteChangedStores() {
    // The staging log sorted by handle: each handle's events form one range of it.
    if (!m_stage.empty()) m_stage.SortBySlot();
    Vector<FlushMember> members;
    try {
        if (!CloseChangedStores(members)) return false;
        m_dirty = false;
        std::sort(members.begin(), members.end());
        GroupEqualEvents(members);
        if (!WriteGroups(members)) {
            m_stage.Clear();
            return Error("");
        }
    } catch (...) {
        m_stage.Clear();
        throw;
    }
    for (const FlushMember& member : members) {
        if (!member.logged) m_handles.At(member.handle).store.clear();
    }
    m_changed.clear();
    m_stage.Clear();
    m_stage.ClearSlots();
    return true;
}

// Closes the store of each changed handle (those written from the log need none) and lists the
// handles with their ranges of the log.
bool KTarvelWrite::CloseChangedStores(Vector<FlushMember>& members) {
    members.reserve(m_changed.size());
    for (std::uint32_t slot = 0; slot < m_changed.size(); ++slot) {
        const std::int32_t handle = m_changed[slot];
        HandleEntry* entry = &m_handles.At(handle);
        const std::uint32_t start = m_stage.RangeStart(slot);
        FlushMember member{entry->typeIndex, 0, nullptr, slot, handle, start, m_stage.RangeEnd(slot) - start, false, 0};
        // A handle whose events all wait in the log, none with a source, is written straight
        // from it; the others get their logged events first and are written from the store.
        member.logged = member.count > 0 && entry->store.count() == 0 && !entry->stagedSource;
        if (!member.logged) {
            if (member.count > 0) AppendEvents(entry->store, member.count, EventStage::Range(m_stage, member.first));
            entry->store.push_end(m_time, static_cast<int>(m_delta));
        }
        entry->changed = false;
        entry->sized = false;
        entry->staged = false;
        entry->stagedSource = false;
        if (!m_types.Find(entry->typeIndex)) {
            m_stage.Clear();
            return Error("Unknown typeindex %d for handle %d", entry->typeIndex, handle);
        }
        member.events = member.logged ? member.count : entry->store.count();
        member.serial = entry->store.GetNr();
        member.body = StoreAccess::Body(entry->store);
        members.push_back(member);
    }
    return true;
}

// One block per group, in member order, listing the group's handles in ascending order.
bool KTarvelWrite::WriteGroups(const Vector<FlushMember>& members) {
    Vector<Vector<std::int32_t>> handlesOf(members.size());
    Vector<std::uint32_t> loggedOf(members.size(), UINT32_MAX);  // a logged member of the group
    for (std::uint32_t i = 0; i < members.size(); ++i) {
        const FlushMember& member = members[i];
        handlesOf[member.group].push_back(member.handle);
        if (member.logged && loggedOf[member.group] == UINT32_MAX) loggedOf[member.group] = i;
    }
    for (std::uint32_t i = 0; i < members.size(); ++i) {
        if (members[i].group != i) continue;
        Vector<std::int32_t>& handles = handlesOf[i];
        std::sort(handles.begin(), handles.end());
        bool written;
        if (loggedOf[i] != UINT32_MAX) {
            const FlushMember& logged = members[loggedOf[i]];
            written = WriteLoggedBlock(logged.typeIndex, m_handles.At(logged.handle), handles,
                                       EventStage::Range(m_stage, logged.first), logged.count);
        } else {
            written = WriteBlock(members[i].typeIndex, m_handles.At(members[i].handle).store, handles);
        }
        if (!written) return false;
    }
    return true;
}

bool KTarvelWrite::WriteLoggedBlock(std::int32_t typeIndex, const HandleEntry& entry, const Vector<std::int32_t>& handles,
                                    const EventStage::Range& range, std::size_t count) {
    const TypeHandle& type = *m_types.Find(typeIndex);
    if (!Format::HasValueText(type)) return true;
    if (!m_lines.WriteWavesLine(handles.data(), handles.size())) return false;
    if (!EmitLoggedSteps(m_lines, range, count) || !m_lines.WriteValuesLine()) return false;
    const KEventsStoreBody& body = *StoreAccess::Body(entry.store);
    if (body.valueKind != ValueKind::kNone) {
        KValueWriter values(m_lines, m_types, typeIndex, entry.store.GetSize(), static_cast<int>(type.ValueSize()));
        bool ok = false;
        switch (body.valueKind) {
            case ValueKind::kSize1: ok = EmitLoggedValues<KValueStore<4, 1>>(values, range, count); break;
            case ValueKind::kSize4: ok = EmitLoggedValues<KValueStore<4, 4>>(values, range, count); break;
            case ValueKind::kSize8: ok = EmitLoggedValues<KValueStore<8, 8>>(values, range, count); break;
            case ValueKind::kNone: break;
        }
        if (!ok) return false;
    }
    return m_lines.WriteEndLine();
}

bool KTarvelWrite::WriteBlock(std::int32_t typeIndex, const KEventsStore& store, const Vector<std::int32_t>& handles) {
    const TypeHandle& type = *m_types.Find(typeIndex);
    if (!Format::HasValueText(type)) return true;
    if (!m_lines.WriteWavesLine(handles.data(), handles.size())) return false;
    KTimeDeltaWriter steps(m_lines);
    if (!store.WriteTimeDelta(&steps) || !m_lines.WriteValuesLine()) return false;
    if (store.GetSize() > 0) {
        KValueWriter values(m_lines, m_types, typeIndex, store.GetSize(), static_cast<int>(type.ValueSize()));
        if (!store.WriteValue(&values)) return false;
    }
    if (store.Sources()) {
        KSourceWriter sources(m_lines);
        if (!m_lines.WriteSourcesLine() || !store.WriteSource(&sources)) return false;
    }
    return m_lines.WriteEndLine();
}

bool KTarvelWrite::Commit() {
    return Guard([&] { return m_lines.Commit(m_time, FlushCallback{&KTarvelWrite::FlushThunk, this}); });
}

bool KTarvelWrite::Resume() {
    return Guard([&] { return m_stream.Resume(); });
}

}  // namespace Tarvel
