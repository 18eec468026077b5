// export-vcd: the raw reader's signal tree becomes the VCD header; its stores, walked window by
// window of time and ordered by time within each window, the value changes. Tool layer; one
// thread.
#include "vcd_export.h"

#include "signal_kind.h"

#include <tarvel/diagnostics.h>
#include <tarvel/tarvel.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "vcd_text.h"

namespace TarvelTool {
namespace {

using Tarvel::int64;
using Tarvel::IRawTarvelRead;
using Vcd::ExportClass;
using Vcd::ExportType;

constexpr std::uint32_t kNone = UINT32_MAX;

// A buffered output file.
class Output {
public:
    ~Output() { Close(); }
    bool Open(const std::string& path, std::string* error) {
        m_file = path == "-" ? stdout : std::fopen(path.c_str(), "wb");
        if (!m_file) *error = std::strerror(errno);
        m_buffer.resize(kSize);
        return m_file != nullptr;
    }
    // Room for `n` more bytes at Cursor().
    char* Reserve(std::size_t n) {
        if (m_used + n > m_buffer.size()) {
            Drain();
            if (n > m_buffer.size()) m_buffer.resize(n);
        }
        return m_buffer.data() + m_used;
    }
    void Commit(char* end) { m_used = static_cast<std::size_t>(end - m_buffer.data()); }
    void Put(std::string_view text) {
        char* p = Reserve(text.size());
        std::memcpy(p, text.data(), text.size());
        Commit(p + text.size());
    }
    // False when a write failed (the reason in *error).
    bool Close(std::string* error = nullptr) {
        if (!m_file) return m_failed.empty();
        Drain();
        const bool closed = m_file == stdout ? std::fflush(m_file) == 0 : std::fclose(m_file) == 0;
        if (!closed && m_failed.empty()) m_failed = std::strerror(errno);
        m_file = nullptr;
        if (error) *error = m_failed;
        return m_failed.empty();
    }

private:
    static constexpr std::size_t kSize = std::size_t{1} << 20;
    void Drain() {
        if (m_used && std::fwrite(m_buffer.data(), 1, m_used, m_file) != m_used && m_failed.empty()) {
            m_failed = std::strerror(errno);
        }
        m_used = 0;
    }
    std::FILE* m_file = nullptr;
    std::vector<char> m_buffer;
    std::size_t m_used = 0;
    std::string m_failed;  // the first write's failure
};

// One signal of the file, as the raw reader places it.
struct Node {
    int parent = -1;                 // the parent's index; -1 at the top
    int position = 0;                // among the parent's children
    int typeId = -1;                 // -1: a scope or a virtual bus
    std::string name;                // local name, blanks made '_'
    std::vector<int> children;       // indexes, by position
};

// One $var of the output.
struct OutVar {
    const ExportType* type;
    std::string code;               // identifier code
    std::string chars;              // kLogic and kVector: the current characters
    std::uint64_t value = 0;        // kInteger, kReal, kString: the current value's bits
    bool dirty = false;             // changed at the current time
};

// Where the events of a signal go: a variable, and for a vector element the bit.
struct Sink {
    std::uint32_t var = kNone;
    std::uint32_t bit = 0;
};

class Exporter {
public:
    Exporter(IRawTarvelRead& reader, Output& out, Progress* progress, std::uint64_t inputSize, std::size_t windowEvents)
        : m_raw(reader), m_out(out), m_progress(progress), m_inputSize(inputSize), m_windowEvents(windowEvents) {}

    VcdExportResult Run() {
        ReadTree();
        const Vcd::Timescale timescale = Vcd::TimescaleFor(m_raw.GetResolution());
        m_multiplier = timescale.multiplier;
        m_result.timescale = timescale.text;
        WriteHeader(timescale.text);
        WriteChanges();
        m_result.ok = true;
        return m_result;
    }

private:
    // ---- The tree ----

    static std::string VcdName(std::string name) {
        for (char& c : name) {
            if (static_cast<unsigned char>(c) <= ' ') c = '_';
        }
        return name.empty() ? "_" : name;
    }

