// End-to-end writing: values stored for many signals, flushed every N events into a file, beside
// a plain VCD text writer of the same events in the same run. Counters: events/s
// (items_per_second) and file bytes per event (bytes_per_event).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "tarvel/tarvel.h"
#include "vcd_writer.h"

namespace {

using Tarvel::int64;

enum Workload { kBits, kIntegers, kReals, kBitsFew };
constexpr int kEvents = 4 << 20;

struct Events {
    int signals = 0;
    std::vector<std::uint32_t> handle;  // per event
    std::vector<std::uint64_t> value;   // per event (4 or 8 bytes used)
    std::vector<int64> time;            // per event (non-decreasing)
};

// Random changes: about 100 events per time step, steps of 1 to 10 units.
const Events& Make(Workload workload) {
    static Events all[4];
    Events& e = all[workload];
    if (!e.handle.empty()) return e;
    std::mt19937_64 rng(99);
    e.signals = workload == kBits ? 10000 : workload == kBitsFew ? 100 : 1000;
    std::vector<std::uint64_t> current(static_cast<std::size_t>(e.signals), 0);
    int64 t = 0;
    for (int i = 0; i < kEvents; ++i) {
        if (i % 100 == 0) t += 1 + static_cast<int64>(rng() % 10);
        const std::uint32_t h = static_cast<std::uint32_t>(rng() % static_cast<std::uint64_t>(e.signals));
        std::uint64_t v = 0;
        if (workload == kBits || workload == kBitsFew) {
            v = current[h] ^ 1;
        } else if (workload == kIntegers) {
            v = rng() & 0xFFFFFFFF;
        } else {
            const double d = static_cast<double>(rng() % 100000) / 64.0;
            std::memcpy(&v, &d, 8);
        }
        current[h] = v;
        e.handle.push_back(h);
        e.value.push_back(v);
        e.time.push_back(t);
    }
    return e;
}

long FileSize(const char* path) {
    struct stat s;
    return stat(path, &s) == 0 ? static_cast<long>(s.st_size) : 0;
}

const char* TypeOf(Workload w) {
    return w == kIntegers ? "i#7#integer" : w == kReals ? "f#4#real" : "e#9#std_logicc9 UX01ZWLH-";
}

void BM_TarvelWrite(benchmark::State& state) {
    const Workload workload = static_cast<Workload>(state.range(0));
    const int flushEvery = 1 << state.range(1);
    const Events& e = Make(workload);
    const char* path = "/tmp/tarvel_bench.twf";
    long size = 0;
    for (auto _ : state) {
        Tarvel::ITarvelWrite* w = Tarvel::CreateStreamWriteTimed(path);
        for (int s = 0; s < e.signals; ++s) {
            w->SetTypeInfo(s, TypeOf(workload));
            w->StoreSignal(s, 2, -1, 0, ("sig" + std::to_string(s)).c_str(), 0);
        }
        for (int i = 0; i < kEvents; ++i) {
            w->SetTime(e.time[i]);
            std::uint64_t v = e.value[i];
            if (workload == kBits || workload == kBitsFew) v += 2;  // std_logic '0' / '1'
            w->StoreValue(static_cast<int>(e.handle[i]), reinterpret_cast<const unsigned char*>(&v));
            if (i % flushEvery == flushEvery - 1) w->Flush();
        }
        if (!w->Commit() || !w->Release()) state.SkipWithError("writing failed");
        size = FileSize(path);
    }
    state.SetItemsProcessed(state.iterations() * kEvents);
    state.counters["bytes_per_event"] = static_cast<double>(size) / kEvents;
    std::remove(path);
}

void BM_VcdWrite(benchmark::State& state) {
    const Workload workload = static_cast<Workload>(state.range(0));
    const Events& e = Make(workload);
    const char* path = "/tmp/tarvel_bench.vcd";
    long size = 0;
    for (auto _ : state) {
        {
            VcdWriter vcd(path);
            const VcdWriter::Kind kind = workload == kIntegers ? VcdWriter::Kind::kInteger
                                         : workload == kReals    ? VcdWriter::Kind::kReal
                                                                 : VcdWriter::Kind::kBit;
            for (int s = 0; s < e.signals; ++s) vcd.Declare("sig" + std::to_string(s), kind);
            vcd.EndDeclarations();
            for (int i = 0; i < kEvents; ++i) {
                vcd.SetTime(e.time[i]);
                vcd.Change(e.handle[i], e.value[i]);
            }
        }
        size = FileSize(path);
    }
    state.SetItemsProcessed(state.iterations() * kEvents);
    state.counters["bytes_per_event"] = static_cast<double>(size) / kEvents;
    std::remove(path);
}

void Workloads(benchmark::internal::Benchmark* b) {
    b->ArgNames({"workload"});
    for (int w = kBits; w <= kBitsFew; ++w) b->Arg(w);
}

// Flushes every 2^20 events (a flush interval the writer's staging log holds whole), and for
// the first workload also every 2^22 (one flush at the end: the log fills up and is handed to
// the stores four times).
void WorkloadsAndFlushes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"workload", "flush_log2"});
    for (int w = kBits; w <= kBitsFew; ++w) b->Args({w, 20});
    b->Args({kBits, 22});
}

BENCHMARK(BM_TarvelWrite)->Apply(WorkloadsAndFlushes)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_VcdWrite)->Apply(Workloads)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
