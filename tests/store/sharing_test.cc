// Store handles shared across threads: copies, assignments, equal and different modifications
// and releases race on the same bodies. Run under ThreadSanitizer as well; the longer campaign is
// tests/reliability/thread_stress_test.cc.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "store/events_store_body.h"
#include "store/store_test_util.h"

namespace TarvelTest {
namespace {

using Tarvel::KEventsStore;

TEST(Sharing, ThreadsCopyModifyAndDropHandlesOfSharedBodies) {
    KEventsStore base;
    base.SetSize(4);
    for (int i = 0; i < 200; ++i) Push(base, {i * 5, 0, static_cast<std::uint64_t>(i % 3), 0}, 4);
    const std::size_t before = Tarvel::LiveBodies();
    constexpr int kThreads = 4;
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 300; ++round) {
                KEventsStore mine = base;
                KEventsStore twin;
                twin = mine;
                // Every thread makes the same modification in even rounds: memo hits race.
                const std::uint64_t value = (round % 2 == 0) ? 1 : static_cast<std::uint64_t>(t + 10);
                Push(mine, {5000 + round, 0, value, 0}, 4);
                Push(twin, {5000 + round, 0, value, 0}, 4);
                if (!(mine == twin)) ++failures[t];
                mine.push_end(6000, 0);
                const std::vector<Event> walked = Collect(mine);
                if (walked.size() != 201 || walked.back().value != value) ++failures[t];
                KEventsStore moved;
                moved.swap(&twin);
            }
        });
    }
    for (std::thread& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
    EXPECT_EQ(base.count(), 200u);
    EXPECT_EQ(Tarvel::LiveBodies(), before) << "bodies left behind by the memo";
}

}  // namespace
}  // namespace TarvelTest
