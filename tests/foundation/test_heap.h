// The library's heap for a test, through the platform layer's heap hooks while a TestHeap lives:
// it numbers the requests and refuses request `refused` (0: none; the library's out-of-memory
// rule then refuses every later one), keeps the blocks it handed out with their sizes, so that
// what a run leaves behind shows, and the largest request. Test support; one at a time, and
// single-threaded while it lives (the hooks are process-wide).
#ifndef TARVEL_TESTS_FOUNDATION_TEST_HEAP_H
#define TARVEL_TESTS_FOUNDATION_TEST_HEAP_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <unordered_map>

#include "foundation/platform.h"

namespace Tarvel::Testing {

class TestHeap {
public:
    explicit TestHeap(std::uint64_t refused = 0) : failAt(refused) {
        s_now = this;
        Platform::SetHeapHooks(&kHooks);
    }
    ~TestHeap() {
        Platform::SetHeapHooks(nullptr);
        s_now = nullptr;
    }
    TestHeap(const TestHeap&) = delete;
    TestHeap& operator=(const TestHeap&) = delete;

    std::uint64_t failAt, requests = 0;
    std::size_t largest = 0;
    // The refused request asked to shrink a block (a store giving back the unused tail of its
    // last chunk asks the heap directly): that must change nothing.
    bool refusedShrink = false;
    std::unordered_map<void*, std::size_t> live;

private:
    static void* Allocate(std::size_t size) {
        TestHeap& h = *s_now;
        h.largest = std::max(h.largest, size);
        if (++h.requests == h.failAt) return nullptr;
        void* block = std::malloc(size == 0 ? 1 : size);
        if (block) h.live[block] = size;
        return block;
    }
    static void* Reallocate(void* block, std::size_t size) {
        TestHeap& h = *s_now;
        h.largest = std::max(h.largest, size);
        if (++h.requests == h.failAt) {
            const auto known = h.live.find(block);
            h.refusedShrink = known != h.live.end() && size <= known->second;
            return nullptr;
        }
        void* grown = std::realloc(block, size == 0 ? 1 : size);
        if (grown) h.live.erase(block), h.live[grown] = size;
        return grown;
    }
    static void Free(void* block) {
        s_now->live.erase(block);
        std::free(block);
    }
    static inline TestHeap* s_now = nullptr;
    static constexpr Platform::HeapHooks kHooks{Allocate, Reallocate, Free};
};

}  // namespace Tarvel::Testing

#endif  // TARVEL_TESTS_FOUNDATION_TEST_HEAP_H
