// Walking a store: KEventData, KEventsStoreCache, and the positioning members of KEventsStore.
// Store layer; a cursor and the handle it walks belong to one thread at a time.
#include <cstring>

#include "store/event_cursor.h"
#include "store/store_access.h"
#include "tarvel/events_store.h"

namespace Tarvel {
namespace {

int64 WrapAdd(int64 a, int64 b) { return static_cast<int64>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b)); }
int64 WrapMul(int64 a, int64 b) { return static_cast<int64>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b)); }

// Advances `c` by one event of `body`; false at the end (the cursor is then unchanged).
bool Step(const KEventsStoreBody& body, EventCursor* c) {
    TimeDelta step;
    if (body.timeDeltas.Next(&c->steps, &step) != StepResult::kStep) return false;
    ++c->index;
    c->time = WrapAdd(c->time, step.difference);
    c->delta = step.delta;
    return true;
}

void Bind(const KEventsStore* handle, const KEventsStoreBody* body, EventCursor* c) {
    if (c->handle != handle || c->body != body) {
        c->handle = handle;
        c->body = body;
        c->values = PackCursor{};
        c->sources = PackCursor{};
    }
    c->index = -1;
    c->time = 0;
    c->delta = 0;
    c->steps = TimeCursor{};
}

int64 PatternSum(const TimeCursor& t, unsigned from) {
    int64 sum = 0;
    for (unsigned i = from; i < t.length; ++i) sum = WrapAdd(sum, t.pattern[i].difference);
    return sum;
}

// Inside a run standing after a whole repetition, skips the repetitions that all end before
// `target`, so a seek over a long clock costs a division instead of a walk.
void SkipRepetitions(EventCursor* c, int64 target) {
    TimeCursor& t = c->steps;
    if (t.runLeft < t.length || t.next != 0 || t.length == 0) return;
    int64 sum = 0;
    for (unsigned i = 0; i < t.length; ++i) {
        if (t.pattern[i].difference < 0 || __builtin_add_overflow(sum, t.pattern[i].difference, &sum)) return;
    }
    int64 room = 0;
    if (sum <= 0 || target <= c->time || __builtin_sub_overflow(target - 1, c->time, &room)) return;
    int64 reps = room / sum;
    if (reps > t.runLeft / t.length) reps = t.runLeft / t.length;
    if (reps <= 0) return;
    c->index += static_cast<std::int32_t>(reps * t.length);
    c->time += reps * sum;
    c->delta = t.pattern[t.length - 1].delta;
    t.runLeft -= reps * t.length;
}

}  // namespace

KEventData::KEventData() : m_cursor(NewObject<EventCursor>()) {}

KEventData::KEventData(const KEventData& other) : m_cursor(NewObject<EventCursor>(*other.m_cursor)) {}

KEventData& KEventData::operator=(const KEventData& other) {
    *m_cursor = *other.m_cursor;
    return *this;
}

KEventData::~KEventData() { DestroyObject(m_cursor); }

int KEventData::GetIndex() const { return m_cursor->index; }

const int64& KEventData::GetTime() const { return m_cursor->time; }

unsigned KEventData::GetDelta() const { return m_cursor->delta; }

bool KEventData::GetValue(unsigned char* buffer, unsigned size) const {
    const KEventsStoreBody* body = m_cursor->body;
    if (!body || m_cursor->index < 0) return false;
    // Static dispatch on the value kind: this runs once per event of a walk.
    const int index = m_cursor->index;
    PackCursor* cursor = &m_cursor->values;
    switch (body->valueKind) {
        case ValueKind::kSize1: return static_cast<const KValueStore<4, 1>*>(body->values)->ReadValue(index, buffer, size, cursor);
        case ValueKind::kSize4: return static_cast<const KValueStore<4, 4>*>(body->values)->ReadValue(index, buffer, size, cursor);
        case ValueKind::kSize8: return static_cast<const KValueStore<8, 8>*>(body->values)->ReadValue(index, buffer, size, cursor);
        case ValueKind::kNone: break;
    }
    return false;
}

