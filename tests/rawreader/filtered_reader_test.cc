// The filtered reader and the listing against the full reader: seeded random designs with random
// selections taken from their listing, read whole and while they grow; hand-written files for
// the rules of keeping, skipping and listing; listings of large and cut files. Tests of the raw
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
#include "rawreader/random_design.h"
#include "rawreader/selection_support.h"
#include "rawreader/raw_reader_dump.h"
#include "tarvel/raw_reader.h"
#include "tarvel/writer.h"

namespace Tarvel::Testing {
namespace {

Reader OpenFiltered(const std::string& path, Selection* selection) {
    return Reader(CreateFilteredRawTarvelRead(path.c_str(), selection ? &selection->map : nullptr), DeleteRawTarvelRead);
}

// A dump cut into items: every line that starts as a dump line starts an item; names and values
// with line feeds continue it.
std::vector<std::string> Items(const std::string& dump) {
    static const char* kStarts[] = {"file ", "top ", "type ", "signal ", "  prop ", "  events ", "property ", "source ", "!!"};
    std::vector<std::string> items;
    std::size_t at = 0;
    while (at < dump.size()) {
        const std::size_t end = dump.find('\n', at) + 1;
        const std::string line = dump.substr(at, end - at);
        const bool starts = std::any_of(std::begin(kStarts), std::end(kStarts), [&](const char* s) { return line.rfind(s, 0) == 0; });
        if (starts || items.empty()) items.push_back(line);
        else items.back() += line;
        at = end;
    }
    return items;
}

int HandleOf(const std::string& item) { return std::atoi(item.c_str() + item.find(' ') + 1); }

// Replaces the number after `key` in a signal item ("nr=", "children=").
std::string WithNumber(std::string item, const std::string& key, int value, bool fromRight) {
    const std::size_t at = (fromRight ? item.rfind(key) : item.find(key)) + key.size();
    const std::size_t end = item.find_first_not_of("-0123456789", at);
    return item.replace(at, end - at, std::to_string(value));
}

// What a filtered reader must present: the full reader's dump of the signals it keeps and of
// their parents, parents without events, signals numbered anew and children counted among those
// present, and the property walk of those present and of the file.
std::string ExpectedDump(const std::string& fullDump, const std::set<int>& kept, const std::map<int, int>& parentOf) {
    std::set<int> present;
    for (int h : kept) {
        for (int at = h; at != -1 && present.insert(at).second;) at = parentOf.at(at);
    }
    std::map<int, int> children;
    for (int h : present) ++children[parentOf.at(h)];
    std::string out;
    int nr = 0, current = 0;
    bool keep = true;
    for (const std::string& item : Items(fullDump)) {
        if (item.rfind("signal ", 0) == 0) {
            current = HandleOf(item);
            keep = present.count(current) != 0;
            if (keep) out += WithNumber(WithNumber(item, " nr=", nr++, false), " children=", children[current], true);
        } else if (item.rfind("  ", 0) == 0) {
            if (keep && (kept.count(current) || item.rfind("  events ", 0) != 0)) out += item;
        } else if (item.rfind("property ", 0) != 0 || HandleOf(item) == -1 || present.count(HandleOf(item))) {
            out += item;
        }
    }
    return out;
}

// A random selection from the listing: some handles with their name, some with another name
// beside it, some with a wrong name or none, and a handle never declared. Returns the handles
// the selection test selects (a declared empty name is selected by its handle alone).
std::set<int> RandomSelection(std::mt19937_64& rng, const OwnedListing& listing, IRawTarvelRead& full, Selection& selection) {
    std::set<int> selected;
    const int chance = 1 + static_cast<int>(rng() % 4);  // a quarter of the handles up to all of them
    for (const auto& [handle, records] : listing.map) {
        if (static_cast<int>(rng() % 4) >= chance) continue;
        const std::string name = listing.Names(handle).front();
        const int how = static_cast<int>(rng() % 10);
        std::vector<std::string> names = how < 6 ? std::vector<std::string>{name}
                                         : how < 8 ? std::vector<std::string>{"other", name}
                                         : how < 9 ? std::vector<std::string>{name + "x"}
                                                   : std::vector<std::string>{};
        selection.Add(handle, names);
        int size = 0;
        full.GetSignalPlace(handle, nullptr, nullptr, nullptr, &size, nullptr, nullptr);
        if (how < 8 || size == 0) selected.insert(handle);
    }
    selection.Add(77777777, {"nothing"});
    return selected;
}

// The full reader's tree (handle -> parent handle, -1 at the top) and the signals a filtered
// reader keeps: the selected declarations and the elements of kept buses (signals that are not
// declared, listed after their bus).
std::set<int> KeptSignals(IRawTarvelRead& full, const OwnedListing& listing, const std::set<int>& selected, std::map<int, int>& parentOf) {
    std::set<int> kept;
    for (auto it = full.BeginSignals(); it != full.EndSignals(); ++it) {
        IRawTarvelRead::SignalIterator parent;
        full.GetSignalPlace(it, nullptr, nullptr, nullptr, nullptr, &parent, nullptr);
        parentOf[*it] = parent == full.EndSignals() ? -1 : *parent;
        const bool declared = listing.map.count(*it) != 0;
        if (declared ? selected.count(*it) != 0 : kept.count(parentOf[*it]) != 0) kept.insert(*it);
    }
    return kept;
}

TEST(FilteredReader, RandomSelectionsGiveWhatTheFullReaderGivesForThem) {
    const char* fixed = std::getenv("TARVEL_SEED");
    const std::uint64_t first = fixed ? std::strtoull(fixed, nullptr, 10) : std::random_device()();
    ScratchFolder folder;
    for (std::uint64_t seed = first; seed < first + (fixed ? 1 : 300); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " (TARVEL_SEED=" + std::to_string(seed) + " repeats it)");
        const std::string path = folder.File(std::to_string(seed) + ".twf");
        try {
            WriteDesign(seed, path);
        } catch (const std::exception& e) {
            FAIL() << e.what();
        }
        Reader full = Open(path);
        ASSERT_NE(full, nullptr);
        const OwnedListing listing(path);
        std::mt19937_64 rng(seed);
        Selection selection;
        std::map<int, int> parentOf;
        const std::set<int> kept = KeptSignals(*full, listing, RandomSelection(rng, listing, *full, selection), parentOf);
        Reader filtered = OpenFiltered(path, &selection);
        ASSERT_NE(filtered, nullptr);
        int faults = 0;
        ASSERT_EQ(ExpectedDump(Dump(*full), kept, parentOf), Dump(*filtered, ~0u, &faults));
        ASSERT_EQ(faults, 0);
        std::remove(path.c_str());
    }
}

// The signals of a dump with their lines, in handle order, without their position numbers:
// what a reader holds, whatever order it lists it in.
std::string ByHandle(const std::string& dump) {
    std::multimap<int, std::string> signals;
    std::string rest;
    int current = 0;
    for (const std::string& item : Items(dump)) {
        if (item.rfind("signal ", 0) == 0) {
            current = HandleOf(item);
            signals.emplace(current, WithNumber(item, " nr=", 0, false));
        } else if (item.rfind("  ", 0) == 0) {
            signals.emplace(current, item);
        } else {
            rest += item;
        }
    }
    for (const auto& [handle, item] : signals) rest += item;
    return rest;
}

// A filtered reader that opens a file while it grows and reads on holds what one opened on the
// whole file holds: signals declared after a commit under parents set aside before find them.
TEST(FilteredReader, ContinueReadsOnAsAReaderOfTheWholeFile) {
    ScratchFolder folder;
    const std::string path = folder.File("growing.twf");
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        WriteDesign(seed, path);
        const std::string whole = ReadBytes(path);
        const OwnedListing listing(path);
        std::mt19937_64 rng(seed);
        Selection selection;
        for (const auto& [handle, records] : listing.map) {
            if (rng() % 3 == 0) selection.Add(handle, listing.Names(handle));
        }
        Reader reference = OpenFiltered(path, &selection);
        ASSERT_NE(reference, nullptr);
        // Cut before a line that a writer can commit before: a declaration, a block, a property.
        std::vector<std::size_t> cuts;
        for (std::size_t at = whole.find("\n$"); at != std::string::npos; at = whole.find("\n$", at + 1)) {
            const std::string word = whole.substr(at + 2, 6);
            if (word.rfind("VALUES", 0) && word.rfind("SOURCE", 0) && word.rfind("END\r", 0) && word.rfind("ENDWAV", 0)) cuts.push_back(at + 1);
        }
        ASSERT_FALSE(cuts.empty());
        const std::size_t cut = cuts[rng() % cuts.size()];
        WriteBytes(path, whole.substr(0, cut) + ":\r\n");
        Reader growing = OpenFiltered(path, &selection);
        ASSERT_NE(growing, nullptr) << "cut at " << cut;
        WriteBytes(path, whole);
        ASSERT_TRUE(growing->Continue());
        int faults = 0;
        EXPECT_EQ(ByHandle(Dump(*reference)), ByHandle(Dump(*growing, ~0u, &faults))) << "cut at " << cut;
        EXPECT_EQ(faults, 0);
    }
}

