// export-vcd: the signal tree becomes the VCD header, the merged event pass of CreateStreamRead2
// its value changes. Tool layer; one thread.
#include "vcd_export.h"

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
    Exporter(Tarvel::ITarvelRead& reader, Output& out, Progress* progress, std::uint64_t inputSize)
        : m_reader(reader), m_raw(*reader.GetRawReader()), m_out(out), m_progress(progress), m_inputSize(inputSize) {}

    VcdExportResult Run() {
        ReadTree();
        const Vcd::Timescale timescale = Vcd::TimescaleFor(m_reader.GetResolution());
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

    std::string LocalName(const IRawTarvelRead::SignalIterator& signal) {
        int size = 0;
        m_raw.GetSignalPlace(signal, nullptr, nullptr, nullptr, &size, nullptr, nullptr);
        std::string name(static_cast<std::size_t>(size) + 1, '\0');
        size += 1;
        m_raw.GetSignalPlace(signal, nullptr, nullptr, name.data(), &size, nullptr, nullptr);
        name.resize(static_cast<std::size_t>(size));
        return name;
    }

    void ReadTree() {
        for (auto signal = m_raw.BeginSignals(); signal != m_raw.EndSignals(); ++signal) {
            Node node;
            IRawTarvelRead::SignalIterator parent;
            m_raw.GetSignalPlace(signal, nullptr, nullptr, nullptr, nullptr, &parent, &node.position);
            node.parent = parent == m_raw.EndSignals() ? -1 : parent.GetSignalNr();
            node.typeId = m_raw.GetTypeId(signal);
            node.name = VcdName(LocalName(signal));
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

    void WriteChanges() {
        std::uint64_t total = 0, done = 0;
        for (const Tarvel::KEventsStore* store : m_stores) total += store ? store->count() : 0;
        int64 current = 0;
        bool any = false;  // an event was seen; `current` is its time
        for (int handle = m_reader.NextEvent(); handle != -1; handle = m_reader.NextEvent()) {
            const int64 time = *m_reader.GetEventTime();
            if (time != current || !any) {
                if (any) WriteTime(current);
                current = time;
                any = true;
                if (m_progress && total) {
                    m_progress->Update(static_cast<std::uint64_t>(static_cast<double>(done) / static_cast<double>(total) *
                                                                  static_cast<double>(m_inputSize)));
                }
            }
            ++done;
            const Sink sink = m_sinks[static_cast<std::size_t>(handle)];
            if (sink.var == kNone) continue;
            std::uint64_t value = 0;
            m_reader.GetEventValue(&value);
            Apply(m_vars[sink.var], sink, value);
        }
        if (any) WriteTime(current);
        const int64 end = std::max(m_raw.GetEndTime(), current);
        if (end > m_lastWritten || !m_wroteTime) WriteTimeLine(end);
        m_result.endTime = end * m_multiplier;
        if (m_progress) m_progress->Finish(m_inputSize);
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

    Tarvel::ITarvelRead& m_reader;
    IRawTarvelRead& m_raw;
    Output& m_out;
    Progress* m_progress;
    std::uint64_t m_inputSize;
    VcdExportResult m_result;

    std::vector<Node> m_nodes;                            // every signal, by declaration position
    std::vector<const Tarvel::KEventsStore*> m_stores;    // their stores, likewise
    std::vector<int> m_top;                               // the signals at the top
    std::map<int, std::unique_ptr<ExportType>> m_types;   // type id -> what it becomes
    std::map<AliasKey, std::string> m_aliases;            // written variables' stores -> code
    std::vector<OutVar> m_vars;                           // the variables with codes of their own
    std::vector<Sink> m_sinks;                            // by handle (declaration position)
    std::vector<std::uint32_t> m_dirty;                   // variables changed at the current time
    std::int64_t m_multiplier = 1;                        // resolution / timescale unit
    int64 m_lastWritten = 0;                              // the last time line written
    bool m_wroteTime = false;
};

}  // namespace

VcdExportResult ExportVcd(const std::string& input, const std::string& output, Progress* progress) {
    VcdExportResult result;
    if (access(input.c_str(), R_OK) != 0) {
        result.message = "cannot read " + input + ": " + std::strerror(errno);
        return result;
    }
    std::unique_ptr<Tarvel::ITarvelRead, void (*)(Tarvel::ITarvelRead*)> reader(
        Tarvel::CreateStreamRead2(input.c_str()), [](Tarvel::ITarvelRead* r) {
            if (r) r->Release();
        });
    if (!reader) {
        result.message = "cannot read " + input + ": no waveform file, never committed, or damaged";
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
    result = Exporter(*reader, out, progress, size).Run();
    if (!out.Close(&error)) {
        result.ok = false;
        result.message = "writing " + output + " failed: " + error;
    }
    return result;
}

}  // namespace TarvelTool
