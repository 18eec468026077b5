// Events-store throughput and memory: push_back and full walks for typical signal shapes.
// Counters: events/s (items_per_second) and in-memory bytes per event (bytes_per_event).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "store/store_access.h"
#include "tarvel/tarvel.h"

namespace {

using Tarvel::int64;
using Tarvel::KEventsStore;

constexpr int kEvents = 1 << 20;

struct Stream {
    std::vector<int64> times;
    std::vector<std::uint64_t> values;
    int size = 4;
};

enum Shape { kClock, kCounterBit, kRandomBit, kRandom32, kRandom64 };

const Stream& Make(Shape shape) {
    static Stream streams[5];
    Stream& s = streams[shape];
    if (!s.times.empty()) return s;
    std::mt19937_64 rng(1234);
    int64 t = 0;
    for (int i = 0; i < kEvents; ++i) {
        std::uint64_t v = 0;
        switch (shape) {
            case kClock: t += 5; v = 2 + (i & 1); s.size = 1; break;                       // std_logic '0'/'1'
            case kCounterBit: t += 10 << 3; v = 2 + ((i >> 0) & 1); s.size = 1; break;    // bit 3 of a counter
            case kRandomBit: t += 1 + static_cast<int64>(rng() % 255); v = 2 + (i & 1); s.size = 1; break;
            case kRandom32: t += 1 + static_cast<int64>(rng() % 255); v = rng() & 0xFFFFFFFF; s.size = 4; break;
            case kRandom64: t += 1 + static_cast<int64>(rng() % 255); v = rng(); s.size = 8; break;
        }
        s.times.push_back(t);
        s.values.push_back(v);
    }
    return s;
}

void Fill(KEventsStore& store, const Stream& s) {
    store.SetSize(s.size);
    const int width = store.GetSize();
    unsigned char bytes[8];
    for (int i = 0; i < kEvents; ++i) {
        const std::uint64_t v = s.values[i];
        for (int b = 0; b < width; ++b) bytes[b] = static_cast<unsigned char>(v >> (8 * b));
        store.push_back(s.times[i], 0, bytes);
    }
    store.push_end(s.times.back() + 1, 0);
}

void BM_PushBack(benchmark::State& state) {
    const Stream& s = Make(static_cast<Shape>(state.range(0)));
    double bytes = 0;
    for (auto _ : state) {
        KEventsStore store;
        Fill(store, s);
        bytes = static_cast<double>(Tarvel::BodyMemoryBytes(*Tarvel::StoreAccess::Body(store)));
        benchmark::DoNotOptimize(store.count());
    }
    state.SetItemsProcessed(state.iterations() * kEvents);
    state.counters["bytes_per_event"] = bytes / kEvents;
}

void BM_Walk(benchmark::State& state) {
    const Stream& s = Make(static_cast<Shape>(state.range(0)));
    KEventsStore store;
    Fill(store, s);
    for (auto _ : state) {
        Tarvel::KEventData data;
        std::uint64_t sum = 0;
        unsigned char bytes[8] = {};
        for (bool ok = store.GetFirstEvent(&data); ok; ok = store.GetNextEvent(&data)) {
            data.GetValue(bytes, 8);
            sum += static_cast<std::uint64_t>(data.GetTime()) + data.GetDelta() + bytes[0];
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kEvents);
}

void Shapes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"shape"});
    for (int shape = kClock; shape <= kRandom64; ++shape) b->Arg(shape);
}

BENCHMARK(BM_PushBack)->Apply(Shapes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Walk)->Apply(Shapes)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