std::string DataFile(const std::string& name) { return std::string(std::getenv("TARVEL_TEST_DATA")) + "/rawreader/files/" + name; }

// Reads `bytes` as a file with the full reader, or filtered by `selection`; "refused" when the
// factory gives null.
std::string DumpOf(const std::string& bytes) {
    ScratchFolder folder;
    WriteBytes(folder.File("f.twf"), bytes);
    Reader reader = Open(folder.File("f.twf"));
    return reader ? Dump(*reader) : "refused";
}
std::string FilteredDumpOf(const std::string& bytes, Selection* selection) {
    ScratchFolder folder;
    WriteBytes(folder.File("f.twf"), bytes);
    Reader reader = OpenFiltered(folder.File("f.twf"), selection);
    return reader ? Dump(*reader) : "refused";
}

TEST(FilteredReader, OnlyTheCurrentLayoutIsRead) {
    const std::string two = DataFile("version2.twf");
    ASSERT_NE(Open(two), nullptr);
    Selection all;
    for (int h = 0; h < 10; ++h) all.Add(h, {});
    EXPECT_EQ(OpenFiltered(two, &all), nullptr);
    OwnedListing listing;
    listing.map[5] = nullptr;  // what the caller had stays as it was
    CreateRawTarvelPreRead(two.c_str(), &listing.map);
    EXPECT_EQ(listing.map.size(), 1u);
    EXPECT_EQ(listing.map[5], nullptr);
    const std::string body = "$IN 1 0 a\r\n$ENDWAVE\r\n";
    for (const char* header : {"$WAVE3\r\n", "$WAVE\r\n", "$WAVE4 x\r\n", "$WAVE5\r\n"}) EXPECT_EQ(FilteredDumpOf(header + body, &all), "refused");
    EXPECT_NE(FilteredDumpOf("$WAVE4TIMED\r\n" + body, &all), "refused");
    EXPECT_EQ(OpenFiltered("/nonexistent/f.twf", &all), nullptr);
}

