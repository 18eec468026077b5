// KEventMerge against the plain map model on seeded random sets of stores: shared clocks and
// crowded small times (many equal stamps), deltas, repeated stamps inside one store, times that
// go back, negative times, stores without values and empty stores. Reader facade layer tests;
// single-threaded.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>

#include "reader/event_merge.h"
#include "reader/merge_model.h"

namespace Tarvel::Testing {
namespace {

// How a store's times move.
enum class Shape { kClock, kCrowded, kSparse, kWild };

// A store of random events; `shape` and the seed decide everything.
KEventsStore RandomStore(std::mt19937_64& rng, Shape shape, int size, int events) {
    KEventsStore store;
    store.SetSize(size);
    int64 time = shape == Shape::kWild ? static_cast<int64>(rng() % 200) - 100 : static_cast<int64>(rng() % 20);
    int delta = 0;
    const int64 period = 1 + static_cast<int64>(rng() % 4) * 5;
    for (int i = 0; i < events; ++i) {
        switch (shape) {
            case Shape::kClock: time += period; break;
            case Shape::kCrowded: time += static_cast<int64>(rng() % 3); break;
            case Shape::kSparse: time += 1 + static_cast<int64>(rng() % 1000); break;
            case Shape::kWild: time += static_cast<int64>(rng() % 7) - (rng() % 8 == 0 ? 9 : 0); break;
        }
        // Deltas only grow within one time, and now and then one stamp comes twice in a row.
        delta = rng() % 4 == 0 ? delta + static_cast<int>(rng() % 3) : 0;
        const std::uint64_t value = rng();
        unsigned char bytes[8];
        std::memcpy(bytes, &value, 8);
        store.push_back(time, delta, bytes);
    }
    store.push_end(time, delta);
    return store;
}

std::vector<MergedEvent> MergePass(const std::vector<std::pair<int, const KEventsStore*>>& stores) {
    Vector<KEventMerge::Source> sources;
    for (const auto& [handle, store] : stores) sources.push_back({handle, store});
    KEventMerge merge(sources);
    std::vector<MergedEvent> out;
    for (bool ok = merge.Start(); ok; ok = merge.Next()) {
        unsigned char bytes[8] = {};
        merge.CurrentValue(bytes);
        std::uint64_t value = 0;
        std::memcpy(&value, bytes, 8);
        out.push_back({merge.CurrentHandle(), merge.CurrentStamp().time, merge.CurrentStamp().delta, value});
    }
    EXPECT_FALSE(merge.Next()) << "an exhausted merge stays exhausted";
    return out;
}

TEST(EventMerge, MatchesTheMapModelOnRandomStores) {
    const char* fixed = std::getenv("TARVEL_SEED");
    const std::uint64_t first = fixed ? std::strtoull(fixed, nullptr, 10) : std::random_device()();
    for (std::uint64_t seed = first; seed < first + (fixed ? 1 : 250); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " (TARVEL_SEED=" + std::to_string(seed) + " repeats it)");
        std::mt19937_64 rng(seed);
        const int count = rng() % 5 == 0 ? 1 + static_cast<int>(rng() % 2000) : static_cast<int>(rng() % 40);
        const Shape mostly = static_cast<Shape>(rng() % 4);
        std::vector<KEventsStore> stores;
        stores.reserve(static_cast<std::size_t>(count));
        std::vector<std::pair<int, const KEventsStore*>> entries;
        for (int i = 0; i < count; ++i) {
            const Shape shape = rng() % 4 == 0 ? static_cast<Shape>(rng() % 4) : mostly;
            const int size = std::vector<int>{0, 1, 4, 8}[rng() % 4];
            const int events = rng() % 10 == 0 ? 0 : static_cast<int>(rng() % (count > 100 ? 20 : 300));
            stores.push_back(RandomStore(rng, shape, size, events));
            entries.emplace_back(static_cast<int>(rng() % 3 == 0 ? rng() % 100000 : static_cast<std::uint64_t>(i)), &stores.back());
        }
        const std::vector<MergedEvent> expected = ModelPass(entries), got = MergePass(entries);
        const std::size_t at = static_cast<std::size_t>(std::mismatch(expected.begin(), expected.end(), got.begin(), got.end()).first - expected.begin());
        ASSERT_TRUE(expected == got) << "first difference at event " << at << " of " << expected.size() << ": expected "
                                     << (at < expected.size() ? Describe(expected[at]) : "the end") << ", got "
                                     << (at < got.size() ? Describe(got[at]) : "the end");
    }
}

// Long stores that reach the ends of their decoded runs together: on one shared clock hundreds
// of refills wait at once (more than the queue holds), and a fast store among slow ones steps
// past its run's end before its refill's turn.
TEST(EventMerge, MatchesTheMapModelWhenManyRefillsWait) {
    std::mt19937_64 rng(11);
    std::vector<KEventsStore> stores;
    stores.reserve(301);
    std::vector<std::pair<int, const KEventsStore*>> entries;
    for (int i = 0; i < 300; ++i) {
        stores.push_back(RandomStore(rng, i % 3 == 0 ? Shape::kCrowded : Shape::kClock, 4, 400 + i % 7));
        entries.emplace_back(i, &stores.back());
    }
    stores.push_back(RandomStore(rng, Shape::kCrowded, 8, 5000));
    entries.emplace_back(300, &stores.back());
    const std::vector<MergedEvent> expected = ModelPass(entries), got = MergePass(entries);
    ASSERT_EQ(expected.size(), got.size());
    EXPECT_TRUE(expected == got);
}

}  // namespace
}  // namespace Tarvel::Testing
