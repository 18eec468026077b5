// Example (docs/guide.md): writes a small design the way a simulator would. A testbench scope
// "tb" holds a clock and the scope "dut", which holds an 8-bit std_logic_vector bus, an
// integer, a real, a state machine and a record; values carry source locations, and the file
// is committed halfway and at the end. Uses the public headers only.
//
// Usage: write_design <file>
#include <tarvel/tarvel.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

using Tarvel::int64;
using Tarvel::ITarvelWrite;

// Type strings (include/sorvat/typeinfo.h has the grammar and a table of common types).
constexpr const char* kStdLogic = "e#9#std_logicc9 UX01ZWLH-";
constexpr const char* kByte = "a#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-";
constexpr const char* kInteger = "i#7#integer";
constexpr const char* kReal = "f#4#real";
constexpr const char* kBoolean = "e#7#booleann2#5#FALSE#4#TRUE";
constexpr const char* kState = "e#5#staten3#4#IDLE#4#LOAD#3#RUN";
constexpr const char* kPacket = "r#6#packet2#4#addri#7#integer#5#valide#7#booleann2#5#FALSE#4#TRUE";

// std_logic values are the positions of 'U' 'X' '0' '1' 'Z' 'W' 'L' 'H' '-'.
constexpr std::uint32_t kLow = 2, kHigh = 3;
enum State : std::uint32_t { kIdle, kLoad, kRun };

// Handles: any numbers of our choice, one per scope, signal, bus and element.
enum Handle : int {
    kTb = 1, kClk, kDut,
    kData = 10,       // its elements are kData + 1 + position: bit b is at position 7 - b
    kCount = 20, kLevel, kStateMachine,
    kPacketBus = 30, kPacketAddr, kPacketValid,
};

// Sources: one per process, as the simulator numbers them.
enum Source : int { kClockProcess = 1, kCounterProcess, kStateProcess };

class Sources final : public Tarvel::ISourceCallback {
public:
    bool GetSourceLocation(int source, const char** fileName, int* line) const override {
        switch (source) {
            case kClockProcess: *fileName = "tb.vhd"; *line = 12; return true;
            case kCounterProcess: *fileName = "dut.vhd"; *line = 30; return true;
            case kStateProcess: *fileName = "dut.vhd"; *line = 41; return true;
            default: return false;
        }
    }
};

bool Declare(ITarvelWrite& w) {
    bool ok = w.SetResolution(1000);  // one time unit is 1000 fs: times count picoseconds
    ok = ok && w.StoreProperty(0, -1, "Project", "guide") && w.StoreProperty(0, -1, "TopLevel", "tb");
    // Scopes are signals without a type; children name their scope and their place in it.
    ok = ok && w.StoreSignal(kTb, Tarvel::kPortNone, -1, 0, "tb", 0);
    ok = ok && w.SetTypeInfo(kClk, kStdLogic) && w.StoreSignal(kClk, Tarvel::kPortSignal, kTb, 0, "clk", 0);
    ok = ok && w.StoreSignal(kDut, Tarvel::kPortNone, kTb, 1, "dut", 0);
    // A vector is a bus; each element is a signal of its own with the element type.
    ok = ok && w.SetTypeInfo(kData, kByte) && w.StoreBus(kData, Tarvel::kPortOut, 0, kDut, 0, "data", 0);
    for (int position = 0; ok && position < 8; ++position) {
        ok = w.SetTypeInfo(kData + 1 + position, kStdLogic) &&
             w.StoreSignal(kData + 1 + position, Tarvel::kPortOut, kData, position, "data", 0);
    }
    ok = ok && w.SetTypeInfo(kCount, kInteger) && w.StoreSignal(kCount, Tarvel::kPortOut, kDut, 1, "count", 0);
    ok = ok && w.SetTypeInfo(kLevel, kReal) && w.StoreSignal(kLevel, Tarvel::kPortSignal, kDut, 2, "level", 0);
    ok = ok && w.SetTypeInfo(kStateMachine, kState) &&
         w.StoreSignal(kStateMachine, Tarvel::kPortSignal, kDut, 3, "state", 0);
    // A record is a bus too; its fields are its elements, at the field numbers.
    ok = ok && w.SetTypeInfo(kPacketBus, kPacket) && w.StoreBus(kPacketBus, Tarvel::kPortOut, 0, kDut, 4, "pkt", 0);
    ok = ok && w.SetTypeInfo(kPacketAddr, kInteger) && w.StoreSignal(kPacketAddr, Tarvel::kPortOut, kPacketBus, 0, "addr", 0);
    ok = ok && w.SetTypeInfo(kPacketValid, kBoolean) &&
         w.StoreSignal(kPacketValid, Tarvel::kPortOut, kPacketBus, 1, "valid", 0);
    return ok && w.StoreProperty(0, kCount, "Comment", "rising edges of clk");
}