constexpr const char* kStd = "I 1 \"e#9#std_logicc9 UX01ZWLH-\"\r\n";

TEST(FilteredReader, EmptyNamesEmptySelectionsAndHandlesDeclaredTwice) {
    const std::string file = std::string("$WAVE4\r\n") + kStd + "P 0 -1 Project p\r\n$IN 1 1 \"\"\r\n$IN 2 1 b\r\n$IN 3 1 c\r\n"
                             "$OUT 3 1 d\r\nP 0 1-3 Comment x\r\n$WAVES 1-3\r\nT 5\r\n$VALUES\r\n1\r\n$END\r\n$ENDWAVE\r\n";
    const std::string full = DumpOf(file);
    // The signal named "" is kept whenever its handle is selected; "b" only by its name.
    Selection named;
    named.Add(1, {"zzz"});
    named.Add(2, {"zzz", "b"});
    EXPECT_EQ(FilteredDumpOf(file, &named), ExpectedDump(full, {1, 2}, {{1, -1}, {2, -1}, {3, -1}}));
    Selection other;
    other.Add(2, {"c"});
    EXPECT_EQ(FilteredDumpOf(file, &other), ExpectedDump(full, {}, {}));
    // Nothing selected: no signal, but the file's types, properties and times.
    Selection empty;
    EXPECT_EQ(FilteredDumpOf(file, &empty), ExpectedDump(full, {}, {}));
    EXPECT_EQ(FilteredDumpOf(file, nullptr), ExpectedDump(full, {}, {}));
    // Handle 3 declared twice: listed twice in file order; the first name keeps it, and the
    // second declaration then updates it as in the full reader; the second name keeps it too.
    ScratchFolder folder;
    WriteBytes(folder.File("f.twf"), file);
    const OwnedListing listing(folder.File("f.twf"));
    EXPECT_EQ(listing.Names(3), (std::vector<std::string>{"c", "d"}));
    EXPECT_EQ(listing.Names(1), (std::vector<std::string>{""}));
    for (const char* name : {"c", "d"}) {
        Selection twice;
        twice.Add(3, {name});
        EXPECT_EQ(FilteredDumpOf(file, &twice), ExpectedDump(full, {3}, {{3, -1}})) << name;
    }
}

