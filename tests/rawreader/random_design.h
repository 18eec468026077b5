// A random design written through the writer with seeded choices (scopes below other signals,
// buses with their elements, virtual buses and their members, properties, sources, flushes,
// commits), and the model of what a raw reader must present of it, in the form of the dump
// (raw_reader_dump.h). Shared by the raw-reader and reliability tests; single-threaded.
#ifndef TARVEL_TESTS_RAWREADER_RANDOM_DESIGN_H
#define TARVEL_TESTS_RAWREADER_RANDOM_DESIGN_H

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "rawreader/raw_reader_dump.h"
#include "tarvel/raw_reader.h"
#include "tarvel/writer.h"
#include "typeinfo/type_service.h"

namespace Tarvel::Testing {

using Reader = std::unique_ptr<IRawTarvelRead, void (*)(IRawTarvelRead*)>;
inline Reader Open(const std::string& path) { return Reader(CreateRawTarvelRead(path.c_str()), DeleteRawTarvelRead); }

#define W(call)                                               \
    do {                                                          \
        if (!(call)) throw std::runtime_error("failed: " #call); \
    } while (false)

// Scalar types by kind number: literal count (enumerations) and value size.
constexpr const char* kScalar[] = {"e#9#std_logicc9 UX01ZWLH-", "e#4#fourc4 01XZ", "e#5#staten3#4#IDLE#4#LOAD#3#RUN",
                                   "e#4#charc4 ab '", "i#7#integer", "f#4#real", "l#6#bigint", "p#4#time#2#fs"};
constexpr int kLiterals[] = {9, 4, 3, 4};
constexpr int kReal = 5;

// Caller sources: two files in two spellings each (the writer numbers files without case).
struct DesignSources final : ISourceCallback {
    static constexpr const char* kFiles[] = {"top.vhd", "TOP.VHD", "lib/a b.vhd", "Lib/A B.vhd", "c.vhd"};
    bool GetSourceLocation(int source, const char** fileName, int* line) const override {
        if (source > 50) return false;
        *fileName = kFiles[source % 5];
        *line = source * 7;
        return true;
    }
};

struct Signal {
    std::string name;
    int type = 0, parent = -1, position = 0, children = 0, kind = -1, pattern = 0;
    int64 end = 0;
    bool vbus = false;
    std::uint64_t value = 0;  // last value's bytes
    std::map<std::string, std::string> properties;
    std::string events;  // as the dump shows them
};

// How much a design writes: its phases (each declares a few signals) and the steps of each
// phase are multiplied by these. {1, 1} is the designs of the reader tests, some kilobytes.
struct DesignSize {
    int phases = 1;
    int steps = 1;
};

class Design;

// Told about each commit of a design: before the writer's Commit is called, with its number
// (from 1) and the design, whose Expected() is then what a reader must present after that
// commit; and after Commit returned true.
struct CommitObserver {
    virtual void Committing(int commit, const Design& design) = 0;
    virtual void Committed(int commit) = 0;

protected:
    ~CommitObserver() = default;
};

// A random design written through the writer, with the model of what a reader must present.
class Design {
public:
    Design(std::uint64_t seed, const std::string& path, DesignSize size = {}, CommitObserver* observer = nullptr)
        : m_rng(seed), m_size(size), m_observer(observer) {
        m_timed = m_rng() % 2;
        m_w = m_timed ? CreateStreamWriteTimed(path.c_str(), &m_sources) : CreateStreamWrite(path.c_str());
        W(m_w != nullptr);
    }
    ~Design() { m_w && m_w->Release(); }

    // Gives up the writer without releasing it (a test that made it fail releases it itself).
    ITarvelWrite* Abandon() { return std::exchange(m_w, nullptr); }

    // Writes the whole file.
    void Run() {
        if (m_rng() % 3 == 0) W(m_w->SetResolution(m_resolution = std::vector<int64>{1, 10, 1000000}[m_rng() % 3]));
        for (const char* name : {"Project", "TopLevel"}) {
            if (m_rng() % 3 == 0) AddProperty(-1, name, "top \"x\"", 0);
        }
        for (int phase = (1 + static_cast<int>(m_rng() % 4)) * m_size.phases; phase > 0; --phase) {
            for (int n = 2 + m_rng() % 8; n > 0; --n) Declare();
            for (int n = static_cast<int>(m_rng() % 30) * m_size.steps; n > 0; --n) Step();
        }
        Commit(false);
        W(m_w->Release());  // a writer whose Release failed stays for Abandon
        m_w = nullptr;
    }

    std::string Expected() const {
        std::string o = "file timed=" + std::to_string(m_timed) + " resolution=" + std::to_string(m_resolution) +
                        " end=" + std::to_string(m_end) + "\n";
        for (const char* name : {"Project", "TopLevel"}) {
            if (m_top.count(name)) o += std::string("top ") + name + "=" + m_top.at(name) + "\n";
        }
        for (std::size_t i = 0; i < m_types.size(); ++i) o += "type " + std::to_string(i + 1) + " " + m_types[i] + "\n";
        for (const int& h : m_order) {
            const Signal& s = m_signals.at(h);
            std::map<std::string, std::string> properties = s.properties;
            if (s.vbus) properties["VBus"] = "1";
            o += "signal " + std::to_string(h) + " nr=" + std::to_string(&h - m_order.data()) + " name=" + s.name +
                 " type=" + (s.type ? std::to_string(s.type) : "none") +
                 " parent=" + (s.parent < 0 ? "-" : std::to_string(s.parent)) + " pos=" + std::to_string(s.position) +
                 " children=" + std::to_string(s.children) + " end=" + std::to_string(s.end) + "\n";
            for (const auto& [name, value] : properties) o += "  prop " + name + "=" + value + "\n";
            if (!s.events.empty()) o += "  events size=" + std::to_string(s.kind < kReal ? 4 : 8) + ":" + s.events + "\n";
        }
        for (const std::string& p : m_propertyLines) o += p;
        for (std::size_t i = 0; i < m_sourceLines.size(); ++i) o += "source " + std::to_string(i + 1) + " " + m_sourceLines[i] + "\n";
        return o;
    }

private:
    int NewHandle() {
        do {
            m_lastHandle = m_rng() % 4 ? m_lastHandle + 1 + static_cast<int>(m_rng() % 3) : static_cast<int>(m_rng() % 1000000);
        } while (m_signals.count(m_lastHandle));
        return m_lastHandle;
    }

    // Names that share a front and a back with the one before, now and then with bytes to quote.
    std::string NewName() {
        static const char kChars[] = "abcxyz_019. \"\\\xe9\n";
        auto piece = [&](std::size_t n) {
            std::string s;
            while (n-- > 0) s += kChars[m_rng() % (m_rng() % 3 ? 10 : sizeof kChars - 1)];
            return s;
        };
        const std::size_t n = m_lastName.size(), front = m_rng() % (n + 1), back = m_rng() % (n - front + 1);
        switch (m_rng() % 5) {
            case 0: break;
            case 1: m_lastName = piece(m_rng() % 10); break;
            case 2: m_lastName = "top.u" + std::to_string(m_rng() % 20) + ".s"; break;
            default: m_lastName = m_lastName.substr(0, front) + piece(m_rng() % 4) + m_lastName.substr(n - back); break;
        }
        return m_lastName;
    }

    int64 DeclarationTime() {
        switch (m_rng() % 4) {
            case 0: return m_lastTime;
            case 1: return m_time;
            case 2: return static_cast<int64>(m_rng() % 1000);
            default: return 1000000000000 + static_cast<int64>(m_rng() % 1000);
        }
    }

    int Type(int handle, const std::string& text) {
        W(m_w->SetTypeInfo(handle, text.c_str()));
        const auto it = std::find(m_types.begin(), m_types.end(), text);
        if (it != m_types.end()) return static_cast<int>(it - m_types.begin()) + 1;
        m_types.push_back(text);
        return static_cast<int>(m_types.size());
    }

    void Add(int handle, Signal s, bool pending = false) {
        s.pattern = static_cast<int>(m_rng() % 4);
        m_signals[handle] = std::move(s);
        if (!pending) WritePendingElements();
        (pending ? m_pending : m_order).push_back(handle);
        if (m_signals[handle].kind >= 0) m_scalars.push_back(handle);
    }

    void WritePendingElements() {
        for (int h : m_pending) m_order.push_back(h), ++m_signals[m_pendingBus].children;
        m_pending.clear();
        m_pendingBus = -1;
    }

    void Declare() {
        const int h = NewHandle(), mode = static_cast<int>(m_rng() % 8), pick = static_cast<int>(m_rng() % 14);
        const int64 time = DeclarationTime();
        const std::string name = NewName();
        if (pick < 5) {  // a scalar signal, at the top, in a scope, below another signal or an unknown handle
            Signal s;
            s.kind = static_cast<int>(m_rng() % 8);
            s.type = Type(h, kScalar[s.kind]);
            const int where = m_rng() % 10;
            const int parent = where < 4 ? -1
                               : where < 7 ? Scope()
                               : where < 9 ? (m_tops.empty() ? -1 : m_tops[m_rng() % m_tops.size()])
                                           : 5000000 + where;
            s.position = parent < 0 ? 0 : static_cast<int>(m_rng() % 10);
            W(m_w->StoreSignal(h, mode, parent, s.position, name.c_str(), time));
            s.parent = parent < 5000000 ? parent : -1;  // a known signal takes the child; else none
            if (s.parent < 0) s.position = 0;
            else ++m_signals[parent].children;
            Declared(h, s, name, time);
            if (parent < 0) m_tops.push_back(h);
        } else if (pick < 7) {  // a bus of an array or record type
            const std::string low = std::to_string(static_cast<int>(m_rng() % 9) - 3), high = std::to_string(m_rng() % 6);
            const std::string text = std::vector<std::string>{
                "a#3#slv[" + high + "d0]e#9#std_logicc9 UX01ZWLH-", "a#4#nibs[" + low + "t" + high + "]e#4#fourc4 01XZ",
                "a#4#ints[" + high + "d" + low + "]i#7#integer",
                "r#6#packet2#4#addri#7#integer#4#datae#4#fourc4 01XZ"}[m_rng() % 4];
            Signal s;
            s.type = Type(h, text);
            const int width = static_cast<int>(TypeHandle(text.c_str()).ChildCount());
            s.parent = Scope();
            s.position = s.parent < 0 ? 0 : static_cast<int>(m_rng() % 10);
            W(m_w->StoreBus(h, mode, m_rng() % 2 ? width : 0, s.parent, s.position, name.c_str(), time));
            if (s.parent >= 0) ++m_signals[s.parent].children;
            Declared(h, s, name, time);
            m_buses[h] = {text, time, s.end, std::vector<int>(width, 0)};
        } else if (pick < 9 && !m_buses.empty()) {  // elements of a bus declared before
            auto bus = std::next(m_buses.begin(), static_cast<long>(m_rng() % m_buses.size()));
            for (int n = 1 + m_rng() % 4, p = static_cast<int>(m_rng() % bus->second.taken.size()); n > 0; --n, p = (p + 1) % static_cast<int>(bus->second.taken.size())) {
                if (bus->second.taken[p]++) continue;
                const int e = NewHandle();
                const TypeHandle type = TypeHandle(bus->second.text.c_str()).ChildType(p);
                Signal s;
                s.kind = static_cast<int>(std::find(std::begin(kScalar), std::end(kScalar), std::string(type.Text())) - kScalar);
                s.type = Type(e, type.Text());
                s.name = TypeHandle(bus->second.text.c_str()).ChildName(p);
                s.parent = bus->first;
                s.position = p;
                const int64 at = m_rng() % 2 ? bus->second.time : DeclarationTime();
                s.end = at != bus->second.time ? at : bus->second.end;  // "$ENDSC", or the bus's
                W(m_w->StoreSignal(e, mode, bus->first, p, "ignored", at));
                if (m_pendingBus != bus->first) WritePendingElements();
                m_pendingBus = bus->first;
                Add(e, s, true);
            }
        } else if (pick >= 12) {  // a scope (a signal without type), at the top or in a scope
            Signal s;
            s.parent = Scope();
            s.position = s.parent < 0 ? 0 : static_cast<int>(m_rng() % 10);
            W(m_w->StoreSignal(h, kPortNone, s.parent, s.position, name.c_str(), time));
            if (s.parent >= 0) ++m_signals[s.parent].children;
            Declared(h, s, name, time);
            m_scopes.push_back(h);
        } else if (pick < 10) {  // a virtual bus
            W(m_w->StoreBus(h, kPortVirtualBus, static_cast<int>(m_rng() % 4), -1, 0, name.c_str(), time));
            Signal s;
            s.vbus = true;
            Declared(h, s, name, time);
            m_lastVirtualBus = h;
        } else if (m_lastVirtualBus >= 0 && !m_tops.empty()) {  // a member of the virtual bus declared last
            const int member = m_tops[m_rng() % m_tops.size()];
            m_tops.erase(std::find(m_tops.begin(), m_tops.end(), member));
            W(m_w->StoreProperty(m_rng() % 2 ? 0 : m_time, member, "VBus", "1"));
            WritePendingElements();
            m_signals[member].parent = m_lastVirtualBus;
            m_signals[member].position = m_signals[m_lastVirtualBus].children++;
        } else {
            Property();
        }
    }

    // A scope declared before, or -1 (the top) now and then and while there is none.
    int Scope() { return m_scopes.empty() || m_rng() % 3 == 0 ? -1 : m_scopes[m_rng() % m_scopes.size()]; }

    void Declared(int h, Signal& s, const std::string& name, int64 time) {
        s.name = name;
        // An untimed declaration carries its time when it differs from the time of the one before;
        // a declaration without a time gets the default end time ("$ENDTIME" of an untimed file).
        s.end = m_timed ? 0 : time != m_lastTime ? time : m_end;
        if (!m_timed) m_lastTime = time;
        Add(h, s);
    }

    void Property() {
        static const char* kNames[] = {"Comment", "Measurement", "Stimulator", "EmptyRow", "Expression", "Hidden", "CS", "odd name"};
        static const char* kValues[] = {"1", "0", "a b", "say \"hi\"", "", "x\\y", "two\nlines"};
        if (m_signals.empty()) return;
        const int h = std::next(m_signals.begin(), static_cast<long>(m_rng() % m_signals.size()))->first;
        const std::string name = kNames[m_rng() % 8];
        const bool flag = name == "Hidden" || name == "CS";
        if (!m_signals[h].properties.count(name)) {
            AddProperty(h, name, kValues[m_rng() % (flag ? 2 : 7)], m_rng() % 2 ? 0 : 1 + static_cast<int64>(m_rng() % 100000));
        }
    }

    void AddProperty(int h, const std::string& name, const std::string& value, int64 time) {
        W(m_w->StoreProperty(time, h, name.c_str(), value.c_str()));
        (h < 0 ? m_top : m_signals[h].properties)[name] = value;
        if (time != 0) {
            WritePendingElements();
            m_propertyLines.push_back(PropertyLine(h, time, name, value));
            return;
        }
        const std::string key = name + '\0' + value;
        if (!m_pendingIndex.count(key)) m_pendingIndex[key] = m_pendingProperties.size(), m_pendingProperties.push_back({name, value, {}});
        m_pendingProperties[m_pendingIndex[key]].handles.insert(h);
    }

    static std::string PropertyLine(int h, int64 time, const std::string& name, const std::string& value) {
        return "property " + std::to_string(h) + " " + std::to_string(time) + " " + name + "=" + value + "\n";
    }

    int SourceNumber(int source) {
        const char* file = nullptr;
        int line = 0;
        if (!m_timed || source == 0 || !m_sources.GetSourceLocation(source, &file, &line)) return 0;
        if (!m_sourceNumbers.count(source)) {
            std::string key = file;
            for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            if (!m_fileSpelling.count(key)) m_fileSpelling[key] = file;
            m_sourceNumbers[source] = static_cast<int>(m_sourceLines.size()) + 1;
            m_sourceLines.push_back(m_fileSpelling[key] + ":" + std::to_string(line));
        }
        return m_sourceNumbers[source];
    }

    // One (time, delta) with events of some signals, then now and then a flush, commit or more.
    void Step() {
        static const int64 kGaps[] = {0, 5, 10, 1000, 5000, 1000000};
        const int64 gap = m_rng() % 4 ? kGaps[m_rng() % 6] : static_cast<int64>(m_rng() % 100000);
        if (gap == 0) {
            W(m_w->SetDelta(m_delta += 1 + static_cast<unsigned>(m_rng() % 300)));
        } else {
            W(m_rng() % 2 ? m_w->SetTime(m_time += gap) : m_w->MoveTime(gap));
            m_time = m_w->GetTime();
            m_delta = 0;
        }
        static const double kChance[] = {0.9, 0.5, 0.2, 0.03};
        for (int h : m_scalars) {
            Signal& s = m_signals[h];
            if (std::uniform_real_distribution<>(0, 1)(m_rng) < kChance[s.pattern]) Store(h, s);
        }
        switch (m_rng() % 16) {
            case 0:
                W(m_w->Flush());
                Flushed();
                break;
            case 1: Commit(true); break;
            case 2:
                W(m_w->FlushDeclarations());
                WritePendingElements();
                break;
            case 3: Property(); break;
            case 4: Declare(); break;
            case 5: if (!m_timed) W(m_w->SetDefaultEndTime(m_end = static_cast<int64>(m_rng() % 100000))); break;
            case 6:  // ahead of time, a source the callback knows (an unknown one stops the writer)
                if (m_timed) {
                    const int source = 1 + static_cast<int>(m_rng() % 50);
                    W(m_w->StoreSource(source));
                    SourceNumber(source);
                }
                break;
            default: break;
        }
    }

    void Store(int h, Signal& s) {
        std::uint64_t& v = s.value;
        const bool clock = s.pattern == 0, counter = s.pattern == 1;
        if (s.kind < 4) {
            v = clock ? (v == 2 ? 3 : 2) % kLiterals[s.kind] : counter ? (v + 1) % kLiterals[s.kind] : m_rng() % kLiterals[s.kind];
        } else if (s.kind == kReal) {
            double d;
            std::memcpy(&d, &v, 8);
            char text[32];
            std::snprintf(text, sizeof text, "%de%d", static_cast<int>(m_rng() % 2000000) - 1000000, static_cast<int>(m_rng() % 60) - 30);
            d = clock ? (d == 0.25 ? -0.5 : 0.25) : counter ? d + 0.25 : m_rng() % 50 ? std::strtod(text, nullptr) : m_rng() % 2 ? -0.0 : HUGE_VAL;
            std::memcpy(&v, &d, 8);
        } else {
            const std::uint64_t random = m_rng() >> (m_rng() % 64);
            v = clock ? v ^ 1 : counter ? v + (s.kind == 4 ? 1 : 1000) : m_rng() % 2 ? random : 0 - random;
        }
        const int size = m_w->GetValueSize(h), source = m_rng() % 3 ? 0 : static_cast<int>(m_rng() % 60);
        W(size == (s.kind < kReal ? 4 : 8));
        std::unique_ptr<unsigned char[]> bytes(new unsigned char[static_cast<std::size_t>(size)]);
        std::memcpy(bytes.get(), &v, static_cast<std::size_t>(size));
        W(m_w->StoreValueWithSource(h, bytes.get(), source));
        unsigned char eight[8];
        std::memcpy(eight, &v, 8);
        s.events += EventText(m_time, m_delta, eight, size, s.kind == kReal, SourceNumber(source));
    }

    void Flushed() {
        WritePendingElements();
        for (const PendingProperty& p : m_pendingProperties) {
            for (int h : p.handles) m_propertyLines.push_back(PropertyLine(h, 0, p.name, p.value));
        }
        m_pendingProperties.clear();
        m_pendingIndex.clear();
    }

    // The model moves first, so that an observer can see what the commit will present.
    void Commit(bool resume) {
        Flushed();
        if (m_timed) m_end = m_time;
        ++m_commits;
        if (m_observer) m_observer->Committing(m_commits, *this);
        W(m_w->Commit());
        if (m_observer) m_observer->Committed(m_commits);
        if (resume) W(m_w->Resume());
    }

    struct Bus { std::string text; int64 time, end; std::vector<int> taken; };
    struct PendingProperty { std::string name, value; std::set<int> handles; };
    std::mt19937_64 m_rng;
    bool m_timed = false;
    DesignSize m_size;
    CommitObserver* m_observer;
    int m_commits = 0;
    DesignSources m_sources;
    ITarvelWrite* m_w = nullptr;
    int64 m_resolution = 1000, m_end = 0, m_time = 0, m_lastTime = 0;
    unsigned m_delta = 0;
    int m_lastHandle = 0, m_lastVirtualBus = -1, m_pendingBus = -1;
    std::string m_lastName = "top.cpu.alu.result";
    std::vector<std::string> m_types, m_propertyLines, m_sourceLines;
    std::map<int, Signal> m_signals;
    std::vector<int> m_order, m_pending, m_tops, m_scalars, m_scopes;
    std::map<int, Bus> m_buses;
    std::map<std::string, std::string> m_top, m_fileSpelling;
    std::vector<PendingProperty> m_pendingProperties;
    std::map<std::string, std::size_t> m_pendingIndex;
    std::map<int, int> m_sourceNumbers;
};

// Writes the design of `seed` into `path` and returns the model's view of the finished file.
// (Readers that follow a design while it is written are the crash campaign's.)
inline std::string WriteDesign(std::uint64_t seed, const std::string& path) {
    Design design(seed, path);
    design.Run();
    return design.Expected();
}

}  // namespace Tarvel::Testing

#endif  // TARVEL_TESTS_RAWREADER_RANDOM_DESIGN_H
