// The global spin lock that guards the reference counts, memos and origin links of all store
// bodies (and the store-body pool). Store layer; any thread. Held only for pointer and count
// work, never while events are coded.
#ifndef TARVEL_STORE_STORE_LOCK_H
#define TARVEL_STORE_STORE_LOCK_H

#include <atomic>
#include <cstdint>

#include "foundation/platform.h"

namespace Tarvel {

class StoreSpinLock {
public:
    static void Acquire() noexcept {
        if (Platform::AtomicExchange(s_word, 1) != 0) AcquireContended();
    }
    static void Release() noexcept { s_word.store(0, std::memory_order_release); }

private:
    static void AcquireContended() noexcept;
    static std::atomic<std::uint32_t> s_word;
};

// Holds the store lock for its scope.
class StoreLockGuard {
public:
    StoreLockGuard() noexcept { StoreSpinLock::Acquire(); }
    ~StoreLockGuard() { StoreSpinLock::Release(); }
    StoreLockGuard(const StoreLockGuard&) = delete;
    StoreLockGuard& operator=(const StoreLockGuard&) = delete;
};

}  // namespace Tarvel

#endif  // TARVEL_STORE_STORE_LOCK_H
