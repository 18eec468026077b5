// The writer object through its public interface: golden files of whole small waveforms, every
// refusal and its log, values read from buffers of exactly GetValueSize bytes, equal stores in one
// block. Killed writers and exhausted memory are the reliability campaigns'.
#include <cstring>
#include <functional>
#include <memory>

#include "format_test_support.h"
#include "rawreader/raw_reader_dump.h"
#include "tarvel/tarvel.h"

namespace Tarvel::Testing {
namespace {

constexpr const char* kStdLogic = "e#9#std_logicc9 UX01ZWLH-";
constexpr const char* kVector4 = "a#16#std_logic_vector[3d0]e#9#std_logicc9 UX01ZWLH-";
constexpr const char* kStates = "e#5#staten3#4#IDLE#4#LOAD#3#RUN";
constexpr const char* kChars = "e#4#charc2 ab";

bool Put(ITarvelWrite& w, int handle, std::uint64_t value) {
    const int size = w.GetValueSize(handle);
    // Exactly the value's bytes on the heap: reading one byte more is an ASan error.
    std::unique_ptr<unsigned char[]> bytes(new unsigned char[static_cast<std::size_t>(size)]);
    std::memcpy(bytes.get(), &value, static_cast<std::size_t>(size));
    return w.StoreValue(handle, bytes.get());
}

bool PutReal(ITarvelWrite& w, int handle, double value) {
    std::unique_ptr<unsigned char[]> bytes(new unsigned char[8]);
    std::memcpy(bytes.get(), &value, 8);
    return w.StoreValue(handle, bytes.get());
}

// A small design written through every kind of declaration, then three flush intervals.
void WriteDesign(ITarvelWrite& w, bool timed) {
    ASSERT_TRUE(w.SetResolution(1000));
    ASSERT_TRUE(w.SetResolution(1000));   // the same again: nothing written
    ASSERT_FALSE(w.SetResolution(10));    // another: refused without a message
    ASSERT_TRUE(w.SetTypeInfo(1000, kStdLogic));
    ASSERT_TRUE(w.StoreSignal(1000, 1, -1, 0, "clock_main", 0));
    ASSERT_TRUE(w.SetTypeInfo(1001, kStdLogic));
    ASSERT_TRUE(w.StoreSignal(1001, 1, -1, 0, "clock_aux", timed ? 0 : 20));  // shares a prefix
    ASSERT_TRUE(w.SetTypeInfo(7, kVector4));
    ASSERT_TRUE(w.StoreBus(7, 2, 0, -1, 0, "data", 0));
    for (int bit = 0; bit < 4; ++bit) {
        ASSERT_TRUE(w.SetTypeInfo(20 + bit, kStdLogic));
        ASSERT_TRUE(w.StoreSignal(20 + bit, 2, 7, bit, "data", bit == 3 ? 5 : 0));
    }
    ASSERT_TRUE(w.SetTypeInfo(8, kStates));
    ASSERT_TRUE(w.StoreSignal(8, 6, -1, 0, "state", 0));
    ASSERT_TRUE(w.SetTypeInfo(9, "f#4#real"));
    ASSERT_TRUE(w.StoreSignal(9, 7, -1, 0, "level", 0));
    ASSERT_TRUE(w.SetTypeInfo(10, "i#7#integer"));
    ASSERT_TRUE(w.StoreSignal(10, 0, 99, 9, "loose", 0));  // parent 99 is no declared bus: a line of its own
    ASSERT_TRUE(w.SetTypeInfo(11, kChars));
    ASSERT_TRUE(w.StoreSignal(11, 3, -1, 0, "a b", 0));
    ASSERT_TRUE(w.SetTypeInfo(21, kStdLogic));  // the same type again: no new type line
    ASSERT_TRUE(w.StoreBus(30, -1, 2, -1, 0, "group", 0));
    ASSERT_TRUE(w.StoreProperty(0, 1000, "VBus", "1"));
    ASSERT_TRUE(w.StoreProperty(0, 8, "VBus", "1"));
    ASSERT_TRUE(w.StoreProperty(0, 9, "Hidden", "1"));
    ASSERT_TRUE(w.StoreProperty(0, 8, "Hidden", "1"));
    ASSERT_TRUE(w.StoreProperty(0, 9, "Hidden", "1"));  // duplicate handle: written once
    ASSERT_TRUE(w.StoreProperty(0, -1, "Project", "demo"));
    ASSERT_TRUE(w.StoreProperty(15, 8, "Comment", "late \"one\""));
    for (int t = 0; t < 40; ++t) {
        ASSERT_TRUE(w.SetTime(t * 500));
        ASSERT_TRUE(Put(w, 1000, 2 + (t & 1)));
        if (t % 3 == 0) {
            ASSERT_TRUE(Put(w, 1001, 2 + (t / 3 & 1)));
        }
        for (int bit = 0; bit < 4; ++bit) ASSERT_TRUE(Put(w, 20 + bit, 2 + (t >> bit & 1)));
        if (t % 7 == 0) {
            ASSERT_TRUE(w.SetDelta(2));
            ASSERT_TRUE(Put(w, 8, static_cast<std::uint64_t>(t / 7 % 3)));
        }
        ASSERT_TRUE(PutReal(w, 9, t * 0.25));
        ASSERT_TRUE(Put(w, 10, static_cast<std::uint64_t>(-t)));
        ASSERT_TRUE(Put(w, 11, static_cast<std::uint64_t>(t % 2)));
        if (t == 13) {
            ASSERT_TRUE(w.Flush());
        }
        if (t == 26) {
            ASSERT_TRUE(w.Commit());
            ASSERT_TRUE(w.Resume());
        }
    }
    if (!timed) {
        ASSERT_TRUE(w.SetDefaultEndTime(20000));
    }
    ASSERT_TRUE(w.Commit());
}

TEST(TarvelWrite, SmallDesignsMatchTheirGoldenFiles) {
    ScratchFolder folder;
    for (bool timed : {false, true}) {
        const std::string path = folder.File(timed ? "timed.twf" : "untimed.twf");
        Sources sources;
        ITarvelWrite* w = timed ? CreateStreamWriteTimed(path.c_str(), &sources) : CreateStreamWrite(path.c_str());
        ASSERT_NE(w, nullptr);
        WriteDesign(*w, timed);
        if (timed) {
            ASSERT_TRUE(w->Resume());
            ASSERT_TRUE(w->SetTime(30000));
            for (int s = 1; s <= 4; ++s) {
                ASSERT_TRUE(w->StoreValueWithSource(1000, reinterpret_cast<const unsigned char*>("\3\0\0\0"), s % 3));
            }
            ASSERT_TRUE(w->StoreSource(40) && w->StoreSource(0));
        }
        EXPECT_STREQ(w->GetFileName(), path.c_str());
        // Released without a commit: what came after the last commit stays behind its mark.
        ASSERT_TRUE(w->Release());
        ExpectGolden(timed ? "writer_timed.twf" : "writer_untimed.twf", ReadBytes(path));
        EXPECT_FALSE(std::ifstream(path + ".log").good());
    }
}

const std::string kLongType = "x#1" + std::string(2000, 'y');
const std::string kLongRefusal = "Invalid typeinfo '" + kLongType + "'";

// One refusal: the steps that lead to it, its message, as the log must hold it.
struct Refusal {
    const char* message;
    std::function<bool(ITarvelWrite&)> fails;
};

TEST(TarvelWrite, EveryRefusalLogsItsMessageAloneAndLaterCallsFailQuietly) {
    const unsigned char one[8] = {3, 0, 0, 0, 0, 0, 0, 0};
    const std::vector<Refusal> refusals = {
        {"Invalid typeinfo 'x#1'", [](ITarvelWrite& w) { return w.SetTypeInfo(1, "x#1"); }},
        {"Two different typeinfos specified for signal 1",
         [](ITarvelWrite& w) { return w.SetTypeInfo(1, kStdLogic) && w.SetTypeInfo(1, "f#4#real"); }},
        {"Unknown mode 12", [](ITarvelWrite& w) { return w.SetTypeInfo(1, kStdLogic) && w.StoreSignal(1, 12, -1, 0, "a", 0); }},
        {"Unknown mode -1", [](ITarvelWrite& w) { return w.StoreSignal(1, -1, -1, 0, "a", 0); }},
        {"Internal error in StoreSignal(-4)", [](ITarvelWrite& w) { return w.StoreSignal(-4, 0, -1, 0, "a", 0); }},
        {"Internal error in StoreBus(-2)", [](ITarvelWrite& w) { return w.StoreBus(-2, 0, 2, -1, 0, "a", 0); }},
        {"Scalar out of range: 4 for signal 5",
         [](ITarvelWrite& w) { return w.StoreBus(1, 0, 4, -1, 0, "b", 0) && w.StoreSignal(5, 0, 1, 4, "e", 0); }},
        {"Scalar 1 redefined for handle 6", [](ITarvelWrite& w) {
             return w.StoreBus(1, 0, 4, -1, 0, "b", 0) && w.StoreSignal(5, 0, 1, 1, "e", 0) && w.StoreSignal(6, 0, 1, 1, "f", 0);
         }},
        {"Internal error in StoreProperty(3)", [](ITarvelWrite& w) { return w.StoreProperty(0, 3, "VBus", "1"); }},
        {"Negative offset in MoveTime", [](ITarvelWrite& w) { return w.MoveTime(0) && w.MoveTime(-1); }},
        {"SetTime tries to move back in time", [](ITarvelWrite& w) { return w.SetTime(5) && w.SetTime(5) && w.SetTime(4); }},
        {"SetDelta tries to move back in time", [](ITarvelWrite& w) { return w.SetDelta(3) && w.SetDelta(3) && w.SetDelta(2); }},
        {"GetValueSize called for unknown handle 77", [](ITarvelWrite& w) { return w.GetValueSize(77) >= 0; }},
        {"StoreValueWithSource called for unknown handle 77", [&](ITarvelWrite& w) { return w.StoreValue(77, one); }},
        {"SetEventsStore called for unknown handle 77",
         [](ITarvelWrite& w) { return w.SetEventsStore(77, KEventsStore()); }},
        {"SetEventsStore(1) called after StoreValue", [&](ITarvelWrite& w) {
             return w.SetTypeInfo(1, kStdLogic) && w.StoreValue(1, one) && w.SetEventsStore(1, KEventsStore());
         }},
        {"SetEventsStore(1) called for non-scalar",
         [](ITarvelWrite& w) { return w.SetTypeInfo(1, kVector4) && w.SetEventsStore(1, KEventsStore()); }},
        {"Cannot convert data 9 0 0 0 to string",
         [&](ITarvelWrite& w) {
             const unsigned char nine[4] = {9, 0, 0, 0};
             return w.SetTypeInfo(1, kStates) && w.StoreValue(1, nine) && w.Flush();
         }},
        {"Unknown typeindex 0 for handle 2",
         [&](ITarvelWrite& w) { return w.StoreSignal(2, 0, -1, 0, "untyped", 0) && w.StoreValue(2, one) && w.Flush(); }},
        {"StoreSource called for unknown source 7",  // no callback: no source is known
         [](ITarvelWrite& w) { return w.StoreSource(0) && w.StoreSource(7); }},
        {kLongRefusal.c_str(), [](ITarvelWrite& w) { return w.SetTypeInfo(1, kLongType.c_str()); }},  // a long message whole
    };
    ScratchFolder folder;
    int n = 0;
    for (const Refusal& refusal : refusals) {
        const std::string path = folder.File("refusal" + std::to_string(n++) + ".twf");
        ITarvelWrite* w = CreateStreamWrite(path.c_str());
        ASSERT_NE(w, nullptr);
        EXPECT_FALSE(refusal.fails(*w)) << refusal.message;
        EXPECT_EQ(ReadBytes(path + ".log"), refusal.message);
        // Everything fails from now on, and the log stays as it is.
        EXPECT_FALSE(w->SetTime(1000000));
        EXPECT_FALSE(w->SetTypeInfo(500, kStdLogic));
        EXPECT_FALSE(w->Flush());
        EXPECT_FALSE(w->Commit());
        EXPECT_FALSE(ReleaseFailedWriter(w));
        EXPECT_EQ(ReadBytes(path + ".log"), refusal.message);
    }
}

TEST(TarvelWrite, TimedWritersRefuseADefaultEndTimeAndFactoriesRefuseBadPaths) {
    ScratchFolder folder;
    const std::string path = folder.File("timed.twf");
    ITarvelWrite* w = CreateStreamWriteTimed(path.c_str());
    ASSERT_NE(w, nullptr);
    EXPECT_FALSE(w->SetDefaultEndTime(5));
    EXPECT_EQ(ReadBytes(path + ".log"), "SetDefaultEndTime used for timed tarvel");
    ReleaseFailedWriter(w);
    const std::string bad = folder.File("no/such/folder/x.twf");
    EXPECT_EQ(CreateStreamWrite(bad.c_str()), nullptr);
    const std::string unwritable = folder.path;  // a folder cannot be opened as a file
    EXPECT_EQ(CreateStreamWrite(unwritable.c_str()), nullptr);
    EXPECT_EQ(ReadBytes(unwritable + ".log"), "Cannot open output file");
    std::remove((unwritable + ".log").c_str());
}

TEST(TarvelWrite, AttachedStoresAndRepeatedIntervalsWriteOneBlockPerInterval) {
    ScratchFolder folder;
    const std::string path = folder.File("attached.twf");
    ITarvelWrite* w = CreateStreamWrite(path.c_str());
    ASSERT_NE(w, nullptr);
    ASSERT_TRUE(w->SetTypeInfo(1, "i#7#integer") && w->StoreSignal(1, 0, -1, 0, "a", 0));
    ASSERT_TRUE(w->SetTypeInfo(2, "i#7#integer") && w->StoreSignal(2, 0, -1, 0, "b", 0));
    KEventsStore store;
    store.SetSize(4);
    const unsigned char five[4] = {5, 0, 0, 0};
    store.push_back(100, 0, five);
    store.push_end(100, 0);
    ASSERT_TRUE(w->SetEventsStore(1, store) && w->SetEventsStore(2, store));  // equal stores: one block
    ASSERT_TRUE(w->Flush());
    ASSERT_TRUE(w->Flush());  // nothing stored: nothing written
    ASSERT_TRUE(w->SetTime(200) && Put(*w, 1, 6));
    ASSERT_TRUE(w->SetEventsStore(2, store));  // accepted again after the flush
    // A store of wider values than the type's, then a value: only the type's 4 bytes are read.
    ASSERT_TRUE(w->SetTypeInfo(3, "i#7#integer") && w->StoreSignal(3, 0, -1, 0, "c", 0));
    KEventsStore wide;
    wide.SetSize(8);
    ASSERT_TRUE(w->SetEventsStore(3, wide) && Put(*w, 3, 9));
    ASSERT_TRUE(w->Release());
    const std::string text = ReadBytes(path);
    EXPECT_NE(text.find("$WAVES 1 2\r\nT 100\r\n$VALUES\r\nV 1\r\n5\r\n$END\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("$WAVES 1\r\nT 200\r\n$VALUES\r\nV 1\r\n6\r\n$END\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("$WAVES 3\r\n=0 T 200\r\n$VALUES\r\nV 1\r\n9\r\n$END\r\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("$SOURCES"), std::string::npos);
}

// Sources known to a writer's callback, one for each test below.
struct TwoSources final : ISourceCallback {
    bool GetSourceLocation(int source, const char** fileName, int* line) const override {
        if (source != 1 && source != 2) return false;
        *fileName = "a.vhd";
        *line = source;
        return true;
    }
};

// The events of `handle` as " time/delta=value@source" items, read back with the raw reader.
std::string EventsOf(IRawTarvelRead& r, int handle) {
    const KEventsStore* store = r.GetSignalData(handle);
    return store ? DumpEvents(*store, false, ~0u) : "no store";
}

std::size_t Count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += what.size()) ++n;
    return n;
}

TEST(TarvelWrite, ReleaseFlushesAndClosesWithoutCommitting) {
    ScratchFolder folder;
    auto writer = [&](const std::string& path) {
        ITarvelWrite* w = CreateStreamWrite(path.c_str());
        EXPECT_TRUE(w && w->SetTypeInfo(1, kStdLogic) && w->StoreSignal(1, 1, -1, 0, "a", 0) && w->SetTime(5) && Put(*w, 1, 3));
        return w;
    };
    // Never committed: the events are flushed, but there is no terminator and readers refuse it.
    const std::string never = folder.File("never.twf");
    ASSERT_TRUE(writer(never)->Release());
    const std::string bytes = ReadBytes(never);
    EXPECT_EQ(bytes.rfind("$WAVE4\r\n", 0), 0u);
    EXPECT_NE(bytes.find("$WAVES 1\r\n"), std::string::npos) << bytes;
    EXPECT_EQ(bytes.find("$ENDWAVE"), std::string::npos) << bytes;
    EXPECT_EQ(CreateRawTarvelRead(never.c_str()), nullptr);
    // Committed, resumed and written on: read as it was at its commit.
    const std::string resumed = folder.File("resumed.twf");
    ITarvelWrite* w = writer(resumed);
    ASSERT_TRUE(w->Commit() && w->Resume() && w->SetTime(10) && Put(*w, 1, 2) && w->Release());
    EXPECT_NE(ReadBytes(resumed).find("\r\n:"), std::string::npos);
    IRawTarvelRead* r = CreateRawTarvelRead(resumed.c_str());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(EventsOf(*r, 1), " 5/0=3");
    DeleteRawTarvelRead(r);
    // A writer that failed cannot flush: its last Release answers false and keeps it, and so does
    // a second one.
    w = writer(folder.File("failed.twf"));
    ASSERT_FALSE(w->SetTime(4));
    EXPECT_FALSE(w->Release());
    EXPECT_FALSE(w->AddRef() && w->Release());
    DestroyObject(static_cast<KTarvelWrite*>(w));
}

TEST(TarvelWrite, ASignalDeclaredWithoutATypeReadsBackWithNone) {
    ScratchFolder folder;
    const std::string path = folder.File("untyped.twf");
    ITarvelWrite* w = CreateStreamWrite(path.c_str());
    ASSERT_TRUE(w && w->StoreSignal(4, 1, -1, 0, "plain", 0) && w->Commit() && w->Release());
    IRawTarvelRead* r = CreateRawTarvelRead(path.c_str());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->GetTypeId(4), -1);
    EXPECT_EQ(r->GetTypeInfo(r->GetTypeId(4)), nullptr);
    DeleteRawTarvelRead(r);
}

// Handles with equal events since the last flush, and equal types, are written as one block that
// lists them all, whichever path their events took (straight from the staging log, through
// their stores when the log drained or a source was given, or an attached store).
TEST(TarvelWrite, HandlesWithEqualEventsShareOneBlock) {
    ScratchFolder folder;
    for (const std::uint32_t stageLimit : {0u, 5u, EventStage::kCapacity}) {
        SCOPED_TRACE("stage limit " + std::to_string(stageLimit));
        const std::string path = folder.File("equal" + std::to_string(stageLimit) + ".twf");
        TwoSources sources;
        ITarvelWrite* w = CreateStreamWriteTimed(path.c_str(), &sources);
        ASSERT_NE(w, nullptr);
        static_cast<KTarvelWrite*>(w)->SetStageLimit(stageLimit);
        for (int h = 1; h <= 9; ++h) ASSERT_TRUE(w->SetTypeInfo(h, h == 4 ? "e#4#fourc4 01XZ" : kStdLogic) && w->StoreSignal(h, 1, -1, 0, "s", 0));
        KEventsStore attached;
        attached.SetSize(4);
        for (int t = 0; t < 8; ++t) {
            ASSERT_TRUE(w->SetTime(t * 10));
            const std::uint64_t v = 2 + (t * 7 % 3 == 0);
            for (int h : {3, 1, 2, 4}) ASSERT_TRUE(Put(*w, h, v));  // 4: the same numbers, another type
            ASSERT_TRUE(Put(*w, 5, t == 7 ? 8 : v));                // one value differs
            for (int h : {6, 7}) ASSERT_TRUE(w->StoreValueWithSource(h, reinterpret_cast<const unsigned char*>("\3\0\0\0"), 1 + t % 2));
            const unsigned char bytes[4] = {static_cast<unsigned char>(v), 0, 0, 0};
            attached.push_back(t * 10, 0, bytes);
        }
        attached.push_end(70, 0);
        ASSERT_TRUE(w->SetEventsStore(9, attached));
        ASSERT_TRUE(w->Flush());
        const std::string first = ReadBytes(path);
        // {1, 2, 3, 9}, {4}, {5}, {6, 7}.
        EXPECT_EQ(Count(first, "$WAVES"), 4u) << first;
        EXPECT_EQ(Count(first, "$SOURCES"), 1u) << first;
        // The second interval: 1 and 5 are equal now, though they were not before.
        ASSERT_TRUE(w->SetTime(100) && Put(*w, 1, 3) && Put(*w, 5, 3) && Put(*w, 2, 2) && w->Commit() && w->Release());
        EXPECT_EQ(Count(ReadBytes(path).substr(first.size()), "$WAVES"), 2u) << ReadBytes(path);
        IRawTarvelRead* r = CreateRawTarvelRead(path.c_str());
        ASSERT_NE(r, nullptr);
        const std::string ones = " 0/0=3 10/0=2 20/0=2 30/0=3 40/0=2 50/0=2 60/0=3 70/0=2";
        for (int h : {1, 5}) EXPECT_EQ(EventsOf(*r, h), (h == 5 ? ones.substr(0, ones.size() - 1) + "8" : ones) + " 100/0=3") << h;
        for (int h : {3, 4, 9}) EXPECT_EQ(EventsOf(*r, h), ones) << h;
        EXPECT_EQ(EventsOf(*r, 2), ones + " 100/0=2");
        for (int h : {6, 7}) EXPECT_EQ(EventsOf(*r, h), " 0/0=3@1 10/0=3@2 20/0=3@1 30/0=3@2 40/0=3@1 50/0=3@2 60/0=3@1 70/0=3@2") << h;
        DeleteRawTarvelRead(r);
    }
}

}  // namespace
}  // namespace Tarvel::Testing
