// Store bodies: pool allocation, reference counting, the memo of shared modifications and the
// origin links. Store layer; every function named ...Locked requires StoreSpinLock.
#include <cassert>
#include "store/events_store_body.h"

#include <new>

#include "foundation/pool.h"
#include "store/store_lock.h"

namespace Tarvel {

using MemoMap = HashMap<ModificationRecord, KEventsStoreBody*, ModificationRecordHash>;

// The modifications made from one shared body and the bodies they produced. Each entry holds
// one count of its result.
struct ModificationMemo {
    static constexpr std::uint32_t kDisabled = 1;  // no lookups
    static constexpr std::uint32_t kSingle = 2;    // one entry, kept inline
    std::uint32_t flags = 0;
    ModificationRecord single;
    KEventsStoreBody* singleResult = nullptr;
    MemoMap* map = nullptr;  // the entries when not kSingle
};

namespace {

// Pools, changed only under the store lock. Bodies come in blocks of 512 slots.
FixedPool<sizeof(KEventsStoreBody), 512> g_bodyPool;
SmallObjectPool<ModificationMemo> g_memoPool;
SmallObjectPool<OriginLink> g_originPool;
std::atomic<std::int32_t> g_serial{0};
std::size_t g_liveBodies = 0;  // bodies taken from the pool and not yet given back

void AddRefLocked(KEventsStoreBody* body) {
    const std::uint32_t w = body->countWord.load(std::memory_order_relaxed);
    body->countWord.store((w & kBusFlag) | ((w + 1) & kCountMask), std::memory_order_release);
}

// Lowers the count by one without any further action; returns the new count.
std::uint32_t DecrementLocked(KEventsStoreBody* body) {
    const std::uint32_t w = body->countWord.load(std::memory_order_relaxed);
    const std::uint32_t n = ((w & kCountMask) - 1) & kCountMask;
    body->countWord.store((w & kBusFlag) | n, std::memory_order_release);
    return n;
}

void ReleaseLocked(KEventsStoreBody* body);

void FreeOriginLocked(KEventsStoreBody* body) {
    if (OriginLink* link = body->origin) {
        link->~OriginLink();
        g_originPool.release(link);
        body->origin = nullptr;
    }
}

void FreeMemoLocked(KEventsStoreBody* body, ModificationMemo* memo) {
    DestroyObject(memo->map);
    memo->~ModificationMemo();
    g_memoPool.release(memo);
    body->memo.store(nullptr, std::memory_order_release);
}

KEventsStoreBody* LookupLocked(const KEventsStoreBody* body, const ModificationRecord& record) {
    const ModificationMemo* memo = body->memo.load(std::memory_order_relaxed);
    if (!memo || (memo->flags & ModificationMemo::kDisabled)) return nullptr;
    if (memo->flags & ModificationMemo::kSingle) return memo->single == record ? memo->singleResult : nullptr;
    const auto it = memo->map->find(record);
    return it == memo->map->end() ? nullptr : it->second;
}

// Enters record -> result in body's memo and links result back. Strong guarantee.
void InsertLocked(KEventsStoreBody* body, const ModificationRecord& record, KEventsStoreBody* result) {
    // The invariant: an origin link exactly for a memo entry, so a result has none yet.
    assert(result->origin == nullptr && LookupLocked(body, record) == nullptr);
    OriginLink* link = new (g_originPool.allocate()) OriginLink{body, record};
    try {
        ModificationMemo* memo = body->memo.load(std::memory_order_relaxed);
        if (!memo) {
            memo = new (g_memoPool.allocate()) ModificationMemo;
            memo->flags = ModificationMemo::kSingle;
            memo->single = record;
            memo->singleResult = result;
            body->memo.store(memo, std::memory_order_release);
        } else if (memo->flags & ModificationMemo::kSingle) {
            MemoMap* map = NewObject<MemoMap>();
            try {
                map->emplace(memo->single, memo->singleResult);
                map->emplace(record, result);
            } catch (...) {
                DestroyObject(map);
                throw;
            }
            memo->map = map;
            memo->flags &= ~ModificationMemo::kSingle;
        } else {
            memo->map->emplace(record, result);
        }
    } catch (...) {
        link->~OriginLink();
        g_originPool.release(link);
        throw;
    }
    result->origin = link;
}

// Takes the entry `record` out of origin's memo; returns its result (whose count the caller
// now holds) and frees the result's origin link.
KEventsStoreBody* RemoveEntryLocked(KEventsStoreBody* origin, const ModificationRecord& record) {
    ModificationMemo* memo = origin->memo.load(std::memory_order_relaxed);
    assert(memo != nullptr && LookupLocked(origin, record) != nullptr);
    KEventsStoreBody* result = nullptr;
    if (memo->flags & ModificationMemo::kSingle) {
        result = memo->singleResult;
        FreeMemoLocked(origin, memo);
    } else {
        const auto it = memo->map->find(record);
        result = it->second;
        memo->map->erase(it);
        if (memo->map->empty()) FreeMemoLocked(origin, memo);
    }
    assert(result->origin != nullptr && result->origin->origin == origin);
    FreeOriginLocked(result);
    return result;
}

// Drops every entry of body's memo: the results lose their origin and one count.
void ClearMemoLocked(KEventsStoreBody* body) {
    ModificationMemo* memo = body->memo.load(std::memory_order_relaxed);
    if (!memo) return;
    if (memo->flags & ModificationMemo::kSingle) {
        FreeOriginLocked(memo->singleResult);
        ReleaseLocked(memo->singleResult);
    } else {
        for (auto& entry : *memo->map) {
            FreeOriginLocked(entry.second);
            ReleaseLocked(entry.second);
        }
    }
    FreeMemoLocked(body, memo);
}

void DestroyContent(KEventsStoreBody* body) {
    DestroyObject(body->values);
    DestroyObject(body->sources);
    body->values = nullptr;
    body->sources = nullptr;
}

void DestroyLocked(KEventsStoreBody* body) {
    ClearMemoLocked(body);
    if (body->origin) {
        KEventsStoreBody* origin = body->origin->origin;
        if (origin) RemoveEntryLocked(origin, body->origin->record);
        FreeOriginLocked(body);
    }
    DestroyContent(body);
    body->~KEventsStoreBody();
    g_bodyPool.release(body);
    --g_liveBodies;
}

void ReleaseLocked(KEventsStoreBody* body) {
    const std::uint32_t n = DecrementLocked(body);
    if (n == 0) {
        DestroyLocked(body);
        return;
    }
    // The one holder left may be the memo of the body this one was made from: nobody can ask
    // it for this body any more through a handle, so the entry goes and frees the body.
    if (n == 1 && body->origin && body->origin->origin) {
        RemoveEntryLocked(body->origin->origin, body->origin->record);
        ReleaseLocked(body);
    }
}

KEventsStoreBody* NewBody() {
    void* slot = nullptr;
    {
        StoreLockGuard guard;
        slot = g_bodyPool.allocate();
        ++g_liveBodies;
    }
    KEventsStoreBody* body = new (slot) KEventsStoreBody();
    body->serial = g_serial.fetch_add(1, std::memory_order_relaxed) + 1;
    return body;
}

// Copies a body the caller pinned (raised its count for); on failure the pin is released.
KEventsStoreBody* CopyPinned(KEventsStoreBody* pinned) {
    try {
        return CopyBody(*pinned);
    } catch (...) {
        ReleaseBody(pinned);
        throw;
    }
}

}  // namespace

KEventsStoreBody* EmptyBody() {
    alignas(KEventsStoreBody) static unsigned char storage[sizeof(KEventsStoreBody)];
    static KEventsStoreBody* const body = new (storage) KEventsStoreBody();
    return body;
}

void AddRefBody(KEventsStoreBody* body) {
    StoreLockGuard guard;
    AddRefLocked(body);
}

void ReleaseBody(KEventsStoreBody* body) {
    StoreLockGuard guard;
    ReleaseLocked(body);
}

KEventsStoreBody* CopyBody(const KEventsStoreBody& source) {
    KEventsStoreBody* body = NewBody();
    try {
        body->timeDeltas.CopyFrom(source.timeDeltas);
        if (source.values) {
            body->values = source.values->Clone();
            body->valueKind = source.valueKind;
        }
        if (source.sources) {
            body->sources = NewObject<SourceStore>();
            body->sources->CopyFrom(*source.sources);
        }
    } catch (...) {
        DestroyPrivateBody(body);
        throw;
    }
    body->endTime = source.endTime;
    body->lastPushedTime = source.lastPushedTime;
    body->endDelta = source.endDelta;
    body->lastPushedDelta = source.lastPushedDelta;
    body->lastResult = source.lastResult;
    body->countWord.store(1 | (source.countWord.load(std::memory_order_relaxed) & kBusFlag), std::memory_order_relaxed);
    return body;
}

void DestroyPrivateBody(KEventsStoreBody* body) {
    DestroyContent(body);
    body->~KEventsStoreBody();
    StoreLockGuard guard;
    g_bodyPool.release(body);
    --g_liveBodies;
}

void ModifyShared(KEventsStoreBody** handleBody, const ModificationRecord& record, IModification& modification) {
    KEventsStoreBody* body = *handleBody;
    bool inPlace = false;
    {
        StoreLockGuard guard;
        if (KEventsStoreBody* result = LookupLocked(body, record)) {
            AddRefLocked(result);
            *handleBody = result;
            ReleaseLocked(body);
            return;
        }
        const std::uint32_t n = body->Count();
        inPlace = n == 1 || (n == 2 && body->origin && body->origin->origin);
        if (inPlace) {
            // The other holder, if any, is the memo of the body this one came from.
            if (n == 2) {
                RemoveEntryLocked(body->origin->origin, body->origin->record);
                DecrementLocked(body);
            }
            // The body is about to change: what its memo says about it no longer holds.
            ClearMemoLocked(body);
        } else {
            AddRefLocked(body);  // keeps the shared content alive while it is copied
        }
    }
    if (inPlace) {
        modification.Apply(*body);
        return;
    }
    KEventsStoreBody* copy = CopyPinned(body);
    try {
        modification.Apply(*copy);
    } catch (...) {
        DestroyPrivateBody(copy);
        ReleaseBody(body);
        throw;
    }
    KEventsStoreBody* discard = nullptr;
    {
        StoreLockGuard guard;
        // Another holder of the shared body may have published the same modification meanwhile.
        if (KEventsStoreBody* result = LookupLocked(body, record)) {
            AddRefLocked(result);
            *handleBody = result;
            discard = copy;
        } else {
            try {
                InsertLocked(body, record, copy);
            } catch (...) {
                ReleaseLocked(body);
                discard = copy;
            }
            if (!discard) {
                AddRefLocked(copy);  // the memo entry's count
                *handleBody = copy;
            }
        }
        if (*handleBody != body) {
            ReleaseLocked(body);  // the pin
            ReleaseLocked(body);  // the handle's old count
        }
    }
    if (discard) {
        DestroyPrivateBody(discard);
        if (*handleBody == body) ThrowAllocationFailure();
    }
}

void MakePrivate(KEventsStoreBody** handleBody) {
    KEventsStoreBody* body = *handleBody;
    if (body->OwnedAlone()) return;
    {
        StoreLockGuard guard;
        if (body->Count() == 1) {
            ClearMemoLocked(body);
            return;
        }
        AddRefLocked(body);
    }
    KEventsStoreBody* copy = CopyPinned(body);
    {
        StoreLockGuard guard;
        ReleaseLocked(body);
        ReleaseLocked(body);
    }
    *handleBody = copy;
}

void ResetBody(KEventsStoreBody& body) {
    body.timeDeltas.Clear();
    if (body.values) body.values->ClearValues();
    DestroyObject(body.sources);
    body.sources = nullptr;
    body.endTime = 0;
    body.endDelta = 0;
    body.lastPushedTime = -1;
    body.lastPushedDelta = 0xFFFF;
}

std::uint64_t BodyMemoryBytes(const KEventsStoreBody& body) {
    std::uint64_t bytes = decltype(g_bodyPool)::kSlotSize + body.timeDeltas.MemoryBytes();
    if (body.values) bytes += body.values->MemoryBytes();
    if (body.sources) bytes += sizeof(SourceStore) + body.sources->MemoryBytes();
    return bytes;
}

std::size_t LiveBodyBlocks() {
    StoreLockGuard guard;
    return g_bodyPool.BlocksMade();
}

std::size_t LiveBodies() {
    StoreLockGuard guard;
    return g_liveBodies;
}

}  // namespace Tarvel
