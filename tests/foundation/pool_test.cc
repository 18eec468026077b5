// Fixed-size pools and the out-of-memory reserve.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "foundation/memory.h"
#include "foundation/platform.h"
#include "foundation/pool.h"
#include "tarvel/config.h"

namespace Tarvel {
namespace {

TEST(Pool, BlocksAreMadeOnDemandAndGivenBackWhenEmpty) {
    FixedPool<24, 4> pool;
    std::vector<void*> slots;
    for (int i = 0; i < 4; ++i) slots.push_back(pool.allocate());
    EXPECT_EQ(pool.BlocksMade(), 1u);
    EXPECT_EQ(pool.BlocksInFreeList(), 0u);  // a full block leaves the free-slot list
    slots.push_back(pool.allocate());
    EXPECT_EQ(pool.BlocksMade(), 2u);
    pool.release(slots[1]);
    EXPECT_EQ(pool.BlocksInFreeList(), 2u);  // the first block has a free slot again
    void* again = pool.allocate();
    EXPECT_TRUE(again == slots[1] || pool.BlocksMade() == 2u);
    slots[1] = again;
    for (int i = 0; i < 4; ++i) pool.release(slots[i]);
    EXPECT_EQ(pool.BlocksMade(), 1u);  // the first block was all free: given back
    pool.release(slots[4]);
    EXPECT_EQ(pool.BlocksMade(), 0u);
    void* fresh = pool.allocate();
    EXPECT_EQ(pool.BlocksMade(), 1u);
    pool.release(fresh);
}

TEST(Pool, SlotsDoNotOverlap) {
    FixedPool<40, 16> pool;
    std::vector<unsigned char*> slots;
    for (int i = 0; i < 100; ++i) {
        slots.push_back(static_cast<unsigned char*>(pool.allocate()));
        std::memset(slots.back(), i, 40);
    }
    for (int i = 0; i < 100; ++i) {
        for (int b = 0; b < 40; ++b) ASSERT_EQ(slots[i][b], i);
    }
    for (unsigned char* s : slots) pool.release(s);
    EXPECT_EQ(pool.BlocksMade(), 0u);
}

std::set<void*> g_liveReserves;
void* CountReserveAllocate(std::size_t size) {
    void* block = std::malloc(size);
    if (size == kOutOfMemoryReserveSize) g_liveReserves.insert(block);
    return block;
}
void* PlainReallocate(void* block, std::size_t size) { return std::realloc(block, size); }
void CountingFree(void* block) {
    g_liveReserves.erase(block);
    std::free(block);
}

TEST(OutOfMemoryReserve, PreparingTwiceHoldsOneReserve) {
    const Platform::HeapHooks hooks{CountReserveAllocate, PlainReallocate, CountingFree};
    Platform::SetHeapHooks(&hooks);
    PrepareOutOfMemoryBuffer();
    PrepareOutOfMemoryBuffer();
    Platform::SetHeapHooks(nullptr);
    EXPECT_EQ(g_liveReserves.size(), 1u);
    EXPECT_TRUE(HoldsOutOfMemoryReserve());
    EXPECT_FALSE(IsOutOfMemory());
}

}  // namespace
}  // namespace Tarvel
