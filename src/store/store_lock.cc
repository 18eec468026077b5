// Contended acquisition of the store spin lock: a short adaptive spin, then yields, then sleeps
// that double up to 128 ms. Store layer; any thread.
#include "store/store_lock.h"

#include <algorithm>

namespace Tarvel {
namespace {

// Spin budget: 30 after a failed spin, 1000 after a successful one.
std::atomic<int> g_spinLimit{30};
// Index at which the last successful spin got the lock; spinning re-tries the exchange only
// from half of it on, so the lock word is not hammered while the holder is likely busy.
std::atomic<int> g_lastSpinSuccess{0};

bool TryExchange(std::atomic<std::uint32_t>& word) noexcept {
    return Platform::AtomicExchange(word, 1) == 0;
}

}  // namespace

std::atomic<std::uint32_t> StoreSpinLock::s_word{0};

void StoreSpinLock::AcquireContended() noexcept {
    const int limit = g_spinLimit.load(std::memory_order_relaxed);
    const int half = g_lastSpinSuccess.load(std::memory_order_relaxed) / 2;
    for (int i = 0; i < limit; ++i) {
        if (i >= half && s_word.load(std::memory_order_relaxed) == 0 && TryExchange(s_word)) {
            g_lastSpinSuccess.store(i, std::memory_order_relaxed);
            g_spinLimit.store(1000, std::memory_order_relaxed);
            return;
        }
    }
    g_spinLimit.store(30, std::memory_order_relaxed);
    for (int k = 6;; k = std::min(k + 1, 27)) {
        const int s = k;
        if (TryExchange(s_word)) return;
        Platform::Sleep(s > 20 ? 1u << (s - 20) : 0u);
    }
}

}  // namespace Tarvel
