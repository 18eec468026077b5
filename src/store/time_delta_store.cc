// The time-delta store's coder, direct appends, cursor steps and emission.
// Store layer; not thread-safe (see the header).
#include <cassert>
#include "store/time_delta_store.h"

#include <limits>
#include <utility>

#include "foundation/memory.h"

namespace Tarvel {
namespace {

constexpr std::uint32_t kMaxRepeatBytes = kMaxRepeatHeaderBytes + kMaxPatternLength * kMaxStepBytes;

}  // namespace

KTimeDeltaStore::~KTimeDeltaStore() { DestroyObject(m_coder); }

void KTimeDeltaStore::CopyFrom(const KTimeDeltaStore& other) {
    Coder* coder = other.m_coder ? NewObject<Coder>(*other.m_coder) : nullptr;
    try {
        m_bytes.CopyFrom(other.m_bytes);
    } catch (...) {
        DestroyObject(coder);
        throw;
    }
    DestroyObject(m_coder);
    m_coder = coder;
    m_ended = other.m_ended;
    eventCount = other.eventCount;
    lastTime = other.lastTime;
    lastDelta = other.lastDelta;
}

void KTimeDeltaStore::PrepareAppend() {
    if (!m_coder) m_coder = NewObject<Coder>();
    m_bytes.MakeRoom(kMaxAppendBytes);
}

void KTimeDeltaStore::FlushCoder() {
    if (!m_coder) return;
    m_bytes.MakeRoom(kMaxAppendBytes);
    m_coder->finder.Flush(*this);
    DestroyObject(m_coder);
    m_coder = nullptr;
}

void KTimeDeltaStore::Finish() {
    if (eventCount == 0 && m_bytes.empty() && !m_coder) return;
    m_bytes.MakeRoom(kMaxAppendBytes + 1);
    FlushCoder();
    if (!m_ended) AppendEndCode();
}

void KTimeDeltaStore::Reopen() {
    if (m_ended) {
        m_bytes.PopByte();
        m_ended = false;
    }
}

void KTimeDeltaStore::Clear() {
    m_bytes.Clear();
    DestroyObject(m_coder);
    m_coder = nullptr;
    m_ended = false;
    eventCount = 0;
    lastTime = 0;
    lastDelta = 0;
}

void KTimeDeltaStore::AppendDirectStepSlow(const TimeDelta& step) {
    m_bytes.MakeRoom(kMaxStepBytes + 1);
    unsigned char code[kMaxStepBytes];
    m_bytes.Append(code, EncodeStepUnscaled(code, step));
}

void KTimeDeltaStore::AppendDirectRepeat(unsigned length, std::uint64_t count, const TimeDelta* steps) {
    m_bytes.MakeRoom(kMaxRepeatBytes + 1);
    AppendRepeat(steps, length, count, EncodeStepUnscaled);
}

void KTimeDeltaStore::AppendEndCode() {
    m_bytes.MakeRoom(1);
    m_bytes.PushByte(kEndCode);
    m_ended = true;
}

std::uint64_t KTimeDeltaStore::MemoryBytes() const {
    return m_bytes.MemoryBytes() + (m_coder ? sizeof(Coder) : 0);
}

void KTimeDeltaStore::Literals(const TimeDelta* steps, unsigned count) {
    // The codes of a batch are assembled here and appended at once: one copy instead of one per step.
    constexpr unsigned kGroup = 16;
    unsigned char codes[kGroup * kMaxStepBytes];
    for (unsigned first = 0; first < count; first += kGroup) {
        const unsigned last = count - first < kGroup ? count : first + kGroup;
        unsigned n = 0;
        for (unsigned i = first; i < last; ++i) n += EncodeStepShortest(codes + n, steps[i]);
        m_bytes.Append(codes, n);
    }
}

void KTimeDeltaStore::Run(const TimeDelta* pattern, unsigned length, std::uint64_t repetitions) {
    AppendRepeat(pattern, length, repetitions, EncodeStepShortest);
}

void KTimeDeltaStore::AppendRepeat(const TimeDelta* pattern, unsigned length, std::uint64_t repetitions,
                                   unsigned (*encode)(unsigned char*, const TimeDelta&)) {
    assert(m_bytes.HasRoom(kMaxRepeatBytes));
    if (length > kMaxPatternLength) length = kMaxPatternLength;  // patterns never exceed it
    unsigned char code[kMaxRepeatBytes];
    unsigned n = EncodeRepeatHeader(code, length, repetitions);
    for (unsigned i = 0; i < length; ++i) n += encode(code + n, pattern[i]);
    m_bytes.Append(code, n);
}

// Reads the pattern of a repeat code whose header ends at `position`; false when invalid.
static bool ReadPattern(const TimeDeltaBytes& bytes, std::uint64_t* position, unsigned length, TimeDelta* pattern) {
    unsigned char scratch[TimeDeltaBytes::kSpanBytes];
    for (unsigned i = 0; i < length; ++i) {
        if (*position >= bytes.size()) return false;
        const unsigned char* code = bytes.Span(*position, scratch);
        if (code[0] >= kFirstRepeatCode) return false;
        const unsigned n = StepCodeLength(code[0]);
        if (*position + n > bytes.size()) return false;
        pattern[i] = DecodeStep(code);
        *position += n;
    }
    return true;
}

StepResult KTimeDeltaStore::ReadCode(TimeCursor* cursor, TimeDelta* step) const {
    unsigned char scratch[TimeDeltaBytes::kSpanBytes];
    for (;;) {
        const std::uint64_t position = cursor->position;
        if (position >= m_bytes.size()) return StepResult::kEnd;
        const unsigned char* code = m_bytes.Span(position, scratch);
        const unsigned char op = code[0];
        if (op < kFirstRepeatCode) {
            const unsigned n = StepCodeLength(op);
            if (position + n > m_bytes.size()) return StepResult::kInvalid;
            *step = DecodeStep(code);
            cursor->position = position + n;
            return StepResult::kStep;
        }
        if (op == kEndCode) return StepResult::kEnd;
        if (op > kEndCode) return StepResult::kInvalid;
        RepeatHeader header;
        if (!DecodeRepeatHeader(code, m_bytes.size() - position, &header)) return StepResult::kInvalid;
        if (header.count > static_cast<std::uint64_t>(std::numeric_limits<int64>::max()) / header.length) {
            return StepResult::kInvalid;
        }
        std::uint64_t next = position + header.bytes;
        if (!ReadPattern(m_bytes, &next, header.length, cursor->pattern)) return StepResult::kInvalid;
        cursor->position = next;
        cursor->length = static_cast<std::uint8_t>(header.length);
        cursor->next = 0;
        cursor->runLeft = static_cast<int64>(header.count * header.length);
        if (cursor->runLeft > 0) return Next(cursor, step);
    }
}

unsigned KTimeDeltaStore::NextSteps(TimeCursor* cursor, std::uint64_t* time, unsigned capacity, int64* times,
                                    unsigned* deltas) const {
    unsigned n = 0;
    while (n < capacity) {
        if (cursor->runLeft > 0) {
            n += NextRunSteps(cursor, time, capacity - n, times + n, deltas + n);
            continue;
        }
        if (const unsigned singles = NextSingleSteps(cursor, time, capacity - n, times + n, deltas + n)) {
            n += singles;
            continue;
        }
        // A repeat code, the end, or a code that straddles chunks: the general path.
        TimeDelta step;
        if (ReadCode(cursor, &step) != StepResult::kStep) break;
        *time += static_cast<std::uint64_t>(step.difference);
        times[n] = static_cast<int64>(*time);
        deltas[n] = step.delta;
        ++n;
    }
    return n;
}

unsigned KTimeDeltaStore::NextRunSteps(TimeCursor* cursor, std::uint64_t* time, unsigned capacity, int64* times,
                                       unsigned* deltas) const {
    const unsigned take = cursor->runLeft < static_cast<int64>(capacity) ? static_cast<unsigned>(cursor->runLeft) : capacity;
    std::uint64_t t = *time;
    if (cursor->length == 1) {  // a clock or a counter's period: the common run
        const std::uint64_t difference = static_cast<std::uint64_t>(cursor->pattern[0].difference);
        const unsigned delta = cursor->pattern[0].delta;
        for (unsigned k = 0; k < take; ++k) {
            t += difference;
            times[k] = static_cast<int64>(t);
            deltas[k] = delta;
        }
    } else {
        unsigned next = cursor->next;
        for (unsigned k = 0; k < take; ++k) {
            const TimeDelta& step = cursor->pattern[next];
            t += static_cast<std::uint64_t>(step.difference);
            times[k] = static_cast<int64>(t);
            deltas[k] = step.delta;
            next = next + 1 == cursor->length ? 0 : next + 1;
        }
        cursor->next = static_cast<std::uint8_t>(next);
    }
    cursor->runLeft -= take;
    *time = t;
    return take;
}

// Single-step codes decoded where they lie, while each has the 16 readable bytes DecodeStep
// needs in its chunk's allocation and ends within the stream.
unsigned KTimeDeltaStore::NextSingleSteps(TimeCursor* cursor, std::uint64_t* time, unsigned capacity, int64* times,
                                          unsigned* deltas) const {
    const std::uint64_t position = cursor->position;
    const std::uint64_t size = m_bytes.size();
    if (position >= size) return 0;
    std::uint32_t readable = 0;
    const unsigned char* const at = m_bytes.Window(position, &readable);
    const std::uint64_t left = size - position;
    std::uint64_t t = *time;
    std::uint32_t used = 0;
    unsigned n = 0;
    while (n < capacity && used + 16 <= readable) {
        const unsigned char op = at[used];
        if (op >= kFirstRepeatCode) break;
        const unsigned length = StepCodeLength(op);
        if (used + length > left) break;
        const TimeDelta step = DecodeStep(at + used);
        used += length;
        t += static_cast<std::uint64_t>(step.difference);
        times[n] = static_cast<int64>(t);
        deltas[n] = step.delta;
        ++n;
    }
    cursor->position = position + used;
    *time = t;
    return n;
}

bool KTimeDeltaStore::Emit(ITimeDeltaWriter* writer) const {
    unsigned char scratch[TimeDeltaBytes::kSpanBytes];
    std::uint64_t position = 0;
    while (position < m_bytes.size()) {
        const unsigned char* code = m_bytes.Span(position, scratch);
        const unsigned char op = code[0];
        if (op == kEndCode) return true;
        if (op < kFirstRepeatCode) {
            const unsigned n = StepCodeLength(op);
            if (position + n > m_bytes.size()) return false;
            const TimeDelta step = DecodeStep(code);
            if (!writer->pushTimeDelta(step.difference, static_cast<int>(step.delta))) return false;
            position += n;
            continue;
        }
        RepeatHeader header;
        if (op > kEndCode || !DecodeRepeatHeader(code, m_bytes.size() - position, &header)) return false;
        if (header.count > static_cast<std::uint64_t>(std::numeric_limits<int64>::max())) return false;
        TimeDelta pattern[kMaxPatternLength];
        position += header.bytes;
        if (!ReadPattern(m_bytes, &position, header.length, pattern)) return false;
        std::pair<int64, int> steps[kMaxPatternLength];
        for (unsigned i = 0; i < header.length; ++i) steps[i] = {pattern[i].difference, static_cast<int>(pattern[i].delta)};
        if (!writer->pushRepeat(static_cast<int>(header.length), static_cast<int64>(header.count), steps)) return false;
    }
    return true;
}

}  // namespace Tarvel
