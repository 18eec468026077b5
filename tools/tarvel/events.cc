// The merged walk over chosen signals' stores and the event lines. Tool layer; one thread.
#include "events.h"

#include <algorithm>
#include <cstdio>
#include <functional>

namespace TarvelTool {

bool EventWalk::Key::operator>(const Key& other) const {
    if (time != other.time) return time > other.time;
    if (delta != other.delta) return delta > other.delta;
    return signal > other.signal;
}

EventWalk::EventWalk(WaveFile& file, const std::vector<WalkStart>& starts) {
    m_entries.reserve(starts.size());
    for (const WalkStart& start : starts) {
        const Tarvel::KEventsStore* store = file.Reader().GetSignalData(file.Signals()[static_cast<std::size_t>(start.signal)].handle);
        if (!store) continue;
        Entry entry{start.signal, store, Tarvel::KEventData()};
        // GetFirstEvent(time) stands on the last event before `time`, jumping over whole runs.
        bool more = start.from > 0 ? store->GetFirstEvent(start.from, &entry.cursor, nullptr) : store->GetFirstEvent(&entry.cursor);
        while (more && (entry.cursor.GetTime() < start.from || static_cast<unsigned>(entry.cursor.GetIndex()) < start.firstIndex)) {
            more = store->GetNextEvent(&entry.cursor);
        }
        if (!more) continue;
        m_entries.push_back(entry);
        Push(static_cast<int>(m_entries.size()) - 1);
    }
}

void EventWalk::Push(int entry) {
    const Entry& e = m_entries[static_cast<std::size_t>(entry)];
    m_heap.push_back(Key{e.cursor.GetTime(), e.cursor.GetDelta(), e.signal, entry});
    std::push_heap(m_heap.begin(), m_heap.end(), std::greater<Key>());
}

bool EventWalk::Next() {
    if (m_current >= 0) {
        Entry& e = m_entries[static_cast<std::size_t>(m_current)];
        if (e.store->GetNextEvent(&e.cursor)) Push(m_current);
        m_current = -1;
    }
    if (m_heap.empty()) return false;
    std::pop_heap(m_heap.begin(), m_heap.end(), std::greater<Key>());
    m_current = m_heap.back().entry;
    m_heap.pop_back();
    return true;
}

std::vector<WalkStart> StartsOf(const WaveFile& file, const std::vector<bool>& chosen, int64 from) {
    std::vector<WalkStart> starts;
    for (std::size_t i = 0; i < file.Signals().size(); ++i) {
        if (chosen[i] && file.Signals()[i].kind == SignalKind::kScalar) starts.push_back(WalkStart{static_cast<int>(i), 0, from});
    }
    return starts;
}

EventPrinter::EventPrinter(WaveFile& file, const std::vector<bool>& chosen)
    : m_file(file), m_times(file.Reader().GetResolution()) {
    constexpr int kWidestName = 40;  // longer names push the value column on their own lines only
    m_nameWidth = 0;
    for (std::size_t i = 0; i < file.Signals().size(); ++i) {
        const SignalInfo& s = file.Signals()[i];
        if (chosen[i] && s.kind == SignalKind::kScalar) m_nameWidth = std::max(m_nameWidth, static_cast<int>(s.fullName.size()));
    }
    m_nameWidth = std::min(m_nameWidth, kWidestName);
    m_timeWidth = static_cast<int>(m_times.Text(file.Reader().GetEndTime()).size()) + 2;
}

void EventPrinter::Print(int signal, const Tarvel::KEventData& event) {
    const SignalInfo& s = m_file.Signals()[static_cast<std::size_t>(signal)];
    m_line = m_times.Text(event.GetTime());
    if (event.GetDelta() != 0) m_line.append("+").append(std::to_string(event.GetDelta()));
    if (static_cast<int>(m_line.size()) < m_timeWidth) m_line.resize(static_cast<std::size_t>(m_timeWidth), ' ');
    m_line += ' ';
    m_line += s.fullName;
    if (static_cast<int>(s.fullName.size()) < m_nameWidth) m_line.append(static_cast<std::size_t>(m_nameWidth) - s.fullName.size(), ' ');
    m_line += ' ';
    unsigned char value[8] = {};
    event.GetValue(value, sizeof value);
    m_line += ValueText(s.type, value);
    const char* sourceFile = nullptr;
    int line = 0;
    if (event.GetSource() != 0 && m_file.Reader().GetSourcer().Translate(event.GetSource(), &sourceFile, &line)) {
        m_line += "  @";
        m_line += sourceFile;
        m_line.append(":").append(std::to_string(line));
    }
    m_line += '\n';
    std::fwrite(m_line.data(), 1, m_line.size(), stdout);
}

}  // namespace TarvelTool