    void ReadTree() {
        for (auto signal = m_raw.BeginSignals(); signal != m_raw.EndSignals(); ++signal) {
            Node node;
            IRawTarvelRead::SignalIterator parent;
            m_raw.GetSignalPlace(signal, nullptr, nullptr, nullptr, nullptr, &parent, &node.position);
            node.parent = parent == m_raw.EndSignals() ? -1 : parent.GetSignalNr();
            node.typeId = m_raw.GetTypeId(signal);
            node.name = VcdName(Tarvel::Client::LocalName(m_raw, signal));
            m_nodes.push_back(std::move(node));
            m_stores.push_back(m_raw.GetSignalData(signal));
        }
        for (std::size_t i = 0; i < m_nodes.size(); ++i) {
            const int parent = m_nodes[i].parent;
            if (parent >= 0 && static_cast<std::size_t>(parent) < m_nodes.size()) {
                m_nodes[static_cast<std::size_t>(parent)].children.push_back(static_cast<int>(i));
            } else {
                m_top.push_back(static_cast<int>(i));
            }
        }
        for (Node& node : m_nodes) {
            std::stable_sort(node.children.begin(), node.children.end(),
                             [this](int a, int b) { return Place(a) < Place(b); });
        }
        m_sinks.assign(m_nodes.size(), Sink{});
    }
    int Place(int index) const { return m_nodes[static_cast<std::size_t>(index)].position; }

    const ExportType& TypeOf(int typeId) {
        auto found = m_types.find(typeId);
        if (found == m_types.end()) {
            const char* text = m_raw.GetTypeInfo(typeId);
            found = m_types.emplace(typeId, std::make_unique<ExportType>(Vcd::ClassifyType(text ? text : "u#0#"))).first;
        }
        return *found->second;
    }

    // ---- The header ----

    void WriteHeader(const std::string& timescale) {
        m_out.Put("$version\n\ttarvel export-vcd " TARVEL_VERSION "\n$end\n$timescale\n\t" + timescale + "\n$end\n");
        // Depth first, without recursion: a frame is a list of nodes and the next one to write.
        struct Frame {
            const std::vector<int>* nodes;
            std::size_t next;
        };
        std::vector<Frame> stack{{&m_top, 0}};
        while (!stack.empty()) {
            Frame& frame = stack.back();
            if (frame.next == frame.nodes->size()) {
                stack.pop_back();
                if (!stack.empty()) m_out.Put("$upscope $end\n");
                continue;
            }
            const int index = (*frame.nodes)[frame.next++];
            const Node& node = m_nodes[static_cast<std::size_t>(index)];
            if (node.typeId < 0 || TypeOf(node.typeId).exportClass == ExportClass::kGroup) {
                m_out.Put("$scope module " + node.name + " $end\n");
                stack.push_back({&node.children, 0});
            } else {
                DeclareVar(index, node);
            }
        }
        m_out.Put("$enddefinitions $end\n");
    }

    void DeclareVar(int index, const Node& node) {
        const ExportType& type = TypeOf(node.typeId);
        if (type.exportClass == ExportClass::kNone) return;
        // The stores that carry the variable's events: its own, or its elements' by bit.
        std::vector<Tarvel::KEventsStore> stores;
        std::vector<int> signals;
        if (type.exportClass == ExportClass::kVector) {
            stores.resize(type.width);
            signals.assign(type.width, -1);
            for (int child : node.children) {
                const int bit = Place(child);
                if (bit < 0 || static_cast<std::uint32_t>(bit) >= type.width) continue;
                signals[static_cast<std::size_t>(bit)] = child;
                if (m_stores[static_cast<std::size_t>(child)]) stores[static_cast<std::size_t>(bit)] = *m_stores[static_cast<std::size_t>(child)];
            }
        } else {
            signals.push_back(index);
            if (m_stores[static_cast<std::size_t>(index)]) stores.push_back(*m_stores[static_cast<std::size_t>(index)]);
        }
        std::string code = AliasOf(type, stores);
        const bool alias = !code.empty();
        if (!alias) {
            code = Vcd::IdentifierCode(m_vars.size());
            const std::uint32_t var = static_cast<std::uint32_t>(m_vars.size());
            m_vars.push_back(OutVar{&type, code, std::string(type.width, 'x'), 0, false});
            for (std::size_t bit = 0; bit < signals.size(); ++bit) {
                if (signals[bit] >= 0) m_sinks[static_cast<std::size_t>(signals[bit])] = {var, static_cast<std::uint32_t>(bit)};
            }
            RememberAlias(type, stores, code);
        } else {
            ++m_result.aliases;
        }
        ++m_result.variables;
        std::string line = "$var " + type.keyword + " " + std::to_string(type.width) + " " + code + " " + node.name;
        if (type.exportClass == ExportClass::kVector) line += Vcd::RangeText(type.range);
        m_out.Put(line + " $end\n");
    }

