// The comparison harness's own parts: the plain VCD writer and reader (against each other and
// against simulators' layouts), the FST peer, the workload generators and the lengthening of
// traces. A wrong count here would make every figure of the table wrong without any reader
// noticing.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "../vcd_writer.h"
#include "vcd_reader.h"
#include "workloads.h"
#ifdef TARVEL_BENCH_FST
#include "fst_peer.h"
#endif

namespace compare {
namespace {

struct Seen {
    std::int64_t time;
    int id;
    char kind;
    std::string text;
    bool operator==(const Seen&) const = default;
};

std::string TempPath(const char* name) {
    return testing::TempDir() + "/compare_" + std::to_string(getpid()) + "_" + name;
}

std::vector<Seen> ReadAll(const std::string& path, VcdReader* reader) {
    std::vector<Seen> seen;
    EXPECT_TRUE(reader->Open(path.c_str()));
    EXPECT_TRUE(reader->Run([&](const VcdReader::Change& c) {
        seen.push_back({c.time, c.id, c.kind, std::string(c.text, c.size)});
    }));
    return seen;
}

TEST(VcdReader, ReadsBackWhatTheVcdWriterWrote) {
    const std::string path = TempPath("roundtrip.vcd");
    {
        VcdWriter w(path.c_str());
        // 200 signals: codes of one and two characters.
        for (int s = 0; s < 200; ++s)
            w.Declare("s" + std::to_string(s), s % 3 == 0 ? VcdWriter::Kind::kBit
                                               : s % 3 == 1 ? VcdWriter::Kind::kInteger
                                                            : VcdWriter::Kind::kReal);
        w.EndDeclarations();
        w.SetTime(0);
        w.Change(0, 1);
        w.Change(199, 0xA5);  // 199 % 3 == 1: an integer
        w.SetTime(12345678901LL);
        double half = 0.5;
        std::uint64_t bits;
        std::memcpy(&bits, &half, 8);
        w.Change(95, bits);
        w.Change(93, 0);
        w.Change(1, 0);
    }
    VcdReader r;
    const std::vector<Seen> seen = ReadAll(path, &r);
    ASSERT_EQ(r.Vars().size(), 200u);
    EXPECT_EQ(r.Ids(), 200);
    EXPECT_EQ(r.Vars()[199].fullName, "s199");
    EXPECT_EQ(r.Vars()[199].type, "integer");
    EXPECT_EQ(r.Vars()[199].width, 32);
    EXPECT_EQ(r.Vars()[95].id, 95);
    const std::vector<Seen> expected = {{0, 0, 's', "1"},
                                        {0, 199, 'b', "10100101"},
                                        {12345678901LL, 95, 'r', "0.5"},
                                        {12345678901LL, 93, 's', "0"},
                                        {12345678901LL, 1, 'b', "0"}};
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(r.FindId("s42"), 42);
    EXPECT_EQ(r.FindId("s200"), -1);
    std::remove(path.c_str());
}

TEST(VcdReader, ReadsSimulatorLayouts) {
    // Scopes, a net under two names sharing its code, multi-line header sections, a comment,
    // codes past the direct table (four characters, and ten), $dumpvars, CR LF line ends and
    // a last line without its line feed.
    const std::string path = TempPath("layout.vcd");
    {
        std::ofstream f(path, std::ios::binary);
        f << "$date\n  today\n$end\n$version tool $end\n$timescale 1ps $end\n"
             "$scope module tb $end\n$comment not a var $end\n"
             "$var wire 1 ! clk $end\n$var wire 8 ~~~~ count [7:0] $end\n"
             "$scope module dut $end\n$var wire 1 ! clk $end\n$var real 64 abcdefghij level $end\n"
             "$upscope $end\n$upscope $end\n$enddefinitions $end\n"
             "#0\r\n$dumpvars\r\nx!\r\nbxx ~~~~\r\n$end\r\n#10\r\n1!\r\nb101 ~~~~\r\nr-2.5 abcdefghij\r\n#20\r\n0!";
    }
    VcdReader r;
    const std::vector<Seen> seen = ReadAll(path, &r);
    ASSERT_EQ(r.Vars().size(), 4u);
    EXPECT_EQ(r.Ids(), 3);
    EXPECT_EQ(r.Vars()[0].fullName, "tb.clk");
    EXPECT_EQ(r.Vars()[2].fullName, "tb.dut.clk");
    EXPECT_EQ(r.Vars()[2].id, r.Vars()[0].id);
    EXPECT_EQ(r.Vars()[3].fullName, "tb.dut.level");
    EXPECT_EQ(r.FindId("tb.count"), 1);
    const std::vector<Seen> expected = {{0, 0, 's', "x"},  {0, 1, 'b', "xx"},    {10, 0, 's', "1"},
                                        {10, 1, 'b', "101"}, {10, 2, 'r', "-2.5"}, {20, 0, 's', "0"}};
    EXPECT_EQ(seen, expected);
    std::remove(path.c_str());
}

TEST(VcdReader, RefusesWhatItCannotRead) {
    VcdReader missing;
    EXPECT_FALSE(missing.Open("/nonexistent/file.vcd"));
    const std::string path = TempPath("bad.vcd");
    {
        std::ofstream f(path);
        f << "$var wire 1 ! a $end\n$enddefinitions $end\n#1\n1\"\n";  // the code " is not declared
    }
    VcdReader unknown;
    ASSERT_TRUE(unknown.Open(path.c_str()));
    EXPECT_FALSE(unknown.Run([](const VcdReader::Change&) {}));
    {
        std::ofstream f(path);
        f << "$var wire 1 ! a $end\n";  // no $enddefinitions
    }
    VcdReader cut;
    EXPECT_FALSE(cut.Open(path.c_str()));
    std::remove(path.c_str());
}

std::vector<Event> Generate(Synthetic w, std::uint64_t n, std::size_t chunk) {
    Generator g(w, n);
    std::vector<Event> all, part(chunk);
    while (const std::size_t got = g.Fill(part.data(), chunk)) all.insert(all.end(), part.begin(), part.begin() + got);
    return all;
}

TEST(Generator, GivesExactlyTheEventsAskedInTimeOrderWhateverTheChunks) {
    for (int k = 0; k < 4; ++k) {
        const Synthetic w = static_cast<Synthetic>(k);
        const std::vector<Event> a = Generate(w, 10007, 4096), b = Generate(w, 10007, 7);
        ASSERT_EQ(a.size(), 10007u) << Info(w).key;
        for (std::size_t i = 0; i < a.size(); ++i) {
            ASSERT_TRUE(a[i].time == b[i].time && a[i].signal == b[i].signal && a[i].value == b[i].value) << Info(w).key;
            ASSERT_LT(a[i].signal, static_cast<std::uint32_t>(Info(w).signals));
            if (i) {
                ASSERT_LE(a[i - 1].time, a[i].time) << Info(w).key;
            }
        }
    }
}

TEST(Generator, WorkloadsHaveTheirShapes) {
    const std::vector<Event> clock = Generate(Synthetic::kClock, 100, 64);
    for (std::size_t i = 0; i < clock.size(); ++i) {
        EXPECT_EQ(clock[i].time, static_cast<std::int64_t>(5 * (i + 1)));
        EXPECT_EQ(clock[i].value, (i + 1) % 2);
    }
    // Bits toggle: every signal's changes alternate 1, 0, 1, ...; about 100 per time step.
    const std::vector<Event> bits = Generate(Synthetic::kBits, 100000, 4096);
    std::vector<std::uint64_t> last(10000, 0);
    for (const Event& e : bits) {
        EXPECT_EQ(e.value, last[e.signal] ^ 1);
        last[e.signal] = e.value;
    }
    EXPECT_NEAR(static_cast<double>(bits.back().time) / 1000, 5.5, 0.5);  // 1,000 steps of 1 to 10
    // Counters count by one from 100000 s, at their periods: 1,000 cycles give counter 0 1,000
    // changes and counter 3 (period 4) 250.
    const std::vector<Event> counters = Generate(Synthetic::kCounters, 530000, 4096);
    std::vector<std::uint64_t> value(1000), changes(1000);
    for (std::size_t s = 0; s < 1000; ++s) value[s] = s * 100000;
    for (const Event& e : counters) {
        EXPECT_EQ(e.value, value[e.signal] + 1);
        EXPECT_EQ(e.time % 10, 0);
        EXPECT_EQ((e.time / 10 + e.signal) % (1 + e.signal % 4), 0u);
        value[e.signal] = e.value;
        if (e.time < 10000) ++changes[e.signal];
    }
    EXPECT_EQ(changes[0], 1000u);
    EXPECT_EQ(changes[3], 250u);
    for (const Event& e : Generate(Synthetic::kReals, 1000, 64)) {
        double d;
        std::memcpy(&d, &e.value, 8);
        EXPECT_TRUE(d >= 0 && d < 1563 && d * 64 == static_cast<double>(static_cast<long>(d * 64)));
    }
}

TEST(LengthenTrace, RepeatsTheChangesWithShiftedTimes) {
    const std::string from = TempPath("short.vcd"), to = TempPath("long.vcd");
    {
        std::ofstream f(from);
        f << "$scope module tb $end\n$var wire 1 ! clk $end\n$var wire 2 \" v $end\n$upscope $end\n"
             "$enddefinitions $end\n#0\n$dumpvars\n0!\nb00 \"\n$end\n#5\n1!\n#10\n0!\nb11 \"\n";
    }
    EXPECT_EQ(LengthenTrace(from, to, 9), 10u);  // 5 changes a copy: two copies
    VcdReader r;
    const std::vector<Seen> seen = ReadAll(to, &r);
    // The second copy starts one first step (5) after the first copy's end (10).
    const std::vector<Seen> expected = {{0, 0, 's', "0"},  {0, 1, 'b', "00"},  {5, 0, 's', "1"},
                                        {10, 0, 's', "0"}, {10, 1, 'b', "11"}, {15, 0, 's', "0"},
                                        {15, 1, 'b', "00"}, {20, 0, 's', "1"}, {25, 0, 's', "0"},
                                        {25, 1, 'b', "11"}};
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(LengthenTrace("/nonexistent.vcd", to, 9), 0u);
    std::remove(from.c_str());
    std::remove(to.c_str());
}

TEST(VcdWriter, WritesTheTextTheReadersExpect) {
    const std::string path = TempPath("writer.vcd");
    {
        VcdWriter w(path.c_str());
        for (int s = 0; s < 96; ++s) w.Declare("s" + std::to_string(s), s == 95 ? VcdWriter::Kind::kReal
                                                                        : s == 94 ? VcdWriter::Kind::kInteger
                                                                                  : VcdWriter::Kind::kBit);
        w.EndDeclarations();
        w.SetTime(0);
        w.Change(0, 1);
        w.SetTime(0);  // the same time: no second time line
        w.Change(93, 0);
        w.SetTime(9223372036854775807LL);
        w.Change(94, 0x80000000u);
        w.Change(95, 0x3FF8000000000000ULL);  // 1.5
    }
    std::ifstream in(path);
    std::stringstream all;
    all << in.rdbuf();
    const std::string text = all.str();
    // Codes count from '!' in base 94, first character lowest: signal 94 is "!\"", 95 "\"\"".
    EXPECT_NE(text.find("$var integer 32 !\" s94 $end\n$var real 64 \"\" s95 $end\n$enddefinitions $end\n"),
              std::string::npos);
    EXPECT_NE(text.find("$enddefinitions $end\n#0\n1!\n0~\n#9223372036854775807\nb10000000000000000000000000000000 !\"\nr1.5 \"\"\n"),
              std::string::npos)
        << text.substr(text.find("$enddefinitions"));
    std::remove(path.c_str());
}

#ifdef TARVEL_BENCH_FST
// The FST peer reads back, in all and one signal at a time, what its writer wrote.
TEST(FstPeer, ReadsBackWhatItWrote) {
    const std::string path = TempPath("peer.fst");
    FstPeerWriter w;
    ASSERT_TRUE(w.Create(path.c_str(), -12));
    w.Scope("top");
    const std::uint32_t bit = w.Declare("b", FstPeerWriter::VarKind::kBit, 1);
    const std::uint32_t number = w.Declare("n", FstPeerWriter::VarKind::kInt32, 32);
    const std::uint32_t real = w.Declare("r", FstPeerWriter::VarKind::kReal, 64);
    const std::uint32_t alias = w.Declare("b_again", FstPeerWriter::VarKind::kBit, 1, bit);
    const std::uint32_t vector = w.Declare("v", FstPeerWriter::VarKind::kVector, 4);
    w.Upscope();
    EXPECT_EQ(alias, bit);
    for (std::uint64_t t = 0; t < 1000; ++t) {
        w.Time(t * 10);
        w.Number(bit, 1, t & 1);
        if (t % 2 == 0) w.Number(number, 32, static_cast<std::uint32_t>(t));
        if (t % 5 == 0) {
            const double d = static_cast<double>(t) / 4;
            w.Raw(real, &d);
        }
        if (t % 10 == 0) w.Raw(vector, t % 20 ? "10xz" : "0101");
    }
    w.Close();
    std::uint64_t changes = 0, checksum = 0;
    ASSERT_TRUE(FstPeerRead(path.c_str(), 0, &changes, &checksum));
    EXPECT_EQ(changes, 1000u + 500 + 200 + 100);
    for (const auto& [handle, expected] : std::vector<std::pair<std::uint32_t, std::uint64_t>>{
             {bit, 1000}, {number, 500}, {real, 200}, {vector, 100}}) {
        ASSERT_TRUE(FstPeerRead(path.c_str(), handle, &changes, &checksum));
        EXPECT_EQ(changes, expected) << "handle " << handle;
    }
    EXPECT_FALSE(FstPeerRead("/nonexistent/file.fst", 0, &changes, &checksum));
    std::remove(path.c_str());
}
#endif

}  // namespace
}  // namespace compare
