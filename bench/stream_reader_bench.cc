// The merged event pass of the reader facade against the raw per-signal walk of the same stores,
// on two writer-made files (made once in /tmp and reused): 10,000 one-bit std_logic signals
// with random changes, and 1,000 32-bit counters counting at periods of 1 to 4 cycles; each
// about 10.5 million events. Both loops read every event's value. Counters: items_per_second
// (events/s), pass_bytes_per_event (what the pass allocates when it starts: entry state,
// decoded runs, cursors, stamp table and heap) and store_bytes_per_event (the stores both walk,
// held by the raw reader).
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "foundation/platform.h"
#include "store/store_access.h"
#include "tarvel/tarvel.h"

namespace {

using Tarvel::int64;

constexpr int64 kEvents = int64{10} << 20;

struct Workload {
    const char* path;
    const char* type;
    int signals;
    bool counters;
};
const Workload kWorkloads[] = {
    {"/tmp/tarvel_facade_bench_bits.twf", "e#9#std_logicc9 UX01ZWLH-", 10000, false},
    {"/tmp/tarvel_facade_bench_counters.twf", "i#7#integer", 1000, true},
};

bool Exists(const char* path) {
    struct stat s;
    return stat(path, &s) == 0;
}

// Bits: about 100 random toggles per time step of 1 to 10 units. Counters: at cycle c (10 units
// each) counter s counts when (c + s) is a multiple of its period 1 + s % 4, about 520 per cycle.
// Flushed every 2^20 events; written under another name and renamed once committed.
bool Prepare(const Workload& w) {
    if (Exists(w.path)) return true;
    const std::string part = std::string(w.path) + ".part";
    Tarvel::ITarvelWrite* writer = Tarvel::CreateStreamWriteTimed(part.c_str());
    if (!writer) return false;
    for (int s = 0; s < w.signals; ++s) {
        writer->SetTypeInfo(s, w.type);
        writer->StoreSignal(s, Tarvel::kPortOut, -1, 0, ("top.block" + std::to_string(s / 100) + ".sig" + std::to_string(s)).c_str(), 0);
    }
    std::mt19937_64 rng(7);
    std::vector<std::uint32_t> current(static_cast<std::size_t>(w.signals), 2);  // std_logic '0'
    if (w.counters) {  // counters start apart, so that no two hold equal events
        for (std::size_t s = 0; s < current.size(); ++s) current[s] = static_cast<std::uint32_t>(s * 100000);
    }
    int64 events = 0, t = 0;
    auto store = [&](int s, std::uint32_t value) {
        current[static_cast<std::size_t>(s)] = value;
        writer->StoreValue(s, reinterpret_cast<const unsigned char*>(&current[static_cast<std::size_t>(s)]));
        if (++events % (1 << 20) == 0) writer->Flush();
    };
    for (int64 cycle = 0; events < kEvents; ++cycle) {
        writer->SetTime(t += w.counters ? 10 : 1 + static_cast<int64>(rng() % 10));
        if (!w.counters) {
            for (int i = 0; i < 100; ++i) {
                const int s = static_cast<int>(rng() % 10000);
                store(s, current[static_cast<std::size_t>(s)] ^ 1);
            }
            continue;
        }
        for (int s = 0; s < w.signals; ++s) {
            if ((cycle + s) % (1 + s % 4) == 0) store(s, current[static_cast<std::size_t>(s)] + 1);
        }
    }
    const bool done = writer->Commit();
    return writer->Release() && done && std::rename(part.c_str(), w.path) == 0;
}

struct Opened {
    Tarvel::ITarvelRead* reader = nullptr;
    int64 events = 0;
    double storeBytes = 0, passBytes = 0;
};

// Opens the workload's file once per process and measures what both loops share.
Opened& Open(const Workload& w) {
    static Opened opened[2];
    Opened& o = opened[&w - kWorkloads];
    if (o.reader || !Prepare(w)) return o;
    o.reader = Tarvel::CreateStreamRead2(w.path);
    if (!o.reader) return o;
    Tarvel::IRawTarvelRead& raw = *o.reader->GetRawReader();
    std::set<const Tarvel::KEventsStoreBody*> bodies;  // a body shared by signals counts once
    for (auto it = raw.BeginSignals(); it != raw.EndSignals(); ++it) {
        const Tarvel::KEventsStore* store = raw.GetSignalData(it);
        o.events += store->count();
        const Tarvel::KEventsStoreBody* body = Tarvel::StoreAccess::Body(*store);
        if (bodies.insert(body).second) o.storeBytes += static_cast<double>(Tarvel::BodyMemoryBytes(*body));
    }
    // The pass allocates everything when it starts (stepping allocates nothing): count that.
    static std::size_t allocated;
    static const Tarvel::Platform::HeapHooks counting{
        [](std::size_t size) { return allocated += size, std::malloc(size); },
        [](void* block, std::size_t size) { return allocated += size, std::realloc(block, size); },
        [](void* block) { std::free(block); }};
    allocated = 0;
    Tarvel::Platform::SetHeapHooks(&counting);
    o.reader->NextEvent();
    Tarvel::Platform::SetHeapHooks(nullptr);
    o.reader->RestartEvents(0);
    o.passBytes = static_cast<double>(allocated);
    return o;
}

void Report(benchmark::State& state, const Opened& o, double passBytes) {
    state.SetItemsProcessed(state.iterations() * o.events);
    state.counters["events"] = static_cast<double>(o.events);
    state.counters["pass_bytes_per_event"] = passBytes / static_cast<double>(o.events);
    state.counters["store_bytes_per_event"] = o.storeBytes / static_cast<double>(o.events);
}

// One whole pass through ITarvelRead: NextEvent, then the event's value.
void BM_MergedPass(benchmark::State& state) {
    Opened& o = Open(kWorkloads[state.range(0)]);
    if (!o.reader) return state.SkipWithError("cannot write or read the file");
    std::uint64_t sum = 0;
    for (auto _ : state) {
        for (int h = o.reader->NextEvent(); h != -1; h = o.reader->NextEvent()) {
            std::uint32_t value[2];  // both workloads keep 4-byte values
            o.reader->GetEventValue(value);
            sum += value[0] + static_cast<std::uint64_t>(h);
        }
    }
    benchmark::DoNotOptimize(sum);
    Report(state, o, o.passBytes);
}

// The stores of the file's signals, in declaration order.
std::vector<const Tarvel::KEventsStore*> StoresOf(Tarvel::IRawTarvelRead& raw) {
    std::vector<const Tarvel::KEventsStore*> stores;
    for (auto it = raw.BeginSignals(); it != raw.EndSignals(); ++it) stores.push_back(raw.GetSignalData(it));
    return stores;
}

// The same stores walked one after the other, each with a KEventData cursor.
void BM_RawWalk(benchmark::State& state) {
    Opened& o = Open(kWorkloads[state.range(0)]);
    if (!o.reader) return state.SkipWithError("cannot write or read the file");
    const std::vector<const Tarvel::KEventsStore*> stores = StoresOf(*o.reader->GetRawReader());
    std::uint64_t sum = 0;
    Tarvel::KEventData data;
    for (auto _ : state) {
        for (const Tarvel::KEventsStore* store : stores) {
            const unsigned size = static_cast<unsigned>(store->GetSize());
            for (bool ok = store->GetFirstEvent(&data); ok; ok = store->GetNextEvent(&data)) {
                std::uint32_t value[2];
                data.GetValue(reinterpret_cast<unsigned char*>(value), size);
                sum += value[0] + static_cast<std::uint64_t>(data.GetTime());
            }
        }
    }
    benchmark::DoNotOptimize(sum);
    Report(state, o, 0);
}

// The same stores walked one after the other in batches of 64 events (GetNextEvents).
void BM_RawWalkBatched(benchmark::State& state) {
    Opened& o = Open(kWorkloads[state.range(0)]);
    if (!o.reader) return state.SkipWithError("cannot write or read the file");
    const std::vector<const Tarvel::KEventsStore*> stores = StoresOf(*o.reader->GetRawReader());
    std::uint64_t sum = 0;
    constexpr int kBatch = 64;
    int64 times[kBatch];
    unsigned deltas[kBatch];
    std::uint32_t values[2 * kBatch];
    Tarvel::KEventData data;  // bound to each store in turn: a batch on another store starts at its first event
    for (auto _ : state) {
        for (const Tarvel::KEventsStore* store : stores) {
            for (int n; (n = store->GetNextEvents(&data, kBatch, times, deltas, reinterpret_cast<unsigned char*>(values), nullptr)) > 0;) {
                for (int i = 0; i < n; ++i) sum += values[i] + static_cast<std::uint64_t>(times[i]);
            }
        }
    }
    benchmark::DoNotOptimize(sum);
    Report(state, o, 0);
}

BENCHMARK(BM_MergedPass)->ArgName("bits0_counters1")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawWalk)->ArgName("bits0_counters1")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawWalkBatched)->ArgName("bits0_counters1")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
