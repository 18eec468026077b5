// Parsing speed and memory of the raw reader on large writer-made files (made once in /tmp and
// reused): 10,000 one-bit std_logic signals with random changes, and 1,000 integer signals with
// random values; the whole file with CreateRawTarvelRead, 1% of its signals with
// CreateFilteredRawTarvelRead, and the listing of CreateRawTarvelPreRead. Counters:
// bytes_per_second (file MB/s), items_per_second (events read/s), held_bytes_per_event (store
// memory after the parse), rss_bytes_per_event (resident growth of the first timed parse), and
// peak_heap_MB / held_heap_MB (the library's heap in use at its highest during a read, and
// when the reader is made, counted through the heap hooks in a read before the timed ones).
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "foundation/platform.h"
#include "store/store_access.h"
#include "tarvel/raw_reader.h"
#include "tarvel/writer.h"

namespace {

using Tarvel::int64;

struct Workload {
    const char* path;
    const char* type;
    int signals;
    bool bits;
};
const Workload kWorkloads[] = {
    {"/tmp/tarvel_reader_bench_bits.twf", "e#9#std_logicc9 UX01ZWLH-", 10000, true},
    {"/tmp/tarvel_reader_bench_integers.twf", "i#7#integer", 1000, false},
};
constexpr int64 kMinBytes = int64{210} << 20;

int64 FileSize(const std::string& path) {
    struct stat s;
    return stat(path.c_str(), &s) == 0 ? static_cast<int64>(s.st_size) : 0;
}

std::string SignalName(int s) { return "top.block" + std::to_string(s / 100) + ".sig" + std::to_string(s); }

// The library's heap in use, now and at its highest, through the heap hooks.
struct HeapCount {
    static inline std::size_t live = 0, peak = 0;
    static void* Allocate(std::size_t size) { return Count(std::malloc(size)); }
    static void* Reallocate(void* block, std::size_t size) {
        live -= block ? malloc_usable_size(block) : 0;
        return Count(std::realloc(block, size));
    }
    static void Free(void* block) {
        live -= block ? malloc_usable_size(block) : 0;
        std::free(block);
    }
    static void* Count(void* block) {
        live += block ? malloc_usable_size(block) : 0;
        peak = std::max(peak, live);
        return block;
    }
};
const Tarvel::Platform::HeapHooks kCounting{HeapCount::Allocate, HeapCount::Reallocate, HeapCount::Free};

int64 ResidentBytes() {
    long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return static_cast<int64>(resident) * sysconf(_SC_PAGESIZE);
}

// Writes the workload's file unless it is there: about 100 random changes per time step of 1 to
// 10 units, flushed every million events. Written under another name and renamed when complete.
bool Prepare(const Workload& w) {
    if (FileSize(w.path) >= kMinBytes) return true;
    const std::string part = std::string(w.path) + ".part";
    Tarvel::ITarvelWrite* writer = Tarvel::CreateStreamWriteTimed(part.c_str());
    if (!writer) return false;
    for (int s = 0; s < w.signals; ++s) {
        writer->SetTypeInfo(s, w.type);
        writer->StoreSignal(s, Tarvel::kPortOut, -1, 0, SignalName(s).c_str(), 0);
    }
    std::mt19937_64 rng(7);
    std::vector<std::uint32_t> current(static_cast<std::size_t>(w.signals), 2);
    int64 t = 0;
    for (int64 i = 1; i % (1 << 20) != 0 || FileSize(part) < kMinBytes; ++i) {
        if (i % 100 == 0) writer->SetTime(t += 1 + static_cast<int64>(rng() % 10));
        const std::size_t h = rng() % current.size();
        current[h] = w.bits ? current[h] ^ 1 : static_cast<std::uint32_t>(rng());
        writer->StoreValue(static_cast<int>(h), reinterpret_cast<const unsigned char*>(&current[h]));
        if (i % (1 << 20) == 0) writer->Flush();
    }
    return writer->Commit() && writer->Release() && std::rename(part.c_str(), w.path) == 0;
}

// Reads the workload's file with `open` once with the heap counted, then in every iteration
// (timed), counting the events and store memory of the reader (not timed).
template <class Open>
void MeasureRead(benchmark::State& state, const Workload& w, Open open) {
    if (!Prepare(w)) return state.SkipWithError("cannot write the file");
    HeapCount::live = HeapCount::peak = 0;
    Tarvel::Platform::SetHeapHooks(&kCounting);
    Tarvel::IRawTarvelRead* counted = open(w.path);
    const double peakHeap = static_cast<double>(HeapCount::peak), heldHeap = static_cast<double>(HeapCount::live);
    Tarvel::DeleteRawTarvelRead(counted);
    Tarvel::Platform::SetHeapHooks(nullptr);
    int64 events = 0, held = 0, resident = 0;
    for (auto _ : state) {
        const int64 before = ResidentBytes();
        Tarvel::IRawTarvelRead* reader = open(w.path);
        state.PauseTiming();
        if (!reader) {
            state.SkipWithError("the reader refused the file");
            break;
        }
        resident = std::max(resident, ResidentBytes() - before);  // later runs reuse freed pages
        events = held = 0;
        std::set<const Tarvel::KEventsStoreBody*> bodies;  // a body shared by signals counts once
        for (auto it = reader->BeginSignals(); it != reader->EndSignals(); ++it) {
            const Tarvel::KEventsStore* store = reader->GetSignalData(it);
            events += store->count();
            const Tarvel::KEventsStoreBody* body = Tarvel::StoreAccess::Body(*store);
            if (bodies.insert(body).second) held += static_cast<int64>(Tarvel::BodyMemoryBytes(*body));
        }
        Tarvel::DeleteRawTarvelRead(reader);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * FileSize(w.path));
    state.SetItemsProcessed(state.iterations() * events);
    state.counters["events"] = static_cast<double>(events);
    state.counters["held_bytes_per_event"] = events ? static_cast<double>(held) / static_cast<double>(events) : 0;
    state.counters["rss_bytes_per_event"] = events ? static_cast<double>(resident) / static_cast<double>(events) : 0;
    state.counters["peak_heap_MB"] = peakHeap / 1e6;
    state.counters["held_heap_MB"] = heldHeap / 1e6;
}

// The whole file.
void BM_RawRead(benchmark::State& state) {
    MeasureRead(state, kWorkloads[state.range(0)], [](const char* path) { return Tarvel::CreateRawTarvelRead(path); });
}

// 1% of the signals, every hundredth handle, selected by handle and full name.
void BM_FilteredRead(benchmark::State& state) {
    const Workload& w = kWorkloads[state.range(0)];
    std::vector<std::string> names;
    for (int s = 0; s < w.signals; s += 100) names.push_back(SignalName(s));
    std::map<int, std::vector<char*>*> selection;
    std::vector<std::vector<char*>> vectors(names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        vectors[i].push_back(names[i].data());
        selection[static_cast<int>(i) * 100] = &vectors[i];
    }
    MeasureRead(state, w, [&selection](const char* path) { return Tarvel::CreateFilteredRawTarvelRead(path, &selection); });
}

// The listing of every declaration, without events.
void BM_PreRead(benchmark::State& state) {
    const Workload& w = kWorkloads[state.range(0)];
    if (!Prepare(w)) return state.SkipWithError("cannot write the file");
    std::size_t listed = 0;
    for (auto _ : state) {
        std::unordered_map<int, std::vector<Tarvel::SIGINFO*>*> result;
        Tarvel::CreateRawTarvelPreRead(w.path, &result);
        state.PauseTiming();
        listed = result.size();
        Tarvel::DeleteRawTarvelPreRead(&result);
        state.ResumeTiming();
    }
    if (listed != static_cast<std::size_t>(w.signals)) state.SkipWithError("the listing is incomplete");
    state.SetBytesProcessed(state.iterations() * FileSize(w.path));
    state.counters["declarations"] = static_cast<double>(listed);
}

BENCHMARK(BM_RawRead)->ArgName("bits0_integers1")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FilteredRead)->ArgName("bits0_integers1")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PreRead)->ArgName("bits0_integers1")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