int KEventData::GetSource() const {
    const KEventsStoreBody* body = m_cursor->body;
    if (!body || !body->sources || m_cursor->index < 0) return 0;
    std::uint32_t source = 0;
    if (!body->sources->Read(m_cursor->index, &source, &m_cursor->sources)) return 0;
    return static_cast<int>(source);
}

KEventsStoreCache::KEventsStoreCache() : m_map(nullptr) {}

KEventsStoreCache::~KEventsStoreCache() { DestroyObject(m_map); }

void KEventsStoreCache::clear() {
    DestroyObject(m_map);
    m_map = nullptr;
}

bool KEventsStore::GetFirstEvent(KEventData* data) const { return GetFirstEvent(0, data, nullptr); }

bool KEventsStore::GetFirstEvent(const int64& time, KEventData* data, KEventsStoreCache* cache) const {
    if (cache && cache->m_map) {
        const auto it = cache->m_map->map.find(this);
        if (it != cache->m_map->map.end() && it->second.body == m_body && it->second.time <= time) {
            *data->m_cursor = it->second;
            return true;
        }
    }
    if (empty()) return false;
    EventCursor* c = data->m_cursor;
    Bind(this, m_body, c);
    if (!Step(*m_body, c)) return false;
    if (time == 0) return true;
    for (;;) {
        SkipRepetitions(c, time);
        EventCursor next = *c;
        if (!Step(*m_body, &next) || next.time >= time) return true;
        *c = next;
    }
}

bool KEventsStore::GetNextEvent(KEventData* data) const {
    EventCursor* c = data->m_cursor;
    if (c->handle != this || c->body != m_body) return GetFirstEvent(0, data, nullptr);
    return Step(*m_body, c);
}

bool KEventsStore::GetNextEvent(KEventData* data, const int64& span, bool* skipped) const {
    *skipped = false;
    EventCursor* c = data->m_cursor;
    TimeCursor& t = c->steps;
    if (c->handle == this && c->body == m_body && span != -1 && t.runLeft > 0) {
        const unsigned partial = t.next == 0 ? 0 : t.length - t.next;
        const int64 repetitionsLeft = (t.runLeft - partial) / t.length;
        bool short_steps = repetitionsLeft >= 1;
        for (unsigned i = 0; short_steps && i < t.length; ++i) short_steps = t.pattern[i].difference < span;
        if (short_steps) {
            const int64 partialSum = t.next == 0 ? 0 : PatternSum(t, t.next);
            c->time = WrapAdd(c->time, WrapAdd(partialSum, WrapMul(repetitionsLeft, PatternSum(t, 0))));
            c->index += static_cast<std::int32_t>(t.runLeft);
            c->delta = t.pattern[t.length - 1].delta;
            t.runLeft = 0;
            t.next = 0;
            *skipped = true;
            return true;
        }
    }
    return GetNextEvent(data);
}

namespace {

// The values of events first .. first + count - 1 into `values` (the store's value size each);
// events without a kept value get zero bytes. Static dispatch on the value kind, once per batch.
void ReadValues(const KEventsStoreBody& body, std::int64_t first, std::uint32_t count, unsigned char* values,
                PackCursor* cursor) {
    std::uint32_t read = 0;
    unsigned size = 0;
    switch (body.valueKind) {
        case ValueKind::kSize1:
            read = static_cast<const KValueStore<4, 1>*>(body.values)->ReadValues(first, count, values, cursor);
            size = 4;
            break;
        case ValueKind::kSize4:
            read = static_cast<const KValueStore<4, 4>*>(body.values)->ReadValues(first, count, values, cursor);
            size = 4;
            break;
        case ValueKind::kSize8:
            read = static_cast<const KValueStore<8, 8>*>(body.values)->ReadValues(first, count, values, cursor);
            size = 8;
            break;
        case ValueKind::kNone: return;
    }
    if (read < count) std::memset(values + std::size_t{read} * size, 0, std::size_t{count - read} * size);
}

void ReadSources(const KEventsStoreBody& body, std::int64_t first, std::uint32_t count, int* sources, PackCursor* cursor) {
    std::uint32_t read = 0;
    if (body.sources) {
        read = body.sources->ReadRange(first, count, cursor,
                                       [sources](std::uint32_t k, std::uint32_t source) { sources[k] = static_cast<int>(source); });
    }
    for (std::uint32_t k = read; k < count; ++k) sources[k] = 0;
}

}  // namespace

