// Parsing speed and memory of the raw reader on large writer-made files (made once in /tmp and
// reused): 10,000 one-bit std_logic signals with random changes, and 1,000 integer signals with
// random values. Counters: bytes_per_second (file MB/s), items_per_second (events/s),
// held_bytes_per_event (store memory after the parse) and rss_bytes_per_event (resident growth
// of the first parse).
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <random>
#include <set>
#include <string>

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
        writer->StoreSignal(s, Tarvel::kPortOut, -1, 0, ("top.block" + std::to_string(s / 100) + ".sig" + std::to_string(s)).c_str(), 0);
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

void BM_RawRead(benchmark::State& state) {
    const Workload& w = kWorkloads[state.range(0)];
    if (!Prepare(w)) {
        state.SkipWithError("cannot write the file");
        return;
    }
    int64 events = 0, held = 0, resident = 0;
    for (auto _ : state) {
        const int64 before = ResidentBytes();
        Tarvel::IRawTarvelRead* reader = Tarvel::CreateRawTarvelRead(w.path);
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
    state.counters["held_bytes_per_event"] = static_cast<double>(held) / static_cast<double>(events);
    state.counters["rss_bytes_per_event"] = static_cast<double>(resident) / static_cast<double>(events);
}

BENCHMARK(BM_RawRead)->ArgName("bits0_integers1")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