    // Variables whose stores are the same bodies have the same events: they share one code, as
    // simulators write a net seen in several scopes. Stores without events share no code.
    using AliasKey = std::pair<const ExportType*, std::vector<Tarvel::KEventsStore>>;
    static bool Silent(const std::vector<Tarvel::KEventsStore>& stores) {
        return std::all_of(stores.begin(), stores.end(), [](const Tarvel::KEventsStore& s) { return s.empty(); });
    }
    std::string AliasOf(const ExportType& type, const std::vector<Tarvel::KEventsStore>& stores) {
        if (Silent(stores)) return "";
        const auto found = m_aliases.find(AliasKey{&type, stores});
        return found == m_aliases.end() ? "" : found->second;
    }
    void RememberAlias(const ExportType& type, const std::vector<Tarvel::KEventsStore>& stores, const std::string& code) {
        if (!Silent(stores)) m_aliases.emplace(AliasKey{&type, stores}, code);
    }

    // ---- The value changes ----
    //
    // The stores are walked window by window of time: each store's events of the window, the
    // last delta's of each time only, become records (time slot, sink, value), which are then put
    // in time order by a counting sort over the window's distinct times and written. A window
    // holds about m_windowEvents records: its length follows the density of the events. Each
    // store is read in order, and the records of one window stay in the cache while they are
    // sorted and written; a merge of all stores event by event (the reader facade's pass) meets
    // every store's state out of cache.

    // A store being walked: its events are decoded kBatch at a time (GetNextEvents) into the
    // walker's run of m_runTimes and m_runValues, and taken from there.
    static constexpr int kBatch = 64;
    struct Walker {
        const Tarvel::KEventsStore* store;
        Tarvel::KEventData cursor;  // on the last event decoded
        std::uint32_t sink;         // index into m_sinkList
        bool wide;                  // 8-byte values
        bool narrow;                // 4-byte values (else 8 or none)
        int at = 0;                 // the next event to take in the run
        int count = 0;              // events in the run
    };
    struct Record {
        std::uint32_t slot;   // the time's slot in m_slots (then its rank, after sorting)
        std::uint32_t sink;   // index into m_sinkList
        std::uint32_t value;  // the value, or for wide values its index in m_wide
    };
    struct TimeSlot {
        int64 time;           // kFree when the slot is free
        std::uint32_t rank;   // the time's place among the window's distinct times
    };
    static constexpr int64 kFree = INT64_MIN;

    void MakeWalkers() {
        for (std::size_t i = 0; i < m_nodes.size(); ++i) {
            const Tarvel::KEventsStore* store = m_stores[i];
            if (m_sinks[i].var == kNone || !store || store->empty()) continue;
            const int size = store->GetSize();
            m_walkers.push_back(Walker{store, Tarvel::KEventData(), static_cast<std::uint32_t>(m_sinkList.size()), size == 8, size == 4});
            m_runTimes.resize(m_walkers.size() * kBatch);
            m_runValues.resize(m_walkers.size() * kBatch);
            if (!Refill(m_walkers.size() - 1)) {
                m_walkers.pop_back();
                continue;
            }
            m_sinkList.push_back(m_sinks[i]);
            m_next.push_back(m_runTimes[(m_walkers.size() - 1) * kBatch]);
            m_total += store->count();
        }
    }

    // Decodes the walker's next events into its run; false when its store has no more. Values
    // are widened to 8 bytes (the raw reader's 4-byte values are unsigned).
    bool Refill(std::size_t w) {
        Walker& walker = m_walkers[w];
        int64* times = &m_runTimes[w * kBatch];
        std::uint64_t* values = &m_runValues[w * kBatch];
        unsigned deltas[kBatch];
        int n;
        if (walker.wide) {
            n = walker.store->GetNextEvents(&walker.cursor, kBatch, times, deltas, reinterpret_cast<unsigned char*>(values), nullptr);
        } else {
            std::uint32_t narrow[kBatch];
            n = walker.store->GetNextEvents(&walker.cursor, kBatch, times, deltas,
                                            walker.narrow ? reinterpret_cast<unsigned char*>(narrow) : nullptr, nullptr);
            if (!walker.narrow) std::fill(narrow, narrow + kBatch, 0u);
            for (int i = 0; i < n; ++i) values[i] = narrow[i];
        }
        walker.at = 0;
        walker.count = n > 0 ? n : 0;
        return n > 0;
    }

