// The time-delta stream codes: fixed byte sequences, encode/decode round trips against the
// table's meaning, and a repeat code straddling a chunk boundary.
#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <random>

#include "store/time_delta_store.h"

namespace Tarvel {
namespace {

std::vector<TimeDelta> Walk(const KTimeDeltaStore& store, StepResult* last = nullptr) {
    std::vector<TimeDelta> steps;
    TimeCursor cursor;
    TimeDelta step;
    StepResult r;
    while ((r = store.Next(&cursor, &step)) == StepResult::kStep) steps.push_back(step);
    if (last) *last = r;
    return steps;
}

// Decodes one code given as bytes (padded as the stream's spans are).
TimeDelta Decode(std::initializer_list<unsigned char> bytes) {
    unsigned char code[16] = {};
    std::copy(bytes.begin(), bytes.end(), code);
    EXPECT_EQ(StepCodeLength(code[0]), bytes.size());
    return DecodeStep(code);
}

TEST(TimeDeltaCode, FixedBytesDecodeAsTabled) {
    EXPECT_EQ(Decode({63, 7}), (TimeDelta{7, 0}));
    EXPECT_EQ(Decode({27, 5}), (TimeDelta{5000, 0}));  // group 3 (x1000), 1-byte mantissa, delta 0
    EXPECT_EQ(Decode({3, 5}), (TimeDelta{10, 0}));     // group 0 scales by 2, not by 1
    EXPECT_EQ(Decode({59, 9}), Decode({91, 9}));
    EXPECT_EQ(Decode({59, 9}), (TimeDelta{0, 9}));
    EXPECT_EQ(Decode({90, 1, 2, 3, 4, 5, 6, 7, 8, 0x34, 0x12}), (TimeDelta{0x0807060504030201, 0x1234}));
    EXPECT_EQ(Decode({79, 1, 0, 0, 0, 0x80}).difference, 0x8000000001);  // bits 32-39 in the fifth byte
    EXPECT_EQ(Decode({12, 0x10, 0x27, 5, 0}), (TimeDelta{100000, 5}));  // x10, 2-byte mantissa, 2-byte delta
    EXPECT_EQ(Decode({50, 7}), (TimeDelta{7000000, 1}));                 // x10^6, 1-byte mantissa, delta 1
    EXPECT_EQ(Decode({55, 7, 1}), (TimeDelta{263000000, 0}));            // x10^6, 2-byte mantissa, delta 0
    RepeatHeader h;
    const unsigned char unused[] = {101, 133, 165, 1};
    ASSERT_TRUE(DecodeRepeatHeader(unused, 4, &h));
    EXPECT_EQ(h.count, 0u);
    const unsigned char tooLong[] = {166, 5};
    EXPECT_FALSE(DecodeRepeatHeader(tooLong, 2, &h));  // a pattern holds at most 4 steps
}

TEST(TimeDeltaCode, EveryStepRoundTripsInBothEncodings) {
    std::mt19937_64 rng(7);
    for (int i = 0; i < 200000; ++i) {
        const int64 magnitude = int64{1} << (rng() % 63);
        int64 difference = static_cast<int64>(rng() % static_cast<std::uint64_t>(magnitude));
        if (i % 5 == 0) difference = static_cast<int64>(rng() % 100) * (i % 3 == 0 ? 1000000 : 10);
        if (i % 97 == 0) difference = -difference;
        const std::uint32_t delta = (i % 4 == 0) ? static_cast<std::uint32_t>(rng() % 0x10000) : static_cast<std::uint32_t>(rng() % 3);
        const TimeDelta step{difference, delta};
        unsigned char shortest[16], unscaled[16];
        const unsigned n = EncodeStepShortest(shortest, step);
        const unsigned m = EncodeStepUnscaled(unscaled, step);
        ASSERT_EQ(n, StepCodeLength(shortest[0]));
        ASSERT_EQ(m, StepCodeLength(unscaled[0]));
        ASSERT_LE(n, m);
        ASSERT_GE(unscaled[0], 56) << "unscaled form used a scaled code";
        ASSERT_NE(unscaled[0], 91);
        ASSERT_EQ(DecodeStep(shortest), step) << difference << " " << delta;
        ASSERT_EQ(DecodeStep(unscaled), step) << difference << " " << delta;
    }
}

TEST(TimeDeltaCode, RepeatHeadersRoundTripForEveryLengthAndCountWidth) {
    const std::uint64_t counts[] = {0, 1, 2, 32, 33, 255, 256, 65535, 65536, 0xFFFFFFFFull, 0x100000000ull};
    for (unsigned length = 1; length <= 4; ++length) {
        for (std::uint64_t count : counts) {
            unsigned char code[16];
            const unsigned n = EncodeRepeatHeader(code, length, count);
            RepeatHeader h;
            ASSERT_TRUE(DecodeRepeatHeader(code, n, &h));
            EXPECT_EQ(h.length, length);
            EXPECT_EQ(h.count, count);
            EXPECT_EQ(h.bytes, n);
            if (n > 1) {
                EXPECT_FALSE(DecodeRepeatHeader(code, n - 1, &h)) << "truncated header accepted";
            }
        }
    }
}

TEST(TimeDeltaStore, RepeatStraddlingAChunkBoundaryDecodesTheSame) {
    const TimeDelta pattern[] = {{70000, 300}, {1, 0}, {123456789, 2}};
    for (unsigned pad = 2030; pad < 2050; ++pad) {
        KTimeDeltaStore store;
        for (unsigned i = 0; i < pad / 2; ++i) store.AppendDirectStep({5, 0});  // 2 bytes each
        if (pad % 2) store.AppendDirectStep({0, 0});                              // 1 byte
        store.AppendDirectRepeat(3, 1000, pattern);
        store.AppendEndCode();
        StepResult last;
        const std::vector<TimeDelta> steps = Walk(store, &last);
        EXPECT_EQ(last, StepResult::kEnd);
        const size_t before = pad / 2 + pad % 2;
        ASSERT_EQ(steps.size(), before + 3000) << pad;
        for (size_t i = 0; i < 3000; ++i) ASSERT_EQ(steps[before + i], pattern[i % 3]) << pad;
    }
}

TEST(TimeDeltaStore, CoderFindsPatternsAndWalksBackEveryStep) {
    std::mt19937 rng(3);
    for (int round = 0; round < 40; ++round) {
        std::vector<TimeDelta> input;
        for (int i = 0; i < 5000; ++i) {
            const int phase = (i / 200 + round) % 4;
            if (phase == 0) input.push_back({static_cast<int64>(rng() % 300), 0});
            if (phase == 1) input.push_back({i % 2 ? 5 : 15, 0});
            if (phase == 2) input.push_back({(i % 3) * 1000, static_cast<std::uint32_t>(i % 3 == 0)});
            if (phase == 3) input.push_back({10, static_cast<std::uint32_t>(rng() % 2)});
        }
        KTimeDeltaStore store;
        for (const TimeDelta& step : input) {
            if (!store.ReadyToAppend()) store.PrepareAppend();
            store.Append(step);
        }
        store.Finish();
        ASSERT_EQ(Walk(store), input) << "round " << round;
    }
}

}  // namespace
}  // namespace Tarvel
