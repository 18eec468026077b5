// Threads sharing store bodies: many threads copy, assign, modify, exchange and drop handles
// whose bodies other threads hold too, some making the very same modification at the same time
// (memo hits race), some handing handles to each other through a mailbox so that a body is made
// on one thread and released on another; and threads that each open their own raw reader of
// one file, keep copies of its stores beyond the reader's life and pass them on. Every handle
// is held to a model of its events at the end, equal handles must hold equal events, and no
// body outlives the handles. Run under ThreadSanitizer by `make test`; the long form runs for
// TARVEL_SOAK_SECONDS.
#include <mutex>
#include <thread>

#include "format/lexer_test_support.h"
#include "reliability/campaign.h"
#include "rawreader/random_design.h"
#include "store/events_store_body.h"
#include "store/store_test_util.h"

namespace Tarvel::Testing {
namespace {

using TarvelTest::Collect;
using TarvelTest::Push;
using Events = std::vector<TarvelTest::Event>;

// Empty when `events` are the `model`; else where they part.
std::string Differ(const Events& events, const Events& model) {
    std::size_t n = 0;
    while (n < events.size() && n < model.size() && events[n] == model[n]) ++n;
    if (n == events.size() && n == model.size()) return "";
    return "event " + std::to_string(n) + " of " + std::to_string(events.size()) + " is " +
           (n < events.size() ? TarvelTest::Describe(events[n]) : "missing") + ", the model's " +
           (n < model.size() ? TarvelTest::Describe(model[n]) : "missing");
}

// A handle with the events it must hold.
struct Held {
    KEventsStore store;
    Events model;
    int width = 4;
};

// The events a handle holds: a store shows its latest events once closed, so a copy is closed
// and walked (one more modification of a shared body).
Events Walk(const Held& h) {
    KEventsStore closed = h.store;
    closed.push_end(h.model.empty() ? 0 : h.model.back().time, 0);
    return Collect(closed);
}

// Appends an event after the model's last one: `common` events depend only on what the model
// holds, so threads that append to copies of one body make the same modification.
void Append(Held& h, std::mt19937_64& rng, bool common) {
    const int64 last = h.model.empty() ? 0 : h.model.back().time;
    const std::uint64_t mask = h.width == 8 ? ~0ull : (1ull << (8 * h.width)) - 1;
    const TarvelTest::Event e = common ? TarvelTest::Event{last + 7, 0, (h.model.size() * 2654435761u) & mask, 0}
                                       : TarvelTest::Event{last + 1 + static_cast<int64>(rng() % 100), 0, rng() & mask, 0};
    Push(h.store, e, h.width);
    h.model.push_back(e);
}

// The shared starting points: stores of each value width, built before the threads start and
// only copied by them.
std::vector<Held> Bases() {
    std::vector<Held> bases;
    std::mt19937_64 rng(5);
    for (const int width : {1, 4, 8, 4, 1, 8}) {
        Held h;
        h.width = width;
        h.store.SetSize(width);
        const int events = static_cast<int>(rng() % 300);
        for (int i = 0; i < events; ++i) Append(h, rng, i % 3 != 0);
        bases.push_back(std::move(h));
    }
    return bases;
}

TEST(ThreadStress, ThreadsCopyAssignModifyExchangeAndDropHandlesOfSharedBodies) {
    Rounds rounds(10, 3);
    constexpr int kThreads = 8, kSlots = 24;
    const int kSteps = kSanitized ? 4000 : 6000;
    std::uint64_t steps = 0, memoChecks = 0, exchanges = 0;
    for (std::uint64_t seed; rounds.Next(&seed);) {
        SCOPED_TRACE(SeedTrace(seed));
        const std::size_t before = LiveBodies();
        {
            const std::vector<Held> bases = Bases();
            std::vector<Held> slots(kSlots);
            for (int i = 0; i < kSlots; ++i) slots[static_cast<std::size_t>(i)] = bases[static_cast<std::size_t>(i) % bases.size()];
            std::mutex mailbox;
            std::vector<std::string> failures(kThreads);
            std::vector<std::uint64_t> checks(kThreads, 0), swaps(kThreads, 0);
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t) {
                threads.emplace_back([&, t] {
                    std::mt19937_64 rng(seed * 131 + static_cast<std::uint64_t>(t));
                    std::string& failure = failures[static_cast<std::size_t>(t)];
                    const auto check = [&](const Held& h, const char* what) {
                        if (failure.empty()) {
                            const std::string differ = Differ(Walk(h), h.model);
                            if (!differ.empty()) failure = std::string(what) + ": " + differ;
                        }
                    };
                    Held mine = bases[rng() % bases.size()];
                    for (int step = 0; step < kSteps && failure.empty(); ++step) {
                        switch (rng() % 6) {
                            case 0: {  // the same modification to two copies of a shared body
                                const Held& base = bases[rng() % bases.size()];
                                Held a = base, b;
                                b = base;
                                Append(a, rng, true);
                                Append(b, rng, true);
                                if (!(a.store == b.store)) failure = "one modification of one body gave two bodies";
                                check(a, "a modified copy");
                                ++checks[static_cast<std::size_t>(t)];
                                break;
                            }
                            case 1:  // modify the thread's own handle, shared or not
                                Append(mine, rng, rng() % 2 == 0);
                                break;
                            case 2: {  // exchange with a slot: the handle goes on to other threads
                                std::lock_guard<std::mutex> lock(mailbox);
                                std::swap(mine, slots[rng() % kSlots]);
                                ++swaps[static_cast<std::size_t>(t)];
                                break;
                            }
                            case 3: {  // copy a slot's handle (sharing its body with the slot)
                                std::lock_guard<std::mutex> lock(mailbox);
                                mine = slots[rng() % kSlots];
                                break;
                            }
                            case 4: {  // equal handles hold equal events
                                Held other;
                                {
                                    std::lock_guard<std::mutex> lock(mailbox);
                                    other = slots[rng() % kSlots];
                                }
                                if (other.store == mine.store && other.model != mine.model) failure = "equal handles hold different events";
                                check(other, "a slot's handle");
                                break;
                            }
                            default:  // drop the handle and start again from a base
                                check(mine, "the thread's handle");
                                if (rng() % 2) {
                                    mine = bases[rng() % bases.size()];
                                } else {
                                    KEventsStore fresh;
                                    mine.store.swap(&fresh);
                                    mine = Held();
                                    mine.store.SetSize(4);
                                }
                                break;
                        }
                        if (mine.model.size() > 2000) mine = bases[rng() % bases.size()];
                    }
                    check(mine, "the thread's last handle");
                });
            }
            for (std::thread& th : threads) th.join();
            for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[static_cast<std::size_t>(t)], "") << "thread " << t;
            for (const Held& h : slots) EXPECT_EQ(Differ(Walk(h), h.model), "") << "a slot's handle";
            for (const Held& h : bases) EXPECT_EQ(Differ(Walk(h), h.model), "") << "a base changed";
            for (int t = 0; t < kThreads; ++t) memoChecks += checks[static_cast<std::size_t>(t)], exchanges += swaps[static_cast<std::size_t>(t)];
            steps += static_cast<std::uint64_t>(kThreads) * static_cast<std::uint64_t>(kSteps);
        }
        ASSERT_EQ(LiveBodies(), before) << "bodies outlive their handles";
    }
    ReportFigures("threads_sharing", {{"rounds", rounds.Done()}, {"steps", steps}, {"same_modification_checks", memoChecks}, {"exchanges", exchanges}},
                  rounds.Elapsed());
}

