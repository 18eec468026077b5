// Exhausted memory: a failing store operation throws std::bad_alloc, leaves the store as it was,
// and every later allocation fails until PrepareOutOfMemoryBuffer() re-arms the reserve.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "foundation/memory.h"
#include "foundation/test_heap.h"
#include "store/store_test_util.h"

namespace TarvelTest {
namespace {

using Tarvel::KEventsStore;

using HeapFailure = Tarvel::Testing::TestHeap;  // fails the n-th request from now on

struct Operation {
    const char* name;
    bool shared;  // run on a store whose body another handle holds too
    std::function<void(KEventsStore&)> run;
};

// Runs `op` with the n-th allocation failing, for n = 1, 2, ... until it succeeds, and checks
// every failure for the rules above.
void FailEveryAllocationInTurn(const Operation& op) {
    const std::vector<Event> events = Generate(Shape::kMixed, 4, true, 5, 3000);
    for (int n = 1; n < 1000; ++n) {
        KEventsStore store;
        store.SetSize(4);
        for (const Event& e : events) Push(store, e, 4);
        KEventsStore other;
        if (op.shared) other = store;
        const int nr = store.GetNr();
        const unsigned count = store.count();
        bool failed = false;
        {
            HeapFailure failure(static_cast<std::uint64_t>(n));
            try {
                op.run(store);
            } catch (const std::bad_alloc& thrown) {
                failed = true;
                // One text on every platform, whatever the runtime's own bad_alloc says.
                EXPECT_STREQ(thrown.what(), "bad allocation") << op.name;
            }
        }
        if (!failed) {
            EXPECT_FALSE(Tarvel::IsOutOfMemory()) << op.name;
            return;
        }
        EXPECT_TRUE(Tarvel::IsOutOfMemory()) << op.name << " allocation " << n;
        EXPECT_EQ(store.GetNr(), nr) << op.name << " allocation " << n;
        EXPECT_EQ(store.count(), count) << op.name << " allocation " << n;
        EXPECT_THROW(Tarvel::Allocate(16), std::bad_alloc) << "allocations must keep failing";
        try {
            Tarvel::Allocate(16);
        } catch (const std::bad_alloc& later) {
            EXPECT_STREQ(later.what(), "bad allocation");
        }
        KEventsStore copy = store;  // shared: the next push must copy the body
        EXPECT_THROW(copy.push_back(1 << 30, 0, reinterpret_cast<const unsigned char*>("abcd"), 3), std::bad_alloc);
        EXPECT_TRUE(copy == store);
        Tarvel::PrepareOutOfMemoryBuffer();
        EXPECT_FALSE(Tarvel::IsOutOfMemory());
        EXPECT_TRUE(Tarvel::HoldsOutOfMemoryReserve());
        store.push_end(events.back().time + 1, 0);
        std::vector<Event> walked = Collect(store);
        ASSERT_EQ(walked.size(), events.size()) << op.name << " allocation " << n;
        EXPECT_TRUE(walked == events) << op.name << " allocation " << n;
    }
    ADD_FAILURE() << op.name << " never succeeded";
}

TEST(OutOfMemory, FailingOperationsThrowAndLeaveTheStoreAsItWas) {
    const unsigned char value[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const Operation operations[] = {
        {"push on a shared store", true, [&](KEventsStore& s) { s.push_back(1 << 30, 0, value, 0); }},
        {"push with a first source", false, [&](KEventsStore& s) {
             KEventsStore fresh;
             fresh.SetSize(4);
             fresh.push_back(1, 0, value, 0);
             fresh.push_back(2, 0, value, 9);
             s.swap(&fresh);
             s.swap(&fresh);
         }},
        {"many pushes held alone", false, [&](KEventsStore& s) {
             KEventsStore grown = s;
             for (int i = 0; i < 5000; ++i) grown.push_back((1 << 30) + i * 7, 0, value, i % 3);
         }},
        {"end on a shared store", true, [&](KEventsStore& s) { s.push_end(1 << 30, 0); }},
        {"size change on a shared store", true, [&](KEventsStore& s) { s.SetSize(8); }},
        {"direct refill", false, [&](KEventsStore& s) {
             KEventsStore copy;
             copy.SetSize(4);
             KEventsStore closed = s;
             closed.push_end(1 << 30, 0);
             Tarvel::KDirectTimeDeltaStore steps(&copy);
             closed.WriteTimeDelta(&steps);
         }},
    };
    for (const Operation& op : operations) FailEveryAllocationInTurn(op);
}

TEST(OutOfMemory, AFailingPushOnAStoreHeldAloneKeepsEveryEarlierEvent) {
    const std::vector<Event> events = Generate(Shape::kRandom, 8, true, 11, 20000);
    for (int n = 1; n <= 200; n += 3) {
        KEventsStore store;
        store.SetSize(8);
        size_t pushed = 0;
        {
            HeapFailure failure(static_cast<std::uint64_t>(n));
            try {
                for (; pushed < events.size(); ++pushed) Push(store, events[pushed], 8);
            } catch (const std::bad_alloc&) {
            }
        }
        if (pushed == events.size()) {
            EXPECT_GT(n, 20) << "the pushes should have needed more allocations";
            break;
        }
        EXPECT_EQ(store.count(), pushed);
        Tarvel::PrepareOutOfMemoryBuffer();
        store.push_end(1, 0);
        const std::vector<Event> walked = Collect(store);
        ASSERT_EQ(walked.size(), pushed);
        EXPECT_TRUE(std::equal(walked.begin(), walked.end(), events.begin())) << "allocation " << n;
    }
}

}  // namespace
}  // namespace TarvelTest
