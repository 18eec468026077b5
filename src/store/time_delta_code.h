// The byte codes of the time-delta stream: single steps (opcodes 0-92), repeat codes (93-196) and
// the end code (197). Encoding and decoding of one code live here side by side, so the coder,
// the direct store and the cursors cannot disagree. Store layer; pure functions, any thread.
//
// Operands are little-endian. Single steps 0-55 scale a 1- or 2-byte mantissa by 2, 10, 100, ...
// 10^6 (group = opcode / 8); 56-92 carry the difference unscaled in 0 to 8 bytes. A repeat code
// gives a pattern length L (1-4) and a count N, followed by L single-step codes.
#ifndef TARVEL_STORE_TIME_DELTA_CODE_H
#define TARVEL_STORE_TIME_DELTA_CODE_H

#include <array>
#include <cstdint>

#include "foundation/little_endian.h"

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
// EncodeStepUnscaled with the usual steps (2 to 65535 with delta 0) coded inline.
inline unsigned EncodeStepUnscaledInline(unsigned char* out, const TimeDelta& step) {
    if ((step.delta & 0xFFFF) == 0 && step.difference >= 2 && step.difference <= 0xFFFF) {
        if (step.difference <= 0xFF) {
            out[0] = 63;
            out[1] = static_cast<unsigned char>(step.difference);
            return 2;
        }
        out[0] = 67;
        out[1] = static_cast<unsigned char>(step.difference);
        out[2] = static_cast<unsigned char>(step.difference >> 8);
        return 3;
    }
    return EncodeStepUnscaled(out, step);
}
// Codes the header of a repeat code for a pattern of `length` steps (1-4) played `count` times.
unsigned EncodeRepeatHeader(unsigned char* out, unsigned length, std::uint64_t count);

namespace StepCode {

// How one single-step opcode carries its difference and delta.
struct StepForm {
    std::uint8_t differenceBytes;  // operand bytes of the difference (mantissa for scaled codes)
    std::uint8_t differenceConst;  // the difference when it has no operand
    std::uint8_t deltaBytes;       // operand bytes of the delta
    std::uint8_t deltaConst;       // the delta when it has no operand
    std::uint32_t scale;           // multiplier of the difference operand
};

inline constexpr std::uint32_t kScales[7] = {2, 10, 100, 1000, 10000, 100000, 1000000};
// Difference operand widths of the unscaled codes 63-90, in opcode order.
inline constexpr std::uint8_t kUnscaledWidths[7] = {1, 2, 3, 4, 5, 6, 8};

// The delta form of the low two bits of a form index: 0 = 2-byte operand, 1 = 1-byte operand,
// 2 = the constant 1, 3 = the constant 0 (scaled codes); unscaled codes 63-90 use the order
// 0, 1, 1-byte, 2-byte instead.
constexpr StepForm ScaledForm(unsigned opcode) {
    const unsigned r = opcode % 8;
    const std::uint8_t mantissa = r < 4 ? 1 : 2;
    const unsigned d = r % 4;
    return StepForm{mantissa, 0, static_cast<std::uint8_t>(d == 0 ? 2 : d == 1 ? 1 : 0),
                    static_cast<std::uint8_t>(d == 2 ? 1 : 0), kScales[opcode / 8]};
}

constexpr StepForm UnscaledForm(unsigned opcode) {
    switch (opcode) {
        case 56: return {0, 0, 0, 0, 1};
        case 57: return {0, 1, 0, 0, 1};
        case 58: return {0, 0, 0, 1, 1};
        case 59: return {0, 0, 1, 0, 1};
        case 60: return {0, 1, 0, 1, 1};
        case 61: return {0, 1, 1, 0, 1};
        case 62: return {0, 1, 2, 0, 1};
        case 91: return {0, 0, 1, 0, 1};
        case 92: return {0, 0, 2, 0, 1};
        default: break;
    }
    const unsigned i = opcode - 63;
    const unsigned d = i % 4;
    return StepForm{kUnscaledWidths[i / 4], 0, static_cast<std::uint8_t>(d < 2 ? 0 : d - 1),
                    static_cast<std::uint8_t>(d == 1 ? 1 : 0), 1};
}

constexpr std::array<StepForm, 93> MakeForms() {
    std::array<StepForm, 93> forms{};
    for (unsigned op = 0; op < 93; ++op) forms[op] = op < 56 ? ScaledForm(op) : UnscaledForm(op);
    return forms;
}

inline constexpr std::array<StepForm, 93> kForms = MakeForms();

}  // namespace StepCode

// Length of the single-step code starting with `opcode` (<= 92), operands included.
inline unsigned StepCodeLength(unsigned char opcode) {
    const StepCode::StepForm& f = StepCode::kForms[opcode];
    return 1u + f.differenceBytes + f.deltaBytes;
}

// Decodes the single-step code at `code`, whose length the caller has checked.
// REQUIRES: 16 bytes readable at `code` (the stream's spans guarantee it).
inline TimeDelta DecodeStep(const unsigned char* code) {
    const StepCode::StepForm& f = StepCode::kForms[code[0]];
    TimeDelta step;
    step.difference = f.differenceBytes == 0
                          ? int64{f.differenceConst}
                          : static_cast<int64>(LittleEndian::LoadPart(code + 1, f.differenceBytes) * f.scale);
    const unsigned char* delta = code + 1 + f.differenceBytes;
    step.delta = f.deltaBytes == 0   ? f.deltaConst
                 : f.deltaBytes == 1 ? delta[0]
                                     : LittleEndian::Load<std::uint16_t>(delta);
    return step;
}

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
