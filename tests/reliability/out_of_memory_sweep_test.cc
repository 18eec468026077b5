// Exhausted memory anywhere in a write-then-read scenario: a seeded design written with commits
// (a raw reader and a facade follow it from its first commit), then the finished file read by
// every reader, listed, its events passed, one of its stores copied and changed. For every k
// from 1 to the scenario's number of allocations, the library's allocation path fails its k-th
// request (and, by the out-of-memory rule, every later one). Every step then gives a right
// answer or fails as its interface says: a writer call answers false and its log reads "Out of
// memory", a factory answers null, Continue false, a pass -1, a store operation throws the
// allocation failure ("bad allocation") and keeps its events; no block of the run stays
// allocated; the file of a writer that failed reads as of its last commit; and after
// PrepareOutOfMemoryBuffer() the whole scenario runs as without failure. Reliability tests;
// single-threaded (the heap hooks are process-wide).
#include "foundation/memory.h"
#include "foundation/test_heap.h"
#include "format/lexer_test_support.h"
#include "reliability/campaign.h"
#include "reliability/reader_checks.h"

namespace Tarvel::Testing {
namespace {

// What one run of the scenario gave.
struct Outcome {
    std::string findings;      // answers that are neither right nor a clean failure
    bool factoryNull = false;  // the writer factory answered null
    bool writerFailed = false; // a writer call answered false
    int started = 0, done = 0; // the last commit begun, and the last one that returned
    int cleanFailures = 0;     // steps that failed as their interface says

    void Finding(const std::string& step, const std::string& what) { findings += step + ": " + what + "; "; }
};

// Runs `step`; an allocation failure thrown out of it must be the library's and must come with
// exhausted memory, and counts as a clean failure.
template <class Step>
void Guarded(Outcome& o, const std::string& name, Step step) {
    try {
        step();
    } catch (const std::bad_alloc& e) {
        if (std::string(e.what()) != "bad allocation" || !IsOutOfMemory()) o.Finding(name, std::string("threw ") + e.what());
        ++o.cleanFailures;
    }
}

// Opens a reader with `open`: a factory whose allocation failed must answer null.
template <class Open>
auto Opened(Outcome& o, const std::string& step, Open open) {
    const bool before = IsOutOfMemory();
    auto reader = open();
    if (reader && !before && IsOutOfMemory()) o.Finding(step, "a reader made though an allocation failed");
    return reader;
}

// The readers that follow the file while it is written: opened at the first commit, read on at
// every later one; each must present that commit unless memory ran out.
struct Followers final : CommitObserver {
    const Reference& reference;
    const std::string& path;
    Outcome& outcome;
    Reader raw{nullptr, DeleteRawTarvelRead};
    Facade facade{nullptr, nullptr};

