// The byte codes of the time-delta stream: single steps (opcodes 0-92), repeat codes (93-196) and
// the end code (197). Encoding and decoding of one code live here side by side, so the coder,
// the direct store and the cursors cannot disagree. Store layer; pure functions, any thread.
//
// Operands are little-endian. Single steps 0-55 scale a 1- or 2-byte mantissa by 2, 10, 100, ...
// 10^6 (group = opcode / 8); 56-92 carry the difference unscaled in 0 to 8 bytes. A repeat code
// gives a pattern length L (1-4) and a count N, followed by L single-step codes.
#ifndef TARVEL_STORE_TIME_DELTA_CODE_H
#define TARVEL_STORE_TIME_DELTA_CODE_H

#include <cstdint>

#include "tarvel/config.h"

namespace Tarvel {

// One step of a store's time line: the difference from the previous event's time and the
// event's delta-cycle index (16 bits are kept).
struct TimeDelta {
    int64 difference;
    std::uint32_t delta;
    bool operator==(const TimeDelta& other) const { return difference == other.difference && delta == other.delta; }
    bool operator!=(const TimeDelta& other) const { return !(*this == other); }
};

inline constexpr unsigned char kEndCode = 197;
inline constexpr unsigned char kFirstRepeatCode = 93;
// Longest single-step code (opcode, 8-byte difference, 2-byte delta).
inline constexpr unsigned kMaxStepBytes = 11;
// Longest repeat-code header (opcode, L byte, 8-byte count).
inline constexpr unsigned kMaxRepeatHeaderBytes = 10;
inline constexpr unsigned kMaxPatternLength = 4;

// Codes `step` in the shortest form, scaled forms allowed. Returns the byte count.
unsigned EncodeStepShortest(unsigned char* out, const TimeDelta& step);
// Codes `step` in the narrowest unscaled form (as a file reader refills a store).
unsigned EncodeStepUnscaled(unsigned char* out, const TimeDelta& step);
// Codes the header of a repeat code for a pattern of `length` steps (1-4) played `count` times.
unsigned EncodeRepeatHeader(unsigned char* out, unsigned length, std::uint64_t count);

// Length of the single-step code starting with `opcode` (<= 92), operands included.
unsigned StepCodeLength(unsigned char opcode);
// Decodes the single-step code at `code` (whose length the caller has checked).
TimeDelta DecodeStep(const unsigned char* code);

// A decoded repeat-code header.
struct RepeatHeader {
    unsigned length;      // pattern length L
    std::uint64_t count;  // repetitions N
    unsigned bytes;       // header bytes before the pattern's steps
};
// Decodes the repeat header at `code` given `available` bytes. Returns false for a truncated
// header or a pattern length outside 1-4.
bool DecodeRepeatHeader(const unsigned char* code, std::uint64_t available, RepeatHeader* header);

}  // namespace Tarvel

#endif  // TARVEL_STORE_TIME_DELTA_CODE_H
