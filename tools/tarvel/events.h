// The events of chosen signals of a file merged into one time order, and their text, one line
// per event: dump and follow print them. Tool layer; one thread.
//
// Why not the reader facade's event pass (CreateStreamRead2, NextEvent): the facade opens a file
// by name, so it cannot walk the signals of a filtered raw reader; its pass always starts at the
// file's first event, so --from and a follower's "only what is new" would walk every earlier
// event again; and it orders events of one (time, delta) newest waiting first, where a person
// reads declaration order best. A heap over the raw reader's stores does all three.
#ifndef TARVEL_TOOLS_TARVEL_EVENTS_H
#define TARVEL_TOOLS_TARVEL_EVENTS_H

#include <tarvel/events_store.h>

#include <cstdint>
#include <string>
#include <vector>

#include "text.h"
#include "wave_file.h"

namespace TarvelTool {

// Where the walk of one signal starts: at its first event with index `firstIndex` or later and
// time `from` or later.
struct WalkStart {
    int signal;             // index in the file's table
    unsigned firstIndex;    // events before it were shown already
    int64 from;             // events before this time are not wanted
};

// Walks events in ascending (time, delta), events of one time and delta in declaration order of
// their signals, events of one signal in store order. The file must not read on (Continue) while
// a walk lives: its stores would move.
class EventWalk {
public:
    EventWalk(WaveFile& file, const std::vector<WalkStart>& starts);
    // Steps to the next event; false after the last one.
    bool Next();
    // The current event's signal (index in the table) and its cursor.
    int Signal() const { return m_entries[static_cast<std::size_t>(m_current)].signal; }
    const Tarvel::KEventData& Event() const { return m_entries[static_cast<std::size_t>(m_current)].cursor; }

private:
    struct Entry {
        int signal;
        const Tarvel::KEventsStore* store;
        Tarvel::KEventData cursor;
    };
    struct Key {
        int64 time;
        unsigned delta;
        int signal;
        int entry;
        bool operator>(const Key& other) const;
    };
    void Push(int entry);

    std::vector<Entry> m_entries;
    std::vector<Key> m_heap;  // a min-heap of the entries' current events
    int m_current = -1;       // the entry of the current event; -1 before the first
};

// Prints events as lines: "TIME NAME VALUE  @FILE:LINE", the time in the file's unit with
// "+DELTA" when the delta is not 0, the signal's full name, its value by its type, and the
// source when the event has one. Columns are as wide as the chosen signals need.
class EventPrinter {
public:
    EventPrinter(WaveFile& file, const std::vector<bool>& chosen);
    // Writes one line to stdout.
    void Print(int signal, const Tarvel::KEventData& event);

private:
    WaveFile& m_file;
    TimeFormat m_times;
    int m_timeWidth;
    int m_nameWidth;
    std::string m_line;  // reused
};

// The chosen scalar signals (with their events) as walk starts from `from` on.
std::vector<WalkStart> StartsOf(const WaveFile& file, const std::vector<bool>& chosen, int64 from);

}  // namespace TarvelTool

#endif  // TARVEL_TOOLS_TARVEL_EVENTS_H