    Followers(const Reference& r, const std::string& p, Outcome& o) : reference(r), path(p), outcome(o) {}
    void Committing(int commit, const Design&) override { outcome.started = commit; }
    void Committed(int commit) override {
        outcome.done = commit;
        if (commit == 1) {
            raw = Opened(outcome, "follower", [&] { return Open(path); });
            facade = Opened(outcome, "facade follower", [&] { return OpenFacade(path, true); });
            if (!raw) Clean("follower");
            if (!facade) Clean("facade follower");
        } else {
            if (raw && !raw->Continue()) Clean("follower Continue"), raw.reset();
            if (facade && !facade->Continue()) Clean("facade follower Continue"), facade.reset();
        }
        Guarded(outcome, "follower", [&] {
            if (raw) Same("follower", Dump(*raw), reference.Expected(commit));
            if (facade) Same("facade follower", Dump(*facade->GetRawReader()), reference.Expected(commit));
        });
    }
    // A failure is clean only while memory is exhausted.
    void Clean(const std::string& step) {
        if (!IsOutOfMemory()) outcome.Finding(step, "failed with memory to spare");
        ++outcome.cleanFailures;
    }
    // Content read while memory lasted must be right.
    void Same(const std::string& step, const std::string& got, const std::string& expected) {
        if (!IsOutOfMemory() && got != expected) outcome.Finding(step, "presents other content");
    }
};

// The scenario: writes the design of `seed` into `path` with followers, then reads the file with
// every reader and changes a copy of one of its stores.
Outcome RunScenario(std::uint64_t seed, DesignSize size, const std::string& path, const Reference& reference) {
    Outcome o;
    std::remove(path.c_str());
    std::remove((path + ".log").c_str());
    Followers followers(reference, path, o);
    {
        std::unique_ptr<Design> design;
        try {
            design = std::make_unique<Design>(seed, path, size, &followers);
        } catch (const std::runtime_error&) {
            o.factoryNull = true;
        }
        if (design) {
            try {
                design->Run();
            } catch (const std::runtime_error&) {
                o.writerFailed = true;
            }
            if (ITarvelWrite* w = design->Abandon(); w && ReleaseFailedWriter(w)) o.Finding("writer", "a failed writer released");
        }
        if (o.factoryNull || o.writerFailed) {
            if (!IsOutOfMemory()) o.Finding("writer", "failed with memory to spare");
            ++o.cleanFailures;
        }
    }
    followers.raw.reset();
    followers.facade.reset();
    const bool written = !o.factoryNull && !o.writerFailed;
    const std::string full = written ? reference.Expected(reference.Commits()) : "";
    auto clean = [&](const std::string& step) {
        if (!IsOutOfMemory()) o.Finding(step, "null with memory to spare");
        ++o.cleanFailures;
    };
    auto same = [&](const std::string& step, const std::string& got, const std::string& expected) {
        if (!IsOutOfMemory() && written && got != expected) o.Finding(step, "presents other content");
    };
    Reader raw = Opened(o, "raw reader", [&] { return Open(path); });
    if (!raw) clean("raw reader");
    Guarded(o, "raw reader", [&] {
        if (raw) same("raw reader", Dump(*raw), full);
    });
    Guarded(o, "filtered reader", [&] {
        Reader filtered = Opened(o, "filtered reader", [&] { return OpenFiltered(path, reference.FilteredSelection()); });
        if (!filtered) clean("filtered reader");
        if (filtered) same("filtered reader", Dump(*filtered), reference.ExpectedFiltered(full));
    });
    Guarded(o, "listing", [&] {
        const Listing listing(path);
        const std::string finding = reference.ListingFinding(listing, full);
        const bool partial = IsOutOfMemory() && finding.rfind("lists ", 0) == 0;  // records made before the failure
        if (written && !finding.empty() && !partial) o.Finding("listing", finding);
    });
    for (const bool byPosition : {true, false}) {
        const std::string name = byPosition ? "CreateStreamRead2" : "CreateStreamRead";
        Facade facade = Opened(o, name, [&] { return OpenFacade(path, byPosition); });
        if (!facade) clean(name);
        if (!facade) continue;
        for (int h = 0; h < 8; ++h) facade->GetTypeInfoString(h), facade->GetSignalInfo(h, nullptr, nullptr, nullptr, nullptr, nullptr);
        Guarded(o, name, [&] {
            const std::string finding = FacadeFinding(*facade, byPosition);
            if (!IsOutOfMemory() && !finding.empty()) o.Finding(name, finding);
        });
    }
    Guarded(o, "store", [&] {
        if (!raw) return;
        for (auto it = raw->BeginSignals(); it != raw->EndSignals(); ++it) {
            const KEventsStore* store = raw->GetSignalData(it);
            if (!store || store->empty()) continue;
            // A change of a shared body copies it; a failing change leaves the handle as it was.
            KEventsStore copy = *store;
            const unsigned count = copy.count();
            const unsigned char value[8] = {1};
            const auto change = [&](const char* what, auto operation) {
                const KEventsStore before = copy;
                try {
                    operation();
                } catch (const std::bad_alloc&) {
                    if (!(copy == before) || copy.count() != before.count()) o.Finding("store", std::string("a failed ") + what + " changed it");
                    throw;
                }
            };
            change("push", [&] { copy.push_back(store->EndTime() + 1000, 0, value); });
            change("end", [&] { copy.push_end(store->EndTime() + 1000, 0); });
            if (copy.count() != count + 1 || store->count() != count) o.Finding("store", "the change went wrong");
            return;
        }
    });
    return o;
}

// Checks the file of a writer that failed: it reads as of its last commit (or the one under way
// when the failure hit inside it), or not at all before the first.
std::string FileAfterFailure(const std::string& path, const Outcome& o, const Reference& reference) {
    Reader raw = Open(path);
    if (!raw) return o.done == 0 ? "" : "the file does not read after its commit " + std::to_string(o.done);
    const std::string dump = Dump(*raw);
    for (int c : {o.done, o.started}) {
        if (c > 0 && dump == reference.Expected(c)) return "";
    }
    return "the file reads as none of the commits " + std::to_string(o.done) + " and " + std::to_string(o.started);
}

// Fails each allocation of the scenario of `seed` in turn; after a failure the whole scenario
// runs again (`everyRecovery`), or after every 16th. A sweep after the first stops when the long
// form's time is up.
void Sweep(std::uint64_t seed, DesignSize size, const Rounds& rounds, bool everyRecovery, std::uint64_t* points,
           std::uint64_t* writerPoints, std::uint64_t* shrinks, std::uint64_t* recoveries) {
    ScratchFolder folder;
    const std::string path = folder.File("swept.twf");
    const Reference reference(seed, size, folder.File("model.twf"));
    std::uint64_t total = 0;
    {
        TestHeap heap;
        const Outcome whole = RunScenario(seed, size, path, reference);
        ASSERT_EQ(whole.findings, "");
        ASSERT_TRUE(whole.cleanFailures == 0 && !IsOutOfMemory()) << "the scenario fails without a failing allocation";
        ASSERT_EQ(heap.live.size(), 0u) << "blocks left by a whole run";
        total = heap.requests;
    }
    ASSERT_GT(total, 100u);
    for (std::uint64_t k = 1; k <= total && !rounds.OutOfTime(); ++k) {
        SCOPED_TRACE("allocation " + std::to_string(k) + " of " + std::to_string(total));
        Outcome failed;
        std::size_t left = 0;
        bool refusedShrink = false;
        {
            TestHeap heap(k);
            failed = RunScenario(seed, size, path, reference);
            left = heap.live.size();
            refusedShrink = heap.refusedShrink;
        }
        ASSERT_EQ(failed.findings, "");
        if (refusedShrink) {  // nothing may fail for it
            ASSERT_TRUE(failed.cleanFailures == 0 && !IsOutOfMemory() && left == 0) << "a refused shrink failed the run";
            ++*shrinks;
            continue;
        }
        ASSERT_TRUE(IsOutOfMemory()) << "allocation " << k << " was never requested";
        ASSERT_GT(failed.cleanFailures, 0);
        ASSERT_EQ(left, 0u) << "blocks left behind";
        PrepareOutOfMemoryBuffer();
        if (failed.writerFailed) {
            ++*writerPoints;
            ASSERT_EQ(ReadBytes(path + ".log"), "Out of memory");
            ASSERT_EQ(FileAfterFailure(path, failed, reference), "");
        } else if (failed.factoryNull) {
            ++*writerPoints;
            ASSERT_FALSE(std::ifstream(path + ".log").good()) << "a writer that was never made logs nothing";
        }
        ++*points;
        if (!everyRecovery && k % 16 != 0 && k != total) continue;
        TestHeap heap;
        const Outcome again = RunScenario(seed, size, path, reference);
        ASSERT_TRUE(again.findings.empty() && again.cleanFailures == 0) << "after PrepareOutOfMemoryBuffer: " << again.findings;
        ASSERT_EQ(heap.live.size(), 0u);
        ++*recoveries;
    }
}

TEST(OutOfMemorySweep, EveryFailingAllocationOfAWriteThenReadScenarioFailsCleanly) {
    // Quick form: two small designs (one timed, one untimed), each allocation of each, and the
    // scenario again after each failure. Sanitized builds, some ten times slower, sweep the
    // smaller design and run the scenario again after every 16th failure.
    Rounds rounds(2, 1, kSanitized ? std::initializer_list<std::uint64_t>{3} : std::initializer_list<std::uint64_t>{4, 3});
    std::uint64_t points = 0, writerPoints = 0, shrinks = 0, recoveries = 0;
    for (std::uint64_t seed; rounds.Next(&seed);) {
        SCOPED_TRACE(SeedTrace(seed));
        const DesignSize size = rounds.Done() <= 2 ? DesignSize{1, 1} : DesignSize{1 + static_cast<int>(seed % 2), 1};
        Sweep(seed, size, rounds, !kSanitized || rounds.Soak(), &points, &writerPoints, &shrinks, &recoveries);
        if (HasFatalFailure()) break;
    }
    ReportFigures("out_of_memory", {{"scenarios", rounds.Done()}, {"allocation_points", points}, {"in_the_writer", writerPoints},
                                    {"refused_shrinks", shrinks}, {"runs_after_recovery", recoveries}},
                  rounds.Elapsed());
}

}  // namespace
}  // namespace Tarvel::Testing
