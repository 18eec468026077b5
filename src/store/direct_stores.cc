// The direct stores: refill a store's time steps, values and sources from exactly the calls an
// emission makes, as a file reader does. Store layer; a direct store and its handle belong to
// one thread.
#include "store/event_append.h"
#include "store/events_store_body.h"
#include "store/store_access.h"
#include "tarvel/events_store.h"

namespace Tarvel {
namespace {

int64 WrapAdd(int64 a, int64 b) { return static_cast<int64>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b)); }

}  // namespace

void OpenDirectSteps(KEventsStoreBody** handleBody, DirectStepsState* state) {
    MakePrivate(handleBody);
    KTimeDeltaStore& steps = (*handleBody)->timeDeltas;
    steps.FlushCoder();
    steps.Reopen();
    steps.ReserveEndCode();
    *state = DirectStepsState{*handleBody, steps.eventCount, steps.lastTime, steps.lastDelta};
}

void CloseDirectSteps(const DirectStepsState& state) noexcept {
    KTimeDeltaStore& steps = state.body->timeDeltas;
    steps.AppendReservedEndCode();
    steps.eventCount = state.count;
    steps.lastTime = state.time;
    steps.lastDelta = state.delta;
}

bool AppendDirectRepeat(DirectStepsState& state, int length, int64 count, const std::pair<int64, int>* steps) {
    if (length < 1 || length > static_cast<int>(kMaxPatternLength) || count < 0) return false;
    TimeDelta pattern[kMaxPatternLength];
    int64 sum = 0;
    for (int i = 0; i < length; ++i) {
        pattern[i] = TimeDelta{steps[i].first, static_cast<std::uint32_t>(steps[i].second) & 0xFFFF};
        sum = WrapAdd(sum, steps[i].first);
    }
    state.body->timeDeltas.AppendDirectRepeat(static_cast<unsigned>(length), static_cast<std::uint64_t>(count), pattern);
    // Only the low word of the event count takes part, as the count is a 32-bit number.
    state.count = static_cast<int>(static_cast<std::uint32_t>(state.count) +
                                   static_cast<std::uint32_t>(static_cast<std::uint64_t>(count) * static_cast<std::uint64_t>(length)));
    state.time = WrapAdd(state.time, static_cast<int64>(static_cast<std::uint64_t>(count) * static_cast<std::uint64_t>(sum)));
    if (count > 0) state.delta = pattern[length - 1].delta;
    return true;
}

KDirectTimeDeltaStore::KDirectTimeDeltaStore(KEventsStore* store) : m_state{nullptr, 0, 0, 0} {
    OpenDirectSteps(&store->m_body, &m_state);
}

KDirectTimeDeltaStore::~KDirectTimeDeltaStore() { CloseDirectSteps(m_state); }

bool KDirectTimeDeltaStore::pushTimeDelta(const int64& difference, int delta) {
    AppendDirectStep(m_state, difference, static_cast<unsigned>(delta));
    return true;
}

bool KDirectTimeDeltaStore::pushRepeat(int length, const int64& count, const std::pair<int64, int>* steps) {
    return AppendDirectRepeat(m_state, length, count, steps);
}

bool KDirectTimeDeltaStore::pushEnd(const int64& endTime) {
    m_state.body->endTime = endTime;
    return true;
}

KDirectValueStore::KDirectValueStore(KEventsStore* store) : m_body(nullptr) {
    MakePrivate(&store->m_body);
    m_body = store->m_body;
    if (m_body->values) m_body->values->ReopenValues();
}

KDirectValueStore::~KDirectValueStore() {
    if (!m_body->values) return;
    try {
        m_body->values->FinishValues();
    } catch (...) {
        // Out of memory: the values stay held back uncompressed, none is lost.
    }
}

bool KDirectValueStore::pushCount(int count) {
    if (m_body->values) m_body->values->ExpectCount(count);
    return true;
}

bool KDirectValueStore::pushValue(const unsigned char* value) {
    IValueStore* values = m_body->values;
    if (!values) return true;
    values->PrepareAppend();
    values->AppendValue(value);
    return true;
}

void AppendDirectValues(KEventsStore& store, const std::uint64_t* words, std::size_t count) {
    WithValueStore(*StoreAccess::Body(store), [&](auto& values) {
        for (std::size_t i = 0; i < count; ++i) {
            unsigned char bytes[8];
            LittleEndian::Store<std::uint64_t>(bytes, words[i]);
            values.PrepareAppend();
            values.AppendValue(bytes);
        }
    });
}

bool KDirectValueStore::pushRepeatedValue(int length, const int64& count, const unsigned char* const* values) {
    if (!m_body->values) return true;
    return m_body->values->AppendRepeatedValues(length, count, values);
}

KDirectSourceStore::KDirectSourceStore(KEventsStore* store) : m_body(nullptr) {
    MakePrivate(&store->m_body);
    m_body = store->m_body;
    if (!m_body->sources) m_body->sources = NewObject<SourceStore>();
}

KDirectSourceStore::~KDirectSourceStore() {
    try {
        m_body->sources->Finish();
    } catch (...) {
        // Out of memory: the sources stay held back uncompressed, none is lost.
    }
}

bool KDirectSourceStore::pushCount(int) { return true; }

bool KDirectSourceStore::pushSource(int source) {
    m_body->sources->PrepareAppend();
    m_body->sources->Append(source);
    return true;
}

bool KDirectSourceStore::pushRepeatedSource(int length, const int64& count, const int* sources) {
    std::uint32_t pattern[kMaxRunPattern];
    if (length < 1 || length > static_cast<int>(kMaxRunPattern)) return false;
    for (int i = 0; i < length; ++i) pattern[i] = static_cast<std::uint32_t>(sources[i]);
    return m_body->sources->AppendPattern(pattern, length, count);
}

}  // namespace Tarvel