// Values are little-endian bytes: 4 for enumerations and integers, 8 for reals.
bool Put(ITarvelWrite& w, int handle, std::uint64_t value, int source, long* values) {
    unsigned char bytes[8];
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    ++*values;
    return w.StoreValueWithSource(handle, bytes, source);
}

bool PutReal(ITarvelWrite& w, int handle, double value, int source, long* values) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return Put(w, handle, bits, source, values);
}

// One clock cycle of 10 ns: the rising edge, the counter one delta later, the state machine
// one delta after that, the falling edge at half the period.
bool Cycle(ITarvelWrite& w, std::uint32_t cycle, long* values) {
    const int64 start = int64{cycle} * 10000;
    bool ok = w.SetTime(start) && Put(w, kClk, kHigh, kClockProcess, values);
    ok = ok && w.SetDelta(1) && Put(w, kCount, cycle, kCounterProcess, values);
    for (int bit = 0; ok && bit < 8; ++bit) {
        const bool changed = cycle == 0 || ((cycle ^ (cycle - 1)) >> bit & 1) != 0;
        if (changed) ok = Put(w, kData + 1 + (7 - bit), (cycle >> bit & 1) ? kHigh : kLow, kCounterProcess, values);
    }
    ok = ok && PutReal(w, kLevel, cycle * 0.5, kCounterProcess, values);
    ok = ok && Put(w, kPacketAddr, cycle * 4, kCounterProcess, values) &&
         Put(w, kPacketValid, cycle % 2, kCounterProcess, values);
    const std::uint32_t state = cycle < 2 ? kIdle : cycle % 5 == 4 ? kLoad : kRun;
    ok = ok && w.SetDelta(2) && Put(w, kStateMachine, state, kStateProcess, values);
    return ok && w.SetTime(start + 5000) && Put(w, kClk, kLow, kClockProcess, values);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: write_design <file>\n");
        return 2;
    }
    const char* path = argv[1];
    Sources sources;
    ITarvelWrite* w = Tarvel::CreateStreamWriteTimed(path, &sources);
    if (!w) {
        std::fprintf(stderr, "write_design: cannot create %s (see %s.log)\n", path, path);
        return 1;
    }
    long values = 0;
    bool ok = Declare(*w);
    for (std::uint32_t cycle = 0; ok && cycle < 20; ++cycle) {
        ok = Cycle(*w, cycle, &values);
        // Halfway: readers may look now. Resume before anything more goes into the file.
        if (ok && cycle == 9) ok = w->Commit() && w->Resume();
    }
    ok = ok && w->SetTime(200000) && w->Commit();
    // Commit, then Release: the last Release flushes and closes but does not commit.
    if (!ok || !w->Release()) {
        // The writer stopped at its first failure; the reason is in the log. A writer whose last
        // Release failed stays as a small object; there is nothing more to do with it.
        std::fprintf(stderr, "write_design: writing %s failed (see %s.log)\n", path, path);
        return 1;
    }
    std::printf("wrote a design of 18 scopes, signals, buses and elements: %ld values in 2 commits, "
                "end time 200000 ps\n", values);
    return 0;
}
