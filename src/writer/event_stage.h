// The writer's staging log. Between flushes, the values a caller stores do not go to their
// handles' stores one by one: each is appended to this sequential log (handle, time point,
// value, source), and the log is handed to the stores handle by handle when it fills and at each
// flush. A trace of many signals then touches each signal's coder state once per run of events
// instead of once per event, which keeps that state in cache. Writer layer; one thread.
//
// Only handles whose store body is held by the handle alone are staged: such a store changes in
// place, so applying its events later, grouped by handle, gives the same store as applying them
// as they came. Handles whose bodies are shared keep the direct path, in arrival order.
#ifndef TARVEL_WRITER_EVENT_STAGE_H
#define TARVEL_WRITER_EVENT_STAGE_H

#include <cassert>
#include <cstddef>
#include <cstdint>

#include "foundation/memory.h"
#include "tarvel/config.h"

namespace Tarvel {

class EventStage {
public:
    // Events the log holds. A flush interval of up to this many events is written straight from
    // the log; a longer one goes through the stores in runs of this size. The buffers take 24
    // bytes per event, 8 more for values wider than 4 bytes or with sources, and 16 per distinct
    // time; the system commits their pages only as they fill.
    // The point and source arrays have the same capacity: an event adds at most one of each,
    // so room for an event is room for both.
    static constexpr std::uint32_t kCapacity = std::uint32_t{1} << 20;

    struct Point {
        int64 time;
        std::uint32_t delta;
    };
    // One event in arrival order: its handle's slot (see NewSlot), its time point and its value
    // as a number (the value's bytes read little-endian). The top bit of `point` says that a
    // source number waits in the source array (in arrival order too).
    struct Event {
        std::uint32_t slot;
        std::uint32_t point;
        std::uint64_t value;
    };
    // One event after the sort by slot, in two arrays: what every event needs, and the value's
    // high word and the source, kept only when some event of the log has either.
    struct Narrow {
        std::uint32_t point;
        std::uint32_t low;
    };
    struct Wide {
        std::uint32_t high;
        std::int32_t source;
    };
    static_assert(sizeof(Narrow) == 8 && sizeof(Wide) == 8, "entries are hashed and compared as 64-bit words");
    static constexpr std::uint32_t kSourceFlag = 0x80000000u;

    // A slot's events after the sort, as the store's batch append and the block writers read
    // them: Time(i), Delta(i), Bits(i) (the value as a number) and Source(i).
    class Range {
    public:
        Range(const EventStage& stage, std::uint32_t first)
            : m_points(stage.m_points), m_narrow(stage.m_narrow + first), m_wide(stage.m_hasWide ? stage.m_wide + first : nullptr) {}
        int64 Time(std::size_t i) const { return m_points[m_narrow[i].point].time; }
        std::uint32_t Delta(std::size_t i) const { return m_points[m_narrow[i].point].delta; }
        std::uint64_t Bits(std::size_t i) const {
            return m_wide ? (std::uint64_t{m_wide[i].high} << 32) | m_narrow[i].low : m_narrow[i].low;
        }
        int Source(std::size_t i) const { return m_wide ? m_wide[i].source : 0; }

    private:
        const Point* m_points;
        const Narrow* m_narrow;
        const Wide* m_wide;
    };

    EventStage() = default;
    EventStage(const EventStage&) = delete;
    EventStage& operator=(const EventStage&) = delete;
    ~EventStage() { Release(); }

    bool Allocated() const { return m_events != nullptr; }
    // Makes the buffers (left uninitialised, so that the system commits their pages only as
    // they fill). May throw std::bad_alloc and then holds none.
    void Allocate() {
        try {
            m_events = static_cast<Event*>(Tarvel::Allocate(sizeof(Event) * kCapacity));
            m_narrow = static_cast<Narrow*>(Tarvel::Allocate(sizeof(Narrow) * kCapacity));
            m_wide = static_cast<Wide*>(Tarvel::Allocate(sizeof(Wide) * kCapacity));
            m_points = static_cast<Point*>(Tarvel::Allocate(sizeof(Point) * kCapacity));
            m_sources = static_cast<std::int32_t*>(Tarvel::Allocate(sizeof(std::int32_t) * kCapacity));
            m_room = m_eventLimit;
        } catch (...) {
            Release();
            throw;
        }
    }

    // Gives the buffers back (the log must be empty); Allocate makes them again.
    void FreeBuffers() noexcept { Release(); }

    // Lowers the number of events the log takes before it drains (tests use small limits to
    // drive the stores' path; 0 turns staging off).
    void SetLimit(std::uint32_t events) {
        m_eventLimit = events < kCapacity ? events : kCapacity;
        if (Allocated()) m_room = m_eventLimit;
    }
    bool Enabled() const { return m_eventLimit > 0; }
    // Takes nothing more until Allocate (a writer that failed): HasRoom() is false from now on.
    void Refuse() noexcept { m_room = 0; }

