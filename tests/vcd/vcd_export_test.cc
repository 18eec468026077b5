// export-vcd on writer-made files: what each kind of signal becomes (scopes, vectors rebuilt
// from their elements, records and other arrays as scopes, virtual buses, enumerations as
// strings, integers, reals), the last delta's value per time, the timescale of any resolution,
// shared codes for equal stores, long stores taken in batches and the same bytes for any window
// size, and refused files. Tool tests.
#include <gtest/gtest.h>

#include <cstring>

#include "vcd/vcd_test_support.h"

namespace TarvelTool::Testing {
namespace {

#define W(call) \
    do { if (!(call)) throw std::runtime_error("failed: " #call); } while (false)

constexpr const char* kLogic = "e#9#std_logicc9 UX01ZWLH-";

void Put(Tarvel::ITarvelWrite& w, int handle, std::uint64_t value) {
    unsigned char bytes[8];
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    W(w.StoreValue(handle, bytes));
}
void PutReal(Tarvel::ITarvelWrite& w, int handle, double value) {
    std::uint64_t bits;
    std::memcpy(&bits, &value, 8);
    Put(w, handle, bits);
}

// A design of every kind of signal, at a resolution of 5 ps.
void WriteDesign(const std::string& path) {
    Tarvel::ITarvelWrite* w = Tarvel::CreateStreamWriteTimed(path.c_str());
    W(w);
    W(w->SetResolution(5000));
    W(w->StoreSignal(1, Tarvel::kPortNone, -1, 0, "top", 0));
    W(w->SetTypeInfo(2, kLogic) && w->StoreSignal(2, Tarvel::kPortIn, 1, 0, "clk", 0));
    W(w->SetTypeInfo(3, "a#16#std_logic_vector[3d0]e#9#std_logicc9 UX01ZWLH-"));
    W(w->StoreBus(3, Tarvel::kPortOut, 0, 1, 1, "data", 0));
    for (int p = 0; p < 4; ++p) W(w->SetTypeInfo(10 + p, kLogic) && w->StoreSignal(10 + p, Tarvel::kPortOut, 3, p, "", 0));
    W(w->SetTypeInfo(4, "e#5#staten3#4#IDLE#4#LOAD#3#RUN") && w->StoreSignal(4, Tarvel::kPortSignal, 1, 2, "state", 0));
    W(w->SetTypeInfo(5, "i#7#integer") && w->StoreSignal(5, Tarvel::kPortSignal, 1, 3, "count", 0));
    W(w->SetTypeInfo(6, "f#4#real") && w->StoreSignal(6, Tarvel::kPortSignal, 1, 4, "level", 0));
    W(w->SetTypeInfo(7, "l#4#time") && w->StoreSignal(7, Tarvel::kPortSignal, 1, 5, "stamp", 0));
    W(w->SetTypeInfo(8, "r#6#packet2#4#addri#7#integer#5#valide#3#bitc2 01"));
    W(w->StoreBus(8, Tarvel::kPortSignal, 0, 1, 6, "pkt", 0));
    W(w->SetTypeInfo(20, "i#7#integer") && w->StoreSignal(20, Tarvel::kPortSignal, 8, 0, "", 0));
    W(w->SetTypeInfo(21, "e#3#bitc2 01") && w->StoreSignal(21, Tarvel::kPortSignal, 8, 1, "", 0));
    W(w->SetTypeInfo(9, "e#7#booleann2#5#FALSE#4#TRUE") && w->StoreSignal(9, Tarvel::kPortSignal, 1, 7, "same as clk", 0));
    W(w->SetTypeInfo(30, kLogic) && w->StoreSignal(30, Tarvel::kPortSignal, -1, 0, "alone", 0));
    W(w->SetTypeInfo(31, kLogic) && w->StoreSignal(31, Tarvel::kPortSignal, -1, 0, "twin", 0));
    for (int cycle = 0; cycle < 4; ++cycle) {
        W(w->SetTime(cycle * 10));
        Put(*w, 2, 3);  // clk '1'
        Put(*w, 30, cycle % 2 ? 3 : 2);
        Put(*w, 31, cycle % 2 ? 3 : 2);
        W(w->SetDelta(1));
        Put(*w, 10 + cycle, 4);  // element (3 - cycle) goes 'Z' one delta later
        Put(*w, 4, static_cast<std::uint64_t>(cycle % 3));
        Put(*w, 5, static_cast<std::uint64_t>(-cycle) & 0xFFFFFFFFu);
        W(w->SetDelta(2));
        Put(*w, 5, static_cast<std::uint64_t>(100 + cycle));  // the last delta wins
        PutReal(*w, 6, 0.25 * cycle);
        Put(*w, 7, 1ull << 40 | static_cast<std::uint64_t>(cycle));
        Put(*w, 20, static_cast<std::uint64_t>(cycle));
        Put(*w, 21, static_cast<std::uint64_t>(cycle % 2));
        Put(*w, 9, static_cast<std::uint64_t>(cycle % 2));
        W(w->SetTime(cycle * 10 + 5));
        Put(*w, 2, 2);
    }
    W(w->SetTime(100) && w->Commit() && w->Release());
}

TEST(VcdExport, EveryKindOfSignalBecomesItsVariable) {
    Folder folder;
    WriteDesign(folder.File("d.twf"));
    const VcdExportResult result = ExportFile(folder.File("d.twf"), folder.File("d.vcd"));
    EXPECT_EQ(result.timescale, "1 ps");
    EXPECT_EQ(result.endTime, 500);
    const VcdModel model = ReadVcdModel(folder.File("d.vcd"));
    EXPECT_EQ(model.unit, 1000);
    EXPECT_EQ(model.scopes, (std::set<std::string>{"top", "top.pkt"}));
    std::map<std::string, std::string> declared;
    for (const auto& [key, var] : model.variables) declared[key] = var.keyword + " " + std::to_string(var.width);
    EXPECT_EQ(declared, (std::map<std::string, std::string>{
                            {"alone", "reg 1"},
                            {"twin", "reg 1"},
                            {"top.clk", "reg 1"},
                            {"top.data [3:0]", "reg 4"},
                            {"top.state", "string 1"},
                            {"top.count", "integer 32"},
                            {"top.level", "real 64"},
                            {"top.stamp", "time 64"},
                            {"top.pkt.addr", "integer 32"},
                            {"top.pkt.valid", "reg 1"},
                            {"top.same_as_clk", "string 1"},
                        }));
    auto changes = [&](const std::string& key) {
        std::string text;
        for (const VcdChange& c : model.variables.at(key).changes) text += std::to_string(c.time / 1000) + ":" + c.value + " ";
        return text;
    };
    // Times are in ps: the file's units of 5 ps, multiplied.
    EXPECT_EQ(changes("top.clk"), "0:1 25:0 50:1 75:0 100:1 125:0 150:1 175:0 ");
    // Rebuilt from elements that change one delta after the clock; one never changed keeps x.
    EXPECT_EQ(changes("top.data [3:0]"), "0:zxxx 50:zzxx 100:zzzx 150:zzzz ");
    EXPECT_EQ(changes("top.count"), "0:100 50:101 100:102 150:103 ");
    EXPECT_EQ(changes("top.state"), "0:IDLE 50:LOAD 100:RUN 150:IDLE ");
    EXPECT_EQ(changes("top.level"), "0:0 50:0.25 100:0.5 150:0.75 ");
    EXPECT_EQ(changes("top.stamp"), "0:1099511627776 50:1099511627777 100:1099511627778 150:1099511627779 ");
    EXPECT_EQ(changes("top.pkt.valid"), "0:0 50:1 100:0 150:1 ");
    EXPECT_EQ(changes("top.same_as_clk"), "0:FALSE 50:TRUE 100:FALSE 150:TRUE ");
    EXPECT_EQ(model.endTime, 500000);
    // Signals with equal events share one identifier code, as a simulator writes a net seen twice.
    const std::string text = ReadText(folder.File("d.vcd"));
    const std::size_t alone = text.find(" alone $end"), twin = text.find(" twin $end");
    ASSERT_NE(twin, std::string::npos);
    EXPECT_EQ(text.substr(alone - 2, 2), text.substr(twin - 2, 2)) << text;  // " *" and " *"
    EXPECT_EQ(result.aliases, 1u);
}

TEST(VcdExport, AVirtualBusIsAScopeOfItsMembers) {
    Folder folder;
    Tarvel::ITarvelWrite* w = Tarvel::CreateStreamWriteTimed(folder.File("v.twf").c_str());
    W(w);
    W(w->SetTypeInfo(1, kLogic) && w->StoreSignal(1, Tarvel::kPortIn, -1, 0, "a", 0));
    W(w->SetTypeInfo(2, "i#7#integer") && w->StoreSignal(2, Tarvel::kPortIn, -1, 0, "b", 0));
    W(w->StoreBus(3, Tarvel::kPortVirtualBus, 1, -1, 0, "group", 0) && w->StoreProperty(0, 1, "VBus", "1"));
    Put(*w, 1, 3);
    Put(*w, 2, 7);
    W(w->Commit() && w->Release());
    ExportFile(folder.File("v.twf"), folder.File("v.vcd"));
    const VcdModel model = ReadVcdModel(folder.File("v.vcd"));
    EXPECT_EQ(model.scopes, (std::set<std::string>{"group"}));
    EXPECT_EQ(model.variables.count("group.a"), 1u);
    EXPECT_EQ(model.variables.count("b"), 1u);
}

// Stores are decoded in batches: over hundreds of times, with one to three deltas each so that
// batch edges fall between the deltas of one time, every time shows its last delta's value, for
// 4-byte, 8-byte and std_logic stores; windows that cut the batches anywhere give the same bytes.
TEST(VcdExport, TheLastDeltaWinsAcrossLongStores) {
    Folder folder;
    Tarvel::ITarvelWrite* w = Tarvel::CreateStreamWriteTimed(folder.File("long.twf").c_str());
    W(w);
    W(w->SetTypeInfo(1, "i#7#integer") && w->StoreSignal(1, Tarvel::kPortSignal, -1, 0, "n", 0));
    W(w->SetTypeInfo(2, "l#4#time") && w->StoreSignal(2, Tarvel::kPortSignal, -1, 1, "wide", 0));
    W(w->SetTypeInfo(3, kLogic) && w->StoreSignal(3, Tarvel::kPortSignal, -1, 2, "bit", 0));
    constexpr int kTimes = 700;
    for (int t = 0; t < kTimes; ++t) {
        W(w->SetTime(10 * t + 10));
        const int deltas = 1 + (t * 7) % 3;
        for (int d = 0; d < deltas; ++d) {
            W(w->SetDelta(d));
            const bool last = d == deltas - 1;
            Put(*w, 1, last ? static_cast<std::uint64_t>(3 * t + 1) : 999999u);
            Put(*w, 2, last ? (std::uint64_t{1} << 40) + static_cast<std::uint64_t>(t) : 5u);
            Put(*w, 3, last ? static_cast<std::uint64_t>(2 + t % 2) : 4u);  // '0'/'1', 'Z' between
        }
    }
    W(w->SetTime(10 * kTimes + 10) && w->Commit() && w->Release());
    std::vector<VcdChange> n, wide, bit;
    for (int t = 0; t < kTimes; ++t) {
        const std::int64_t fs = (10 * t + 10) * std::int64_t{1000};
        n.push_back({fs, std::to_string(3 * t + 1)});
        wide.push_back({fs, std::to_string((std::uint64_t{1} << 40) + static_cast<std::uint64_t>(t))});
        bit.push_back({fs, t % 2 ? "1" : "0"});
    }
    std::string first;
    for (std::size_t window : {std::size_t{1} << 20, std::size_t{1}, std::size_t{37}, std::size_t{150}}) {
        VcdExportOptions options;
        options.windowEvents = window;
        ASSERT_TRUE(ExportVcd(folder.File("long.twf"), folder.File("long.vcd"), nullptr, options).ok);
        const std::string text = ReadText(folder.File("long.vcd"));
        if (first.empty()) {  // the window of all: the values; the others: the same bytes
            first = text;
            const VcdModel model = ReadVcdModel(folder.File("long.vcd"));
            EXPECT_TRUE(model.variables.at("n").changes == n);
            EXPECT_TRUE(model.variables.at("wide").changes == wide);
            EXPECT_TRUE(model.variables.at("bit").changes == bit);
        }
        EXPECT_EQ(text, first) << "window of " << window;
    }
}

TEST(VcdExport, FilesThatCannotBeReadOrWrittenAreRefused) {
    Folder folder;
    WriteDesign(folder.File("d.twf"));
    const std::string text = folder.Write("text.twf", "not a waveform\n");
    struct Case {
        std::string input, output, message;
    };
    const Case cases[] = {
        {folder.File("none.twf"), folder.File("o.vcd"), "cannot read " + folder.File("none.twf") + ": No such file or directory"},
        {text, folder.File("o.vcd"), text + ":1:1: no waveform file: the first line is no $WAVE header"},
        {folder.File("d.twf"), folder.path, "cannot create " + folder.path + ": Is a directory"},
        {folder.File("d.twf"), "/dev/full", "writing /dev/full failed: No space left on device"},
    };
    for (const Case& c : cases) {
        const VcdExportResult result = ExportVcd(c.input, c.output, nullptr);
        EXPECT_FALSE(result.ok) << c.message;
        EXPECT_EQ(result.message, c.message);
    }
}

}  // namespace
}  // namespace TarvelTool::Testing
