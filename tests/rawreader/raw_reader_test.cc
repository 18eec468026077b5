// The raw reader against the writer: seeded random designs written with flushes and commits and
// read back whole or while they grow, hand-written files of every layout, the reader's edge
// cases and truncated files. Tests of the raw reader layer; single-threaded.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>

#include "foundation/platform.h"
#include "format/lexer_test_support.h"
#include "rawreader/raw_reader_dump.h"
#include "tarvel/diagnostics.h"
#include "tarvel/port_mode.h"
#include "tarvel/raw_reader.h"
#include "tarvel/writer.h"
#include "typeinfo/type_service.h"

namespace Tarvel::Testing {
namespace {

using Reader = std::unique_ptr<IRawTarvelRead, void (*)(IRawTarvelRead*)>;
Reader Open(const std::string& path) { return Reader(CreateRawTarvelRead(path.c_str()), DeleteRawTarvelRead); }

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
struct Sources final : ISourceCallback {
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

// A random design written through the writer, with the model of what a reader must present.
class Design {
public:
    Design(std::uint64_t seed, const std::string& path, bool follow) : m_rng(seed), m_path(path), m_follow(follow) {
        m_timed = m_rng() % 2;
        m_w = m_timed ? CreateStreamWriteTimed(path.c_str(), &m_sources) : CreateStreamWrite(path.c_str());
        W(m_w != nullptr);
    }
    ~Design() { m_w && m_w->Release(); }

