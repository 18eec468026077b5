// The platform layer: every call the library makes to the operating system or the C runtime's
// heap goes through here, so that a port touches one place and tests can fake it. Foundation
// layer. The hooks are process-wide; tests install them while no other thread uses the library.
#ifndef TARVEL_FOUNDATION_PLATFORM_H
#define TARVEL_FOUNDATION_PLATFORM_H

#include <atomic>
#include <cstddef>
#include <cstdint>

// Forces inlining of a small function on a per-byte or per-event path.
#if defined(__GNUC__) || defined(__clang__)
#define TARVEL_ALWAYS_INLINE inline __attribute__((always_inline))
#else
#define TARVEL_ALWAYS_INLINE inline
#endif

namespace Tarvel::Platform {

// The heap under the library's allocation path. A null result means the heap is exhausted.
void* HeapAllocate(std::size_t size) noexcept;
void* HeapReallocate(void* block, std::size_t size) noexcept;
void HeapFree(void* block) noexcept;

// A hint that the whole large pages (2 MB) within [block, block + size) will be read at random:
// where the system offers it, they are backed by large pages, which saves the address
// translations of a walk over many small pages. Never fails; the memory stays as it was.
void AdviseRandomAccess(void* block, std::size_t size) noexcept;

// Sleeps `milliseconds`; 0 yields the rest of the time slice.
void Sleep(unsigned milliseconds) noexcept;

// Atomically stores `value` into `word` and returns the value it held (acquire-release order).
inline std::uint32_t AtomicExchange(std::atomic<std::uint32_t>& word, std::uint32_t value) noexcept {
    return word.exchange(value, std::memory_order_acq_rel);
}

// Replaceable heap for tests: while installed, every heap call of the library goes to it.
// A hook that returns null makes the library run out of memory at that point.
struct HeapHooks {
    void* (*allocate)(std::size_t size);
    void* (*reallocate)(void* block, std::size_t size);
    void (*free)(void* block);
};
// Installs `hooks` (null restores the C runtime's heap). Returns the hooks installed before.
const HeapHooks* SetHeapHooks(const HeapHooks* hooks) noexcept;

}  // namespace Tarvel::Platform

#endif  // TARVEL_FOUNDATION_PLATFORM_H
