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

#include <cstddef>
#include <cstdint>

#include "foundation/memory.h"
#include "tarvel/config.h"

namespace Tarvel {

class EventStage {
public:
    // Events the log holds. A flush interval of up to this many events is written straight from
    // the log; a longer one goes through the stores in runs of this size. The buffers take 32
    // bytes per event and more for distinct times and sources, committed as they fill (up to
    // 56 MB at the worst, 33 MB for events that share their times).
    static constexpr std::uint32_t kCapacity = std::uint32_t{1} << 20;
    static constexpr std::uint32_t kPointCapacity = kCapacity;
    static constexpr std::uint32_t kSourceCapacity = kCapacity;

    struct Point {
        int64 time;
        std::uint32_t delta;
    };
    // One event in arrival order. The top bit of `point` says that a source number waits in the
    // source array (in arrival order too).
    struct Event {
        std::int32_t handle;
        std::uint32_t point;
        std::uint64_t value;
    };
    // One event after the sort by handle.
    struct Sorted {
        std::uint32_t point;
        std::int32_t source;
        std::uint64_t value;
    };
    static constexpr std::uint32_t kSourceFlag = 0x80000000u;

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
            m_sorted = static_cast<Sorted*>(Tarvel::Allocate(sizeof(Sorted) * kCapacity));
            m_points = static_cast<Point*>(Tarvel::Allocate(sizeof(Point) * kPointCapacity));
            m_sources = static_cast<std::int32_t*>(Tarvel::Allocate(sizeof(std::int32_t) * kSourceCapacity));
            m_eventLimit = kCapacity;
        } catch (...) {
            Release();
            throw;
        }
    }

    bool empty() const { return m_eventCount == 0; }
    // True when one more event (with a source, with a new time point) fits; false while the
    // buffers are not made.
    bool HasRoom() const {
        return m_eventCount < m_eventLimit && m_pointCount < kPointCapacity && m_sourceCount < kSourceCapacity;
    }

    // Appends an event. REQUIRES: HasRoom().
    void Add(std::int32_t handle, int64 time, std::uint32_t delta, std::uint64_t value) {
        m_events[m_eventCount++] = Event{handle, PointOf(time, delta), value};
    }
    void AddWithSource(std::int32_t handle, int64 time, std::uint32_t delta, std::uint64_t value, std::int32_t source) {
        m_sources[m_sourceCount++] = source;
        m_events[m_eventCount++] = Event{handle, PointOf(time, delta) | kSourceFlag, value};
    }

    // Sorts the log by handle, keeping arrival order within a handle. `handles` lists every
    // handle with events in the log (others too: a count of 0 is skipped); countOf(handle) is
    // that handle's event count, which the sort uses as its cursor and leaves at the end of the
    // handle's range. Afterwards visit each handle's range in the order of `handles`.
    template <class Handles, class CountOf>
    void SortByHandle(const Handles& handles, CountOf&& countOf) {
        std::uint32_t offset = 0;
        for (std::int32_t handle : handles) {
            std::uint32_t& count = countOf(handle);
            const std::uint32_t n = count;
            count = offset;
            offset += n;
        }
        std::uint32_t sourceAt = 0;
        for (std::uint32_t i = 0; i < m_eventCount; ++i) {
            const Event& event = m_events[i];
            std::int32_t source = 0;
            if (event.point & kSourceFlag) source = m_sources[sourceAt++];
            m_sorted[countOf(event.handle)++] = Sorted{event.point & ~kSourceFlag, source, event.value};
        }
    }

    const Sorted* SortedEvents() const { return m_sorted; }
    const Point& PointAt(std::uint32_t index) const { return m_points[index]; }

    // Empties the log (the buffers stay).
    void Clear() {
        m_eventCount = 0;
        m_pointCount = 0;
        m_sourceCount = 0;
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
        Free(m_sorted);
        Free(m_points);
        Free(m_sources);
        m_events = nullptr;
        m_sorted = nullptr;
        m_points = nullptr;
        m_sources = nullptr;
        m_eventLimit = 0;
        Clear();
    }

    std::uint32_t m_eventLimit = 0;  // kCapacity once the buffers are made
    std::uint32_t m_eventCount = 0;
    std::uint32_t m_pointCount = 0;
    std::uint32_t m_sourceCount = 0;
    Event* m_events = nullptr;
    Sorted* m_sorted = nullptr;
    Point* m_points = nullptr;
    std::int32_t* m_sources = nullptr;
};

}  // namespace Tarvel

#endif  // TARVEL_WRITER_EVENT_STAGE_H
