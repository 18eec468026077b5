// The allocation path with its out-of-memory flag and reserve, and the library's load and unload
// hooks that make and free the reserve. Foundation layer; see memory.h for the threading note.
#include "foundation/memory.h"

#include <atomic>

#include "foundation/platform.h"
#include "tarvel/config.h"

namespace Tarvel {
namespace {

// Set by the first failed allocation; cleared by PrepareOutOfMemoryBuffer().
std::atomic<bool> g_outOfMemory{false};
// The block given back to the heap at the first failure, so that the code unwinding from the
// failure (and the host) still find a little memory.
std::atomic<void*> g_reserve{nullptr};

[[noreturn]] void Fail() {
    g_outOfMemory.store(true, std::memory_order_relaxed);
    if (void* reserve = g_reserve.exchange(nullptr, std::memory_order_acq_rel)) Platform::HeapFree(reserve);
    ThrowAllocationFailure();
}

void FreeReserve() noexcept {
    if (void* reserve = g_reserve.exchange(nullptr, std::memory_order_acq_rel)) Platform::HeapFree(reserve);
}

// Makes the reserve when the library is loaded and frees it when it is unloaded.
struct LibraryLifetime {
    LibraryLifetime() { PrepareOutOfMemoryBuffer(); }
    ~LibraryLifetime() { FreeReserve(); }
};
LibraryLifetime g_lifetime;

}  // namespace

void ThrowAllocationFailure() { throw AllocationFailure(); }

void* Allocate(std::size_t size) {
    if (g_outOfMemory.load(std::memory_order_relaxed)) ThrowAllocationFailure();
    void* block = Platform::HeapAllocate(size);
    if (!block) Fail();
    return block;
}

void* Reallocate(void* block, std::size_t size) {
    if (g_outOfMemory.load(std::memory_order_relaxed)) ThrowAllocationFailure();
    void* grown = Platform::HeapReallocate(block, size);
    if (!grown) Fail();
    return grown;
}

void Free(void* block) noexcept {
    if (block) Platform::HeapFree(block);
}

bool IsOutOfMemory() noexcept { return g_outOfMemory.load(std::memory_order_relaxed); }

bool HoldsOutOfMemoryReserve() noexcept { return g_reserve.load(std::memory_order_relaxed) != nullptr; }

void PrepareOutOfMemoryBuffer() {
    g_outOfMemory.store(false, std::memory_order_relaxed);
    FreeReserve();
    // A failure to make the reserve is not reported: the library then runs without one.
    void* fresh = Platform::HeapAllocate(kOutOfMemoryReserveSize);
    if (void* raced = g_reserve.exchange(fresh, std::memory_order_acq_rel)) Platform::HeapFree(raced);
}

}  // namespace Tarvel