    void WriteChanges() {
        MakeWalkers();
        const int64 lastEvent = m_walkers.empty() ? 0 : LastEventTime();
        int64 start = m_walkers.empty() ? 0 : *std::min_element(m_next.begin(), m_next.end());
        // The first window's length if events were spread evenly; then adapted to what came.
        int64 length = std::max<int64>(1, static_cast<int64>(static_cast<double>(lastEvent - start + 1) *
                                                             static_cast<double>(m_windowEvents) /
                                                             static_cast<double>(std::max<std::uint64_t>(1, m_total))));
        while (start <= lastEvent && !m_walkers.empty()) {
            const int64 end = lastEvent - start < length ? lastEvent + 1 : start + length;
            Collect(end);
            SortRecords();
            WriteRecords();
            if (m_records.size() > 2 * m_windowEvents) length = std::max<int64>(1, length / 2);
            if (m_records.size() < m_windowEvents / 2 && length < INT64_MAX / 4) length *= 2;
            start = std::max(end, m_earliest);  // over a stretch without events at once
        }
        const int64 endTime = std::max(m_raw.GetEndTime(), lastEvent);
        if (endTime > m_lastWritten || !m_wroteTime) WriteTimeLine(endTime);
        m_result.endTime = endTime * m_multiplier;
        if (m_progress) m_progress->Finish(m_inputSize);
    }

    // The raw reader ends every store it fills at its last event's time.
    int64 LastEventTime() const {
        int64 last = 0;
        for (const Walker& walker : m_walkers) last = std::max(last, walker.store->EndTime());
        return last;
    }

    // The records of the events before `end` not taken yet: per store and time the last delta's.
    void Collect(int64 end) {
        m_records.clear();
        m_wide.clear();
        m_times.clear();
        m_slots.assign(std::max<std::size_t>(1024, m_slots.size()), TimeSlot{kFree, 0});
        m_earliest = INT64_MAX;
        for (std::size_t w = 0; w < m_walkers.size(); ++w) {
            if (m_next[w] >= end) {
                m_earliest = std::min(m_earliest, m_next[w]);
                continue;
            }
            Walker& walker = m_walkers[w];
            int64 time = m_next[w];  // the time of the run's event at walker.at
            while (time < end) {
                const std::uint64_t value = m_runValues[w * kBatch + static_cast<std::size_t>(walker.at)];
                ++m_done;
                const bool more = ++walker.at < walker.count || Refill(w);
                const int64 next = more ? m_runTimes[w * kBatch + static_cast<std::size_t>(walker.at)] : INT64_MAX;
                if (next != time) {  // the last event of its time: a later delta overrides
                    std::uint32_t stored = static_cast<std::uint32_t>(value);
                    if (walker.wide) {
                        stored = static_cast<std::uint32_t>(m_wide.size());
                        m_wide.push_back(value);
                    }
                    m_records.push_back({SlotOf(time), walker.sink, stored});
                }
                time = next;
            }
            m_next[w] = time;
            m_earliest = std::min(m_earliest, time);
        }
    }

    // The slot of `time` in the window's open-addressed table of distinct times.
    std::uint32_t SlotOf(int64 time) {
        const std::size_t mask = m_slots.size() - 1;
        std::size_t slot = static_cast<std::size_t>(static_cast<std::uint64_t>(time) * 0x9E3779B97F4A7C15ull >> 40) & mask;
        while (m_slots[slot].time != time) {
            if (m_slots[slot].time == kFree) {
                if (2 * (m_times.size() + 1) > m_slots.size()) {
                    GrowSlots();
                    return SlotOf(time);
                }
                m_slots[slot].time = time;
                m_times.push_back(time);
                break;
            }
            slot = (slot + 1) & mask;
        }
        return static_cast<std::uint32_t>(slot);
    }
    // Doubles the table and moves the records' slots along.
    void GrowSlots() {
        const std::vector<TimeSlot> old = std::move(m_slots);
        m_slots.assign(old.size() * 2, TimeSlot{kFree, 0});
        const std::vector<int64> times = std::move(m_times);
        m_times.clear();
        for (int64 t : times) SlotOf(t);
        for (Record& r : m_records) r.slot = SlotOf(old[r.slot].time);
    }

