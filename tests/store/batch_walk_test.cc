// Seeded random stores of every generated shape and value size, with and without sources, made
// by push_back and refilled through the direct stores (unscaled codes, repeat codes as a file
// gives them): their walk gives back the generated events, and KEventsStore::GetNextEvents
// matches the per-event walk (GetNextEvent and the cursor's getters) with batches of random
// sizes taking turns with single steps, seeks and run jumps on one cursor. Store layer tests;
// single-threaded.
#include <gtest/gtest.h>

#include <cstdlib>

#include "store/store_test_util.h"

namespace TarvelTest {
namespace {

using Tarvel::KEventData;
using Tarvel::KEventsStore;

// One event as the cursor shows it, index included.
struct Seen {
    int index;
    Event event;
    bool operator==(const Seen& o) const { return index == o.index && event == o.event; }
};

void PrintTo(const Seen& s, std::ostream* out) { *out << "#" << s.index << " " << Describe(s.event); }

std::uint64_t ValueOf(const unsigned char* bytes, int width) {
    std::uint64_t value = 0;
    for (int i = width; i-- > 0;) value = (value << 8) | bytes[i];
    return value;
}

Seen Current(const KEventData& data, int width) {
    unsigned char bytes[8] = {};
    if (width > 0) data.GetValue(bytes, 8);
    return {data.GetIndex(), {data.GetTime(), data.GetDelta(), ValueOf(bytes, width), data.GetSource()}};
}

std::vector<std::string> TimeCalls(const KEventsStore& store) {
    RecordingWriter recorder;
    EXPECT_TRUE(store.WriteTimeDelta(&recorder));
    return recorder.calls;
}

// A store made by push_back from generated events, or refilled from it through the three
// emission interfaces and the direct stores. Either walks back every event, and a refilled
// store emits the time steps of the one it was refilled from.
KEventsStore MakeStore(const std::vector<Event>& events, int size, bool refill) {
    KEventsStore store;
    store.SetSize(size);
    for (const Event& e : events) Push(store, e, store.GetSize());
    store.push_end(events.empty() ? 0 : events.back().time + 3, 0);
    std::vector<Event> kept = events;  // a store without values walks with value 0
    for (Event& e : kept) e.value = store.GetSize() == 0 ? 0 : e.value;
    EXPECT_TRUE(Collect(store) == kept) << "the walk of the store";
    if (!refill) return store;
    KEventsStore copy;
    copy.SetSize(size);
    {
        Tarvel::KDirectTimeDeltaStore steps(&copy);
        EXPECT_TRUE(store.WriteTimeDelta(&steps));
    }
    if (store.GetSize() != 0) {
        Tarvel::KDirectValueStore values(&copy);
        EXPECT_TRUE(store.WriteValue(&values));
    }
    if (store.Sources()) {
        Tarvel::KDirectSourceStore sources(&copy);
        EXPECT_TRUE(store.WriteSource(&sources));
    }
    EXPECT_EQ(copy.EndTime(), store.EndTime());
    EXPECT_TRUE(Collect(copy) == kept) << "the walk of the refilled store";
    EXPECT_EQ(TimeCalls(store), TimeCalls(copy));
    return copy;
}

// Walks `store` by a random mix of batches (with and without values and sources), single steps,
// seeks and run jumps; every event the batches deliver must be the one single steps show, and
// the cursor must stand where single steps would have left it.
void CheckMixedWalk(const KEventsStore& store, std::mt19937_64& rng, const std::string& what) {
    const int width = store.GetSize();
    std::vector<Seen> reference;
    KEventData walk;
    for (bool ok = store.GetFirstEvent(&walk); ok; ok = store.GetNextEvent(&walk)) reference.push_back(Current(walk, width));

    KEventData data;
    std::vector<int64> times;
    std::vector<unsigned> deltas;
    std::vector<unsigned char> values;
    std::vector<int> sources;
    int next = 0;  // index in `reference` of the event the next step delivers
    for (int round = 0; round < 100000 && next <= static_cast<int>(reference.size()); ++round) {
        const unsigned choice = static_cast<unsigned>(rng() % 10);
        if (choice == 0 && !reference.empty()) {  // seek somewhere, then go on from there
            const int64 time = reference[rng() % reference.size()].event.time + static_cast<int64>(rng() % 3) - 1;
            ASSERT_TRUE(store.GetFirstEvent(time, &data, nullptr)) << what;
            next = data.GetIndex() + 1;
            ASSERT_EQ(Current(data, width), reference[static_cast<std::size_t>(data.GetIndex())]) << what << " after a seek";
            continue;
        }
        if (choice == 1) {  // a single step, perhaps jumping over a run
            bool skipped = false;
            const bool ok = rng() % 2 ? store.GetNextEvent(&data, int64{1000}, &skipped) : store.GetNextEvent(&data);
            ASSERT_EQ(ok, next < static_cast<int>(reference.size())) << what << " single step at " << next;
            if (!ok) break;
            if (skipped) next = data.GetIndex();
            ASSERT_EQ(Current(data, width), reference[static_cast<std::size_t>(next)]) << what << " single step";
            ++next;
            continue;
        }
        const int capacity = rng() % 4 == 0 ? static_cast<int>(rng() % 3) : 1 + static_cast<int>(rng() % 300);
        const bool withValues = rng() % 4 != 0, withSources = rng() % 2 == 0;
        times.assign(static_cast<std::size_t>(capacity) + 1, -7);
        deltas.assign(times.size(), 7);
        values.assign(times.size() * 8, 0xA5);
        sources.assign(times.size(), -7);
        const Seen before = Current(data, width);
        const int n = store.GetNextEvents(&data, capacity, times.data(), deltas.data(), withValues ? values.data() : nullptr,
                                          withSources ? sources.data() : nullptr);
        const int expected = std::min(capacity, static_cast<int>(reference.size()) - next);
        ASSERT_EQ(n, std::max(expected, 0)) << what << " batch of " << capacity << " at " << next;
        if (n == 0) {
            ASSERT_EQ(Current(data, width), before) << what << " an empty batch leaves the cursor";
            if (capacity > 0) break;
            continue;
        }
        for (int i = 0; i < n; ++i) {
            const Event& e = reference[static_cast<std::size_t>(next + i)].event;
            ASSERT_EQ(times[i], e.time) << what << " event " << next + i;
            ASSERT_EQ(deltas[i], e.delta) << what << " event " << next + i;
            if (withValues && width > 0) {
                ASSERT_EQ(ValueOf(&values[static_cast<std::size_t>(i) * width], width), e.value) << what << " event " << next + i;
            }
            if (withSources) {
                ASSERT_EQ(sources[static_cast<std::size_t>(i)], e.source) << what << " event " << next + i;
            }
        }
        ASSERT_EQ(times[static_cast<std::size_t>(n)], -7) << what << " writes past the batch";
        if (withValues) {
            ASSERT_EQ(values[static_cast<std::size_t>(n) * static_cast<std::size_t>(width)], 0xA5) << what;
        }
        next += n;
        ASSERT_EQ(Current(data, width), reference[static_cast<std::size_t>(next - 1)]) << what << " cursor after the batch";
    }
}

TEST(BatchWalk, RandomStoresWalkBackTheirEventsAndBatchesMatchSingleSteps) {
    const char* fixed = std::getenv("TARVEL_SEED");
    const std::uint64_t first = fixed ? std::strtoull(fixed, nullptr, 10) : std::random_device()();
    for (std::uint64_t seed = first; seed < first + (fixed ? 1 : 120); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " (TARVEL_SEED=" + std::to_string(seed) + " repeats it)");
        std::mt19937_64 rng(seed);
        const auto shape = static_cast<Shape>(rng() % 7);
        const int size = std::vector<int>{0, 1, 4, 8}[rng() % 4];
        const bool withSources = rng() % 3 == 0, refill = rng() % 2 == 0;
        // Up to 6000 events: time codes cross 2048-byte chunks, 8-byte values 16 KB ones.
        const int n = rng() % 8 == 0 ? static_cast<int>(rng() % 4) : 1 + static_cast<int>(rng() % 6000);
        const KEventsStore store = MakeStore(Generate(shape, size, withSources, static_cast<std::uint32_t>(seed), n), size, refill);
        CheckMixedWalk(store, rng, "shape " + std::to_string(static_cast<int>(shape)) + " size " + std::to_string(size) +
                                       (refill ? " refilled" : "") + (withSources ? " with sources" : ""));
    }
}

// A cursor that walks another store (or another body of the same handle) starts at the first
// event, as GetNextEvent does; an empty store gives nothing; a store keeping fewer values than
// events gives zero bytes for the rest; a bus store (times only) fills no value bytes.
TEST(BatchWalk, CursorBindingEmptyStoresAndMissingValues) {
    KEventsStore a, b, empty;
    a.SetSize(4);
    b.SetSize(4);
    const unsigned char one[4] = {1, 0, 0, 0}, two[4] = {2, 0, 0, 0};
    for (int i = 0; i < 5; ++i) {
        a.push_back(10 * i, 0, one);
        b.push_back(7 * i, 0, two);
    }
    a.push_end(50, 0);
    b.push_end(35, 0);
    KEventData data;
    int64 times[8];
    unsigned deltas[8];
    unsigned char values[32];
    ASSERT_TRUE(a.GetFirstEvent(&data));
    ASSERT_TRUE(a.GetNextEvent(&data));
    EXPECT_EQ(b.GetNextEvents(&data, 8, times, deltas, values, nullptr), 5);
    EXPECT_EQ(times[0], 0);
    EXPECT_EQ(times[4], 28);
    EXPECT_EQ(values[16], 2);
    EXPECT_EQ(data.GetIndex(), 4);
    EXPECT_EQ(b.GetNextEvents(&data, 8, times, deltas, values, nullptr), 0);
    EXPECT_EQ(data.GetTime(), 28);
    EXPECT_EQ(empty.GetNextEvents(&data, 8, times, deltas, values, nullptr), 0);

    KEventsStore sparse;  // values for the first two events only
    sparse.SetSize(4);
    sparse.push_back(1, 0, one);
    sparse.push_back(2, 0, two);
    sparse.push_back(3, 0);
    sparse.push_back(4, 0);
    sparse.push_end(4, 0);
    std::memset(values, 0xFF, sizeof values);
    KEventData fresh;
    ASSERT_EQ(sparse.GetNextEvents(&fresh, 8, times, deltas, values, nullptr), 4);
    EXPECT_EQ(values[0], 1);
    EXPECT_EQ(values[4], 2);
    for (int i = 8; i < 16; ++i) EXPECT_EQ(values[i], 0) << i;
    EXPECT_EQ(values[16], 0xFF);

    KEventsStore bus;
    bus.SetBus();
    bus.push_back(5, 1);
    bus.push_end(5, 1);
    std::memset(values, 0xFF, sizeof values);
    KEventData onBus;
    ASSERT_EQ(bus.GetNextEvents(&onBus, 8, times, deltas, values, nullptr), 1);
    EXPECT_EQ(times[0], 5);
    EXPECT_EQ(deltas[0], 1u);
    EXPECT_EQ(values[0], 0xFF);
}

}  // namespace
}  // namespace TarvelTest
