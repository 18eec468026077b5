// Encoding and decoding of single-step and repeat codes of the time-delta stream.
// Store layer; pure functions, any thread.
#include "store/time_delta_code.h"

#include <array>

namespace Tarvel {
namespace {

using StepCode::kScales;
using StepCode::kUnscaledWidths;

std::uint64_t LoadLE(const unsigned char* p, unsigned bytes) {
    std::uint64_t v = 0;
    for (unsigned i = bytes; i-- > 0;) v = (v << 8) | p[i];
    return v;
}

unsigned StoreLE(unsigned char* p, std::uint64_t v, unsigned bytes) {
    for (unsigned i = 0; i < bytes; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
    return bytes;
}

// Delta forms in the unscaled order: 0 -> delta 0, 1 -> delta 1, 2 -> 1 byte, 3 -> 2 bytes.
unsigned DeltaForm(std::uint32_t delta) { return delta == 0 ? 0 : delta == 1 ? 1 : delta <= 0xFF ? 2 : 3; }
unsigned DeltaBytes(unsigned form) { return form < 2 ? 0 : form - 1; }

unsigned DifferenceWidthIndex(std::uint64_t difference) {
    if (difference <= 0xFF) return 0;
    if (difference <= 0xFFFF) return 1;
    if (difference <= 0xFFFFFF) return 2;
    if (difference <= 0xFFFFFFFFull) return 3;
    if (difference <= 0xFFFFFFFFFFull) return 4;
    if (difference <= 0xFFFFFFFFFFFFull) return 5;
    return 6;
}

unsigned WriteDelta(unsigned char* out, std::uint32_t delta, unsigned form) {
    return StoreLE(out, delta, DeltaBytes(form));
}

// Codes for the differences 0 and 1, indexed by delta form.
constexpr unsigned char kZeroCodes[4] = {56, 58, 59, 92};
constexpr unsigned char kOneCodes[4] = {57, 60, 61, 62};

// The scaled form of `difference` (>= 2): the smallest group with a 1-byte mantissa, else the
// smallest with a 2-byte one. Returns false when no group represents it exactly. The divisors
// are constants so that no division instruction runs on this per-step path.
template <std::uint32_t Scale>
bool TryScale(std::uint64_t difference, std::uint64_t limit, unsigned group, unsigned* found, std::uint64_t* mantissa) {
    if (difference % Scale != 0 || difference / Scale > limit) return false;
    *found = group;
    *mantissa = difference / Scale;
    return true;
}

bool FindScaledWithin(std::uint64_t difference, std::uint64_t limit, unsigned* group, std::uint64_t* mantissa) {
    return TryScale<2>(difference, limit, 0, group, mantissa) || TryScale<10>(difference, limit, 1, group, mantissa) ||
           TryScale<100>(difference, limit, 2, group, mantissa) || TryScale<1000>(difference, limit, 3, group, mantissa) ||
           TryScale<10000>(difference, limit, 4, group, mantissa) ||
           TryScale<100000>(difference, limit, 5, group, mantissa) ||
           TryScale<1000000>(difference, limit, 6, group, mantissa);
}

bool FindScaled(std::uint64_t difference, unsigned* group, std::uint64_t* mantissa) {
    static_assert(kScales[0] == 2 && kScales[6] == 1000000, "scale groups");
    // Every scale but 2 is a multiple of 10: otherwise only the first group can fit.
    if (difference % 10 != 0) {
        return TryScale<2>(difference, 0xFF, 0, group, mantissa) || TryScale<2>(difference, 0xFFFF, 0, group, mantissa);
    }
    return FindScaledWithin(difference, 0xFF, group, mantissa) || FindScaledWithin(difference, 0xFFFF, group, mantissa);
}

}  // namespace

unsigned EncodeStepUnscaled(unsigned char* out, const TimeDelta& step) {
    const std::uint32_t delta = step.delta & 0xFFFF;
    const unsigned form = DeltaForm(delta);
    const std::uint64_t difference = static_cast<std::uint64_t>(step.difference);
    if (difference <= 1) {
        out[0] = difference == 0 ? kZeroCodes[form] : kOneCodes[form];
        return 1 + WriteDelta(out + 1, delta, form);
    }
    const unsigned wi = DifferenceWidthIndex(difference);
    out[0] = static_cast<unsigned char>(63 + 4 * wi + form);
    unsigned n = 1 + StoreLE(out + 1, difference, kUnscaledWidths[wi]);
    return n + WriteDelta(out + n, delta, form);
}

unsigned EncodeStepShortest(unsigned char* out, const TimeDelta& step) {
    const std::uint32_t delta = step.delta & 0xFFFF;
    if (delta == 0 && step.difference >= 2 && step.difference <= 0xFF) {
        out[0] = 63;
        out[1] = static_cast<unsigned char>(step.difference);
        return 2;
    }
    // Every scale is even: an odd difference (or one below 2) has no scaled form.
    if (step.difference < 2 || (step.difference & 1) != 0) return EncodeStepUnscaled(out, step);
    const std::uint64_t difference = static_cast<std::uint64_t>(step.difference);
    unsigned group = 0;
    std::uint64_t mantissa = 0;
    const unsigned form = DeltaForm(delta);
    const unsigned unscaledBytes = 1 + kUnscaledWidths[DifferenceWidthIndex(difference)] + DeltaBytes(form);
    if (!FindScaled(difference, &group, &mantissa)) return EncodeStepUnscaled(out, step);
    const unsigned mantissaBytes = mantissa <= 0xFF ? 1 : 2;
    if (1 + mantissaBytes + DeltaBytes(form) >= unscaledBytes) return EncodeStepUnscaled(out, step);
    // Scaled delta order: 0 -> 2-byte, 1 -> 1-byte, 2 -> constant 1, 3 -> constant 0.
    static constexpr unsigned kScaledDelta[4] = {3, 2, 1, 0};
    out[0] = static_cast<unsigned char>(group * 8 + (mantissaBytes - 1) * 4 + kScaledDelta[form]);
    unsigned n = 1 + StoreLE(out + 1, mantissa, mantissaBytes);
    return n + WriteDelta(out + n, delta, form);
}

unsigned EncodeRepeatHeader(unsigned char* out, unsigned length, std::uint64_t count) {
    const bool shortCount = count >= 2 && count <= 32;
    if (length == 1 && shortCount) {
        out[0] = static_cast<unsigned char>(100 + count);
        return 1;
    }
    if (length == 2 && shortCount) {
        out[0] = static_cast<unsigned char>(132 + count);
        return 1;
    }
    if (shortCount) {
        out[0] = static_cast<unsigned char>(164 + count);
        out[1] = static_cast<unsigned char>(length);
        return 2;
    }
    const unsigned widthIndex = count <= 0xFF ? 0 : count <= 0xFFFF ? 1 : count <= 0xFFFFFFFFull ? 2 : 3;
    static constexpr unsigned kCountBytes[4] = {1, 2, 4, 8};
    unsigned n = 0;
    if (length == 1) {
        out[n++] = static_cast<unsigned char>(97 + widthIndex);
    } else {
        out[n++] = static_cast<unsigned char>(93 + widthIndex);
        out[n++] = static_cast<unsigned char>(length);
    }
    return n + StoreLE(out + n, count, kCountBytes[widthIndex]);
}

bool DecodeRepeatHeader(const unsigned char* code, std::uint64_t available, RepeatHeader* header) {
    const unsigned op = code[0];
    static constexpr unsigned kCountBytes[4] = {1, 2, 4, 8};
    unsigned n = 1;
    if (op >= 93 && op <= 100) {
        const bool lengthByte = op <= 96;
        const unsigned countBytes = kCountBytes[(op - 93) % 4];
        if (available < 1u + lengthByte + countBytes) return false;
        header->length = lengthByte ? code[n++] : 1;
        header->count = LoadLE(code + n, countBytes);
        n += countBytes;
    } else if (op <= 132) {
        header->length = 1;
        header->count = op - 100;
    } else if (op <= 164) {
        header->length = 2;
        header->count = op - 132;
    } else {
        if (available < 2) return false;
        header->length = code[n++];
        header->count = op - 164;
    }
    // 101, 133 and 165 are the short forms' unused first slots: they repeat nothing.
    if (op == 101 || op == 133 || op == 165) header->count = 0;
    header->bytes = n;
    return header->length >= 1 && header->length <= kMaxPatternLength;
}

}  // namespace Tarvel
