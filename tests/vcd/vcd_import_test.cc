// import-vcd on hand-written VCDs, read back with the raw reader: declarations (scopes, vectors
// as buses of std_logic elements, integers, reals, events), values (the nine characters,
// extension of short vectors, integers' signs, repeated values), several changes at one time as
// delta cycles, aliases, reports of what cannot be imported, refused inputs, and commits that a
// reader follows while the import runs. Tool tests.
#include <gtest/gtest.h>
#include <sorvat/typeinfo.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <thread>

#include "vcd/vcd_test_support.h"

namespace TarvelTool::Testing {
namespace {

struct Signal {
    std::string type;  // "" for a scope
    int position = 0;
    int children = 0;
    std::string events;  // "TIME+DELTA:VALUE" each, blank-separated
};

struct File {
    std::int64_t resolution = 0;
    std::int64_t endTime = 0;
    std::map<std::string, Signal> signals;  // by full name
};

// Reads a waveform file back: every signal by full name, events as text.
File ReadBack(const std::string& path) {
    Tarvel::IRawTarvelRead* r = Tarvel::CreateRawTarvelRead(path.c_str());
    if (!r) throw std::runtime_error("cannot read " + path);
    File file{r->GetResolution(), r->GetEndTime(), {}};
    std::map<int, std::string> names;  // by number
    for (auto s = r->BeginSignals(); s != r->EndSignals(); ++s) {
        char name[256];
        int size = sizeof name;
        Signal signal;
        Tarvel::IRawTarvelRead::SignalIterator parent;
        r->GetSignalPlace(s, &signal.children, nullptr, name, &size, &parent, &signal.position);
        std::string full = name;
        if (parent != r->EndSignals()) full = names[*parent] + (name[0] == '(' ? "" : ".") + full;
        names[*s] = full;
        const char* type = r->GetTypeInfo(r->GetTypeId(s));
        signal.type = type ? type : "";
        const Sorvat::KTypeInfo info(type);
        Tarvel::KEventData e;
        for (bool more = r->GetSignalData(s)->GetFirstEvent(&e); more; more = r->GetSignalData(s)->GetNextEvent(&e)) {
            unsigned char value[8] = {};
            char text[64] = "?";
            e.GetValue(value, sizeof value);
            info.GetValueString_OldFormatLen(text, sizeof text, value, 0, 0);
            signal.events += (signal.events.empty() ? "" : " ") + std::to_string(e.GetTime()) + "+" + std::to_string(e.GetDelta()) + ":" + text;
        }
        file.signals[full] = signal;
    }
    Tarvel::DeleteRawTarvelRead(r);
    return file;
}

struct Result {
    Imported imported;
    File file;
};
Result Import(const std::string& vcd, VcdImportOptions options = {}) {
    Folder folder;
    Result result{ImportFile(folder.Write("in.vcd", vcd), folder.File("out.twf"), options), {}};
    result.file = ReadBack(folder.File("out.twf"));
    return result;
}

constexpr const char* kLogic = "e#9#std_logicc9 UX01ZWLH-";

TEST(VcdImport, DeclarationsBecomeScopesSignalsAndBuses) {
    const Result r = Import(
        "$date today $end $version sim $end $timescale 10 ns $end\n"
        "$var wire 1 ? top $end\n"
        "$scope module tb $end\n"
        " $var reg 1 ! clk $end\n"
        " $scope task dut $end\n"
        "  $var wire 4 \" data [3:0] $end\n"
        "  $var wire 3 # asc[0:2] $end\n"
        "  $var wire 8 $ plain $end\n"
        "  $var wire 1 % bit [5] $end\n"
        " $upscope $end\n"
        " $var integer 32 & i [31:0] $end\n"
        " $var longint 64 ' l $end\n"
        " $var time 64 ( t $end\n"
        " $var real 1 ) r $end\n"
        " $var realtime 64 * rt $end\n"
        " $var event 1 + ev $end\n"
        " $var integer 80 , wide $end\n"
        "$upscope $end\n"
        "$enddefinitions $end\n");
    ASSERT_EQ(r.imported.result.status, VcdImportResult::kOk) << r.imported.result.message;
    EXPECT_TRUE(r.imported.warnings.empty()) << r.imported.warnings[0];
    EXPECT_EQ(r.file.resolution, 10000000);
    EXPECT_EQ(r.imported.result.scopes, 2u);
    EXPECT_EQ(r.imported.result.variables, 13u);
    const auto& s = r.file.signals;
    EXPECT_EQ(s.at("top").type, kLogic);
    EXPECT_EQ(s.at("tb").type, "");
    EXPECT_EQ(s.at("tb").children, 9);
    EXPECT_EQ(s.at("tb.clk").position, 0);
    EXPECT_EQ(s.at("tb.dut").type, "");
    EXPECT_EQ(s.at("tb.dut").position, 1);
    EXPECT_EQ(s.at("tb.dut.data").type, "a#16#std_logic_vector[3d0]" + std::string(kLogic));
    EXPECT_EQ(s.at("tb.dut.data").children, 4);
    EXPECT_EQ(s.at("tb.dut.data(3)").type, kLogic);
    EXPECT_EQ(s.at("tb.dut.data(3)").position, 0);  // the left index first
    EXPECT_EQ(s.at("tb.dut.data(0)").position, 3);
    EXPECT_EQ(s.at("tb.dut.asc").type, "a#16#std_logic_vector[0t2]" + std::string(kLogic));
    EXPECT_EQ(s.at("tb.dut.asc(0)").position, 0);
    EXPECT_EQ(s.at("tb.dut.plain").type, "a#16#std_logic_vector[7d0]" + std::string(kLogic));
    EXPECT_EQ(s.at("tb.dut.bit").type, "a#16#std_logic_vector[5d5]" + std::string(kLogic));
    EXPECT_EQ(s.at("tb.i").type, "i#7#integer");
    EXPECT_EQ(s.at("tb.l").type, "l#7#longint");
    EXPECT_EQ(s.at("tb.t").type, "l#4#time");
    EXPECT_EQ(s.at("tb.r").type, "f#4#real");
    EXPECT_EQ(s.at("tb.rt").type, "f#8#realtime");
    EXPECT_EQ(s.at("tb.ev").type, "e#5#eventc9 UX01ZWLH-");
    EXPECT_EQ(s.at("tb.wide").children, 80);  // wider than 64 bits: a vector
}

TEST(VcdImport, ValuesKeepEveryCharacterAndOnlyChangesAreStored) {
    const Result r = Import(
        "$timescale 1 ps $end $scope module t $end\n"
        "$var reg 1 ! a $end $var reg 4 \" v [3:0] $end $var integer 32 # i $end\n"
        "$var byte 8 $ b $end $var time 64 % tm $end $var real 64 & x $end $var event 1 ' e $end\n"
        "$upscope $end $enddefinitions $end\n"
        "#0 $dumpvars U! bx \" b11111111111111111111111111111011 # b11111111 $ b1 % r0.5 & 1' $end\n"
        "#1 X! b1 \" b11 # b1111111 $ r-2.5e-3 & 1'\n"
        "#2 0! b0001 \" b11 # 1'\n"
        "#3 1! bz1 \" $comment a comment $end\n"
        "#4 Z! bZ1 \" #5 w! #6 l! #7 h! #8 -! #9 u!\n");
    ASSERT_EQ(r.imported.result.status, VcdImportResult::kOk) << r.imported.result.message;
    EXPECT_TRUE(r.imported.warnings.empty()) << r.imported.warnings[0];
    const auto& s = r.file.signals;
    EXPECT_EQ(s.at("t.a").events, "0+0:U 1+0:X 2+0:0 3+0:1 4+0:Z 5+0:W 6+0:L 7+0:H 8+0:- 9+0:U");
    // Each bit's changes only: bx -> xxxx, b1 -> 0001, b0001 again (nothing), bz1 -> zzz1.
    EXPECT_EQ(s.at("t.v(3)").events, "0+0:X 1+0:0 3+0:Z");
    EXPECT_EQ(s.at("t.v(0)").events, "0+0:X 1+0:1");
    EXPECT_EQ(s.at("t.i").events, "0+0:-5 1+0:3");
    EXPECT_EQ(s.at("t.b").events, "0+0:-1 1+0:127");
    EXPECT_EQ(s.at("t.tm").events, "0+0:1");
    EXPECT_EQ(s.at("t.x").events, "0+0:0.5 1+0:-0.0025");
    EXPECT_EQ(s.at("t.e").events, "0+0:1 1+0:1 2+0:1");  // an event's every firing counts
    EXPECT_EQ(r.imported.result.endTime, 9);
    EXPECT_EQ(r.file.endTime, 9);
}

TEST(VcdImport, ChangesOfOneVariableAtOneTimeBecomeDeltaCycles) {
    const Result r = Import(
        "$timescale 1 fs $end $scope module t $end $var wire 1 ! a $end $var wire 1 \" b $end $var wire 2 # v [1:0] $end\n"
        "$upscope $end $enddefinitions $end\n"
        "#5 1! 1\" 0! b01 # b10 # 1! 0\" #6 0!\n");
    ASSERT_EQ(r.imported.result.status, VcdImportResult::kOk) << r.imported.result.message;
    const auto& s = r.file.signals;
    // a: 1 (delta 0), 0 (second change: delta 1), 1 (delta 2, after v's second change).
    EXPECT_EQ(s.at("t.a").events, "5+0:1 5+1:0 5+2:1 6+0:0");
    EXPECT_EQ(s.at("t.b").events, "5+0:1 5+2:0");
    EXPECT_EQ(s.at("t.v(1)").events, "5+1:0 5+2:1");
    EXPECT_EQ(s.at("t.v(0)").events, "5+1:1 5+2:0");
}

TEST(VcdImport, AnAliasedCodeChangesEveryVariableThatHasIt) {
    const Result r = Import(
        "$timescale 1 ns $end $scope module tb $end $var reg 1 ! clk $end $scope module dut $end $var wire 1 ! clk $end\n"
        "$var wire 2 \" bus [1:0] $end $upscope $end $var wire 2 \" bus [1:0] $end\n"
        // Codes around the 8 bytes that one hash key holds: each its own variable.
        "$var wire 1 abcdefg c7 $end $var wire 1 abcdefgh c8 $end $var wire 1 abcdefghi c9 $end $upscope $end\n"
        "$enddefinitions $end #0 0! b10 \" 1abcdefg 0abcdefgh 1abcdefghi #10 1! b01 \" 0abcdefg\n");
    ASSERT_EQ(r.imported.result.status, VcdImportResult::kOk) << r.imported.result.message;
    const auto& s = r.file.signals;
    EXPECT_EQ(s.at("tb.clk").events, s.at("tb.dut.clk").events);
    EXPECT_EQ(s.at("tb.clk").events, "0+0:0 10+0:1");
    EXPECT_EQ(s.at("tb.bus(1)").events, s.at("tb.dut.bus(1)").events);
    EXPECT_EQ(s.at("tb.bus(1)").events, "0+0:1 10+0:0");
    EXPECT_EQ(s.at("tb.c7").events, "0+0:1 10+0:0");
    EXPECT_EQ(s.at("tb.c8").events, "0+0:0");
    EXPECT_EQ(s.at("tb.c9").events, "0+0:1");
    EXPECT_TRUE(r.imported.warnings.empty());
}

TEST(VcdImport, WhatCannotBeImportedIsReportedOncePerVariable) {
    const Result r = Import(
        "$scope module t $end $var string 1 ! s $end $var mystery 1 \" m $end $var integer 32 # i $end\n"
        "$var wire 4 $ v [3:0] $end $var real 64 % r $end $var wire 2 & w [1:0] $end\n"
        "$upscope $end $foo bar $end $timescale 1ps $end $enddefinitions $end\n"
        "#0 shello ! sbye ! 1\" bx # b1 # b0z # b12 $ b13 $ b1 $ r0.123456789 % r0.5 % r0.123456789 % r1 $\n"
        "#1 1? 0? b101 & b0 $ b111 &\n");
    ASSERT_EQ(r.imported.result.status, VcdImportResult::kOk) << r.imported.result.message;
    const std::vector<std::string> expected = {
        "in.vcd:1: t.s: string variable not imported",
        "in.vcd:1: t.m: variable type 'mystery' not imported",
        "in.vcd:3: $foo section ignored",
        "in.vcd:4: t.i: integer value 'x' with bits other than 0 and 1 ignored",
        "in.vcd:4: t.v: value '12' has a character that is no VCD value",
        "in.vcd:4: t.r: real values keep 6 significant digits in the waveform format (0.123456789 becomes 0.123457)",
        "in.vcd:5: value change for the undeclared identifier code '?' ignored",
        "in.vcd:5: t.w: value of 3 digits for 2 bits: the leftmost digits dropped",
    };
    const std::vector<std::string>& got = r.imported.warnings;
    ASSERT_EQ(got.size(), expected.size()) << ::testing::PrintToString(got);
    for (std::size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i].rfind(expected[i], 0), 0u) << got[i];
    EXPECT_EQ(r.imported.result.skipped, 2u);
    const auto& s = r.file.signals;
    EXPECT_EQ(s.count("t.s"), 0u);
    EXPECT_EQ(s.at("t.i").events, "0+0:1");  // b0z is ignored too
    EXPECT_EQ(s.at("t.v(0)").events, "0+0:1 1+0:0");
    EXPECT_EQ(s.at("t.w(1)").events, "1+0:0 1+1:1");  // b101: the rightmost 2
    EXPECT_EQ(s.at("t.r").events, "0+0:0.123457 0+1:0.5 0+2:0.123457");
}

TEST(VcdImport, UnreadableInputIsRefusedWithItsLineAndKeepsWhatCameBefore) {
    struct Case {
        const char* text;
        const char* message;
    };
    const char* header = "$scope module t $end $var wire 1 ! a $end $upscope $end $enddefinitions $end\n";
    const Case cases[] = {
        {"", "in.vcd:1: empty input: not a VCD file"},
        {"hello world\n", "in.vcd:1: 'hello' where a $ section should start: not a VCD file"},
        {"$scope module t $end\n$var wire 1 ! a $end\n", "in.vcd:3: no $enddefinitions"},  // the end's line
        {"$var wire 1 ! a\n", "in.vcd:2: $var has no $end"},
        {"$var wire x ! a $end", "in.vcd:1: $var size 'x' is no number"},
        {"$timescale 3 hours $end", "in.vcd:1: $timescale '3hours' is no time unit"},
        {"$upscope $end", "in.vcd:1: $upscope without $scope"},
    };
    for (const Case& c : cases) {
        const Result r = Import(c.text);
        EXPECT_EQ(r.imported.result.status, VcdImportResult::kBadInput) << c.text;
        EXPECT_EQ(r.imported.result.message.rfind(c.message, 0), 0u) << r.imported.result.message;
    }
    const Case late[] = {
        {"#10 1!\n#20 0!\n#15 1!\n", "in.vcd:4: time goes back from #20 to #15"},
        {"#10 1!\n#2x 0!\n", "in.vcd:3: '#2x' is no time"},
        {"#10 1!\n$var wire 1 \" b $end\n", "in.vcd:3: $var after $enddefinitions"},
        {"#10 1!\nq!\n", "in.vcd:3: 'q!' is no value change"},
        {"#10 1!\nb10", "in.vcd:3: vector value without identifier code"},
    };
    for (const Case& c : late) {
        const Result r = Import(header + std::string(c.text));
        EXPECT_EQ(r.imported.result.status, VcdImportResult::kBadInput) << c.text;
        EXPECT_EQ(r.imported.result.message, c.message);
        EXPECT_EQ(r.file.signals.at("t.a").events.rfind("10+0:1", 0), 0u) << c.text;  // committed
    }
}

TEST(VcdImport, CommitsComeEveryFewEventsAndAReaderFollowsThem) {
    Folder folder;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string output = folder.File("out.twf");
    VcdImportOptions options;
    options.commitEvents = 100;
    Imported imported;
    std::thread importer([&] { imported = ImportFile("/dev/fd/" + std::to_string(ends[0]), output, options); });
    auto put = [&](const std::string& text) { ASSERT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size())); };
    put("$scope module t $end $var wire 1 ! clk $end $upscope $end $enddefinitions $end\n");
    for (int cycle = 0; cycle < 100; ++cycle) put("#" + std::to_string(10 * cycle) + " 1!\n#" + std::to_string(10 * cycle + 5) + " 0!\n");
    put("#1000\n");  // the time changes after 100 and 200 events commit them
    // A reader sees the committed events while the import waits for more input.
    std::size_t seen = 0;
    for (int attempt = 0; attempt < 500 && seen < 200; ++attempt) {
        if (Tarvel::IRawTarvelRead* r = Tarvel::CreateRawTarvelRead(output.c_str())) {
            seen = r->GetSignalData(r->BeginSignals() += 1)->count();
            Tarvel::DeleteRawTarvelRead(r);
        }
        if (seen < 200) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(seen, 200u);
    put("1!\n");
    close(ends[1]);
    importer.join();
    close(ends[0]);
    EXPECT_EQ(imported.result.status, VcdImportResult::kOk) << imported.result.message;
    EXPECT_EQ(imported.result.commits, 4u);  // after the declarations, at #500 and #1000, at the end
    EXPECT_EQ(imported.warnings, std::vector<std::string>{"in.vcd:1: no $timescale: times are taken as picoseconds"});
    const std::string clk = ReadBack(output).signals.at("t.clk").events;
    EXPECT_EQ(std::count(clk.begin(), clk.end(), ':'), 201);
}

}  // namespace
}  // namespace TarvelTool::Testing