// Declarations in scopes, a record bus with an array field declared inside it, a virtual bus,
// blocks shared by kept and other signals, time points taken in blocks that are passed over,
// quoted values with line feeds, element lists of buses not kept.
const std::string kTree =
    std::string("$WAVE4\r\n") + kStd +
    "I 2 \"a#3#slv[1d0]e#9#std_logicc9 UX01ZWLH-\"\r\n"
    "I 3 \"r#3#rec2#1#ai#7#integer#1#ba#3#slv[1d0]e#9#std_logicc9 UX01ZWLH-\"\r\n"
    "I 4 \"i#7#integer\"\r\n"
    "I 5 \"e#1#en2#5#a\nEND#6#$END b\"\r\n"
    "$NOMODE 10 0 tb -1 0\r\n$NOMODE 11 0 dut 10 0\r\n"
    "$IN 12 1 clk 10 1\r\n"
    "$OUT 13 5 state 11 0\r\n"
    "$BUS OUT 20 2 2 v 11 1\r\nS 21 0\r\nS 22 1\r\n$SC 21-22\r\n"
    "$BUS OUT 30 3 2 r 11 2\r\nS 31 0\r\n$SC 31\r\n$BUS OUT 32 2 2 b 30 1\r\nS 33 0\r\nS 34 1\r\n$SC 33-34\r\n$ENDSC 34 9\r\n"
    "$BUS VBUS 40 0 0 group\r\n$CHILD 40 12 0\r\nP 0 10-12 Hidden 0\r\nP 0 40 Comment grouped\r\n"
    "$WAVES 13\r\n=0 T 5\r\nR 1 2 =1 D 0 1\r\n$VALUES\r\n\"a\nEND\"\r\nR 2 1 \"$END b\" \"a\nEND\"\r\n$END\r\n"
    "$WAVES 12 21\r\n*0\r\n*1\r\n$VALUES\r\n1\r\n0\r\n$SOURCES\r\n0\r\n3\r\n$END\r\n"
    "$WAVES 22 33 34\r\nT 7\r\n*1\r\n$VALUES\r\nR 1 2 U\r\n$END\r\n"
    "$WAVES 31\r\n*0\r\n$VALUES\r\n-12\r\n$END\r\n"
    "$SCBUS 20 21\r\n$ENDWAVE\r\n";

