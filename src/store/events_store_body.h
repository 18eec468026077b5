// The shared body behind KEventsStore handles, and the copy-on-write machinery: reference
// counts, the memo that maps a modification of a shared body to the body it produced, and the
// origin links back from produced bodies. Store layer.
//
// Threads: counts, memos and origin links change only under StoreSpinLock. A body's event
// content changes only through a handle that holds it alone (count 1, no memo), outside the
// lock; a shared body's content is immutable, so copies are made outside the lock too.
//
// Invariant: a body B has an origin link to A exactly when A's memo has an entry whose result
// is B; that entry holds one count of B. Hence a body with count 1 and no memo is reachable from
// its one handle only, and that handle's thread may change it without the lock.
#ifndef TARVEL_STORE_EVENTS_STORE_BODY_H
#define TARVEL_STORE_EVENTS_STORE_BODY_H

#include <atomic>
#include <cstdint>

#include "store/time_delta_store.h"
#include "store/value_store.h"

namespace Tarvel {

// Operation codes of modification records.
enum ModificationCode : std::uint32_t {
    kModSetSize = 0,
    kModSetBus = 1,
    kModPushStep = 2,
    kModPushValue4 = 3,
    kModPushValue8 = 4,
    kModPushEnd = 5,
    kModRestart = 6,
    kModClear = 7,
    kModPushValue1 = 8,
};

// Key of the memo: seven words; words an operation does not use are zero.
struct ModificationRecord {
    std::uint32_t words[7] = {};

    bool operator==(const ModificationRecord& other) const {
        for (int i = 0; i < 7; ++i) {
            if (words[i] != other.words[i]) return false;
        }
        return true;
    }
    static ModificationRecord Make(std::uint32_t code, int64 time = 0, std::uint32_t delta = 0, std::uint64_t value = 0,
                                   std::uint32_t last = 0) {
        ModificationRecord r;
        r.words[0] = code;
        r.words[1] = static_cast<std::uint32_t>(static_cast<std::uint64_t>(time));
        r.words[2] = static_cast<std::uint32_t>(static_cast<std::uint64_t>(time) >> 32);
        r.words[3] = delta;
        r.words[4] = static_cast<std::uint32_t>(value);
        r.words[5] = static_cast<std::uint32_t>(value >> 32);
        r.words[6] = last;
        return r;
    }
};

struct ModificationRecordHash {
    std::size_t operator()(const ModificationRecord& r) const noexcept {
        std::uint64_t h = 0x9E3779B97F4A7C15ull;
        for (std::uint32_t w : r.words) h = (h ^ w) * 0xFF51AFD7ED558CCDull;
        return static_cast<std::size_t>(h ^ (h >> 32));
    }
};

struct KEventsStoreBody;
struct ModificationMemo;

// Where a body produced by a shared modification came from.
struct OriginLink {
    KEventsStoreBody* origin;    // not counted; cleared when the origin is destroyed
    ModificationRecord record;   // the modification that made this body
};

inline constexpr std::uint32_t kBusFlag = 0x80000000u;
inline constexpr std::uint32_t kCountMask = 0x7FFFFFFFu;

// The fields an append reads (count, memo, value store and its kind, the time-delta store's
// coder and room) come first and lie close together: with many stores appended to in turn, each
// append meets its body out of cache, and every cache line less is a miss less.
struct KEventsStoreBody {
    std::atomic<std::uint32_t> countWord{1};  // bits 0-30: holders; bit 31: bus flag
    std::uint16_t lastPushedDelta = 0xFFFF;   // last delta seen by push_back
    ValueKind valueKind = ValueKind::kNone;   // concrete kind of `values`
    std::atomic<ModificationMemo*> memo{nullptr};  // shared modifications made from this body
    IValueStore* values = nullptr;            // null when the value size is 0 or unsupported
    KTimeDeltaStore timeDeltas;               // the time steps, inline
    int64 lastPushedTime = -1;                // last step seen by push_back
    std::int32_t lastResult = -1;             // index returned by the last appending push_back
    std::int32_t serial = 0;                  // serial number, new for every body made
    SourceStore* sources = nullptr;           // null until the first event with a source
    int64 endTime = 0;                        // set by push_end
    OriginLink* origin = nullptr;             // set while a memo entry holds this body
    std::uint16_t endDelta = 0;               // set by push_end

    std::uint32_t Count() const { return countWord.load(std::memory_order_acquire) & kCountMask; }
    // True when the calling handle is the only holder: it may change the body without the lock.
    bool OwnedAlone() const {
        return (countWord.load(std::memory_order_acquire) & kCountMask) == 1 &&
               memo.load(std::memory_order_acquire) == nullptr;
    }
};

// The global empty body that default-constructed handles share; never destroyed.
KEventsStoreBody* EmptyBody();

// Count changes; each takes the lock.
void AddRefBody(KEventsStoreBody* body);
void ReleaseBody(KEventsStoreBody* body);

// Deep-copies `body`'s content into a new private body (count 1). REQUIRES: `body` is not
// changed meanwhile (it is shared or owned by the caller). Throws std::bad_alloc.
KEventsStoreBody* CopyBody(const KEventsStoreBody& body);
// Destroys a body no one else knows about (count 1, never published).
void DestroyPrivateBody(KEventsStoreBody* body);

// A modification applied to a body. It must be strongly exception safe: when it throws, the
// body's content is as it was.
class IModification {
public:
    virtual void Apply(KEventsStoreBody& body) = 0;

protected:
    ~IModification() = default;
};

// Makes `*handleBody` ready for `record` and applies it: when the handle holds the body alone
// it is changed in place; when a shared body already produced this modification the handle
// moves to that result; otherwise the modification is applied to a copy that the memo of the
// shared body remembers. Throws std::bad_alloc and then leaves the handle as it was.
void ModifyShared(KEventsStoreBody** handleBody, const ModificationRecord& record, IModification& modification);

// Makes `*handleBody` private to the handle without a memo (for the direct stores).
void MakePrivate(KEventsStoreBody** handleBody);

// Fast path of ModifyShared for callers that apply the modification themselves.
template <class Fn>
inline void Modify(KEventsStoreBody** handleBody, const ModificationRecord& record, Fn&& fn) {
    if ((*handleBody)->OwnedAlone()) {
        fn(**handleBody);
        return;
    }
    struct Adapter final : IModification {
        explicit Adapter(Fn& f) : function(f) {}
        void Apply(KEventsStoreBody& body) override { function(body); }
        Fn& function;
    } adapter(fn);
    ModifyShared(handleBody, record, adapter);
}

// Resets a body's events (time steps, values, sources, end and last-pushed marks), keeping
// its value store's kind. Never fails.
void ResetBody(KEventsStoreBody& body);

// Counts for tests and benchmarks.
std::uint64_t BodyMemoryBytes(const KEventsStoreBody& body);
std::size_t LiveBodyBlocks();
std::size_t LiveBodies();

}  // namespace Tarvel

#endif  // TARVEL_STORE_EVENTS_STORE_BODY_H