    // Writes the whole file; while following, a reader checks every commit on the way.
    void Run() {
        if (m_rng() % 3 == 0) W(m_w->SetResolution(m_resolution = std::vector<int64>{1, 10, 1000000}[m_rng() % 3]));
        for (const char* name : {"Project", "TopLevel"}) {
            if (m_rng() % 3 == 0) AddProperty(-1, name, "top \"x\"", 0);
        }
        for (int phase = 1 + m_rng() % 4; phase > 0; --phase) {
            for (int n = 2 + m_rng() % 8; n > 0; --n) Declare();
            for (int n = m_rng() % 30; n > 0; --n) Step();
        }
        Commit(false);
        ITarvelWrite* w = m_w;
        m_w = nullptr;
        W(w->Release());
        if (m_follower) Check(false);
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
        const int h = NewHandle(), mode = static_cast<int>(m_rng() % 8), pick = static_cast<int>(m_rng() % 12);
        const int64 time = DeclarationTime();
        const std::string name = NewName();
        if (pick < 5) {  // a scalar signal, at the top or below another signal or below an unknown handle
            Signal s;
            s.kind = static_cast<int>(m_rng() % 8);
            s.type = Type(h, kScalar[s.kind]);
            const int where = m_rng() % 10;
            const int parent = where < 7 || m_tops.empty() ? -1 : where < 9 ? m_tops[m_rng() % m_tops.size()] : 5000000 + where;
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
            W(m_w->StoreBus(h, mode, m_rng() % 2 ? width : 0, -1, 0, name.c_str(), time));
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
                if (m_follower) Check(false);
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

    void Commit(bool resume) {
        W(m_w->Commit());
        Flushed();
        if (m_timed) m_end = m_time;
        m_committed = Expected();
        if (m_follow) Check(!m_follower);
        if (resume) W(m_w->Resume());
    }

    // The follower opens the file once, then reads on; it must present the last commit.
    void Check(bool open) {
        if (open) m_follower = Open(m_path);
        if (!m_follower) throw std::runtime_error("the follower cannot open the file");
        if (!open && !m_follower->Continue()) throw std::runtime_error("Continue failed");
        EXPECT_EQ(m_committed, Dump(*m_follower)) << (open ? "opened" : "continued");
        if (::testing::Test::HasFailure()) throw std::runtime_error("the follower differs");
    }

    struct Bus { std::string text; int64 time, end; std::vector<int> taken; };
    struct PendingProperty { std::string name, value; std::set<int> handles; };
    std::mt19937_64 m_rng;
    std::string m_path;
    bool m_follow, m_timed = false;
    Sources m_sources;
    ITarvelWrite* m_w = nullptr;
    Reader m_follower{nullptr, DeleteRawTarvelRead};
    int64 m_resolution = 1000, m_end = 0, m_time = 0, m_lastTime = 0;
    unsigned m_delta = 0;
    int m_lastHandle = 0, m_lastVirtualBus = -1, m_pendingBus = -1;
    std::string m_lastName = "top.cpu.alu.result", m_committed;
    std::vector<std::string> m_types, m_propertyLines, m_sourceLines;
    std::map<int, Signal> m_signals;
    std::vector<int> m_order, m_pending, m_tops, m_scalars;
    std::map<int, Bus> m_buses;
    std::map<std::string, std::string> m_top, m_fileSpelling;
    std::vector<PendingProperty> m_pendingProperties;
    std::map<std::string, std::size_t> m_pendingIndex;
    std::map<int, int> m_sourceNumbers;
};

// Writes the design of `seed` into `path` (following it with a reader if asked) and returns the
// model's view of the finished file.
std::string WriteDesign(std::uint64_t seed, const std::string& path, bool follow = false) {
    Design design(seed, path, follow);
    design.Run();
    return design.Expected();
}

TEST(RawReader, RandomDesignsReadBackAsWritten) {
    const char* fixed = std::getenv("TARVEL_SEED");
    const std::uint64_t first = fixed ? std::strtoull(fixed, nullptr, 10) : std::random_device()();
    ScratchFolder folder;
    for (std::uint64_t seed = first; seed < first + (fixed ? 1 : 1000); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " (TARVEL_SEED=" + std::to_string(seed) + " repeats it)");
        const std::string path = folder.File(std::to_string(seed) + ".twf");
        try {
            const std::string expected = WriteDesign(seed, path, seed % 3 == 0);
            Reader reader = Open(path);
            ASSERT_NE(reader, nullptr);
            ASSERT_EQ(expected, Dump(*reader));
            TarvelDiagnosis d;
            if (seed % 10 == 0) {
                EXPECT_TRUE(DiagnoseTarvelFile(path.c_str(), &d)) << d.reason;
            }
        } catch (const std::exception& e) {
            FAIL() << e.what();
        }
        std::remove(path.c_str());
    }
}

// Writes seed files for the raw reader's fuzz target: TARVEL_CORPUS_OUT=<folder>, and run with
// --gtest_also_run_disabled_tests --gtest_filter=*SeedCorpus*.
TEST(RawReader, DISABLED_WriteSeedCorpus) {
    const char* out = std::getenv("TARVEL_CORPUS_OUT");
    ASSERT_NE(out, nullptr);
    for (std::uint64_t seed = 1, kept = 0; kept < 40; ++seed) {
        const std::string path = std::string(out) + "/design" + std::to_string(seed) + ".twf";
        WriteDesign(seed, path);
        std::ifstream(path, std::ios::ate).tellg() < 4000 ? ++kept : std::remove(path.c_str());
    }
}

std::string DataFile(const std::string& name) { return std::string(std::getenv("TARVEL_TEST_DATA")) + "/rawreader/files/" + name; }

// Each hand-written file carries what the reader must present in its ";>" comment lines.
TEST(RawReader, HandWrittenFilesOfEveryLayoutReadAsDocumented) {
    for (const char* name : {"version1.twf", "version2.twf", "version4.twf"}) {
        SCOPED_TRACE(name);
        std::istringstream lines(ReadBytes(DataFile(name)));
        std::string expected, line;
        while (std::getline(lines, line)) {
            if (line.rfind(";>", 0) == 0) expected += line.substr(2, line.find_last_not_of('\r') - 1) + "\n";
        }
        Reader reader = Open(DataFile(name));
        EXPECT_EQ(expected, reader ? Dump(*reader) : "refused");
    }
}

constexpr const char* kStd = "I 1 \"e#9#std_logicc9 UX01ZWLH-\"\r\n";
constexpr const char* kBody = "$IN 1 1 a\r\n$OUT 2 1 b\r\n$IN 3 1 c\r\n$WAVES 1\r\nT 0\r\n$VALUES\r\nH\r\n$END\r\n";

// Reads `bytes` as a file: null when the reader refuses it.
struct FileOf {
    ScratchFolder folder;
    Reader reader;
    explicit FileOf(const std::string& bytes) : reader(nullptr, DeleteRawTarvelRead) {
        WriteBytes(folder.File("f.twf"), bytes);
        reader = Open(folder.File("f.twf"));
    }
};

std::string DumpOf(const std::string& bytes) {
    FileOf file(bytes);
    return file.reader ? Dump(*file.reader) : "refused";
}

TEST(RawReader, HeadersTerminatorsAndResolution) {
    const std::string body = std::string(kStd) + kBody;
    FileOf timed("$WAVE4TIMED \t \r\n" + body + "$ENDWAVE\r\n");
    ASSERT_TRUE(timed.reader);
    EXPECT_TRUE(timed.reader->IsTimed());
    const std::string two = ReadBytes(DataFile("version2.twf"));  // "WAVE3" reads exactly as "WAVE2"
    EXPECT_EQ(DumpOf(two), DumpOf("$WAVE3" + two.substr(6)));
    EXPECT_EQ(DumpOf("$WAVE2TIMED" + two.substr(6)), DumpOf("$WAVE3TIMED" + two.substr(6)));
    for (const std::string& refused :
         {"$WAVE4 extra\r\n" + body + "$ENDWAVE\r\n", "$WAVE5\r\n" + body + "$ENDWAVE\r\n", "WAVE4\r\n" + body + "$ENDWAVE\r\n",
          "$WAVE4\r\n$RESOLUTION 0\r\n" + body + "$ENDWAVE\r\n", "$WAVE4\r\n$RESOLUTION -5\r\n" + body + "$ENDWAVE\r\n",
          "$WAVE4\r\n" + body, "$WAVE4\r\n" + body + "$ENDWAVEX\r\n", "$WAVE4\r\n" + body + "$ENDWAVE junk\r\n"}) {
        EXPECT_EQ(DumpOf(refused), "refused") << refused;
    }
    const std::string whole = DumpOf("$WAVE4\r\n" + body + "$ENDWAVE\r\n");
    EXPECT_NE(whole.find("signal 1 nr=0 name=a type=1 parent=- pos=0 children=0 end=0\n  events size=4: 0/0=7\n"),
              std::string::npos) << whole;
    EXPECT_EQ(whole, DumpOf("$WAVE4\r\n" + body + "$ENDWAVE"));  // no line end at all
    EXPECT_EQ(whole, DumpOf("$WAVE4\r\n" + body + ":ENDWAVE\r\n$WAVES 1\r\nT 5\r\n$VAL"));
    EXPECT_EQ(whole, DumpOf("$WAVE4\r\n" + body + ":"));
    // Bare line feeds, and tabs and CRs between fields.
    std::string loose = kBody;
    for (std::size_t at = 0; (at = loose.find("\r\n", at)) != std::string::npos;) loose.replace(at, 2, "\n");
    for (std::size_t at = 0; (at = loose.find(' ', at)) != std::string::npos; at += 3) loose.replace(at, 1, "\t\r ");
    EXPECT_EQ(whole, DumpOf("$WAVE4\n" + std::string(kStd) + loose + "$ENDWAVE\n"));
}

TEST(RawReader, TypesIteratorsAndPropertyWalk) {
    // Two type lines of the same std_logic text: elements take the first one's id.
    FileOf types("$WAVE4\r\nI 5 \"e#9#std_logicc9 UX01ZWLH-\"\r\nI 2 \"e#9#std_logicc9 UX01ZWLH-\"\r\n"
                 "I 3 \"a#3#slv[1d0]e#9#std_logicc9 UX01ZWLH-\"\r\n$BUS IN 7 3 2 v\r\nS 8 0\r\nS 9 1\r\n$SC 8-9\r\n"
                 "$IN 10 2 x\r\n$WAVES 10\r\nT 0\r\n$VALUES\r\n-\r\n$END\r\n$ENDWAVE\r\n");
    ASSERT_TRUE(types.reader);
    EXPECT_EQ(types.reader->GetTypeId(8), 5);
    EXPECT_EQ(types.reader->GetTypeId(9), 5);
    EXPECT_NE(Dump(*types.reader).find("signal 10 nr=3 name=x type=2 parent=- pos=0 children=0 end=0\n  events size=4: 0/0=8"),
              std::string::npos) << Dump(*types.reader);

    FileOf empty("$WAVE4\r\n$ENDWAVE\r\n");
    ASSERT_TRUE(empty.reader);
    EXPECT_TRUE(empty.reader->BeginSignals() == empty.reader->EndSignals());
    EXPECT_TRUE(empty.reader->BeginProperties() == empty.reader->EndProperties());
    EXPECT_EQ(empty.reader->BeginTypes(), empty.reader->EndTypes());

    // Property lines with two signals, none, one: the walk stops at the line without signals.
    FileOf file("$WAVE4\r\n" + std::string(kStd) + kBody + "P 0 1 2 A a\r\nP 0 B b\r\nP 0 3 C c\r\n$ENDWAVE\r\n");
    IRawTarvelRead& r = *file.reader;
    int properties = 0;
    for (auto p = r.BeginProperties(); p != r.EndProperties(); p++) ++properties;
    EXPECT_EQ(properties, 2);
    EXPECT_STREQ(r.GetProperty(3, "C"), "c");

    using It = IRawTarvelRead::SignalIterator;
    It a = r.FindSignal(2), b = a;
    EXPECT_TRUE(a == ++r.BeginSignals() && r.FindSignal(2) == a && !(a < b) && !(b < a));
    a += 0;
    a += -3;
    EXPECT_TRUE(a == b && *a == 2 && a.GetSignalNr() == 1);
    It c = a;
    ++c;
    EXPECT_TRUE(a == r.FindSignal(2) && *c == 3 && c - a == 1 && a < c && c < r.EndSignals());
    It d = c++;
    EXPECT_TRUE(*d == 3 && c == r.EndSignals() && d - r.BeginSignals() == 2);
    It e = r.BeginSignals();
    e += 2;
    EXPECT_TRUE(e == d && e.GetSignalHandle() == 3);
    // Unknown signals.
    int count = 0;
    EXPECT_TRUE(r.FindSignal(99) == r.EndSignals());
    EXPECT_FALSE(r.GetSignalPlace(99, &count, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_FALSE(r.GetSignalPlace(r.EndSignals(), &count, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(r.GetTypeId(99), -1);
    EXPECT_EQ(r.GetTypeId(r.EndSignals()), -1);
    EXPECT_EQ(r.GetSignalData(99), nullptr);
    EXPECT_EQ(r.GetProperty(99, "CS"), nullptr);
    EXPECT_EQ(r.GetTypeInfo(77), nullptr);
}

// The end time as "$ENDTIME" gave it, declaration tails with X alone, and type ids given twice.
TEST(RawReader, EndTimesShortTailsAndRepeatedTypeIds) {
    const std::string body = std::string(kStd) + kBody;
    for (const char* header : {"$WAVE4\r\n", "$WAVE4TIMED\r\n"}) {
        FileOf negative(header + body + "$ENDTIME -5\r\n$ENDWAVE\r\n");
        ASSERT_TRUE(negative.reader) << header;
        EXPECT_EQ(negative.reader->GetEndTime(), -5) << header;  // as given, not clamped
        FileOf none(header + body + "$ENDWAVE\r\n");
        ASSERT_TRUE(none.reader) << header;
        EXPECT_EQ(none.reader->GetEndTime(), 0) << header;
    }
    // X alone: the parent, at position 0, with the default end time; X and Y and a time.
    EXPECT_EQ(DumpOf("$WAVE4\r\n" + std::string(kStd) + "$ENDTIME 9\r\n$IN 3 1 p\r\n$IN 5 1 a 3\r\n$IN 6 1 b 3 1 4\r\n$ENDWAVE\r\n"),
              "file timed=0 resolution=1000 end=9\ntype 1 e#9#std_logicc9 UX01ZWLH-\n"
              "signal 3 nr=0 name=p type=1 parent=- pos=0 children=2 end=9\n"
              "signal 5 nr=1 name=a type=1 parent=3 pos=0 children=0 end=9\n"
              "signal 6 nr=2 name=b type=1 parent=3 pos=1 children=0 end=4\n");
    EXPECT_EQ(DumpOf("$WAVE4\r\n" + std::string(kStd) + "$IN 5 1 a 3 x\r\n$ENDWAVE\r\n"), "refused");
    // A second "I" line with an id takes the id over; the listing keeps both lines.
    FileOf twice("$WAVE4\r\nI 2 \"i#7#integer\"\r\nI 2 \"f#4#real\"\r\n$IN 5 2 n\r\n"
                 "$WAVES 5\r\nT 0\r\n$VALUES\r\n-0.5\r\n$END\r\n$ENDWAVE\r\n");
    ASSERT_TRUE(twice.reader);
    EXPECT_STREQ(twice.reader->GetTypeInfo(2), "f#4#real");
    EXPECT_EQ(twice.reader->EndTypes() - twice.reader->BeginTypes(), 2);
    EXPECT_NE(Dump(*twice.reader).find("events size=8: 0/0=-0.5\n"), std::string::npos) << Dump(*twice.reader);
}

// GetSignalPortMode answers each declaration's mode word; elements have none of their own.
TEST(RawReader, PortModesOfDeclarations) {
    const auto modes = [](const std::string& bytes, std::initializer_list<int> handles) {
        FileOf file(bytes);
        std::string answer;
        for (int handle : handles) {
            int mode = 99;
            answer += (GetSignalPortMode(file.reader.get(), handle, &mode) ? std::to_string(mode) : "-") + " ";
        }
        return answer;
    };
    EXPECT_EQ(modes("$WAVE4\r\n" + std::string(kStd) + "I 2 \"a#3#slv[1d0]e#9#std_logicc9 UX01ZWLH-\"\r\n"
                    "$INOUT 1 1 a\r\n$BUFFER 2 1 b\r\n$BUS VBUS 3 0 0 v\r\n$VARIABLE 4 1 w\r\n$NOMODE 5 0 s\r\n"
                    "$BUS OUT 6 2 2 bus\r\nS 7 0\r\nS 8 1\r\n$SC 7 8\r\n$ENDWAVE\r\n",
                    {1, 2, 3, 4, 5, 6, 7, 9}),
              "3 4 -1 7 0 2 0 - ");
    // Version 2: a mode word after the parent; version 1: every signal is a SIGNAL.
    EXPECT_EQ(modes("$WAVE2\r\n$NOMODE 1 a 0 -1 LINKAGE\r\n$NOMODE 2 b 0 -1 nothing\r\n$ENDWAVE\r\n", {1, 2}), "5 0 ");
    EXPECT_EQ(modes("$WAVE\r\nSIGNAL 1 a\r\nENDWAVE\r\n", {1}), "6 ");
    int mode = 99;
    EXPECT_FALSE(GetSignalPortMode(nullptr, 1, &mode));
    EXPECT_EQ(mode, 99);
}

// The largest single request made of the heap while the hooks are installed.
std::size_t g_largestRequest = 0;
void* RecordingAllocate(std::size_t size) {
    g_largestRequest = std::max(g_largestRequest, size);
    return std::malloc(size);
}
void* RecordingReallocate(void* block, std::size_t size) {
    g_largestRequest = std::max(g_largestRequest, size);
    return std::realloc(block, size);
}
void RecordingFree(void* block) { std::free(block); }

// Numbers wrap in their width, so a damaged digit can turn into any value: every field that a
// number drives must stay bounded. Each file gives null or a sound reader, and no request of the
// heap grows with the damaged number.
TEST(RawReader, WrappedNumbersInDamagedFilesStayBounded) {
    const std::string head = "$WAVE4\r\n" + std::string(kStd) + "I 3 \"a#3#slv[1d0]e#9#std_logicc9 UX01ZWLH-\"\r\n";
    const std::string signal = "$IN 1 1 a\r\n";
    const std::string block = "$WAVES 1\r\nT 0\r\n";
    const std::vector<std::string> damaged = {
        head + "$BUS IN 7 3 4294967295 v\r\n$SC 8-9\r\n$ENDWAVE\r\n",            // width wraps to -1
        head + "$BUS IN 7 3 2147483647 v\r\n$SC 0-2147483646\r\n$ENDWAVE\r\n",  // a huge width and list
        head + "$BUS IN 7 3 6442450943 v\r\n$SC 0-4000000\r\n$ENDWAVE\r\n",     // wraps to 2^31-1
        head + "$BUS IN 7 3 65536 v\r\n$SC 0-65535\r\n$SCBUS 7 0-65535\r\n$SCBUS 7 0-65535\r\n$ENDWAVE\r\n",
        head + "P 0 0-4294967295 Comment x\r\n$ENDWAVE\r\n",                     // wraps to 0--1
        head + "P 0 0-2000000000 Comment x\r\n$ENDWAVE\r\n",
        head + signal + "$WAVES 0-99999999999\r\nT 0\r\n$VALUES\r\n1\r\n$END\r\n$ENDWAVE\r\n",
        head + signal + block + "R 1 18446744073709551615 T 5\r\n$VALUES\r\n$END\r\n$ENDWAVE\r\n",
        head + signal + block + "R 4294967297 9223372036854775807 T 5\r\n$VALUES\r\nR 1 9223372036854775807 1\r\n$END\r\n$ENDWAVE\r\n",
        head + signal + block + "$VALUES\r\nV 2147483647\r\n1\r\n$SOURCES\r\nR 1 9223372036854775807 4\r\n$END\r\n$ENDWAVE\r\n",
        head + signal + block + "=4294967296 T 5\r\n$VALUES\r\n1\r\n1\r\n$END\r\n$ENDWAVE\r\n",
        head + signal + "$ENDSC 4294967297 12\r\nS 4294967297 4294967296\r\n$SC 1\r\n$ENDWAVE\r\n",
        head + "$IN 1 1 184467440737095516160 0 a\r\n$IN 2 4294967297 1 1 x\r\n$ENDWAVE\r\n",
        head + "$SEF 4294967297 f\r\n$SEL 4294967297 1 99999999999\r\n$CHILD 1 4294967297 -4294967295\r\n$ENDWAVE\r\n",
    };
    const Platform::HeapHooks recording{RecordingAllocate, RecordingReallocate, RecordingFree};
    for (const std::string& bytes : damaged) {
        g_largestRequest = 0;
        Platform::SetHeapHooks(&recording);
        std::string dump;
        int faults = 0;
        {
            FileOf file(bytes);
            if (file.reader) dump = Dump(*file.reader, 1000, &faults);
        }
        Platform::SetHeapHooks(nullptr);
        EXPECT_EQ(faults, 0) << bytes << dump;
        EXPECT_LT(g_largestRequest, std::size_t{64} << 20) << bytes;
    }
}

// Every prefix of a small written file: refused until its terminator is whole, never a crash;
// the diagnosis of a refused prefix names its end, with the reason that the file ends early.
TEST(RawReader, TruncatedFilesAreRefusedWithoutFaults) {
    ScratchFolder folder;
    const std::string path = folder.File("whole.twf");
    std::string whole;
    for (std::uint64_t seed = 7; whole.size() < 1500 || whole.size() > 6000; ++seed) {
        WriteDesign(seed, path);
        whole = ReadBytes(path);
    }
    const std::size_t complete = whole.rfind("$ENDWAVE") + 8;
    for (std::size_t n = 0; n <= whole.size(); ++n) {
        FileOf cut(whole.substr(0, n));
        ASSERT_EQ(cut.reader != nullptr, n >= complete) << "prefix of " << n << " bytes";
        TarvelDiagnosis d;
        ASSERT_EQ(DiagnoseTarvelFile(cut.folder.File("f.twf").c_str(), &d), n >= complete);
        if (n < complete) {
            EXPECT_EQ(d.offset, static_cast<int64>(n)) << "prefix of " << n << " bytes: " << d.reason;
            EXPECT_EQ(std::string(d.reason).rfind(n == 0 ? "the file is empty" : "file ends", 0), 0u) << n << ": " << d.reason;
        }
        int faults = 0;
        if (cut.reader) Dump(*cut.reader, ~0u, &faults);
        EXPECT_EQ(faults, 0) << "prefix of " << n << " bytes";
    }
}

}  // namespace
}  // namespace Tarvel::Testing
