// `tarvel demo [-o OUT] [--cycles N] [--lines N]`: the built-in example of `make demo`. Simulates
// a small design (a clocked 8-bit counter with a reset, a state machine, an accumulator and an
// analog level, a virtual bus, properties and source locations) for a number of clock cycles,
// writes its waveform with the library's writer, committing every 10,000 cycles, and shows the
// file as `tarvel info` and the first lines of `tarvel dump` do. Tool layer; one thread.
#include <sys/stat.h>

#include <tarvel/writer.h>

#include <cmath>
#include <cstring>
#include <cstdio>
#include <memory>

#include "commands.h"
#include "progress.h"

namespace TarvelTool {
namespace {

constexpr const char* kStdLogic = "e#9#std_logicc9 UX01ZWLH-";
constexpr const char* kVector8 = "a#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-";
constexpr const char* kStates = "e#5#staten4#4#IDLE#4#LOAD#3#RUN#4#DONE";
constexpr const char* kInteger = "i#7#integer";
constexpr const char* kReal = "f#4#real";
constexpr unsigned kZero = 2, kOne = 3;  // std_logic codes of '0' and '1'
constexpr long long kCommitEvery = 10000;  // cycles

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
    ok = ok && w.SetTypeInfo(kClk, kStdLogic) && w.StoreSignal(kClk, Tarvel::kPortIn, -1, 0, "clk", 0);
    ok = ok && w.SetTypeInfo(kRst, kStdLogic) && w.StoreSignal(kRst, Tarvel::kPortIn, -1, 0, "rst", 0);
    ok = ok && w.SetTypeInfo(kCount, kVector8) && w.StoreBus(kCount, Tarvel::kPortOut, 8, -1, 0, "count", 0);
    // An element's position counts from the left index: bit b of (7 downto 0) is at position 7 - b.
    for (int bit = 0; ok && bit < 8; ++bit) {
        ok = w.SetTypeInfo(kCountBit0 + bit, kStdLogic) &&
             w.StoreSignal(kCountBit0 + bit, Tarvel::kPortOut, kCount, 7 - bit, "count", 0);
    }
    ok = ok && w.SetTypeInfo(kState, kStates) && w.StoreSignal(kState, Tarvel::kPortSignal, -1, 0, "state", 0);
    ok = ok && w.SetTypeInfo(kAcc, kInteger) && w.StoreSignal(kAcc, Tarvel::kPortVariable, -1, 0, "acc", 0);
    ok = ok && w.SetTypeInfo(kLevel, kReal) && w.StoreSignal(kLevel, Tarvel::kPortSignal, -1, 0, "level", 0);
    ok = ok && w.StoreBus(kWatch, Tarvel::kPortVirtualBus, 2, -1, 0, "watch", 0);
    ok = ok && w.StoreProperty(0, kClk, "VBus", "1") && w.StoreProperty(0, kState, "VBus", "1");
    ok = ok && w.StoreProperty(0, kAcc, "Comment", "running sum of count") && w.StoreProperty(0, kLevel, "Hidden", "1");
    return ok && w.FlushDeclarations();
}

bool Put4(Tarvel::ITarvelWrite& w, int handle, unsigned value, int source, long long* events) {
    ++*events;
    const unsigned char bytes[4] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
                                    static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
    return w.StoreValueWithSource(handle, bytes, source);
}

// One clock cycle at time t: the rising edge and what it causes, then the falling edge.
struct Design {
    unsigned count = 0, state = 0;
    int acc = 0;

    bool Cycle(Tarvel::ITarvelWrite& w, long long c, long long* events) {
        const Tarvel::int64 t = c * 10000;  // 10 ns clock
        bool ok = w.SetTime(t) && Put4(w, kClk, kOne, 1, events);
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
            unsigned char bytes[8];
            std::memcpy(bytes, &level, sizeof bytes);  // IEEE double, little-endian on the hosts we build for
            ok = ok && w.StoreValue(kLevel, bytes);
            ++*events;
        }
        return ok && w.SetTime(t + 5000) && Put4(w, kClk, kZero, 1, events);
    }
};

bool Run(Tarvel::ITarvelWrite& w, long long cycles, long long* events) {
    Design design;
    Progress progress("demo", static_cast<std::uint64_t>(cycles), "M cycles");
    bool ok = true;
    for (long long c = 0; ok && c < cycles; ++c) {
        ok = design.Cycle(w, c, events);
        if (ok && c % kCommitEvery == kCommitEvery - 1) ok = w.Commit() && w.Resume();
        progress.Update(static_cast<std::uint64_t>(c));
    }
    progress.Finish(static_cast<std::uint64_t>(cycles));
    return ok && w.SetTime(cycles * 10000) && w.Commit();
}

int Demo(const std::string& path, long long cycles, long long lines) {
    Sources sources;
    Tarvel::ITarvelWrite* writer = Tarvel::CreateStreamWriteTimed(path.c_str(), &sources);
    if (!writer) {
        std::fprintf(stderr, "tarvel demo: cannot create %s (see %s.log)\n", path.c_str(), path.c_str());
        return kExitBadFile;
    }
    long long events = 0;
    const bool ran = Declare(*writer) && Run(*writer, cycles, &events);
    if (!ran || !writer->Release()) {  // a writer whose Release fails is not destroyed: a tool may leave it
        std::fprintf(stderr, "tarvel demo: writing %s failed (see %s.log)\n", path.c_str(), path.c_str());
        return kExitBadFile;
    }
    struct stat status {};
    const long long size = stat(path.c_str(), &status) == 0 ? static_cast<long long>(status.st_size) : 0;
    std::printf("tarvel demo: %lld clock cycles of a counter design\n", cycles);
    std::printf("wrote %s: %lld bytes, %lld events (%.2f bytes/event)\n", path.c_str(), size, events,
                events ? static_cast<double>(size) / static_cast<double>(events) : 0.0);
    std::printf("\n$ tarvel info %s\n", path.c_str());
    std::fflush(stdout);
    const int info = ShowInfo(path);
    if (info != kExitOk) return info;
    std::printf("\n$ tarvel dump %s --limit %lld\n", path.c_str(), lines);
    std::fflush(stdout);
    DumpRequest dump;
    dump.path = path;
    dump.limit = lines;
    return ShowEvents(dump);
}

}  // namespace

void AddDemoCommand(CLI::App& app) {
    static std::string path = "demo.twf";
    static long long cycles = 100000;
    static long long lines = 20;
    CLI::App* command = app.add_subcommand("demo", "Writes the built-in example design, then shows it as info and dump do");
    command->add_option("-o,--output", path, "The waveform file to write (default demo.twf)");
    command->add_option("--cycles", cycles, "Clock cycles to simulate (default 100000)")->check(CLI::Range(0LL, 1000000000000LL));
    command->add_option("--lines", lines, "Events of dump shown at the end (default 20)")->check(CLI::NonNegativeNumber);
    command->callback([] { ExitCode() = Demo(path, cycles, lines); });
}

}  // namespace TarvelTool