TEST(FilteredReader, PartsOfBusesParentsAndSkippedBlocks) {
    const std::string full = DumpOf(kTree);
    ASSERT_NE(full, "refused");
    const std::map<int, int> tree = {{10, -1}, {11, 10}, {12, 40}, {13, 11}, {20, 11}, {21, 20}, {22, 20}, {30, 11},
                                     {31, 30},  {32, 30}, {33, 32}, {34, 32}, {40, -1}};
    // Each case: the selection (handle, name) and the signals kept.
    const std::vector<std::pair<std::vector<std::pair<int, std::string>>, std::set<int>>> cases = {
        {{{13, "tb.dut.state"}}, {13}},                // events from a block with quoted line feeds
        {{{12, "tb.clk"}}, {12}},                      // its full name as declared; shown in its virtual bus
        {{{20, "tb.dut.v"}}, {20, 21, 22}},            // a bus with its elements
        {{{30, "tb.dut.r"}}, {30, 31, 32, 33, 34}},    // a record with its field bus and their elements
        {{{32, "tb.dut.r.b"}}, {32, 33, 34}},          // a bus inside a record not kept
        {{{40, "group"}, {11, "tb.dut"}}, {40, 11}},   // a virtual bus and a scope: no members, no children
        {{{12, "clk"}, {20, "v"}}, {}},                // names are full names
    };
    for (const auto& [picked, kept] : cases) {
        Selection selection;
        for (const auto& [handle, name] : picked) selection.Add(handle, {name});
        EXPECT_EQ(FilteredDumpOf(kTree, &selection), ExpectedDump(full, kept, tree)) << picked.front().second;
    }
    // A bus set aside that a kept bus then lists as an element is held as it was declared: its
    // own list is bounded by its width, and it keeps its place in declaration order.
    const std::string listed = std::string("$WAVE4\r\n") + kStd + "I 2 \"a#3#slv[1d0]e#9#std_logicc9 UX01ZWLH-\"\r\n"
                               "$BUS OUT 5 2 2 d\r\n$BUS OUT 7 2 2 k\r\nS 5 0\r\nS 8 1\r\n$SC 5 8\r\n$SCBUS 5 9-10\r\n$ENDWAVE\r\n";
    Selection k;
    k.Add(7, {"k"});
    EXPECT_EQ(FilteredDumpOf(listed, &k), ExpectedDump(DumpOf(listed), {5, 7, 8, 9, 10}, {{5, 7}, {7, -1}, {8, 7}, {9, 5}, {10, 5}}));
}

// Every declaration under its handle, in file order, with its full name; a file cut anywhere
// lists what its whole declaration lines declare, and the listing of a cut file is a part of the
// whole one's.
TEST(PreRead, ListsEveryDeclarationUnderItsHandleAlsoInCutFiles) {
    ScratchFolder folder;
    const std::string path = folder.File("many.twf");
    std::map<int, std::string> expected;
    {
        ITarvelWrite* w = CreateStreamWriteTimed(path.c_str());
        ASSERT_NE(w, nullptr);
        std::mt19937_64 rng(11);
        std::vector<int> scopes;
        for (int h = 0; h < 6000; ++h) {
            const int parent = scopes.empty() || rng() % 4 == 0 ? -1 : scopes[rng() % scopes.size()];
            const std::string name = "s" + std::to_string(rng() % 50);
            const bool scope = rng() % 5 == 0;
            ASSERT_TRUE(scope || w->SetTypeInfo(h, "i#7#integer"));
            ASSERT_TRUE(w->StoreSignal(h, kPortNone, parent, h, name.c_str(), 0));
            expected[h] = (parent < 0 ? "" : expected[parent] + ".") + name;
            if (scope) scopes.push_back(h);
            const unsigned char value[4] = {static_cast<unsigned char>(h), 0, 0, 0};
            ASSERT_TRUE(scope || w->StoreValue(h, value));
            ASSERT_TRUE(h % 1000 != 999 || (w->Commit() && w->Resume()));
        }
        ASSERT_TRUE(w->Commit() && w->Release());
    }
    const OwnedListing whole(path);
    ASSERT_EQ(whole.map.size(), expected.size());
    for (const auto& [handle, name] : expected) ASSERT_EQ(whole.Names(handle), std::vector<std::string>{name}) << handle;

    const std::string bytes = ReadBytes(path);
    std::mt19937_64 rng(5);
    for (int round = 0; round < 200; ++round) {
        const std::size_t cut = round == 0 ? bytes.size() - 1 : rng() % bytes.size();
        WriteBytes(path, bytes.substr(0, cut));
        const std::string head = bytes.substr(0, cut);
        std::size_t declared = 0;  // declaration lines ended before the cut
        for (std::size_t at = head.find("\n$NOMODE"); at != std::string::npos; at = head.find("\n$NOMODE", at + 1)) {
            declared += head.find('\n', at + 1) != std::string::npos;
        }
        const OwnedListing part(path);
        ASSERT_EQ(part.map.size(), declared) << "cut at " << cut;
        for (const auto& [handle, records] : part.map) ASSERT_EQ(part.Names(handle), whole.Names(handle)) << "cut at " << cut;
    }
}

}  // namespace
}  // namespace Tarvel::Testing
