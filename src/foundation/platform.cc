// Linux/POSIX implementation of the platform layer's heap, sleeping and library load hooks.
// Foundation layer. The heap hooks are a process-wide pointer, swapped atomically.
#include "foundation/platform.h"

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

void Sleep(unsigned milliseconds) noexcept {
    if (milliseconds == 0) {
        std::this_thread::yield();
    } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    }
}

}  // namespace Tarvel::Platform
