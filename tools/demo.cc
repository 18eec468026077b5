// The demo job: simulates a small built-in design (a clocked 8-bit counter with a reset, a state
// machine, an accumulator and an analog level) for a number of clock cycles and writes its
// waveform with the tarvel writer, committing periodically. Prints the file's path, its size and
// the number of events written. Command-line tool; single-threaded.
//
// Usage: tarvel_demo [cycles] [output file]   (tarvel_demo --help prints this line)
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tarvel/tarvel.h"

namespace {

using Tarvel::int64;

constexpr const char* kStdLogic = "e#9#std_logicc9 UX01ZWLH-";
constexpr const char* kVector8 = "a#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-";
constexpr const char* kStates = "e#5#staten4#4#IDLE#4#LOAD#3#RUN#4#DONE";
constexpr const char* kInteger = "i#7#integer";
constexpr const char* kReal = "f#4#real";
constexpr unsigned kZero = 2, kOne = 3;  // std_logic codes of '0' and '1'

// Handles of the design's signals.
enum Handle { kClk = 1, kRst, kCount, kState, kAcc, kLevel, kWatch, kCountBit0 = 100 };

// Source locations of the design's processes, as a simulator would report them.
class Sources final : public Tarvel::ISourceCallback {
public:
    bool GetSourceLocation(int source, const char** fileName, int* line) const override {
        if (source < 1 || source > 4) return false;
        *fileName = source == 4 ? "tb_counter.vhd" : "counter.vhd";
        *line = 10 * source + 2;
        return true;
    }
};

bool Declare(Tarvel::ITarvelWrite& w) {
    bool ok = w.SetResolution(1000);  // one time unit is 1000 fs: times are in picoseconds
    ok = ok && w.StoreProperty(0, -1, "Project", "counter_demo") && w.StoreProperty(0, -1, "TopLevel", "tb_counter");
    ok = ok && w.SetTypeInfo(kClk, kStdLogic) && w.StoreSignal(kClk, 1, -1, 0, "clk", 0);
    ok = ok && w.SetTypeInfo(kRst, kStdLogic) && w.StoreSignal(kRst, 1, -1, 0, "rst", 0);
    ok = ok && w.SetTypeInfo(kCount, kVector8) && w.StoreBus(kCount, 2, 8, -1, 0, "count", 0);
    // An element's position counts from the left index: bit b of (7 downto 0) is at position 7 - b.
    for (int bit = 0; ok && bit < 8; ++bit) {
        ok = w.SetTypeInfo(kCountBit0 + bit, kStdLogic) && w.StoreSignal(kCountBit0 + bit, 2, kCount, 7 - bit, "count", 0);
    }
    ok = ok && w.SetTypeInfo(kState, kStates) && w.StoreSignal(kState, 6, -1, 0, "state", 0);
    ok = ok && w.SetTypeInfo(kAcc, kInteger) && w.StoreSignal(kAcc, 7, -1, 0, "acc", 0);
    ok = ok && w.SetTypeInfo(kLevel, kReal) && w.StoreSignal(kLevel, 6, -1, 0, "level", 0);
    ok = ok && w.StoreBus(kWatch, -1, 2, -1, 0, "watch", 0);
    ok = ok && w.StoreProperty(0, kClk, "VBus", "1") && w.StoreProperty(0, kState, "VBus", "1");
    ok = ok && w.StoreProperty(0, kAcc, "Comment", "running sum of count") && w.StoreProperty(0, kLevel, "Hidden", "1");
    return ok && w.FlushDeclarations();
}

bool Put4(Tarvel::ITarvelWrite& w, int handle, unsigned value, int source, long long* events) {
    ++*events;
    return w.StoreValueWithSource(handle, reinterpret_cast<const unsigned char*>(&value), source);
}

bool Run(Tarvel::ITarvelWrite& w, long long cycles, long long* events) {
    unsigned count = 0, state = 0;
    int acc = 0;
    bool ok = true;
    for (long long c = 0; ok && c < cycles; ++c) {
        const int64 t = c * 10000;  // 10 ns clock
        ok = w.SetTime(t) && Put4(w, kClk, kOne, 1, events);
        if (c == 0 || c == 3) ok = ok && Put4(w, kRst, c == 0 ? kOne : kZero, 4, events);
        const unsigned next = c < 3 ? 0 : (count + 1) & 0xFF;
        for (int bit = 0; ok && bit < 8; ++bit) {
            if (c == 0 || ((next ^ count) >> bit & 1)) ok = Put4(w, kCountBit0 + bit, next >> bit & 1 ? kOne : kZero, 2, events);
        }
        count = next;
        const unsigned nextState = c < 3 ? 0 : count == 0 ? 3 : count < 16 ? 1 : 2;
        if (c == 0 || nextState != state) ok = ok && Put4(w, kState, nextState, 3, events);
        state = nextState;
        if (count % 4 == 0) {
            acc += static_cast<int>(count);
            ok = ok && Put4(w, kAcc, static_cast<unsigned>(acc), 0, events);
        }
        if (c % 16 == 0) {
            const double level = std::sin(static_cast<double>(c) / 50.0);
            ok = ok && w.StoreValue(kLevel, reinterpret_cast<const unsigned char*>(&level));
            ++*events;
        }
        ok = ok && w.SetTime(t + 5000) && Put4(w, kClk, kZero, 1, events);
        if (ok && c % 10000 == 9999) ok = w.Commit() && w.Resume();
    }
    return ok && w.SetTime(cycles * 10000) && w.Commit();
}

constexpr const char* kUsage = "usage: tarvel_demo [cycles] [output file]   (defaults: 100000 demo.twf)\n";

// The cycle count of the command line: digits only, at most 10^12.
bool ParseCycles(const char* text, long long* cycles) {
    if (*text < '0' || *text > '9') return false;
    char* end = nullptr;
    errno = 0;
    *cycles = std::strtoll(text, &end, 10);
    return errno == 0 && *end == '\0' && *cycles <= 1000000000000LL;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    long long cycles = 100000;
    if (argc > 3) {
        std::fprintf(stderr, "tarvel_demo: too many arguments\n%s", kUsage);
        return 2;
    }
    if (argc > 1 && !ParseCycles(argv[1], &cycles)) {
        std::fprintf(stderr, "tarvel_demo: '%s' is no cycle count\n%s", argv[1], kUsage);
        return 2;
    }
    const char* path = argc > 2 ? argv[2] : "demo.twf";
    Sources sources;
    Tarvel::ITarvelWrite* writer = Tarvel::CreateStreamWriteTimed(path, &sources);
    if (!writer) {
        std::fprintf(stderr, "tarvel_demo: cannot create %s (see %s.log)\n", path, path);
        return 1;
    }
    long long events = 0;
    const bool ran = Declare(*writer) && Run(*writer, cycles, &events);
    const bool closed = writer->Release();
    if (!ran || !closed) {
        std::fprintf(stderr, "tarvel_demo: writing %s failed (see %s.log)\n", path, path);
        return 1;
    }
    long size = 0;
    if (std::FILE* f = std::fopen(path, "rb")) {
        std::fseek(f, 0, SEEK_END);
        size = std::ftell(f);
        std::fclose(f);
    }
    std::printf("tarvel demo: %lld clock cycles of a counter design\n", cycles);
    std::printf("wrote %s: %ld bytes, %lld events (%.2f bytes/event)\n", path, size, events,
                events ? static_cast<double>(size) / static_cast<double>(events) : 0.0);
    return 0;
}
