// The filtered reader and the listing against the full reader: seeded random designs with random
// selections taken from their listing; hand-written files for
// the rules of keeping and skipping; listings of a large and of cut files. Tests of the raw
// reader layer; single-threaded.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "format/lexer_test_support.h"
#include "rawreader/filtered_model.h"
#include "rawreader/random_design.h"
#include "rawreader/raw_reader_dump.h"

namespace Tarvel::Testing {
namespace {

// The dump of `bytes` read by the full reader (no selection) or filtered; "refused" for null.
std::string DumpOf(const std::string& bytes, Selection* selection = nullptr, bool filtered = false) {
    ScratchFolder folder;
    WriteBytes(folder.File("f.twf"), bytes);
    Reader reader = filtered || selection ? OpenFiltered(folder.File("f.twf"), selection) : Open(folder.File("f.twf"));
    return reader ? Dump(*reader) : "refused";
}

// Random designs, each with a random selection from its listing: some handles by their name,
// with another name, with a wrong name or none, a handle never declared. The filtered reader
// keeps the selected declarations and the elements of kept buses (in these designs no signal is
// declared inside a bus), and shows what the full reader shows of them. Readers that follow a
// growing file are the crash campaign's (CrashCampaign.ReadersFollowing...).
TEST(FilteredReader, RandomSelectionsGiveWhatTheFullReaderGivesForThem) {
    const char* fixed = std::getenv("TARVEL_SEED");
    const std::uint64_t first = fixed ? std::strtoull(fixed, nullptr, 10) : std::random_device()();
    ScratchFolder folder;
    const std::string path = folder.File("design.twf");
    for (std::uint64_t seed = first; seed < first + (fixed ? 1 : 300); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " (TARVEL_SEED=" + std::to_string(seed) + " repeats it)");
        try {
            WriteDesign(seed, path);
        } catch (const std::exception& e) {
            FAIL() << e.what();
        }
        Reader full = Open(path);
        ASSERT_NE(full, nullptr);
        const Listing listing(path);
        std::mt19937_64 rng(seed);
        RandomSelection picked(*full, listing, rng);
        Selection& selection = picked.selection;
        Reader filtered = OpenFiltered(path, &selection);
        ASSERT_NE(filtered, nullptr);
        int faults = 0;
        ASSERT_EQ(picked.Expected(Dump(*full)), Dump(*filtered, ~0u, &faults));
        ASSERT_EQ(faults, 0);
    }
}

const std::string kStd = "I 1 \"e#9#std_logicc9 UX01ZWLH-\"\r\n";

TEST(FilteredReader, LayoutsEmptyNamesEmptySelectionsAndHandlesDeclaredTwice) {
    const std::string two = std::string(std::getenv("TARVEL_TEST_DATA")) + "/rawreader/files/version2.twf";
    ASSERT_NE(Open(two), nullptr);
    Selection all;
    for (int h = 0; h < 10; ++h) all.Add(h, {});
    EXPECT_EQ(OpenFiltered(two, &all), nullptr);
    Listing listing(two);
    EXPECT_TRUE(listing.empty());
    for (const char* header : {"$WAVE3\r\n", "$WAVE\r\n", "$WAVE4 x\r\n"}) EXPECT_EQ(DumpOf(header + kStd + "$ENDWAVE\r\n", &all), "refused");

    const std::string file = "$WAVE4TIMED\r\n" + kStd + "P 0 -1 Project p\r\n$IN 1 1 \"\"\r\n$IN 2 1 b\r\n$IN 3 1 c\r\n"
                             "$OUT 3 1 d\r\nP 0 1-3 Comment x\r\n$WAVES 1-3\r\nT 5\r\n$VALUES\r\n1\r\n$END\r\n$ENDWAVE\r\n";
    const std::string full = DumpOf(file);
    const std::map<int, int> top = {{1, -1}, {2, -1}, {3, -1}};
    EXPECT_EQ(DumpOf(file, &Selection().Add(1, {"zzz"}).Add(2, {"zzz", "b"})), ExpectedDump(full, {1, 2}, top));
    EXPECT_EQ(DumpOf(file, &Selection().Add(2, {"c"})), ExpectedDump(full, {}, top));
    EXPECT_EQ(DumpOf(file, &Selection().Add(2, {})), ExpectedDump(full, {}, top));
    EXPECT_EQ(DumpOf(file, nullptr, true), ExpectedDump(full, {}, top));  // types, times, file properties
    // Handle 3 is declared twice: listed twice; either name keeps it, and the second
    // declaration updates it as in the full reader.
    ScratchFolder folder;
    WriteBytes(folder.File("f.twf"), file);
    EXPECT_EQ(Listing(folder.File("f.twf")).Names(3), (std::vector<std::string>{"c", "d"}));
    for (const char* name : {"c", "d"}) EXPECT_EQ(DumpOf(file, &Selection().Add(3, {name})), ExpectedDump(full, {3}, top)) << name;
}

// Scopes, a record bus with an array field declared inside it, a virtual bus, blocks shared by
// kept signals and others, time points taken in blocks passed over, quoted values holding line
// feeds and "$END", element lists of buses not kept.
const std::string kTree =
    "$WAVE4\r\n" + kStd + "I 2 \"a#3#slv[1d0]e#9#std_logicc9 UX01ZWLH-\"\r\n"
    "I 3 \"r#3#rec2#1#ai#7#integer#1#ba#3#slv[1d0]e#9#std_logicc9 UX01ZWLH-\"\r\nI 4 \"i#7#integer\"\r\n"
    "I 5 \"e#1#en2#5#a\nEND#6#$END b\"\r\n$NOMODE 10 0 tb -1 0\r\n$NOMODE 11 0 dut 10 0\r\n$IN 12 1 clk 10 1\r\n"
    "$OUT 13 5 state 11 0\r\n$BUS OUT 20 2 2 v 11 1\r\nS 21 0\r\nS 22 1\r\n$SC 21-22\r\n"
    "$BUS OUT 30 3 2 r 11 2\r\nS 31 0\r\n$SC 31\r\n$BUS OUT 32 2 2 b 30 1\r\nS 33 0\r\nS 34 1\r\n$SC 33-34\r\n$ENDSC 34 9\r\n"
    "$BUS VBUS 40 0 0 group\r\n$CHILD 40 12 0\r\nP 0 10-12 Hidden 0\r\nP 0 40 Comment grouped\r\n"
    "$WAVES 13\r\n=0 T 5\r\nR 1 2 =1 D 0 1\r\n$VALUES\r\n\"a\nEND\"\r\nR 2 1 \"$END b\" \"a\nEND\"\r\n$END\r\n"
    "$WAVES 12 21\r\n*0\r\n*1\r\n$VALUES\r\n1\r\n0\r\n$SOURCES\r\n0\r\n3\r\n$END\r\n"
    "$WAVES 22 33 34\r\nT 7\r\n*1\r\n$VALUES\r\nR 1 2 U\r\n$END\r\n$WAVES 31\r\n*0\r\n$VALUES\r\n-12\r\n$END\r\n"
    "$SCBUS 20 21\r\n$ENDWAVE\r\n";

TEST(FilteredReader, PartsOfBusesParentsAndBlocksPassedOver) {
    const std::string full = DumpOf(kTree);
    ASSERT_NE(full, "refused");
    const std::map<int, int> tree = {{10, -1}, {11, 10}, {12, 40}, {13, 11}, {20, 11}, {21, 20}, {22, 20},
                                     {30, 11}, {31, 30}, {32, 30}, {33, 32}, {34, 32}, {40, -1}};
    const std::vector<std::pair<std::map<int, std::string>, std::set<int>>> cases = {
        {{{13, "tb.dut.state"}}, {13}},                // events of a block with quoted line feeds
        {{{12, "tb.clk"}}, {12}},                      // its name as declared; shown in its virtual bus
        {{{20, "tb.dut.v"}}, {20, 21, 22}},            // a bus with its elements
        {{{30, "tb.dut.r"}}, {30, 31, 32, 33, 34}},    // a record with its field bus and their elements
        {{{32, "tb.dut.r.b"}}, {32, 33, 34}},          // a bus inside a record not kept
        {{{40, "group"}, {11, "tb.dut"}}, {40, 11}},   // a virtual bus and a scope: no members, no children
        {{{12, "clk"}, {20, "v"}}, {}},                // names are full names
    };
    for (const auto& [picked, kept] : cases) {
        Selection selection;
        for (const auto& [handle, name] : picked) selection.Add(handle, {name});
        EXPECT_EQ(DumpOf(kTree, &selection), ExpectedDump(full, kept, tree)) << picked.begin()->second;
    }
    // A bus set aside that a kept bus then lists as an element is held as it was declared: its
    // own list is bounded by its width, and it keeps its place in declaration order.
    const std::string listed = "$WAVE4\r\n" + kStd + "I 2 \"a#3#slv[1d0]e#9#std_logicc9 UX01ZWLH-\"\r\n"
                               "$BUS OUT 5 2 2 d\r\n$BUS OUT 7 2 2 k\r\nS 5 0\r\nS 8 1\r\n$SC 5 8\r\n$SCBUS 5 9-10\r\n$ENDWAVE\r\n";
    EXPECT_EQ(DumpOf(listed, &Selection().Add(7, {"k"})),
              ExpectedDump(DumpOf(listed), {5, 7, 8, 9, 10}, {{5, 7}, {7, -1}, {8, 7}, {9, 5}, {10, 5}}));
}

// Every declaration under its handle with its full name, in file order; a file cut anywhere
// lists just the declarations whose lines it holds whole, as the whole file lists them.
TEST(PreRead, ListsEveryDeclarationUnderItsHandleAlsoInCutFiles) {
    ScratchFolder folder;
    const std::string path = folder.File("many.twf");
    std::map<int, std::string> expected;
    ITarvelWrite* w = CreateStreamWriteTimed(path.c_str());
    std::mt19937_64 rng(11);
    std::vector<int> scopes;
    for (int h = 0; h < 6000; ++h) {
        const int parent = scopes.empty() || rng() % 4 == 0 ? -1 : scopes[rng() % scopes.size()];
        const std::string name = "s" + std::to_string(rng() % 50);
        const bool scope = rng() % 5 == 0;
        const unsigned char value[4] = {static_cast<unsigned char>(h), 0, 0, 0};
        ASSERT_TRUE((scope || w->SetTypeInfo(h, "i#7#integer")) && w->StoreSignal(h, kPortNone, parent, h, name.c_str(), 0) &&
                    (scope || w->StoreValue(h, value)) && (h % 1000 != 999 || (w->Commit() && w->Resume())));
        expected[h] = (parent < 0 ? "" : expected[parent] + ".") + name;
        if (scope) scopes.push_back(h);
    }
    ASSERT_TRUE(w->Commit() && w->Release());
    const Listing whole(path);
    ASSERT_EQ(whole.size(), expected.size());
    for (const auto& [handle, name] : expected) ASSERT_EQ(whole.Names(handle), std::vector<std::string>{name}) << handle;
    const std::string bytes = ReadBytes(path);
    for (int round = 0; round < 200; ++round) {
        const std::string head = bytes.substr(0, rng() % bytes.size());
        std::size_t declared = 0;
        for (std::size_t at = head.find("\n$NOMODE"); at != std::string::npos; at = head.find("\n$NOMODE", at + 1)) {
            declared += head.find('\n', at + 1) != std::string::npos;
        }
        WriteBytes(path, head);
        const Listing part(path);
        ASSERT_EQ(part.size(), declared) << "cut at " << head.size();
        for (const auto& [handle, records] : part) ASSERT_EQ(part.Names(handle), whole.Names(handle)) << "cut at " << head.size();
    }
}

}  // namespace
}  // namespace Tarvel::Testing