    // Orders the records by time: the distinct times are sorted, and the records counted into
    // place by their time's rank. Stable: one store's records keep their order.
    void SortRecords() {
        std::sort(m_times.begin(), m_times.end());
        for (std::size_t rank = 0; rank < m_times.size(); ++rank) {
            m_slots[SlotOf(m_times[rank])].rank = static_cast<std::uint32_t>(rank);
        }
        m_counts.assign(m_times.size() + 1, 0);
        for (Record& r : m_records) {
            r.slot = m_slots[r.slot].rank;
            ++m_counts[r.slot + 1];
        }
        for (std::size_t i = 1; i < m_counts.size(); ++i) m_counts[i] += m_counts[i - 1];
        m_sorted.resize(m_records.size());
        for (const Record& r : m_records) m_sorted[m_counts[r.slot]++] = r;
        m_records.swap(m_sorted);
    }

    void WriteRecords() {
        std::uint32_t current = 0;
        bool any = false;
        for (const Record& r : m_records) {
            if (r.slot != current || !any) {
                if (any) WriteTime(m_times[current]);
                current = r.slot;
                any = true;
            }
            const Sink& sink = m_sinkList[r.sink];
            Apply(m_vars[sink.var], sink, IsWide(sink) ? m_wide[r.value] : r.value);
        }
        if (any) WriteTime(m_times[current]);
    }
    bool IsWide(const Sink& sink) const {
        const ExportClass c = m_vars[sink.var].type->exportClass;
        return (c == ExportClass::kInteger && m_vars[sink.var].type->width == 64) || c == ExportClass::kReal;
    }

    void Apply(OutVar& var, const Sink& sink, std::uint64_t value) {
        const ExportType& type = *var.type;
        switch (type.exportClass) {
            case ExportClass::kLogic:
            case ExportClass::kVector:
                var.chars[sink.bit] = value < type.characters.size() ? type.characters[value] : 'x';
                break;
            default:
                var.value = value;
                break;
        }
        if (!var.dirty) {
            var.dirty = true;
            m_dirty.push_back(sink.var);
        }
    }

    void WriteTimeLine(int64 time) {
        char* p = m_out.Reserve(24);
        *p++ = '#';
        p = std::to_chars(p, p + 22, time * m_multiplier).ptr;
        *p++ = '\n';
        m_out.Commit(p);
        m_lastWritten = time;
        m_wroteTime = true;
    }

    void WriteTime(int64 time) {
        if (m_dirty.empty()) return;
        if (m_progress && m_total) {  // the events walked so far, as bytes of the input
            m_progress->Update(static_cast<std::uint64_t>(static_cast<double>(m_done) / static_cast<double>(m_total) *
                                                          static_cast<double>(m_inputSize)));
        }
        WriteTimeLine(time);
        for (std::uint32_t index : m_dirty) {
            OutVar& var = m_vars[index];
            var.dirty = false;
            WriteValue(var);
            ++m_result.changes;
        }
        m_dirty.clear();
    }

    void WriteValue(const OutVar& var) {
        const ExportType& type = *var.type;
        const std::size_t codeSize = var.code.size();
        switch (type.exportClass) {
            case ExportClass::kLogic: {
                char* p = m_out.Reserve(codeSize + 2);
                *p++ = var.chars[0];
                std::memcpy(p, var.code.data(), codeSize);
                p += codeSize;
                *p++ = '\n';
                m_out.Commit(p);
                return;
            }
            case ExportClass::kVector: {
                char* p = m_out.Reserve(var.chars.size() + codeSize + 3);
                *p++ = 'b';
                std::memcpy(p, var.chars.data(), var.chars.size());
                p += var.chars.size();
                *p++ = ' ';
                std::memcpy(p, var.code.data(), codeSize);
                p += codeSize;
                *p++ = '\n';
                m_out.Commit(p);
                return;
            }
            case ExportClass::kInteger: {
                char* p = m_out.Reserve(codeSize + 68);
                *p++ = 'b';
                const std::uint64_t bits = type.width == 32 ? var.value & 0xFFFFFFFFu : var.value;
                p = std::to_chars(p, p + 64, bits, 2).ptr;
                *p++ = ' ';
                std::memcpy(p, var.code.data(), codeSize);
                p += codeSize;
                *p++ = '\n';
                m_out.Commit(p);
                return;
            }
            case ExportClass::kReal: {
                double number;
                std::memcpy(&number, &var.value, 8);
                char* p = m_out.Reserve(codeSize + 40);
                *p++ = 'r';
                p = std::to_chars(p, p + 36, number).ptr;
                *p++ = ' ';
                std::memcpy(p, var.code.data(), codeSize);
                p += codeSize;
                *p++ = '\n';
                m_out.Commit(p);
                return;
            }
            case ExportClass::kString: {
                const std::string& literal = var.value < type.literals.size() ? type.literals[var.value] : "?";
                m_out.Put("s" + literal + " " + var.code + "\n");
                return;
            }
            default:
                return;
        }
    }

