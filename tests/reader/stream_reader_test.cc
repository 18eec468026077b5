// Both readers over writer-made files: seeded random designs (buses of std_logic, records,
// virtual buses whose members were declared before them, signals below signals, properties,
// events) against the model of what was declared, and the pass against the map model of the
// merged order; growing files; the tie-break, restarts and bad arguments; the slot order;
// refused files and exhausted memory. Reader facade layer tests; single-threaded.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <stdexcept>

#include "foundation/memory.h"
#include "foundation/test_heap.h"
#include "reader/merge_model.h"
#include "writer/format_test_support.h"
#include "tarvel/tarvel.h"
#include "typeinfo/type_service.h"

namespace Tarvel::Testing {
namespace {

#define W(call) \
    do { if (!(call)) throw std::runtime_error("failed: " #call); } while (false)


std::vector<MergedEvent> Pass(ITarvelRead& r) {
    std::vector<MergedEvent> out;
    for (int h = r.NextEvent(); h != -1; h = r.NextEvent()) {
        std::uint64_t value = 0;
        EXPECT_TRUE(r.GetEventValue(&value));
        out.push_back({h, *r.GetEventTime(), r.GetEventDelta(), value});
    }
    return out;
}

constexpr const char* kStd = "e#9#std_logicc9 UX01ZWLH-";
constexpr const char* kScalars[] = {kStd, "i#7#integer", "f#4#real"};
constexpr const char* kRecord = "r#6#packet2#4#addri#7#integer#4#datae#9#std_logicc9 UX01ZWLH-";

struct Prop { int64 time; std::string name, value; };
struct Sig {
    int number, parent, position, kind;  // kind: index into kScalars; -1 for buses
    std::string name, type;
    std::vector<int> children{};        // signal indexes by position
    std::vector<Prop> lines{};          // property lines naming it, in file order
    std::vector<MergedEvent> events{};  // as stored (handle left 0)
};

// A random design written through the untimed writer (which keeps declaration times), with the
// model of what a reader must present. Signals are numbered 0, 1, ... in declaration order when
// `sequential`, else 10 + 3n.
struct Design {
    Design(const std::string& path, std::uint64_t seed, bool numbered) : rng(seed), sequential(numbered), w(CreateStreamWrite(path.c_str())) { W(w); }
    ~Design() { if (w) w->Release(); }

    int Add(int parent, int position, int kind, const std::string& name, const std::string& type) {
        const int i = static_cast<int>(s.size());
        s.push_back(Sig{sequential ? i : 10 + 3 * i, parent, position, kind, name, type});
        (parent >= 0 ? s[parent].children : tops).push_back(i);
        if (!type.empty()) W(w->SetTypeInfo(s[i].number, type.c_str()));
        return i;
    }

    void Declare(int count) {
        for (int before = static_cast<int>(s.size()); static_cast<int>(s.size()) < count;) {
            const int pick = static_cast<int>(rng() % 10), t = static_cast<int>(rng() % 50), kind = static_cast<int>(rng() % 3);
            const std::string name = "top.u" + std::to_string(s.size());
            if (pick < 5 || tops.empty()) {  // a scalar at the top, or below a scalar at the top
                const int parent = pick == 0 && !tops.empty() && s[tops.back()].kind >= 0 ? tops.back() : -1;
                const int i = Add(parent, parent < 0 ? 0 : static_cast<int>(s[parent].children.size()), kind, name, kScalars[kind]);
                W(w->StoreSignal(s[i].number, kPortOut, parent < 0 ? -1 : s[parent].number, s[i].position, name.c_str(), t));
            } else if (pick < 8) {  // a bus of std_logic elements or a record, with every element
                const std::string type = pick < 7 ? "a#3#slv[" + std::to_string(rng() % 16) + "d0]" + kStd : kRecord;
                const int bus = Add(-1, 0, -1, name, type);
                W(w->StoreBus(s[bus].number, kPortIn, 0, -1, 0, name.c_str(), t));
                const TypeHandle busType(type.c_str());
                for (int p = 0; p < busType.ChildCount(); ++p) {
                    const std::string element = busType.ChildType(p).Text();
                    const int e = Add(bus, p, element == kStd ? 0 : 1, busType.ChildName(p), element);
                    W(w->StoreSignal(s[e].number, kPortIn, s[bus].number, p, "element", t));
                }
            } else {  // a virtual bus whose members were declared before it
                const int bus = Add(-1, 0, -1, name, "");
                W(w->StoreBus(s[bus].number, kPortVirtualBus, 0, -1, 0, name.c_str(), t));
                for (int n = 1 + rng() % 3; n > 0; --n) {
                    const int member = tops[rng() % tops.size()];
                    if (s[member].kind < 0) continue;
                    W(w->StoreProperty(0, s[member].number, "VBus", "1"));
                    tops.erase(std::find(tops.begin(), tops.end(), member));
                    s[member].parent = bus;
                    s[member].position = static_cast<int>(s[bus].children.size());
                    s[bus].children.push_back(member);
                }
            }
            for (; before < static_cast<int>(s.size()); ++before) {  // time-0 properties, written by the next commit
                for (const char* n : {"Stimulator", "EmptyRow", "Expression", "Comment", "stimulator"}) {
                    if (rng() % 4 != 0) continue;
                    const std::string value = std::string(n) == "EmptyRow" ? "1" : n + std::to_string(before);
                    W(w->StoreProperty(0, s[before].number, n, value.c_str()));
                    auto key = std::find_if(keys.begin(), keys.end(), [&](const auto& k) { return k.first.name == n && k.first.value == value; });
                    (key != keys.end() ? key : keys.insert(keys.end(), {Prop{0, n, value}, {}}))->second.push_back(before);
                }
            }
        }
    }

    // Cycles of events: each scalar changes with chance 1/3; now and then a delta cycle.
    void Run(int cycles) {
        for (int c = 0; c < cycles; ++c) {
            const bool deltaCycle = rng() % 5 == 0;
            W(deltaCycle ? w->SetDelta(++delta) : w->SetTime(time += 1 + static_cast<int64>(rng() % 3)));
            if (!deltaCycle) delta = 0;
            for (Sig& g : s) {
                if (g.kind < 0 || rng() % 3 != 0) continue;
                const double real = static_cast<double>(rng() % 1000) / 4;
                std::uint64_t v = g.kind == 0 ? rng() % 9 : static_cast<std::uint32_t>(rng());
                if (g.kind == 2) std::memcpy(&v, &real, 8);
                W(w->StoreValue(g.number, reinterpret_cast<const unsigned char*>(&v)));
                g.events.push_back({0, time, static_cast<int>(delta), v});
            }
        }
    }

    void LateProperty(int i, const char* name) {  // written at once, with its time
        W(w->StoreProperty(time + 1, s[i].number, name, "late"));
        s[i].lines.push_back({time + 1, name, "late"});
    }
    void Commit() {
        W(w->Commit());
        for (const auto& [p, signals] : keys) for (int i : signals) s[i].lines.push_back(p);
        keys.clear();
    }
    void Close() { Commit(); W(w->Release()); w = nullptr; }

    std::mt19937_64 rng;
    bool sequential;
    ITarvelWrite* w;
    std::vector<Sig> s;
    std::vector<int> tops;
    std::vector<std::pair<Prop, std::vector<int>>> keys;  // time-0 properties by first use
    int64 time = 0;
    unsigned delta = 0;
};

// Everything the reader presents against the model: tree, names, types, properties, events.
void ExpectDesign(ITarvelRead& r, const std::vector<Sig>& s, bool byPosition) {
    auto handle = [&](int i) { return byPosition ? i : s[static_cast<std::size_t>(i)].number; };
    std::vector<int> tops;
    for (int i = 0; i < static_cast<int>(s.size()); ++i) if (s[i].parent < 0) tops.push_back(handle(i));
    ASSERT_EQ(r.GetTopLevelCount(), static_cast<int>(tops.size()));
    for (std::size_t t = 0; t < tops.size(); ++t) ASSERT_EQ(r.GetTopLevel(static_cast<int>(t)), tops[t]);
    std::vector<MergedEvent> expected;
    for (int i = 0; i < static_cast<int>(s.size()); ++i) {
        const Sig& g = s[i];
        const int h = handle(i), children = static_cast<int>(g.children.size());
        SCOPED_TRACE("signal " + std::to_string(i) + " " + g.name);
        for (int c = 0; c < children; ++c) ASSERT_EQ(r.GetChild(h, c), handle(g.children[c]));
        EXPECT_TRUE(!byPosition || r.GetChild(h, children) == -1);
        bool sub = true;
        int count = -1, nameSize = 64;
        int64 declared = -1;
        char name[64];
        const int typeCount = g.type.empty() || g.kind >= 0 ? 0 : static_cast<int>(TypeHandle(g.type.c_str()).ChildCount());
        const int expectedCount = byPosition ? typeCount : children;
        EXPECT_EQ(r.GetSignalInfo(h, &sub, &count, &declared, name, &nameSize), expectedCount != 0);
        int64 rawDeclared = -2;  // the declaration time is the raw reader's, passed through
        r.GetRawReader()->GetSignalPlace(g.number, nullptr, &rawDeclared, nullptr, nullptr, nullptr, nullptr);
        EXPECT_TRUE(count == expectedCount && sub == (count != 0) && name == g.name && declared == rawDeclared)
            << "count " << count << ", name " << name << ", declared at " << declared;
        EXPECT_STREQ(r.GetTypeInfoString(h), g.type.empty() ? nullptr : g.type.c_str());
        // The attributes first (the last value a line gave each), then every line.
        std::vector<Prop> records;
        for (const char* a : {"Stimulator", "EmptyRow", "Expression"}) {
            auto last = std::find_if(g.lines.rbegin(), g.lines.rend(), [&](const Prop& p) { return p.name == a; });
            if (last != g.lines.rend()) records.push_back({0, a, last->value});
        }
        records.insert(records.end(), g.lines.begin(), g.lines.end());
        ASSERT_EQ(r.GetPropertyCount(h), static_cast<int>(records.size()));
        for (std::size_t k = 0; k < records.size(); ++k) {
            int64 time = -1;
            const char *n = nullptr, *v = nullptr;
            EXPECT_TRUE(r.GetProperty(h, static_cast<int>(k), &time, &n, &v));
            EXPECT_TRUE(time == records[k].time && n == records[k].name && v == records[k].value) << k;
        }
        for (const char* n : {"Stimulator", "stimulator", "STIMULATOR", "Comment", "Expression"}) {
            auto first = std::find_if(records.begin(), records.end(), [&](const Prop& p) { return p.time == 0 && p.name == n; });
            EXPECT_STREQ(r.GetPropertyValue(h, n), first == records.end() ? "" : first->value.c_str()) << n;
        }
        for (MergedEvent e : g.events) expected.push_back((e.handle = h, e));
    }
    // Each event once, with its value, each signal's in the order stored; the whole pass in the
    // map model's order.
    const std::vector<MergedEvent> pass = Pass(r);
    std::vector<MergedEvent> bySignal = pass;
    auto byHandle = [](const MergedEvent& a, const MergedEvent& b) { return a.handle < b.handle; };
    std::stable_sort(bySignal.begin(), bySignal.end(), byHandle);
    std::stable_sort(expected.begin(), expected.end(), byHandle);
    ASSERT_TRUE(bySignal == expected);
    std::vector<std::pair<int, const KEventsStore*>> stores;
    IRawTarvelRead& raw = *r.GetRawReader();
    for (auto it = raw.BeginSignals(); it != raw.EndSignals(); ++it) stores.emplace_back(handle(it.GetSignalNr()), raw.GetSignalData(it));
    EXPECT_TRUE(pass == ModelPass(stores)) << "the merged order differs from the map model";
    EXPECT_EQ(*r.GetEndTime(), pass.empty() ? 0 : pass.back().time);
}

TEST(StreamReader, RandomDesignsReadBackAsDeclared) {
    const char* fixed = std::getenv("TARVEL_SEED");
    const std::uint64_t first = fixed ? std::strtoull(fixed, nullptr, 10) : std::random_device()();
    ScratchFolder folder;
    for (std::uint64_t seed = first; seed < first + (fixed ? 1 : 40); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " (TARVEL_SEED=" + std::to_string(seed) + " repeats it)");
        const std::string path = folder.File(std::to_string(seed) + ".twf");
        try {
            Design d(path, seed, seed % 2 == 0);
            d.Declare(seed % 10 == 0 ? 3000 : 40);
            d.Run(seed % 10 == 0 ? 20 : 100);
            d.Commit();
            W(d.w->Resume());
            d.LateProperty(1, "Expression");
            d.LateProperty(2, "Comment");
            d.Run(10);
            d.Close();
            Facade two = OpenFacade(path, true), one = OpenFacade(path, false);
            ASSERT_TRUE(two && one);
            ExpectDesign(*two, d.s, true);
            ExpectDesign(*one, d.s, false);
            EXPECT_TRUE(!d.sequential || Pass(*two) == Pass(*one));
        } catch (const std::exception& e) {
            FAIL() << e.what();
        }
        if (HasFailure()) return;
    }
}

// A reader opened after the first commit, while the writer commits more: a pass before Continue
// has only what was there, Continue ends a pass in progress, and afterwards the reader presents
// everything, signals declared later and old ones moved under new virtual buses included.
TEST(StreamReader, GrowingFileReadsOnWithContinue) {
    ScratchFolder folder;
    for (const bool byPosition : {true, false}) {
        const std::string path = folder.File(byPosition ? "two.twf" : "one.twf");
        Design d(path, 7, false);   // its second part moves old signals under new virtual buses
        d.Declare(30);
        d.Commit();
        Facade r = OpenFacade(path, byPosition);
        ASSERT_TRUE(r);
        EXPECT_EQ(r->NextEvent(), -1) << "declarations only: no events yet";
        W(d.w->Resume());
        d.Run(20);
        d.Commit();
        EXPECT_EQ(r->NextEvent(), -1) << "the reader holds the file as it was opened";
        ASSERT_TRUE(r->Continue());
        std::size_t before = 0;
        for (const Sig& g : d.s) before += g.events.size();
        EXPECT_EQ(Pass(*r).size(), before);
        ASSERT_NE(r->NextEvent(), -1);
        W(d.w->Resume());
        d.Declare(60);
        d.Run(30);
        d.Commit();
        ASSERT_TRUE(r->Continue());
        EXPECT_TRUE(*r->GetEventTime() == 0 && !r->GetEventValue(&before)) << "Continue ends the pass";
        ExpectDesign(*r, d.s, byPosition);
    }
}

// The slot order is binary (Itanium layout: a pointer to a virtual member holds 1 + its byte
// offset in the table of virtual functions).
template <class F>
std::ptrdiff_t Slot(F member) {
    std::ptrdiff_t raw = 0;
    std::memcpy(&raw, &member, sizeof raw);
    return (raw - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

// A Continue that fails half-way (here on a bad line after a $CHILD) may leave the raw reader
// with more children than the reader indexed; the child count a caller gets must still be one
// that the unchecked GetChild of CreateStreamRead can be walked with.
TEST(StreamReader, ChildCountAfterAFailedContinueStaysWithinTheIndex) {
    ScratchFolder folder;
    const std::string path = folder.File("failed.twf");
    const std::string head = "$WAVE4\r\nI 1 \"p#4#time#2#fs\"\r\n$IN 5 1 a\r\n$BUS VBUS 9 0 0 v\r\n";
    for (const bool byPosition : {false, true}) {
        std::ofstream(path, std::ios::binary) << head << ":";
        Facade r = OpenFacade(path, byPosition);
        ASSERT_TRUE(r);
        std::ofstream(path, std::ios::binary) << head << "$CHILD 5 9 0\r\n$BOGUS\r\n:";
        EXPECT_FALSE(r->Continue());
        for (int t = 0; t < r->GetTopLevelCount(); ++t) {
            const int handle = r->GetTopLevel(t);
            int count = -1;
            r->GetSignalInfo(handle, nullptr, &count, nullptr, nullptr, nullptr);
            for (int c = 0; c < count; ++c) EXPECT_GE(r->GetChild(handle, c), 0);
        }
    }
}

TEST(StreamReader, SlotOrderAndAFileWithoutSignals) {
    using I = ITarvelRead;
    const std::vector<std::ptrdiff_t> slots = {
        Slot(&I::AddRef), Slot(&I::Release), Slot(&I::GetResolution), Slot(&I::GetTopLevelCount), Slot(&I::GetChild),
        Slot(&I::GetTopLevel), Slot(&I::GetSignalInfo), Slot(&I::GetPropertyValue), Slot(&I::GetTypeInfoString),
        Slot(&I::GetPropertyCount), Slot(&I::GetProperty), Slot(&I::RestartEvents), Slot(&I::Reserved12),
        Slot(&I::Reserved13), Slot(&I::GetEventTime), Slot(&I::GetEventDelta), Slot(&I::NextEvent), Slot(&I::GetEventValue),
        Slot(&I::Reserved18), Slot(&I::GetFileName), Slot(&I::GetEndTime), Slot(&I::Continue), Slot(&I::Reserved22),
        Slot(&I::Reserved23), Slot(&I::Reserved24), Slot(&I::Reserved25), Slot(&I::Reserved26), Slot(&I::Reserved27),
        Slot(&I::Reserved28), Slot(&I::GetRawReader)};
    for (std::size_t i = 0; i < slots.size(); ++i) EXPECT_EQ(slots[i], static_cast<std::ptrdiff_t>(i));
    ScratchFolder folder;
    std::ofstream(folder.File("empty.twf"), std::ios::binary) << "$WAVE4\r\n$ENDWAVE\r\n";
    for (const bool byPosition : {true, false}) {
        Facade r = OpenFacade(folder.File("empty.twf"), byPosition);
        ASSERT_TRUE(r);
        std::uint64_t value = 0;
        EXPECT_TRUE(r->GetTopLevelCount() == 0 && r->NextEvent() == -1 && r->NextEvent() == -1 && *r->GetEventTime() == 0 &&
                    r->GetEventDelta() == 0 && !r->GetEventValue(&value) && *r->GetEndTime() == 0 && r->GetResolution() == 1000);
        EXPECT_TRUE(!byPosition || r->GetTopLevel(0) == -1);
    }
}

// Bus 0 of elements 1 and 2, scalar 3. At time 10 the elements and the scalar change, at 20
// the scalar and element 1: 3 2 1 at 10 (the highest handle first), then 1 before 3 at 20,
// since 1 came to 20 after 3 had.
TEST(StreamReader, TieBreakRestartsAndBadArguments) {
    ScratchFolder folder;
    const std::string path = folder.File("small.twf");
    ITarvelWrite* w = CreateStreamWriteTimed(path.c_str());
    const std::string bus = std::string("a#3#slv[1d0]") + kStd;
    W(w && w->SetTypeInfo(0, bus.c_str()) && w->StoreBus(0, kPortIn, 2, -1, 0, "b", 0));
    for (int h = 1; h <= 3; ++h) W(w->SetTypeInfo(h, kStd) && w->StoreSignal(h, kPortIn, h < 3 ? 0 : -1, h - 1, "s", 0));
    const unsigned char one[4] = {3, 0, 0, 0};
    W(w->SetTime(10) && w->StoreValue(1, one) && w->StoreValue(2, one) && w->StoreValue(3, one));
    W(w->SetTime(20) && w->StoreValue(3, one) && w->StoreValue(1, one) && w->Commit() && w->Release());
    for (const bool byPosition : {true, false}) {
        Facade r = OpenFacade(path, byPosition);
        ASSERT_TRUE(r);
        std::vector<int> order;
        for (const MergedEvent& e : Pass(*r)) order.push_back(e.handle);
        EXPECT_EQ(order, (std::vector<int>{3, 2, 1, 1, 3}));
        EXPECT_EQ(r->NextEvent(), 3) << "a new pass after -1";
        EXPECT_EQ(r->NextEvent(), 2);
        EXPECT_TRUE(r->RestartEvents(7) && *r->GetEventTime() == 0);
        EXPECT_EQ(r->NextEvent(), 3) << "RestartEvents in mid-pass";
        EXPECT_EQ(*r->GetEventTime(), 10);
        if (!byPosition) continue;  // the old reader makes no range tests
        EXPECT_TRUE(r->GetTopLevelCount() == 2 && r->GetTopLevel(-1) == -1 && r->GetTopLevel(2) == -1);
        EXPECT_TRUE(r->GetChild(0, 1) == 2 && r->GetChild(0, -1) == -1 && r->GetChild(0, 2) == -1 && r->GetChild(4, 0) == -1 &&
                    r->GetChild(-1, 0) == -1);
        bool sub = true;
        int count = 5;
        int64 time = 77;
        const char* text = "untouched";
        EXPECT_FALSE(r->GetSignalInfo(4, &sub, &count, &time, nullptr, nullptr));
        EXPECT_TRUE(!sub && count == 0 && time == 77);
        EXPECT_TRUE(r->GetSignalInfo(0, nullptr, nullptr, nullptr, nullptr, nullptr));
        EXPECT_TRUE(*r->GetPropertyValue(4, "Stimulator") == 0 && *r->GetPropertyValue(3, nullptr) == 0 &&
                    r->GetTypeInfoString(4) == nullptr && r->GetPropertyCount(4) == 0);
        EXPECT_FALSE(r->GetProperty(4, 0, &time, &text, &text));
        EXPECT_TRUE(time == 77 && std::string(text) == "untouched");
    }
}

// Runs `open` with the n-th allocation failing, n = 1, 2, ... until it gives a reader; no
// failure may leave a block behind.
void FailEachAllocationInTurn(const std::function<ITarvelRead*()>& open) {
    for (int n = 1; n < 100000; ++n) {
        std::size_t left = 0;
        ITarvelRead* r = nullptr;
        bool failed = false;
        {
            TestHeap heap(static_cast<std::uint64_t>(n));
            r = open();
            failed = IsOutOfMemory();
            if (failed && r) r->Release();
            left = heap.live.size();
        }
        PrepareOutOfMemoryBuffer();
        if (!failed) {
            ASSERT_NE(r, nullptr);
            r->Release();
            return;
        }
        ASSERT_EQ(left, 0u) << "blocks left when allocation " << n << " failed";
    }
    ADD_FAILURE() << "never succeeded";
}

TEST(StreamReader, RefusedFilesAndAPassWithoutMemoryLeaveNothing) {
    ScratchFolder folder;
    std::ofstream(folder.File("cut.twf"), std::ios::binary) << "$WAVE4\r\n$IN 1 1 a\r\n";
    for (const std::string& refused : {folder.File("missing.twf"), folder.File("cut.twf"), folder.path}) {
        EXPECT_TRUE(CreateStreamRead2(refused.c_str()) == nullptr && CreateStreamRead(refused.c_str()) == nullptr) << refused;
    }
    EXPECT_EQ(CreateStreamRead2(nullptr), nullptr);
    const std::string path = folder.File("design.twf");
    Design d(path, 5, true);
    d.Declare(40);
    d.Run(10);
    d.Close();
    // A pass that cannot start answers -1 and leaves nothing; the next one starts once memory is
    // back. (The factories under exhausted memory are the out-of-memory sweep's.)
    Facade r = OpenFacade(path, true);
    ASSERT_TRUE(r);
    const std::vector<MergedEvent> whole = Pass(*r);
    FailEachAllocationInTurn([&]() -> ITarvelRead* {
        if (r->NextEvent() == -1) return nullptr;
        r->RestartEvents(0);
        r->AddRef();
        return r.get();
    });
    EXPECT_TRUE(Pass(*r) == whole);
}

}  // namespace
}  // namespace Tarvel::Testing
