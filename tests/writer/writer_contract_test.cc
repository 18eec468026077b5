// What include/tarvel/writer.h and docs/guide.md promise a newcomer, through the public
// interface: the design hierarchy as the raw reader shows it, where values of buses and
// elements go, and the mistakes of the guide's table that no other test pins, with what they
// do. A change to any of these must change the guide too.
#include <string>

#include "format_test_support.h"
#include "tarvel/tarvel.h"

namespace Tarvel::Testing {
namespace {

constexpr const char* kStdLogic = "e#9#std_logicc9 UX01ZWLH-";
constexpr const char* kByte = "a#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-";
constexpr const char* kPacket = "r#6#packet2#4#addri#7#integer#4#dataa#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-";
constexpr unsigned char kOne[4] = {3, 0, 0, 0};  // std_logic '1'

// Where a signal stands: "parent/position/children name type", parent -1 at the top.
std::string Place(IRawTarvelRead& r, int handle) {
    int children = -1, position = -1, size = 32;
    char name[32] = "";
    IRawTarvelRead::SignalIterator parent;
    if (!r.GetSignalPlace(handle, &children, nullptr, name, &size, &parent, &position)) return "unknown";
    const int up = parent == r.EndSignals() ? -1 : *parent;
    return std::to_string(up) + "/" + std::to_string(position) + "/" + std::to_string(children) + " " + name + " " +
           std::to_string(r.GetTypeId(handle));
}

unsigned Events(IRawTarvelRead& r, int handle) {
    const KEventsStore* store = r.GetSignalData(handle);
    return store ? store->count() : 0u;
}

struct WrittenFile {
    ScratchFolder folder;
    std::string path = folder.File("design.twf");
    ITarvelWrite* w = CreateStreamWriteTimed(path.c_str());
    std::string Log() const { return ReadBytes(path + ".log"); }
};

TEST(WriterContract, ScopesBusesAndRecordsShowAsTheGuideDescribes) {
    WrittenFile f;
    ITarvelWrite& w = *f.w;
    // top { clk; dut { data(7 downto 0); pkt { addr; data(7 downto 0) } } }, types 1, 2, 3, 4.
    ASSERT_TRUE(w.StoreSignal(1, kPortNone, -1, 0, "top", 0));
    ASSERT_TRUE(w.SetTypeInfo(2, kStdLogic) && w.StoreSignal(2, kPortIn, 1, 0, "clk", 0));
    ASSERT_TRUE(w.StoreSignal(3, kPortNone, 1, 1, "dut", 0));
    ASSERT_TRUE(w.SetTypeInfo(10, kByte) && w.StoreBus(10, kPortOut, 0, 3, 0, "data", 0));
    for (int p = 0; p < 8; ++p) ASSERT_TRUE(w.SetTypeInfo(11 + p, kStdLogic) && w.StoreSignal(11 + p, kPortOut, 10, p, "ignored", 0));
    ASSERT_TRUE(w.SetTypeInfo(30, kPacket) && w.StoreBus(30, kPortOut, 0, 3, 1, "pkt", 0));
    ASSERT_TRUE(w.SetTypeInfo(31, "i#7#integer") && w.StoreSignal(31, kPortOut, 30, 0, "addr", 0));
    ASSERT_TRUE(w.SetTypeInfo(32, kByte) && w.StoreBus(32, kPortOut, 0, 30, 1, "data", 0));
    for (int p = 0; p < 8; ++p) ASSERT_TRUE(w.SetTypeInfo(33 + p, kStdLogic) && w.StoreSignal(33 + p, kPortOut, 32, p, "d", 0));
    // Values: the bus takes its value quietly and keeps nothing; elements carry the events.
    const unsigned char byte[32] = {};
    ASSERT_EQ(w.GetValueSize(10), 32);
    ASSERT_EQ(w.GetValueSize(1), 0);
    ASSERT_TRUE(w.SetTime(5) && w.StoreValue(10, byte) && w.StoreValue(18, kOne) && w.StoreValue(2, kOne));
    ASSERT_TRUE(w.Commit() && w.Release());

    IRawTarvelRead* r = CreateRawTarvelRead(f.path.c_str());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(Place(*r, 1), "-1/0/2 top -1");  // a scope: no type, no events
    EXPECT_EQ(Place(*r, 2), "1/0/0 clk 1");
    EXPECT_EQ(Place(*r, 3), "1/1/2 dut -1");
    EXPECT_EQ(Place(*r, 10), "3/0/8 data 2");
    EXPECT_EQ(Place(*r, 11), "10/0/0 (7) 1");  // position 0 is the left index
    EXPECT_EQ(Place(*r, 18), "10/7/0 (0) 1");
    EXPECT_EQ(Place(*r, 30), "3/1/2 pkt 3");
    EXPECT_EQ(Place(*r, 31), "30/0/0 addr 4");  // a field is named after the record type
    EXPECT_EQ(Place(*r, 32), "30/1/8 data 2");  // a field that is a bus keeps its own name
    EXPECT_EQ(Place(*r, 40), "32/7/0 (0) 1");
    EXPECT_EQ(Events(*r, 1), 0u);
    EXPECT_EQ(Events(*r, 10), 0u);
    EXPECT_EQ(Events(*r, 18), 1u);
    EXPECT_EQ(Events(*r, 2), 1u);
    EXPECT_EQ(r->GetTypeInfo(r->GetTypeId(1)), nullptr);
    DeleteRawTarvelRead(r);
}

TEST(WriterContract, AnElementWithoutItsOwnTypeStopsTheWriterAtTheFlush) {
    WrittenFile f;
    ITarvelWrite& w = *f.w;
    ASSERT_TRUE(w.SetTypeInfo(9, kByte) && w.StoreBus(9, kPortOut, 0, -1, 0, "bus", 0));
    ASSERT_TRUE(w.StoreSignal(10, kPortOut, 9, 0, "x", 0) && w.SetTime(5) && w.StoreValue(10, kOne));  // accepted
    EXPECT_FALSE(w.Commit());
    EXPECT_EQ(f.Log(), "Unknown typeindex 0 for handle 10");
    EXPECT_FALSE(ReleaseFailedWriter(&w));
    EXPECT_EQ(CreateRawTarvelRead(f.path.c_str()), nullptr);  // never committed
}

// Each of these answers true at every call; the guide says what the file then holds.
TEST(WriterContract, MistakesTheWriterDoesNotCatch) {
    // A child declared before its scope lands at the top; deltas keep their low 16 bits; a
    // virtual bus takes its member out of its scope.
    {
        WrittenFile f;
        ITarvelWrite& w = *f.w;
        ASSERT_TRUE(w.SetTypeInfo(2, kStdLogic) && w.StoreSignal(2, kPortIn, 1, 0, "early", 0));
        ASSERT_TRUE(w.StoreSignal(1, kPortNone, -1, 0, "top", 0));
        ASSERT_TRUE(w.SetTypeInfo(3, kStdLogic) && w.StoreSignal(3, kPortIn, 1, 0, "clk", 0));
        ASSERT_TRUE(w.SetTypeInfo(4, kStdLogic) && w.StoreSignal(4, kPortIn, 1, 1, "rst", 0));
        ASSERT_TRUE(w.StoreBus(5, kPortVirtualBus, 1, -1, 0, "group", 0) && w.StoreProperty(3, "VBus", "1"));
        ASSERT_TRUE(w.SetTime(5) && w.SetDelta(65537) && w.StoreValue(2, kOne) && w.Commit() && w.Release());
        IRawTarvelRead* r = CreateRawTarvelRead(f.path.c_str());
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(Place(*r, 2), "-1/0/0 early 1");
        EXPECT_EQ(Place(*r, 3), "5/0/0 clk 1");
        EXPECT_EQ(Place(*r, 1), "-1/0/1 top -1");  // rst alone, still at position 1
        EXPECT_STREQ(r->GetProperty(5, "VBus"), "1");
        KEventData e;
        ASSERT_TRUE(r->GetSignalData(2)->GetFirstEvent(&e));
        EXPECT_EQ(e.GetDelta(), 1u);
        DeleteRawTarvelRead(r);
    }
    // Then the value '1' at time 5, a commit and the release. A type given after the
    // declaration, values of a typed handle never declared: the file is refused. An element
    // typed otherwise than its bus's elements: its value is misread. A commit without resume:
    // what follows it is never seen, even after a later commit.
    const struct {
        const char* what;
        bool (*mistake)(ITarvelWrite&);
        int events;  // of handle 1; -1: the file is refused
        int value;   // of its first event
    } cases[] = {
        {"type after declaration",
         [](ITarvelWrite& w) { return w.StoreSignal(1, kPortIn, -1, 0, "a", 0) && w.SetTypeInfo(1, kStdLogic); }, -1, 0},
        {"never declared", [](ITarvelWrite& w) { return w.SetTypeInfo(1, kStdLogic); }, -1, 0},
        {"element of another type", [](ITarvelWrite& w) {
             return w.SetTypeInfo(9, "a#3#two[1d0]i#7#integer") && w.StoreBus(9, kPortIn, 0, -1, 0, "two", 0) &&
                    w.SetTypeInfo(1, kStdLogic) && w.StoreSignal(1, kPortIn, 9, 0, "a", 0);
         }, 1, 1},  // '1' (3) written as std_logic, read as the integer 1
        {"commit without resume", [](ITarvelWrite& w) {
             const unsigned char zero[4] = {2, 0, 0, 0};
             return w.SetTypeInfo(1, kStdLogic) && w.StoreSignal(1, kPortIn, -1, 0, "a", 0) && w.SetTime(1) &&
                    w.StoreValue(1, zero) && w.Commit();
         }, 1, 2},
    };
    for (const auto& c : cases) {
        WrittenFile f;
        ASSERT_TRUE(c.mistake(*f.w)) << c.what;
        ASSERT_TRUE(f.w->SetTime(5) && f.w->StoreValue(1, kOne) && f.w->Commit() && f.w->Release()) << c.what;
        IRawTarvelRead* r = CreateRawTarvelRead(f.path.c_str());
        ASSERT_EQ(r != nullptr, c.events >= 0) << c.what;
        if (!r) continue;
        EXPECT_EQ(Events(*r, 1), static_cast<unsigned>(c.events)) << c.what;
        unsigned char value[4] = {};
        KEventData e;
        ASSERT_TRUE(r->GetSignalData(1)->GetFirstEvent(&e) && e.GetValue(value, 4));
        EXPECT_EQ(value[0], c.value) << c.what;
        DeleteRawTarvelRead(r);
    }
}

}  // namespace
}  // namespace Tarvel::Testing
