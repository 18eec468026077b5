// Linux/POSIX implementation of the platform layer's heap, sleeping and library load hooks.
// Foundation layer. The heap hooks are a process-wide pointer, swapped atomically.
#include "foundation/platform.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <chrono>

namespace Tarvel::Platform {
namespace {

std::atomic<const HeapHooks*> g_hooks{nullptr};

}  // namespace

void* HeapAllocate(std::size_t size) noexcept {
    if (const HeapHooks* hooks = g_hooks.load(std::memory_order_acquire)) return hooks->allocate(size);
    return std::malloc(size == 0 ? 1 : size);
}

void* HeapReallocate(void* block, std::size_t size) noexcept {
    if (const HeapHooks* hooks = g_hooks.load(std::memory_order_acquire)) return hooks->reallocate(block, size);
    return std::realloc(block, size == 0 ? 1 : size);
}

void HeapFree(void* block) noexcept {
    if (const HeapHooks* hooks = g_hooks.load(std::memory_order_acquire)) {
        hooks->free(block);
        return;
    }
    std::free(block);
}

const HeapHooks* SetHeapHooks(const HeapHooks* hooks) noexcept {
    return g_hooks.exchange(hooks, std::memory_order_acq_rel);
}

void AdviseRandomAccess(void* block, std::size_t size) noexcept {
#if defined(MADV_HUGEPAGE)
    constexpr std::uintptr_t kLargePage = std::uintptr_t{2} << 20;
    const auto start = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t first = (start + kLargePage - 1) & ~(kLargePage - 1);
    const std::uintptr_t end = (start + size) & ~(kLargePage - 1);
    if (first < end) madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
#else
    (void)block;
    (void)size;
#endif
}

void Sleep(unsigned milliseconds) noexcept {
    if (milliseconds == 0) {
        std::this_thread::yield();
    } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    }
}

}  // namespace Tarvel::Platform
