// A writer-made design with a value of every kind, for the tests of the tool's subcommands and of
// its VCD export: scopes, a std_logic_vector bus whose left element is never given a value, an
// integer given two values at one time (deltas 1 and 2), a real, a state machine, character
// literals, a physical time, a 64-bit integer, a record, a virtual bus, a signal whose events are
// the clock's and whose name has blanks; properties, sources, delta cycles, and a std_logic code
// the writer writes as '?'. Test support (Google Test assertions); one thread.
#ifndef TARVEL_TESTS_TOOLS_EVERY_KIND_DESIGN_H
#define TARVEL_TESTS_TOOLS_EVERY_KIND_DESIGN_H

#include <gtest/gtest.h>
#include <tarvel/tarvel.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace Tarvel::Testing {

#define DESIGN_OK(call) ASSERT_TRUE(call) << #call

class EveryKindSources final : public ISourceCallback {
public:
    bool GetSourceLocation(int source, const char** fileName, int* line) const override {
        *fileName = source == 1 ? "tb.vhd" : "dut.vhd";
        *line = 10 * source;
        return source >= 1 && source <= 3;
    }
};

// Stores `value`'s 8 little-endian bytes (as many as the signal's values hold) for `handle`.
inline void Put(ITarvelWrite& w, int handle, std::uint64_t value, int source = 0) {
    unsigned char bytes[8];
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    ASSERT_TRUE(w.StoreValueWithSource(handle, bytes, source)) << handle;
}