// Every store of the reader of `path`, by handle, with its events.
std::vector<std::pair<KEventsStore, Events>> Stores(const std::string& path) {
    std::vector<std::pair<KEventsStore, Events>> stores;
    Reader r = Open(path);
    if (!r) return stores;
    for (auto it = r->BeginSignals(); it != r->EndSignals(); ++it) {
        if (const KEventsStore* s = r->GetSignalData(it)) stores.emplace_back(*s, Collect(*s));
    }
    return stores;
}

TEST(ThreadStress, ThreadsKeepAndPassOnTheStoresOfTheirOwnReaders) {
    Rounds rounds(3, 2);
    constexpr int kThreads = 6;
    const int kOpens = kSanitized ? 8 : 12;
    ScratchFolder folder;
    const std::string path = folder.File("shared.twf");
    std::uint64_t opened = 0, passed = 0;
    for (std::uint64_t seed; rounds.Next(&seed);) {
        SCOPED_TRACE(SeedTrace(seed));
        Design(seed, path, {4, 2}).Run();
        const std::size_t before = LiveBodies();
        {
            const auto reference = Stores(path);
            ASSERT_FALSE(reference.empty());
            std::mutex mailbox;
            std::vector<std::pair<KEventsStore, Events>> passedOn;
            std::vector<std::string> failures(kThreads);
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t) {
                threads.emplace_back([&, t] {
                    std::mt19937_64 rng(seed + static_cast<std::uint64_t>(t));
                    std::string& failure = failures[static_cast<std::size_t>(t)];
                    for (int n = 0; n < kOpens && failure.empty(); ++n) {
                        auto stores = Stores(path);  // the reader is gone, its stores live on
                        if (stores.size() != reference.size()) failure = "a reader with another number of stores";
                        for (std::size_t i = 0; i < stores.size() && failure.empty(); ++i) {
                            if (stores[i].second != reference[i].second) failure = "a store read differently";
                        }
                        std::vector<std::pair<KEventsStore, Events>> taken;
                        {
                            std::lock_guard<std::mutex> lock(mailbox);
                            for (auto& s : stores) {
                                if (rng() % 3 == 0) passedOn.push_back(s);
                            }
                            while (!passedOn.empty() && rng() % 4 != 0) {
                                taken.push_back(std::move(passedOn.back()));
                                passedOn.pop_back();
                            }
                        }
                        for (auto& [store, events] : taken) {  // a store another thread's reader made
                            if (Collect(store) != events) failure = "a passed store holds other events";
                            if (store.GetSize() > 0 && store.GetSize() <= 8 && rng() % 2) {
                                KEventsStore copy = store;
                                copy.restart();
                                const int64 after = std::max(events.empty() ? 0 : events.back().time, store.EndTime()) + 3;
                                TarvelTest::Push(copy, {after, 0, 1, 0}, 8);
                                if (Collect(store) != events) failure = "a copy's modification reached the original";
                            }
                        }
                    }
                });
            }
            for (std::thread& th : threads) th.join();
            for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[static_cast<std::size_t>(t)], "") << "thread " << t;
            for (const auto& [store, events] : passedOn) EXPECT_EQ(Differ(Collect(store), events), "");
            passed += passedOn.size();
            opened += static_cast<std::uint64_t>(kThreads) * static_cast<std::uint64_t>(kOpens);
        }
        ASSERT_EQ(LiveBodies(), before) << "bodies outlive their handles";
    }
    ReportFigures("threads_reading", {{"rounds", rounds.Done()}, {"readers", opened}, {"stores_left_in_the_mailbox", passed}},
                  rounds.Elapsed());
}

}  // namespace
}  // namespace Tarvel::Testing
