// KEventsStore: handle operations, modifications and emission. Store layer; see the public
// header for the threading contract. Appends take a lock-free fast path when the handle holds
// its body alone and the coders have room; everything else goes through the memo machinery.
#include <functional>

#include "store/event_append.h"
#include "store/events_store_body.h"
#include "tarvel/events_store.h"

namespace Tarvel {
namespace {

// Gaps of zeros before a source up to this length are appended one by one; the room that
// PrepareRunThenAppend makes covers them (fewer items than a run needs to start).
constexpr std::int64_t kShortSourceGap = 4;

ModificationRecord PushRecord(const KEventsStoreBody& body, int64 time, int delta, const unsigned char* value,
                              int source) {
    std::uint32_t code = kModPushValue4;
    std::uint64_t word = 0;
    if (body.values) {
        if (body.values->GetSecondSize() == 8) {
            code = kModPushValue8;
            word = PackBytes::Load<std::uint64_t>(value);
        } else {
            word = PackBytes::Load<std::uint32_t>(value);
        }
    }
    return ModificationRecord::Make(code, time, static_cast<std::uint32_t>(delta), word, static_cast<std::uint32_t>(source));
}

}  // namespace

void ApplyPushValue(KEventsStoreBody& body, int64 time, int delta, const unsigned char* value, int source) {
    body.timeDeltas.PrepareAppend();
    if (body.values) body.values->PrepareAppend();
    if (source != 0) {
        const bool made = body.sources == nullptr;
        if (made) body.sources = NewObject<SourceStore>();
        try {
            body.sources->PrepareAppend();
            body.sources->PrepareRunThenAppend();
        } catch (...) {
            if (made) {
                DestroyObject(body.sources);
                body.sources = nullptr;
            }
            throw;
        }
    }
    AppendStep(body, time, delta);
    WithValueStore(body, [&](auto& store) { store.AppendValue(value); });
    if (source != 0) {
        // A few missing zeros go through the pattern search (so that a pattern such as
        // 0, 1, 2, 0, 1, 2 is still found); a long gap becomes one run.
        const std::int64_t missing = body.lastResult - body.sources->Count();
        if (missing > kShortSourceGap) {
            body.sources->AppendRepeated(0, missing);
        } else {
            for (std::int64_t i = 0; i < missing; ++i) body.sources->Append(0);
        }
        body.sources->Append(source);
    }
}

KEventsStore::KEventsStore() : m_body(EmptyBody()) { AddRefBody(m_body); }

KEventsStore::KEventsStore(const KEventsStore& other) : m_body(other.m_body) { AddRefBody(m_body); }

KEventsStore& KEventsStore::operator=(const KEventsStore& other) {
    KEventsStoreBody* old = m_body;
    AddRefBody(other.m_body);
    m_body = other.m_body;
    ReleaseBody(old);
    return *this;
}

KEventsStore::~KEventsStore() { ReleaseBody(m_body); }

void KEventsStore::swap(KEventsStore* other) { std::swap(m_body, other->m_body); }

void KEventsStore::SetSize(int size) {
    Modify(&m_body, ModificationRecord::Make(kModSetSize, 0, 0, 0, static_cast<std::uint32_t>(size)),
           [size](KEventsStoreBody& body) {
               if (size == 0 && !body.values) return;
               if (size != 0 && body.values && body.values->GetSize() == size) return;
               ValueKind kind = ValueKind::kNone;
               IValueStore* made = size == 0 ? nullptr : MakeValueStore(size, &kind);
               DestroyObject(body.values);
               body.values = made;
               body.valueKind = kind;
               ResetBody(body);
           });
}

int KEventsStore::GetSize() const { return m_body->values ? m_body->values->GetSize() : 0; }

int KEventsStore::GetSecondSize() const { return m_body->values ? m_body->values->GetSecondSize() : 0; }

void KEventsStore::SetBus() {
    Modify(&m_body, ModificationRecord::Make(kModSetBus), [](KEventsStoreBody& body) {
        if (body.values) {
            DestroyObject(body.values);
            body.values = nullptr;
            body.valueKind = ValueKind::kNone;
            DestroyObject(body.sources);
            body.sources = nullptr;
            body.timeDeltas.Clear();
        }
        body.countWord.fetch_or(kBusFlag, std::memory_order_relaxed);
    });
}

bool KEventsStore::GetBus() const { return (m_body->countWord.load(std::memory_order_relaxed) & kBusFlag) != 0; }

int KEventsStore::push_back(const int64& time, int delta) {
    KEventsStoreBody* body = m_body;
    if (time == body->lastPushedTime && static_cast<std::uint16_t>(delta) == body->lastPushedDelta) {
        return static_cast<int>(count()) - 1;
    }
    if (body->OwnedAlone() && body->timeDeltas.ReadyToAppend()) {
        AppendStep(*body, time, delta);
        return body->lastResult;
    }
    const int64 t = time;
    Modify(&m_body, ModificationRecord::Make(kModPushStep, t, static_cast<std::uint32_t>(delta)),
           [t, delta](KEventsStoreBody& b) {
               b.timeDeltas.PrepareAppend();
               AppendStep(b, t, delta);
           });
    return m_body->lastResult;
}

int KEventsStore::push_back(const int64& time, int delta, const unsigned char* value) {
    return push_back(time, delta, value, 0);
}

int KEventsStore::push_back(const int64& time, int delta, const unsigned char* value, int source) {
    KEventsStoreBody* body = m_body;
    if (source == 0 && body->OwnedAlone() && body->timeDeltas.ReadyToAppend() && ValuesReady(*body)) {
        AppendStep(*body, time, delta);
        WithValueStore(*body, [&](auto& store) { store.AppendValue(value); });
        return body->lastResult;
    }
    const int64 t = time;
    Modify(&m_body, PushRecord(*body, t, delta, value, source),
           [&](KEventsStoreBody& b) { ApplyPushValue(b, t, delta, value, source); });
    return m_body->lastResult;
}

void KEventsStore::push_end(const int64& time, int delta) {
    const int64 t = time;
    Modify(&m_body, ModificationRecord::Make(kModPushEnd, t, static_cast<std::uint32_t>(delta)),
           [t, delta](KEventsStoreBody& body) {
               // Make room everywhere first so that finishing cannot fail half way.
               if (body.values) body.values->PrepareAppend();
               if (body.sources) body.sources->PrepareAppend();
               body.timeDeltas.PrepareFinish();
               if (body.timeDeltas.eventCount > 0) body.timeDeltas.Finish();
               if (body.values) body.values->FinishValues();
               if (body.sources) body.sources->Finish();
               body.endTime = t;
               body.endDelta = static_cast<std::uint16_t>(delta);
           });
}

void KEventsStore::restart() {
    Modify(&m_body, ModificationRecord::Make(kModRestart), [](KEventsStoreBody& body) {
        body.timeDeltas.Reopen();
        if (body.values) body.values->ReopenValues();
    });
}

void KEventsStore::clear() {
    Modify(&m_body, ModificationRecord::Make(kModClear), [](KEventsStoreBody& body) { ResetBody(body); });
}

bool KEventsStore::empty() const { return m_body->timeDeltas.eventCount == 0 && m_body->timeDeltas.empty(); }

unsigned KEventsStore::count() const { return static_cast<unsigned>(m_body->timeDeltas.eventCount); }

int KEventsStore::LastIndex() const { return m_body->timeDeltas.eventCount - 1; }

bool KEventsStore::Sources() const { return m_body->sources && m_body->sources->Count() > 0; }

const int64& KEventsStore::EndTime() const { return m_body->endTime; }

int KEventsStore::EndDelta() const { return m_body->endDelta; }

int KEventsStore::GetNr() const { return m_body->serial; }

bool KEventsStore::operator<(const KEventsStore& other) const {
    return std::less<const KEventsStoreBody*>()(m_body, other.m_body);
}

bool KEventsStore::WriteTimeDelta(ITimeDeltaWriter* writer) const {
    return m_body->timeDeltas.Emit(writer) && writer->pushEnd(m_body->endTime);
}

bool KEventsStore::WriteValue(IValueWriter* writer) const {
    return m_body->values != nullptr && m_body->values->WriteValues(writer);
}

bool KEventsStore::WriteSource(ISourceWriter* writer) const {
    return m_body->sources != nullptr && m_body->sources->Write(writer);
}

}  // namespace Tarvel