    IRawTarvelRead& m_raw;
    Output& m_out;
    Progress* m_progress;
    std::uint64_t m_inputSize;
    std::size_t m_windowEvents;                           // records wanted per window
    VcdExportResult m_result;

    std::vector<Node> m_nodes;                            // every signal, by declaration position
    std::vector<const Tarvel::KEventsStore*> m_stores;    // their stores, likewise
    std::vector<int> m_top;                               // the signals at the top
    std::map<int, std::unique_ptr<ExportType>> m_types;   // type id -> what it becomes
    std::map<AliasKey, std::string> m_aliases;            // written variables' stores -> code
    std::vector<OutVar> m_vars;                           // the variables with codes of their own
    std::vector<Sink> m_sinks;                            // by declaration position
    std::vector<Sink> m_sinkList;                         // the sinks of the walkers
    std::vector<Walker> m_walkers;                        // the stores with events
    std::vector<int64> m_next;                            // by walker: its next event's time
    std::vector<int64> m_runTimes;                        // by walker, kBatch each: decoded times
    std::vector<std::uint64_t> m_runValues;               // likewise, their values
    int64 m_earliest = 0;                                 // the earliest of them after a window
    std::vector<Record> m_records, m_sorted;              // the window's records; sort space
    std::vector<std::uint64_t> m_wide;                    // the window's 8-byte values
    std::vector<TimeSlot> m_slots;                        // the window's distinct times (a hash table)
    std::vector<int64> m_times;                           // the same, in order once sorted
    std::vector<std::size_t> m_counts;                    // records per rank, then their places
    std::uint64_t m_total = 0;                            // events of all walkers
    std::uint64_t m_done = 0;                             // events walked
    std::vector<std::uint32_t> m_dirty;                   // variables changed at the current time
    std::int64_t m_multiplier = 1;                        // resolution / timescale unit
    int64 m_lastWritten = 0;                              // the last time line written
    bool m_wroteTime = false;
};

}  // namespace

VcdExportResult ExportVcd(const std::string& input, const std::string& output, Progress* progress,
                          const VcdExportOptions& options) {
    VcdExportResult result;
    if (access(input.c_str(), R_OK) != 0) {
        result.message = "cannot read " + input + ": " + std::strerror(errno);
        return result;
    }
    std::unique_ptr<IRawTarvelRead, void (*)(IRawTarvelRead*)> reader(Tarvel::CreateRawTarvelRead(input.c_str()),
                                                                     Tarvel::DeleteRawTarvelRead);
    if (!reader) {  // where and why, as every subcommand says it
        Tarvel::TarvelDiagnosis d;
        Tarvel::DiagnoseTarvelFile(input.c_str(), &d);
        result.message = d.line == 0 ? input + ": " + d.reason
                                     : input + ":" + std::to_string(d.line) + ":" + std::to_string(d.column) + ": " + d.reason;
        return result;
    }
    Output out;
    std::string error;
    if (!out.Open(output, &error)) {
        result.message = "cannot create " + output + ": " + error;
        return result;
    }
    std::uint64_t size = 0;
    if (std::FILE* f = std::fopen(input.c_str(), "rb")) {
        if (std::fseek(f, 0, SEEK_END) == 0) size = static_cast<std::uint64_t>(std::ftell(f));
        std::fclose(f);
    }
    result = Exporter(*reader, out, progress, size, std::max<std::size_t>(1, options.windowEvents)).Run();
    if (!out.Close(&error)) {
        result.ok = false;
        result.message = "writing " + output + " failed: " + error;
    }
    return result;
}

}  // namespace TarvelTool
