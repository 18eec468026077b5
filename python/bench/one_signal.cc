// The C++ side of the Python module's benchmark (read_one_signal.py): writes the benchmark's
// file, and times the filtered reader on one signal of it, the baseline that tarvel.open(path,
// signals=[name]) is measured against.
//
//   python_bench_one_signal make FILE
//       Writes FILE unless it is there (at least 210 MB): 10,000 one-bit std_logic signals
//       "top.block<s/100>.sig<s>" (handle s), about 100 random changes per time step of 1 to 10
//       units, flushed every million events, committed once.
//   python_bench_one_signal read FILE HANDLE NAME RUNS
//       RUNS times: CreateFilteredRawTarvelRead of that one signal, its events copied into
//       arrays of times, deltas and values (what the Python module hands to numpy), the reader
//       deleted. Prints one line per run: "wall_ms cpu_ms events".
#include <tarvel/raw_reader.h>
#include <tarvel/writer.h>

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

std::int64_t FileSize(const std::string& path) {
    struct stat s;
    return stat(path.c_str(), &s) == 0 ? static_cast<std::int64_t>(s.st_size) : 0;
}

constexpr std::int64_t kMinBytes = std::int64_t{210} << 20;
constexpr int kSignals = 10000;

int Make(const std::string& path) {
    if (FileSize(path) >= kMinBytes) return 0;
    const std::string part = path + ".part";
    Tarvel::ITarvelWrite* writer = Tarvel::CreateStreamWriteTimed(part.c_str());
    if (!writer) return 1;
    bool ok = true;
    for (int s = 0; ok && s < kSignals; ++s) {
        const std::string name = "top.block" + std::to_string(s / 100) + ".sig" + std::to_string(s);
        ok = writer->SetTypeInfo(s, "e#9#std_logicc9 UX01ZWLH-") && writer->StoreSignal(s, Tarvel::kPortOut, -1, 0, name.c_str(), 0);
    }
    std::mt19937_64 rng(7);
    std::vector<std::uint32_t> current(kSignals, 2);
    std::int64_t t = 0;
    for (std::int64_t i = 1; ok && (i % (1 << 20) != 0 || FileSize(part) < kMinBytes); ++i) {
        if (i % 100 == 0) ok = writer->SetTime(t += 1 + static_cast<std::int64_t>(rng() % 10));
        const std::size_t h = rng() % current.size();
        current[h] ^= 1;
        ok = ok && writer->StoreValue(static_cast<int>(h), reinterpret_cast<const unsigned char*>(&current[h]));
        if (ok && i % (1 << 20) == 0) ok = writer->Flush();
    }
    ok = ok && writer->Commit();
    ok = writer->Release() && ok;
    return ok && std::rename(part.c_str(), path.c_str()) == 0 ? 0 : 1;
}

double CpuMs() {
    timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

int Read(const std::string& path, int handle, const std::string& name, int runs) {
    for (int run = 0; run < runs; ++run) {
        const auto wall = std::chrono::steady_clock::now();
        const double cpu = CpuMs();
        std::vector<char*> names{const_cast<char*>(name.c_str())};
        std::map<int, std::vector<char*>*> selection{{handle, &names}};
        Tarvel::IRawTarvelRead* reader = Tarvel::CreateFilteredRawTarvelRead(path.c_str(), &selection);
        if (!reader) return 1;
        const Tarvel::KEventsStore* store = reader->GetSignalData(handle);
        std::vector<std::int64_t> times;
        std::vector<std::uint16_t> deltas;
        std::vector<std::uint8_t> values;
        if (store) {
            times.reserve(store->count());
            deltas.reserve(store->count());
            values.reserve(store->count());
            Tarvel::KEventData event;
            for (bool more = store->GetFirstEvent(&event); more; more = store->GetNextEvent(&event)) {
                unsigned char bytes[8] = {};
                event.GetValue(bytes, sizeof bytes);
                times.push_back(event.GetTime());
                deltas.push_back(static_cast<std::uint16_t>(event.GetDelta()));
                values.push_back(bytes[0]);
            }
        }
        Tarvel::DeleteRawTarvelRead(reader);
        const double wallMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - wall).count();
        std::printf("%.1f %.1f %zu\n", wallMs, CpuMs() - cpu, times.size());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "make" && argc == 3) return Make(argv[2]);
    if (mode == "read" && argc == 6) return Read(argv[2], std::stoi(argv[3]), argv[4], std::stoi(argv[5]));
    std::fprintf(stderr, "usage: python_bench_one_signal make FILE | read FILE HANDLE NAME RUNS\n");
    return 2;
}