int KEventsStore::GetNextEvents(KEventData* data, int capacity, int64* times, unsigned* deltas, unsigned char* values,
                                int* sources) const {
    if (capacity <= 0) return 0;
    EventCursor* c = data->m_cursor;
    unsigned n = 0;
    if (c->handle != this || c->body != m_body) {  // as GetNextEvent: start at the first event
        if (!GetFirstEvent(0, data, nullptr)) return 0;
        times[0] = c->time;
        deltas[0] = c->delta;
        n = 1;
    }
    const std::int64_t first = std::int64_t{c->index} + 1 - static_cast<std::int64_t>(n);  // index of times[0]
    std::uint64_t time = static_cast<std::uint64_t>(c->time);
    const unsigned steps = m_body->timeDeltas.NextSteps(&c->steps, &time, static_cast<unsigned>(capacity) - n, times + n, deltas + n);
    n += steps;
    if (n == 0) return 0;
    c->index += static_cast<std::int32_t>(steps);
    c->time = times[n - 1];
    c->delta = deltas[n - 1];
    if (values) ReadValues(*m_body, first, n, values, &c->values);
    if (sources) ReadSources(*m_body, first, n, sources, &c->sources);
    return static_cast<int>(n);
}

void RefillAddresses(const KEventsStore& store, const KEventData& data, const void** out) {
    for (unsigned i = 0; i < kRefillAddresses; ++i) out[i] = nullptr;
    const EventCursor* c = StoreAccess::Cursor(data);
    const KEventsStoreBody* body = StoreAccess::Body(store);
    // The cursor's lines: its start (index, time, time-step position), its value position, and
    // the handle and body it was bound to, which GetNextEvents compares first.
    out[0] = c;
    out[1] = &c->values;
    out[2] = &c->body;
    out[3] = &store;
    out[4] = body;
    out[5] = reinterpret_cast<const unsigned char*>(&body->timeDeltas) + sizeof body->timeDeltas - 1;
    if (c->handle != &store || c->body != body) return;  // the next batch starts over
    body->timeDeltas.ReadAddresses(c->steps, &out[6], &out[7]);
    const IValueStore* values = body->values;
    out[8] = values;
    switch (body->valueKind) {
        case ValueKind::kSize1: static_cast<const KValueStore<4, 1>*>(values)->ReadAddresses(c->values, &out[9], &out[10]); break;
        case ValueKind::kSize4: static_cast<const KValueStore<4, 4>*>(values)->ReadAddresses(c->values, &out[9], &out[10]); break;
        case ValueKind::kSize8: static_cast<const KValueStore<8, 8>*>(values)->ReadAddresses(c->values, &out[9], &out[10]); break;
        case ValueKind::kNone: out[8] = nullptr; break;
    }
    if (out[8]) out[11] = reinterpret_cast<const unsigned char*>(values) + 63;  // the value store spans two lines at most
}

void KEventsStore::Cache(KEventData* data, KEventsStoreCache* cache) const {
    if (!cache->m_map) cache->m_map = NewObject<EventCursorCacheMap>();
    cache->m_map->map.insert_or_assign(this, *data->m_cursor);
}

}  // namespace Tarvel