    bool empty() const { return m_eventCount == 0; }
    // True when one more event fits; false while the buffers are not made.
    bool HasRoom() const { return m_eventCount < m_room; }

    // A new slot: the writer gives one to each handle that takes values in a flush interval, in
    // the order of its list of changed handles, and the log sorts by slot. May throw
    // std::bad_alloc.
    std::uint32_t NewSlot() {
        m_counts.push_back(0);
        return static_cast<std::uint32_t>(m_counts.size() - 1);
    }
    // Forgets the slots (at the end of a flush interval).
    void ClearSlots() { m_counts.clear(); }

    // Appends an event. REQUIRES: HasRoom().
    void Add(std::uint32_t slot, int64 time, std::uint32_t delta, std::uint64_t value) {
        assert(HasRoom() && slot < m_counts.size());
        ++m_counts[slot];
        m_hasWide |= (value >> 32) != 0;
        m_events[m_eventCount++] = Event{slot, PointOf(time, delta), value};
    }
    void AddWithSource(std::uint32_t slot, int64 time, std::uint32_t delta, std::uint64_t value, std::int32_t source) {
        assert(HasRoom() && slot < m_counts.size());
        ++m_counts[slot];
        m_hasWide = true;
        m_sources[m_sourceCount++] = source;
        m_events[m_eventCount++] = Event{slot, PointOf(time, delta) | kSourceFlag, value};
    }

    // Sorts the log by slot, keeping arrival order within a slot. Afterwards the events of slot
    // s are Range(*this, RangeStart(s)) up to RangeEnd(s), until Clear().
    void SortBySlot() {
        std::uint32_t offset = 0;
        for (std::uint32_t& count : m_counts) {
            const std::uint32_t n = count;
            count = offset;  // the slot's cursor, left at the end of its range
            offset += n;
        }
        std::uint32_t* const cursors = m_counts.data();
        if (!m_hasWide) {
            for (std::uint32_t i = 0; i < m_eventCount; ++i) {
                const Event& event = m_events[i];
                m_narrow[cursors[event.slot]++] = Narrow{event.point, static_cast<std::uint32_t>(event.value)};
            }
            return;
        }
        std::uint32_t sourceAt = 0;
        for (std::uint32_t i = 0; i < m_eventCount; ++i) {
            const Event& event = m_events[i];
            std::int32_t source = 0;
            if (event.point & kSourceFlag) source = m_sources[sourceAt++];
            const std::uint32_t at = cursors[event.slot]++;
            m_narrow[at] = Narrow{event.point & ~kSourceFlag, static_cast<std::uint32_t>(event.value)};
            m_wide[at] = Wide{static_cast<std::uint32_t>(event.value >> 32), source};
        }
    }
    // The sorted entries from `first` on; WideAt only while HasWide().
    const Narrow* NarrowAt(std::uint32_t first) const { return m_narrow + first; }
    const Wide* WideAt(std::uint32_t first) const { return m_wide + first; }
    bool HasWide() const { return m_hasWide; }
    std::uint32_t RangeStart(std::uint32_t slot) const { return slot == 0 ? 0 : m_counts[slot - 1]; }
    std::uint32_t RangeEnd(std::uint32_t slot) const { return m_counts[slot]; }

    // Empties the log (the buffers and the slots stay).
    void Clear() {
        for (std::uint32_t& count : m_counts) count = 0;
        m_eventCount = 0;
        m_pointCount = 0;
        m_sourceCount = 0;
        m_hasWide = false;
    }

private:
    std::uint32_t PointOf(int64 time, std::uint32_t delta) {
        if (m_pointCount > 0) {
            const Point& last = m_points[m_pointCount - 1];
            if (last.time == time && last.delta == delta) return m_pointCount - 1;
        }
        m_points[m_pointCount] = Point{time, delta};
        return m_pointCount++;
    }

    void Release() noexcept {
        Free(m_events);
        Free(m_narrow);
        Free(m_wide);
        Free(m_points);
        Free(m_sources);
        m_events = nullptr;
        m_narrow = nullptr;
        m_wide = nullptr;
        m_points = nullptr;
        m_sources = nullptr;
        m_room = 0;
        Clear();
    }

    std::uint32_t m_eventLimit = kCapacity;  // events taken before a drain
    std::uint32_t m_room = 0;                // m_eventLimit once the buffers are made, else 0
    std::uint32_t m_eventCount = 0;
    std::uint32_t m_pointCount = 0;
    std::uint32_t m_sourceCount = 0;
    bool m_hasWide = false;          // some event has a value above 32 bits or a source
    Event* m_events = nullptr;
    Narrow* m_narrow = nullptr;
    Wide* m_wide = nullptr;
    Point* m_points = nullptr;
    std::int32_t* m_sources = nullptr;
    Vector<std::uint32_t> m_counts;  // per slot: events in the log; after the sort, range ends
};

}  // namespace Tarvel

#endif  // TARVEL_WRITER_EVENT_STAGE_H
