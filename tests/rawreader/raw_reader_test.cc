// The raw reader against the writer: seeded random designs written with flushes and commits and
// read back whole (readers following a growing file are the crash campaign's), hand-written
// files of every layout, the reader's edge cases and truncated files. Tests of the raw reader
// layer; single-threaded.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

#include "foundation/test_heap.h"
#include "format/lexer_test_support.h"
#include "rawreader/random_design.h"
#include "rawreader/raw_reader_dump.h"
#include "tarvel/diagnostics.h"
#include "tarvel/port_mode.h"
#include "tarvel/raw_reader.h"
#include "tarvel/writer.h"
#include "typeinfo/type_service.h"

namespace Tarvel::Testing {
namespace {

TEST(RawReader, RandomDesignsReadBackAsWritten) {
    const char* fixed = std::getenv("TARVEL_SEED");
    const std::uint64_t first = fixed ? std::strtoull(fixed, nullptr, 10) : std::random_device()();
    ScratchFolder folder;
    for (std::uint64_t seed = first; seed < first + (fixed ? 1 : 1000); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " (TARVEL_SEED=" + std::to_string(seed) + " repeats it)");
        const std::string path = folder.File(std::to_string(seed) + ".twf");
        try {
            const std::string expected = WriteDesign(seed, path);
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
    for (const std::string& bytes : damaged) {
        TestHeap heap;
        std::string dump;
        int faults = 0;
        {
            FileOf file(bytes);
            if (file.reader) dump = Dump(*file.reader, 1000, &faults);
        }
        EXPECT_EQ(faults, 0) << bytes << dump;
        EXPECT_LT(heap.largest, std::size_t{64} << 20) << bytes;
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

// Bodies made since the last call: the serial numbers count every body made, so a fresh store's
// number tells how many were made in between.
int BodiesMadeSince(int* last) {
    KEventsStore probe;
    probe.SetSize(4);  // copies the shared empty body: a new serial number
    const int made = probe.GetNr() - *last - 1;
    *last = probe.GetNr();
    return made;
}

// Signals whose events stay equal share one store block after block: appending a block to it must
// not copy it (a copy per block grows with the file). Four signals equal throughout and a fifth
// that leaves them halfway, over `blocks` flushes; returns the bodies the parse made.
int BodiesMadeReading(const std::string& path, int blocks) {
    {
        ITarvelWrite* w = CreateStreamWriteTimed(path.c_str());
        W(w);
        for (int s = 0; s < 5; ++s) {
            W(w->SetTypeInfo(s, "i#7#integer"));
            W(w->StoreSignal(s, kPortOut, -1, 0, ("s" + std::to_string(s)).c_str(), 0));
        }
        for (int b = 0; b < blocks; ++b) {
            for (std::int32_t i = 0; i < 8; ++i) {
                W(w->SetTime(100 * b + 3 * i + 1));
                const std::int32_t value = 8 * b + i, other = -value;
                for (int s = 0; s < 5; ++s) {
                    W(w->StoreValue(s, reinterpret_cast<const unsigned char*>(s == 4 && b >= blocks / 2 ? &other : &value)));
                }
            }
            W(w->Flush());
        }
        W(w->Commit());
        W(w->Release());
    }
    int last = 0;
    BodiesMadeSince(&last);
    Reader reader = Open(path);
    const int made = BodiesMadeSince(&last);
    EXPECT_NE(reader, nullptr);
    if (!reader) return made;
    std::vector<const KEventsStore*> stores;
    for (auto it = reader->BeginSignals(); it != reader->EndSignals(); ++it) stores.push_back(reader->GetSignalData(it));
    EXPECT_EQ(stores.size(), 5u);
    for (std::size_t s = 0; s < stores.size(); ++s) {
        SCOPED_TRACE("signal " + std::to_string(s) + " of a file of " + std::to_string(blocks) + " blocks");
        EXPECT_EQ(*stores[s] == *stores[0], s < 4) << "equal signals share one store, the one that left does not";
        std::vector<std::pair<int64, std::int32_t>> expected, got;
        for (int n = 0; n < 8 * blocks; ++n) {
            const int b = n / 8, value = 8 * b + n % 8;
            expected.emplace_back(100 * b + 3 * (n % 8) + 1, s == 4 && b >= blocks / 2 ? -value : value);
        }
        KEventData data;
        for (bool ok = stores[s]->GetFirstEvent(&data); ok; ok = stores[s]->GetNextEvent(&data)) {
            std::int32_t value = 0;
            data.GetValue(reinterpret_cast<unsigned char*>(&value), 4);
            got.emplace_back(data.GetTime(), value);
        }
        EXPECT_TRUE(got == expected);
    }
    return made;
}

TEST(RawReader, SharedStoresAreAppendedInPlaceBlockAfterBlock) {
    ScratchFolder folder;
    const int few = BodiesMadeReading(folder.File("few.twf"), 8);
    const int many = BodiesMadeReading(folder.File("many.twf"), 200);
    EXPECT_EQ(many, few) << "bodies made while reading 8 and 200 blocks";
    EXPECT_LT(many, 20);
}

}  // namespace
}  // namespace Tarvel::Testing
