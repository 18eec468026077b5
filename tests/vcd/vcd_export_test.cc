// export-vcd on writer-made files: what each kind of signal becomes (scopes, vectors rebuilt
// from their elements, records as scopes, virtual buses, enumerations as strings, integers,
// reals), the last delta's value per time, the timescale of any resolution,
// shared codes for equal stores, long stores taken in batches and the same bytes for any window
// size, and refused files. Tool tests.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "tools/every_kind_design.h"
#include "vcd/vcd_test_support.h"

namespace TarvelTool::Testing {
namespace {

#define W(call) \
    do { if (!(call)) throw std::runtime_error("failed: " #call); } while (false)

constexpr const char* kLogic = "e#9#std_logicc9 UX01ZWLH-";
using Tarvel::Testing::Put;
using Tarvel::Testing::WriteDesign;

// The design of the tool's tests, at a resolution of 5 ps: times are in units of 1 ps, multiplied.
TEST(VcdExport, EveryKindOfSignalBecomesItsVariable) {
    Folder folder;
    WriteDesign(folder.File("d.twf"), 4, true, 5000);
    const VcdExportResult result = ExportFile(folder.File("d.twf"), folder.File("d.vcd"));
    EXPECT_EQ(result.timescale, "1 ps");
    EXPECT_EQ(result.endTime, 200000);
    const VcdModel model = ReadVcdModel(folder.File("d.vcd"));
    EXPECT_EQ(model.unit, 1000);
    // The record and the virtual bus become scopes; blanks in a name become underscores.
    EXPECT_EQ(model.scopes, (std::set<std::string>{"tb", "tb.dut", "tb.dut.pkt", "watch"}));
    std::map<std::string, std::string> declared;
    for (const auto& [key, var] : model.variables) declared[key] = var.keyword + " " + std::to_string(var.width);
    EXPECT_EQ(declared, (std::map<std::string, std::string>{
                            {"tb.clk", "reg 1"},
                            {"tb.same_as_clk", "reg 1"},
                            {"tb.dut.data [3:0]", "reg 4"},
                            {"tb.dut.count", "integer 32"},
                            {"tb.dut.level", "real 64"},
                            {"tb.dut.flag", "string 1"},
                            {"tb.dut.delay", "integer 64"},
                            {"tb.dut.big", "integer 64"},
                            {"tb.dut.pkt.addr", "integer 32"},
                            {"tb.dut.pkt.valid", "string 1"},
                            {"watch.state", "string 1"},
                        }));
    auto changes = [&](const std::string& key) {
        std::string text;
        for (const VcdChange& c : model.variables.at(key).changes) text += std::to_string(c.time / 1000) + ":" + c.value + " ";
        return text;
    };
    // A code that is no std_logic value (at 175 ps) is written x.
    EXPECT_EQ(changes("tb.clk"), "0:1 25000:0 50000:1 75000:0 100000:1 125000:0 150000:1 175000:x ");
    // Rebuilt from elements that change one delta after the clock; the one never given a value is x.
    EXPECT_EQ(changes("tb.dut.data [3:0]"), "0:x000 50000:x001 100000:x010 150000:x011 ");
    EXPECT_EQ(changes("tb.dut.count"), "0:0 50000:1 100000:2 150000:3 ");  // the last delta's
    EXPECT_EQ(changes("tb.dut.level"), "0:0 50000:0.25 100000:0.5 150000:0.75 ");
    EXPECT_EQ(changes("tb.dut.flag"), "0:a 50000:b 100000:a 150000:b ");
    EXPECT_EQ(changes("tb.dut.delay"), "0:0 50000:1500 100000:3000 150000:4500 ");
    EXPECT_EQ(changes("tb.dut.big"), "0:1099511627776 50000:1099511627777 100000:1099511627778 150000:1099511627779 ");
    EXPECT_EQ(changes("tb.dut.pkt.valid"), "0:FALSE 50000:TRUE 100000:FALSE 150000:TRUE ");
    EXPECT_EQ(changes("watch.state"), "0:IDLE 50000:LOAD 100000:RUN 150000:IDLE ");
    EXPECT_EQ(model.endTime, 200000000);
    // Signals with equal events share one identifier code, as a simulator writes a net seen twice.
    const std::string text = ReadText(folder.File("d.vcd"));
    const std::size_t clk = text.find(" clk $end"), twin = text.find(" same_as_clk $end");
    ASSERT_NE(twin, std::string::npos);
    EXPECT_EQ(text.substr(clk - 2, 2), text.substr(twin - 2, 2)) << text;  // " !" and " !"
    EXPECT_EQ(result.aliases, 1u);
    VcdExportOptions one;
    one.windowEvents = 1;  // windows of about one event each: the same bytes
    ASSERT_TRUE(ExportVcd(folder.File("d.twf"), folder.File("one.vcd"), nullptr, one).ok);
    EXPECT_EQ(ReadText(folder.File("one.vcd")), text);
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
    WriteDesign(folder.File("d.twf"), 2);
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
