// KTimeDeltaStore: the times of one store's events as a byte-coded stream of steps, with the
// coder that appends steps (searching repeated patterns) and the cursor that walks them.
// Store layer; not thread-safe: a store body is changed only by the handle that owns it alone.
#ifndef TARVEL_STORE_TIME_DELTA_STORE_H
#define TARVEL_STORE_TIME_DELTA_STORE_H

#include <cstdint>

#include "store/chunk_buffer.h"
#include "store/run_finder.h"
#include "store/time_delta_code.h"
#include "tarvel/events_store.h"

namespace Tarvel {

using TimeDeltaBytes = ChunkBuffer<11>;  // chunks of 2048 bytes

// Position of a walk in a time-delta stream. Plain data: copied by value into caches.
struct TimeCursor {
    std::uint64_t position = 0;       // byte position of the next code
    int64 runLeft = 0;                // steps of the current repeat code still to deliver
    TimeDelta pattern[kMaxPatternLength] = {};  // the current repeat code's steps
    std::uint8_t length = 0;          // pattern length
    std::uint8_t next = 0;            // pattern step delivered next
};

// Result of one cursor step.
enum class StepResult { kStep, kEnd, kInvalid };

class KTimeDeltaStore {
public:
    KTimeDeltaStore() = default;
    ~KTimeDeltaStore();
    KTimeDeltaStore(const KTimeDeltaStore&) = delete;
    KTimeDeltaStore& operator=(const KTimeDeltaStore&) = delete;

    // Makes this a deep copy of `other` (coder state included). Strong guarantee.
    void CopyFrom(const KTimeDeltaStore& other);

    // Appending through the coder. PrepareAppend() may throw std::bad_alloc and changes nothing
    // observable; after it, one Append() cannot fail.
    bool ReadyToAppend() const { return m_coder != nullptr && m_bytes.HasRoom(kMaxAppendBytes); }
    void PrepareAppend();
    void Append(const TimeDelta& step) { m_coder->finder.Push(step, *this); }

    // Makes room for Finish(), which then cannot fail. May throw; changes nothing observable.
    void PrepareFinish() { m_bytes.MakeRoom(kMaxAppendBytes + 1); }
    // Codes what the coder holds back, then the end code. May throw; then nothing changed.
    void Finish();
    // Drops the end code so that appending can go on.
    void Reopen();
    // Codes what the coder holds back, without end code (before direct appends).
    void FlushCoder();
    void Clear();

    // Direct appends (no pattern search); each may throw and then changes nothing.
    void AppendDirectStep(const TimeDelta& step) {
        // Common case: code straight into the last chunk, leaving room for the end code.
        if (unsigned char* at = m_bytes.WritePointer(kMaxStepBytes + 1)) {
            m_bytes.Advance(EncodeStepUnscaledInline(at, step));
            return;
        }
        AppendDirectStepSlow(step);
    }
    void AppendDirectRepeat(unsigned length, std::uint64_t count, const TimeDelta* steps);
    void AppendEndCode();
    // Makes room for the end code, which AppendReservedEndCode() then writes without failing.
    // Direct appends keep that room.
    void ReserveEndCode() { m_bytes.MakeRoom(1); }
    // Gives back the unused end of the last chunk (when worth it; never fails).
    void ShrinkToFit() { m_bytes.ShrinkToFit(); }
    void AppendReservedEndCode() {
        m_bytes.PushByte(kEndCode);
        m_ended = true;
    }

    bool empty() const { return m_bytes.empty(); }
    std::uint64_t ByteLength() const { return m_bytes.size(); }
    std::uint64_t MemoryBytes() const;

    // Walking. Next() delivers the next step (kEnd at the end code or the end of the bytes).
    StepResult Next(TimeCursor* cursor, TimeDelta* step) const {
        if (cursor->runLeft > 0) {
            *step = cursor->pattern[cursor->next];
            cursor->next = static_cast<std::uint8_t>(cursor->next + 1 == cursor->length ? 0 : cursor->next + 1);
            --cursor->runLeft;
            return StepResult::kStep;
        }
        const std::uint64_t position = cursor->position;
        if (position < m_bytes.size()) {
            const unsigned char* code = m_bytes.Direct(position);
            if (code && code[0] < kFirstRepeatCode) {
                const unsigned n = StepCodeLength(code[0]);
                if (position + n <= m_bytes.size()) {
                    *step = DecodeStep(code);
                    cursor->position = position + n;
                    return StepResult::kStep;
                }
            }
        }
        return ReadCode(cursor, step);
    }
    // Batched walking: decodes up to `capacity` steps from `cursor` on, adding each difference to
    // *time (wrapping) and writing the event's time and delta to times[i] and deltas[i]; repeat
    // codes are expanded. Stops early at the end code, the end of the bytes or an invalid code.
    // Returns the number of steps; the cursor then stands after the last.
    unsigned NextSteps(TimeCursor* cursor, std::uint64_t* time, unsigned capacity, int64* times, unsigned* deltas) const;
    // The chunk table slot and the byte the next NextSteps from `cursor` reads first (null at the end).
    void ReadAddresses(const TimeCursor& cursor, const void** slot, const void** byte) const {
        m_bytes.ReadAddresses(cursor.position, slot, byte);
    }
    // Emits the stream's codes in order (single steps and repeats), stopping at the end code.
    bool Emit(ITimeDeltaWriter* writer) const;

    // The pattern search of the coder. A writer that emits steps straight from its own log runs
    // the same search, so that its records match what this store would emit.
    using Finder = RunFinder<TimeDelta, 2, 8>;

    // Coder sink interface (used by RunFinder).
    void Literals(const TimeDelta* steps, unsigned count);
    void Run(const TimeDelta* pattern, unsigned length, std::uint64_t repetitions);

    // Fields the events store reads and writes directly (first: they share the cache line of
    // the coder pointer and the stream's room).
    std::int32_t eventCount = 0;   // events appended
    std::uint32_t lastDelta = 0;   // delta of the last appended event
    int64 lastTime = 0;            // time of the last appended event

private:
    struct Coder {
        Finder finder;
    };
    // Bytes one Append can code at most: a run code with its pattern, then the literals a
    // broken run hands back and a full batch of literals.
    static constexpr std::uint32_t kMaxAppendBytes =
        2 * (kMaxRepeatHeaderBytes + kMaxPatternLength * kMaxStepBytes) + (Finder::kMaxLiteralBatch + kMaxPatternLength) * kMaxStepBytes;

    StepResult ReadCode(TimeCursor* cursor, TimeDelta* step) const;
    // NextSteps' two parts: steps of the current repeat code, and single-step codes in place.
    unsigned NextRunSteps(TimeCursor* cursor, std::uint64_t* time, unsigned capacity, int64* times, unsigned* deltas) const;
    unsigned NextSingleSteps(TimeCursor* cursor, std::uint64_t* time, unsigned capacity, int64* times, unsigned* deltas) const;
    void AppendDirectStepSlow(const TimeDelta& step);
    // REQUIRES: room for one repeat code.
    void AppendRepeat(const TimeDelta* pattern, unsigned length, std::uint64_t repetitions,
                      unsigned (*encode)(unsigned char*, const TimeDelta&));

    Coder* m_coder = nullptr; // pattern search state while appending; null when idle
    bool m_ended = false;     // the stream ends with the end code
    TimeDeltaBytes m_bytes;   // the coded stream
};

}  // namespace Tarvel

#endif  // TARVEL_STORE_TIME_DELTA_STORE_H