// Writes `cycles` clock cycles of 10000 units (of `resolution` fs), committing every fourth cycle
// and resuming; at the end a last commit unless `commitAtEnd` is false.
inline void WriteDesign(const std::string& path, int cycles, bool commitAtEnd = true, int64 resolution = 1000) {
    enum Handle : int { kTb = 1, kClk, kDut, kData = 10, kCount = 20, kLevel, kState, kFlag, kDelay, kBig, kPkt = 30, kAddr, kValid, kWatch = 40, kTwin = 50 };
    EveryKindSources sources;
    ITarvelWrite* w = CreateStreamWriteTimed(path.c_str(), &sources);
    ASSERT_NE(w, nullptr);
    const char* logic = "e#9#std_logicc9 UX01ZWLH-";
    DESIGN_OK(w->SetResolution(resolution) && w->StoreProperty(0, -1, "Project", "tool test") && w->StoreProperty(0, -1, "TopLevel", "tb"));
    DESIGN_OK(w->StoreSignal(kTb, kPortNone, -1, 0, "tb", 0));
    DESIGN_OK(w->SetTypeInfo(kClk, logic) && w->StoreSignal(kClk, kPortIn, kTb, 0, "clk", 0));
    DESIGN_OK(w->StoreSignal(kDut, kPortNone, kTb, 1, "dut", 0));
    DESIGN_OK(w->SetTypeInfo(kTwin, logic) && w->StoreSignal(kTwin, kPortSignal, kTb, 2, "same as clk", 0));
    DESIGN_OK(w->SetTypeInfo(kData, "a#16#std_logic_vector[3d0]e#9#std_logicc9 UX01ZWLH-") && w->StoreBus(kData, kPortOut, 0, kDut, 0, "data", 0));
    for (int p = 0; p < 4; ++p) DESIGN_OK(w->SetTypeInfo(kData + 1 + p, logic) && w->StoreSignal(kData + 1 + p, kPortOut, kData, p, "data", 0));
    DESIGN_OK(w->SetTypeInfo(kCount, "i#7#integer") && w->StoreSignal(kCount, kPortBuffer, kDut, 1, "count", 0));
    DESIGN_OK(w->SetTypeInfo(kLevel, "f#4#real") && w->StoreSignal(kLevel, kPortSignal, kDut, 2, "level", 0));
    DESIGN_OK(w->SetTypeInfo(kState, "e#5#staten3#4#IDLE#4#LOAD#3#RUN") && w->StoreSignal(kState, kPortSignal, kDut, 3, "state", 0));
    DESIGN_OK(w->SetTypeInfo(kFlag, "e#4#charc2 ab") && w->StoreSignal(kFlag, kPortInOut, kDut, 4, "flag", 0));
    DESIGN_OK(w->SetTypeInfo(kDelay, "p#4#time#2#fs") && w->StoreSignal(kDelay, kPortVariable, kDut, 5, "delay", 0));
    DESIGN_OK(w->SetTypeInfo(kBig, "l#6#bigint") && w->StoreSignal(kBig, kPortLinkage, kDut, 6, "big", 0));
    DESIGN_OK(w->SetTypeInfo(kPkt, "r#6#packet2#4#addri#7#integer#5#valide#7#booleann2#5#FALSE#4#TRUE") &&
              w->StoreBus(kPkt, kPortOut, 0, kDut, 7, "pkt", 0));
    DESIGN_OK(w->SetTypeInfo(kAddr, "i#7#integer") && w->StoreSignal(kAddr, kPortOut, kPkt, 0, "addr", 0));
    DESIGN_OK(w->SetTypeInfo(kValid, "e#7#booleann2#5#FALSE#4#TRUE") && w->StoreSignal(kValid, kPortOut, kPkt, 1, "valid", 0));
    DESIGN_OK(w->StoreBus(kWatch, kPortVirtualBus, 1, -1, 0, "watch", 0) && w->StoreProperty(0, kState, "VBus", "1"));
    DESIGN_OK(w->StoreProperty(0, kCount, "Comment", "edges of clk") && w->StoreProperty(0, kLevel, "Hidden", "1"));
    for (int c = 0; c < cycles; ++c) {
        DESIGN_OK(w->SetTime(int64{c} * 10000));
        Put(*w, kClk, 3, 1);
        Put(*w, kTwin, 3, 1);
        DESIGN_OK(w->SetDelta(1));
        Put(*w, kCount, static_cast<std::uint64_t>(-c) & 0xFFFFFFFFu, 2);
        for (int bit = 0; bit < 3; ++bit) {
            if (c == 0 || ((c ^ (c - 1)) >> bit & 1)) Put(*w, kData + 4 - bit, (c >> bit & 1) ? 3 : 2, 2);
        }
        double level = c * 0.25;
        std::uint64_t bits;
        std::memcpy(&bits, &level, sizeof bits);
        Put(*w, kLevel, bits);
        Put(*w, kState, static_cast<std::uint64_t>(c % 3), 3);
        Put(*w, kFlag, static_cast<std::uint64_t>(c % 2));
        Put(*w, kDelay, static_cast<std::uint64_t>(c) * 1500);
        Put(*w, kBig, (std::uint64_t{1} << 40) + static_cast<std::uint64_t>(c));
        Put(*w, kAddr, static_cast<std::uint64_t>(c) * 4);
        Put(*w, kValid, static_cast<std::uint64_t>(c % 2));
        DESIGN_OK(w->SetDelta(2));
        Put(*w, kCount, static_cast<std::uint64_t>(c), 2);  // the value of the time
        DESIGN_OK(w->SetTime(int64{c} * 10000 + 5000));
        Put(*w, kClk, c == 3 ? 9 : 2, 1);  // 9 is no std_logic value: written '?'
        Put(*w, kTwin, c == 3 ? 9 : 2, 1);
        if (c % 4 == 3) {
            DESIGN_OK(w->Commit() && w->Resume());
        }
    }
    if (commitAtEnd) {
        DESIGN_OK(w->SetTime(int64{cycles} * 10000) && w->Commit());
    }
    DESIGN_OK(w->Release());
}

#undef DESIGN_OK

}  // namespace Tarvel::Testing

#endif  // TARVEL_TESTS_TOOLS_EVERY_KIND_DESIGN_H
