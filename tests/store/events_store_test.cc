// Events store behaviour: the store's documented corner cases (round trips of generated streams
// through walking, emission and the direct stores are batch_walk_test.cc's).
#include <gtest/gtest.h>

#include "store/store_test_util.h"

namespace TarvelTest {
namespace {

using Tarvel::KEventsStore;

TEST(EventsStore, RestartAppendsAfterTheEndAndWalksOnAsOneStream) {
    std::vector<Event> events = Generate(Shape::kMixed, 4, true, 99, 3000);
    KEventsStore store;
    store.SetSize(4);
    for (size_t i = 0; i < events.size(); ++i) {
        Push(store, events[i], 4);
        if (i % 700 == 699) {
            store.push_end(events[i].time, 0);
            store.restart();
        }
    }
    store.push_end(events.back().time, 0);
    EXPECT_TRUE(Collect(store) == events);
}

TEST(EventsStore, TimeStepsOnlyAndRepeatedStepsAreAbsorbed) {
    KEventsStore store;
    EXPECT_TRUE(store.empty());
    EXPECT_EQ(store.push_back(10, 0), 0);
    EXPECT_EQ(store.push_back(10, 0), 0);  // same step again: absorbed
    EXPECT_EQ(store.push_back(10, 1), 1);
    EXPECT_EQ(store.push_back(20, 0), 2);
    store.push_end(30, 2);
    EXPECT_EQ(store.count(), 3u);
    EXPECT_EQ(store.LastIndex(), 2);
    EXPECT_EQ(store.EndTime(), 30);
    EXPECT_EQ(store.EndDelta(), 2);
    std::vector<Event> walked = Collect(store);
    ASSERT_EQ(walked.size(), 3u);
    EXPECT_EQ(walked[1].time, 10);
    EXPECT_EQ(walked[1].delta, 1u);
}

TEST(EventsStore, SetSizeKindsAndResets) {
    KEventsStore store;
    store.SetSize(2);
    EXPECT_EQ(store.GetSize(), 0);
    store.SetSize(4);
    EXPECT_EQ(store.GetSize(), 4);
    Push(store, {5, 0, 1, 0}, 4);
    store.SetSize(4);  // same size: events kept
    EXPECT_EQ(store.count(), 1u);
    store.SetSize(1);
    EXPECT_EQ(store.GetSize(), 4);
    EXPECT_EQ(store.GetSecondSize(), 4);
    EXPECT_EQ(store.count(), 0u);
    Push(store, {5, 0, 1, 0}, 4);
    store.SetSize(4);  // the size-1 kind reports 4: kept
    EXPECT_EQ(store.count(), 1u);
    store.SetSize(1);  // never matches: emptied again
    EXPECT_EQ(store.count(), 0u);
    store.SetSize(8);
    EXPECT_EQ(store.GetSize(), 8);
    EXPECT_EQ(store.GetSecondSize(), 8);
    store.SetSize(0);
    EXPECT_EQ(store.GetSize(), 0);
}

TEST(EventsStore, SourcesAreKeptUpToTheLastNonZeroOne) {
    KEventsStore store;
    store.SetSize(4);
    EXPECT_FALSE(store.Sources());
    const int sources[] = {0, 0, 7, 0};
    for (int i = 0; i < 4; ++i) Push(store, {i * 10, 0, 1, sources[i]}, 4);
    store.push_end(100, 0);
    EXPECT_TRUE(store.Sources());
    std::vector<Event> walked = Collect(store);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(walked[i].source, sources[i]) << i;
    RecordingWriter recorder;
    ASSERT_TRUE(store.WriteSource(&recorder));
    EXPECT_EQ(recorder.calls.front(), "C 3");  // entries up to the event with source 7
}

TEST(EventsStore, BusKeepsTimeStepsOnlyAndSurvivesCopies) {
    KEventsStore store;
    store.SetSize(4);
    Push(store, {1, 0, 1, 3}, 4);
    store.SetBus();
    EXPECT_TRUE(store.GetBus());
    EXPECT_EQ(store.GetSize(), 0);
    EXPECT_EQ(store.count(), 0u);
    store.push_back(5, 0);
    KEventsStore copy = store;
    copy.push_back(9, 0);
    EXPECT_TRUE(copy.GetBus());
    EXPECT_TRUE(store.GetBus());
    EXPECT_FALSE(KEventsStore().GetBus());
}

class Positioning : public ::testing::Test {
protected:
    void SetUp() override {
        store.SetSize(4);
        for (int i = 0; i < 1000; ++i) Push(store, {100 + i * 10, 0, static_cast<std::uint64_t>(i % 2), 0}, 4);
        store.push_end(20000, 0);
    }
    KEventsStore store;
};

TEST_F(Positioning, FirstEventAtATimeStandsOnTheEventBeforeIt) {
    Tarvel::KEventData data;
    ASSERT_TRUE(store.GetFirstEvent(150, &data, nullptr));  // an event's exact time
    EXPECT_EQ(data.GetTime(), 140);
    EXPECT_EQ(data.GetIndex(), 4);
    ASSERT_TRUE(store.GetFirstEvent(155, &data, nullptr));
    EXPECT_EQ(data.GetTime(), 150);
    ASSERT_TRUE(store.GetFirstEvent(50, &data, nullptr));  // before all events
    EXPECT_EQ(data.GetIndex(), 0);
    ASSERT_TRUE(store.GetFirstEvent(1000000, &data, nullptr));  // after all events
    EXPECT_EQ(data.GetIndex(), 999);
    unsigned char value[4];
    ASSERT_TRUE(data.GetValue(value, 4));
    EXPECT_EQ(value[0], 1);
    KEventsStore empty;
    EXPECT_FALSE(empty.GetFirstEvent(0, &data, nullptr));
}

TEST_F(Positioning, SpanJumpsOverARepeatedRunAndCacheRestoresPositions) {
    // The first step (100 from time 0) stands alone; the 999 steps of 10 after it form a run.
    Tarvel::KEventData data;
    ASSERT_TRUE(store.GetFirstEvent(&data));
    bool skipped = true;
    ASSERT_TRUE(store.GetNextEvent(&data, 100, &skipped));  // enters the run: one step
    EXPECT_FALSE(skipped);
    EXPECT_EQ(data.GetIndex(), 1);
    ASSERT_TRUE(store.GetNextEvent(&data, 100, &skipped));
    EXPECT_TRUE(skipped);
    EXPECT_EQ(data.GetIndex(), 999);
    EXPECT_EQ(data.GetTime(), 100 + 999 * 10);
    EXPECT_FALSE(store.GetNextEvent(&data, 100, &skipped));

    ASSERT_TRUE(store.GetFirstEvent(&data));
    ASSERT_TRUE(store.GetNextEvent(&data, 5, &skipped));
    ASSERT_TRUE(store.GetNextEvent(&data, 5, &skipped));  // steps are not shorter than the span
    EXPECT_FALSE(skipped);
    EXPECT_EQ(data.GetIndex(), 2);
    ASSERT_TRUE(store.GetNextEvent(&data, -1, &skipped));  // -1: never jump
    EXPECT_FALSE(skipped);
    EXPECT_EQ(data.GetIndex(), 3);

    Tarvel::KEventsStoreCache cache;
    ASSERT_TRUE(store.GetFirstEvent(5000, &data, nullptr));
    const int index = data.GetIndex();
    store.Cache(&data, &cache);
    Tarvel::KEventData other;
    ASSERT_TRUE(store.GetFirstEvent(9000, &other, &cache));
    EXPECT_EQ(other.GetIndex(), index);  // the cached position is not later than 9000
    ASSERT_TRUE(store.GetFirstEvent(1000, &other, &cache));
    EXPECT_LT(other.GetIndex(), index);  // the cached position is later: walked from the start
}

}  // namespace
}  // namespace TarvelTest
