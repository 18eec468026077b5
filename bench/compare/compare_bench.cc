// The comparison harness behind `make bench`: tarvel beside the FST format (through its C API,
// when the build found its sources) and plain VCD (bench/vcd_writer.h, vcd_reader.h), on the
// same workloads in one run. Each measurement runs in a child process of its own (this program
// started again with "child ..."), so that its peak memory is the child's maximum resident set
// (wait4). Writes one Markdown table, with ratios and the machine it ran on, to stdout and, with
// --docs, between the markers of docs/performance.md.
//
//   compare_bench [--events N] [--real-events N] [--trace-events N] [--only a,b] [--dir DIR]
//                 [--tarvel BINARY] [--designs DIR] [--docs FILE]
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <vector>

#include "tarvel/tarvel.h"
#include "../vcd_writer.h"
#include "vcd_reader.h"
#include "workloads.h"
#ifdef TARVEL_BENCH_FST
#include "fst_peer.h"
#endif

namespace compare {
namespace {

// Measurements count the CPU time of the measuring process (user and system, its file I/O to
// the page cache included), so that other work on a shared machine does not count; the
// libraries measured start no threads.
struct CpuClock {
    using time_point = double;
    static double now() {
        timespec t;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
    }
};
using Clock = CpuClock;
using WallClock = std::chrono::steady_clock;
constexpr std::size_t kChunk = 1 << 16;          // events generated per chunk (not timed)
constexpr std::uint64_t kFlushEvery = 1 << 20;   // the tarvel writer's flush interval

double Since(double start) { return Clock::now() - start; }
double Since(WallClock::time_point start) { return std::chrono::duration<double>(WallClock::now() - start).count(); }

long FileSize(const std::string& path) {
    struct stat s;
    return stat(path.c_str(), &s) == 0 ? static_cast<long>(s.st_size) : -1;
}

bool ParseSynthetic(const std::string& key, Synthetic* out) {
    for (int w = 0; w < 4; ++w)
        if (key == Info(static_cast<Synthetic>(w)).key) {
            *out = static_cast<Synthetic>(w);
            return true;
        }
    return false;
}

// ---- Children: one measurement each; they print "seconds [changes checksum]" -------------------

// Feeds the generator's events, a chunk at a time, to `emit(const Event&)`; only the calls are
// timed, not the generation. Answers the seconds spent.
template <class Emit>
double Feed(Synthetic workload, std::uint64_t events, Emit&& emit) {
    Generator generator(workload, events);
    std::vector<Event> chunk(kChunk);
    double seconds = 0;
    while (const std::size_t n = generator.Fill(chunk.data(), kChunk)) {
        const auto start = Clock::now();
        for (std::size_t i = 0; i < n; ++i) emit(chunk[i]);
        seconds += Since(start);
    }
    return seconds;
}

int WriteTarvel(Synthetic workload, std::uint64_t events, const char* path) {
    const SyntheticInfo& info = Info(workload);
    const char* type = info.kind == Kind::kInt32  ? "i#7#integer"
                       : info.kind == Kind::kReal ? "f#4#real"
                                                  : "e#9#std_logicc9 UX01ZWLH-";
    auto start = Clock::now();
    Tarvel::ITarvelWrite* w = Tarvel::CreateStreamWriteTimed(path);
    if (!w) return 1;
    bool ok = true;
    for (int s = 0; s < info.signals; ++s) {
        ok &= w->SetTypeInfo(s, type);
        ok &= w->StoreSignal(s, Tarvel::kPortSignal, -1, 0, SignalName(static_cast<std::uint32_t>(s)).c_str(), 0);
    }
    double seconds = Since(start);
    std::int64_t time = 0;
    std::uint64_t count = 0;
    const bool bit = info.kind == Kind::kBit;
    seconds += Feed(workload, events, [&](const Event& e) {
        if (e.time != time) ok &= w->SetTime(time = e.time);
        const std::uint64_t v = bit ? e.value + 2 : e.value;  // std_logic '0' and '1' are 2 and 3
        ok &= w->StoreValue(static_cast<int>(e.signal), reinterpret_cast<const unsigned char*>(&v));
        if (++count % kFlushEvery == 0) ok &= w->Flush();
    });
    start = Clock::now();
    ok &= w->Commit();
    ok &= w->Release();
    seconds += Since(start);
    std::printf("%.6f\n", seconds);
    return ok ? 0 : 1;
}

int WriteVcd(Synthetic workload, std::uint64_t events, const char* path) {
    const SyntheticInfo& info = Info(workload);
    const VcdWriter::Kind kind = info.kind == Kind::kInt32  ? VcdWriter::Kind::kInteger
                                 : info.kind == Kind::kReal ? VcdWriter::Kind::kReal
                                                            : VcdWriter::Kind::kBit;
    auto start = Clock::now();
    auto* vcd = new VcdWriter(path);
    bool ok = true;
    for (int s = 0; s < info.signals; ++s) ok &= vcd->Declare(SignalName(static_cast<std::uint32_t>(s)), kind);
    vcd->EndDeclarations();
    double seconds = Since(start);
    seconds += Feed(workload, events, [&](const Event& e) {
        vcd->SetTime(e.time);
        vcd->Change(e.signal, e.value);
    });
    start = Clock::now();
    delete vcd;
    seconds += Since(start);
    std::printf("%.6f\n", seconds);
    return ok ? 0 : 1;
}

#ifdef TARVEL_BENCH_FST
int WriteFst(Synthetic workload, std::uint64_t events, const char* path) {
    const SyntheticInfo& info = Info(workload);
    const auto kind = info.kind == Kind::kInt32  ? FstPeerWriter::VarKind::kInt32
                      : info.kind == Kind::kReal ? FstPeerWriter::VarKind::kReal
                                                 : FstPeerWriter::VarKind::kBit;
    const std::uint32_t width = info.kind == Kind::kInt32 ? 32 : 1;
    auto start = Clock::now();
    FstPeerWriter fst;
    if (!fst.Create(path, -12)) return 1;
    std::vector<std::uint32_t> handles;
    for (int s = 0; s < info.signals; ++s)
        handles.push_back(fst.Declare(SignalName(static_cast<std::uint32_t>(s)).c_str(), kind, width));
    double seconds = Since(start);
    std::int64_t time = -1;
    seconds += Feed(workload, events, [&](const Event& e) {
        if (e.time != time) fst.Time(static_cast<std::uint64_t>(time = e.time));
        if (info.kind == Kind::kReal)
            fst.Raw(handles[e.signal], &e.value);  // the double's bytes, in place
        else
            fst.Number(handles[e.signal], width, static_cast<std::uint32_t>(e.value));
    });
    start = Clock::now();
    fst.Close();
    seconds += Since(start);
    std::printf("%.6f\n", seconds);
    return 0;
}

// A simulator's VCD trace into FST: parsed by the harness's VCD reader and emitted change by
// change (the VCD parse is timed too, as tarvel import-vcd's is).
int WriteFstFromVcd(const char* vcdPath, const char* path) {
    const auto start = Clock::now();
    VcdReader vcd;
    if (!vcd.Open(vcdPath)) return 1;
    FstPeerWriter fst;
    if (!fst.Create(path, -15)) return 1;
    std::vector<std::uint32_t> handleOf(static_cast<std::size_t>(vcd.Ids()), 0);
    std::vector<int> widthOf(handleOf.size(), 1);
    std::vector<std::string> scope;
    for (const VcdVar& v : vcd.Vars()) {
        std::vector<std::string> parts;
        std::stringstream names(v.fullName);
        for (std::string part; std::getline(names, part, '.');) parts.push_back(part);
        const std::string local = parts.back();
        parts.pop_back();
        std::size_t same = 0;
        while (same < scope.size() && same < parts.size() && scope[same] == parts[same]) ++same;
        while (scope.size() > same) {
            fst.Upscope();
            scope.pop_back();
        }
        for (; same < parts.size(); ++same) {
            fst.Scope(parts[same].c_str());
            scope.push_back(parts[same]);
        }
        const bool real = v.type.find("real") != std::string::npos;
        const auto kind = real ? FstPeerWriter::VarKind::kReal
                          : v.width == 1 ? FstPeerWriter::VarKind::kBit : FstPeerWriter::VarKind::kVector;
        const std::uint32_t h = fst.Declare(local.c_str(), kind, static_cast<std::uint32_t>(v.width),
                                            handleOf[static_cast<std::size_t>(v.id)]);
        handleOf[static_cast<std::size_t>(v.id)] = h;
        widthOf[static_cast<std::size_t>(v.id)] = real ? 0 : v.width;
    }
    while (!scope.empty()) {
        fst.Upscope();
        scope.pop_back();
    }
    std::int64_t time = -1;
    std::string bits;
    const bool ok = vcd.Run([&](const VcdReader::Change& c) {
        if (c.time != time) fst.Time(static_cast<std::uint64_t>(time = c.time));
        const std::size_t id = static_cast<std::size_t>(c.id);
        if (c.kind == 'r') {
            double d = 0;
            std::from_chars(c.text, c.text + c.size, d);
            fst.Raw(handleOf[id], &d);
            return;
        }
        // Bits left-extended to the var's width (with x or z when the leftmost digit is one).
        const std::size_t width = static_cast<std::size_t>(std::max(widthOf[id], 1));
        const char first = static_cast<char>(c.text[0] | 0x20);
        bits.assign(width, first == 'x' || first == 'z' ? first : '0');
        const std::size_t n = std::min(width, c.size);
        for (std::size_t i = 0; i < n; ++i) bits[width - n + i] = static_cast<char>(c.text[c.size - n + i] | 0x20);
        fst.Raw(handleOf[id], bits.data());
    });
    fst.Close();
    std::printf("%.6f\n", Since(start));
    return ok ? 0 : 1;
}
#endif

// The full read through the reader facade: one merged pass, every value read.
int ReadTarvel(const char* path) {
    const auto start = Clock::now();
    Tarvel::ITarvelRead* r = Tarvel::CreateStreamRead2(path);
    if (!r) return 1;
    const double open = Since(start);
    std::uint64_t changes = 0, checksum = 0;
    // The value's first byte goes into the checksum, as in the FST peer's read (a wider load
    // over the 4 bytes a std_logic value fills would also stall on store forwarding).
    unsigned char value[8] = {};
    for (int h; (h = r->NextEvent()) >= 0;) {
        r->GetEventValue(value);
        checksum += static_cast<std::uint64_t>(*r->GetEventTime()) ^ value[0];
        ++changes;
    }
    r->Release();
    // The split between the parse (the factory) and the merged pass, for profiles.
    std::fprintf(stderr, "    (tarvel: open %.3f s, merged pass and release %.3f s)\n", open, Since(start) - open);
    std::printf("%.6f %llu %llu\n", Since(start), static_cast<unsigned long long>(changes),
                static_cast<unsigned long long>(checksum));
    return 0;
}

// One signal through the filtered reader, picked by its handle and full name, and walked.
int ReadTarvelOne(const char* path, int handle, const char* fullName) {
    const auto start = Clock::now();
    std::vector<char*> names{const_cast<char*>(fullName)};
    std::map<int, std::vector<char*>*> selection{{handle, &names}};
    Tarvel::IRawTarvelRead* r = Tarvel::CreateFilteredRawTarvelRead(path, &selection);
    if (!r) return 1;
    std::uint64_t changes = 0, checksum = 0;
    for (auto it = r->BeginSignals(); it != r->EndSignals(); ++it) {
        const Tarvel::KEventsStore* store = r->GetSignalData(it);
        if (!store) continue;
        const unsigned size = static_cast<unsigned>(store->GetSize());
        Tarvel::KEventData e;
        for (bool more = store->GetFirstEvent(&e); more; more = store->GetNextEvent(&e)) {
            std::uint64_t v = 0;
            e.GetValue(reinterpret_cast<unsigned char*>(&v), size);
            checksum += static_cast<std::uint64_t>(e.GetTime()) ^ v;
            ++changes;
        }
    }
    Tarvel::DeleteRawTarvelRead(r);
    std::printf("%.6f %llu %llu\n", Since(start), static_cast<unsigned long long>(changes),
                static_cast<unsigned long long>(checksum));
    return 0;
}

// A VCD parsed, every value decoded (bits to a number, reals to a double), or, with only >= 0,
// the values of that var only (the others are still scanned).
int ReadVcd(const char* path, int only) {
    const auto start = Clock::now();
    VcdReader vcd;
    if (!vcd.Open(path)) return 1;
    std::uint64_t changes = 0, checksum = 0;
    const bool ok = vcd.Run([&](const VcdReader::Change& c) {
        if (only >= 0 && c.id != only) return;
        std::uint64_t v = 0;
        if (c.kind == 'r') {
            double d = 0;
            std::from_chars(c.text, c.text + c.size, d);
            std::memcpy(&v, &d, 8);
        } else {
            for (std::size_t i = 0; i < c.size; ++i) v = v << 1 | static_cast<std::uint64_t>(c.text[i] == '1');
        }
        checksum += static_cast<std::uint64_t>(c.time) ^ v;
        ++changes;
    });
    std::printf("%.6f %llu %llu\n", Since(start), static_cast<unsigned long long>(changes),
                static_cast<unsigned long long>(checksum));
    return ok ? 0 : 1;
}

int Child(int argc, char** argv) {
    const std::string what = argc > 2 ? argv[2] : "", format = argc > 3 ? argv[3] : "";
    Synthetic workload;
    if (what == "write" && argc == 7 && ParseSynthetic(argv[4], &workload)) {
        const std::uint64_t events = std::strtoull(argv[5], nullptr, 10);
        if (format == "tarvel") return WriteTarvel(workload, events, argv[6]);
        if (format == "vcd") return WriteVcd(workload, events, argv[6]);
#ifdef TARVEL_BENCH_FST
        if (format == "fst") return WriteFst(workload, events, argv[6]);
#endif
    }
#ifdef TARVEL_BENCH_FST
    if (what == "write-trace" && format == "fst" && argc == 6) return WriteFstFromVcd(argv[4], argv[5]);
#endif
    if (what == "read" && argc == 5) {
        if (format == "tarvel") return ReadTarvel(argv[4]);
        if (format == "vcd") return ReadVcd(argv[4], -1);
#ifdef TARVEL_BENCH_FST
        if (format == "fst") {
            std::uint64_t changes = 0, checksum = 0;
            const auto start = Clock::now();
            if (!FstPeerRead(argv[4], 0, &changes, &checksum)) return 1;
            std::printf("%.6f %llu %llu\n", Since(start), static_cast<unsigned long long>(changes),
                        static_cast<unsigned long long>(checksum));
            return 0;
        }
#endif
    }
    if (what == "one" && argc >= 6) {
        if (format == "tarvel" && argc == 7) return ReadTarvelOne(argv[4], std::atoi(argv[5]), argv[6]);
        if (format == "vcd") return ReadVcd(argv[4], std::atoi(argv[5]));
#ifdef TARVEL_BENCH_FST
        if (format == "fst") {
            std::uint64_t changes = 0, checksum = 0;
            const auto start = Clock::now();
            if (!FstPeerRead(argv[4], static_cast<std::uint32_t>(std::atoi(argv[5])), &changes, &checksum)) return 1;
            std::printf("%.6f %llu %llu\n", Since(start), static_cast<unsigned long long>(changes),
                        static_cast<unsigned long long>(checksum));
            return 0;
        }
#endif
    }
    std::fprintf(stderr, "compare_bench: bad child arguments\n");
    return 2;
}

// ---- The orchestrator -------------------------------------------------------------------------

struct Outcome {
    bool ok = false;
    double seconds = 0;       // the child's own timing (CPU), or the CPU time of a foreign program
    double wallSeconds = 0;   // the child's whole life, start included
    double peakMB = 0;        // the child's maximum resident set
    std::uint64_t changes = 0;
};

// Runs a program (this one when `program` is empty) and collects its first output line.
Outcome Run(const std::string& program, const std::vector<std::string>& args) {
    Outcome out;
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return out;
    const auto start = WallClock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeFds[1], 1);
        close(pipeFds[0]);
        close(pipeFds[1]);
        std::vector<char*> argv;
        const std::string self = program.empty() ? "/proc/self/exe" : program;
        argv.push_back(const_cast<char*>(self.c_str()));
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(self.c_str(), argv.data());
        _exit(127);
    }
    close(pipeFds[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(n));
    close(pipeFds[0]);
    int status = 0;
    struct rusage usage {};
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) return out;
    out.wallSeconds = Since(start);
    out.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    out.peakMB = static_cast<double>(usage.ru_maxrss) / 1024.0;
    if (!program.empty()) {
        // A program of its own (tarvel import-vcd): the CPU time of all its threads.
        out.seconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                      static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
    } else {
        std::istringstream words(text);
        out.ok &= static_cast<bool>(words >> out.seconds);
        words >> out.changes;
    }
    return out;
}

struct Measures {
    bool present = false;
    Outcome write, read, one;
    long bytes = -1;
};

struct WorkloadResult {
    std::string title;
    std::string key;
    std::uint64_t events = 0;  // value changes of the workload (a trace: its VCD's)
    int signals = 0;
    Measures tarvel, fst, vcd;
};

struct Options {
    std::uint64_t events = 100000000;
    std::uint64_t realEvents = 0;   // 0: events / 4
    std::uint64_t traceEvents = 0;  // 0: events / 4
    std::string dir = "/tmp/tarvel_compare_bench";
    std::string tarvel;             // the tarvel tool, for import-vcd
    std::string designs = "tests/designs";
    std::string docs;
    std::vector<std::string> only;
};

std::string Fmt(const char* format, double value) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string Count(std::uint64_t n) {
    if (n >= 1000000 && n % 1000000 == 0) return std::to_string(n / 1000000) + " M";
    if (n >= 1000000) return Fmt("%.1f M", static_cast<double>(n) / 1e6);
    return std::to_string(n);
}

int g_failures = 0;  // measurements that failed or read another number of changes

void Progress(const std::string& what, const Outcome& o) {
    if (!o.ok) ++g_failures;
    std::fprintf(stderr, "  %-28s %s %8.3f s CPU (%.3f s wall)  %7.1f MB peak  %llu changes read\n", what.c_str(),
                 o.ok ? "ok    " : "FAILED", o.seconds, o.wallSeconds, o.peakMB, static_cast<unsigned long long>(o.changes));
}

void Check(const WorkloadResult& w, const char* format, const Outcome& o, bool exact) {
    if (o.ok && exact && o.changes != w.events) {
        ++g_failures;
        std::fprintf(stderr, "  warning: %s read %llu changes of %llu\n", format,
                     static_cast<unsigned long long>(o.changes), static_cast<unsigned long long>(w.events));
    }
}

// The reads of one workload, given its files. oneTarvel: "handle name"; oneFst / oneVcd: the
// handle / id of the same signal. Empty: no one-signal read (a workload of one signal).
void ReadAll(WorkloadResult& w, const std::string& base, const std::vector<std::string>& oneTarvel, int oneFst, int oneVcd,
             bool exact) {
    const std::string twf = base + ".twf", fst = base + ".fst", vcd = base + ".vcd";
    if (w.tarvel.present) {
        w.tarvel.read = Run("", {"child", "read", "tarvel", twf});
        Progress("tarvel full read", w.tarvel.read);
        Check(w, "tarvel", w.tarvel.read, exact);
        if (!oneTarvel.empty()) {
            w.tarvel.one = Run("", {"child", "one", "tarvel", twf, oneTarvel[0], oneTarvel[1]});
            Progress("tarvel one signal", w.tarvel.one);
        }
    }
    if (w.fst.present) {
        w.fst.read = Run("", {"child", "read", "fst", fst});
        Progress("FST full read", w.fst.read);
        Check(w, "FST", w.fst.read, exact);
        if (oneFst > 0) {
            w.fst.one = Run("", {"child", "one", "fst", fst, std::to_string(oneFst)});
            Progress("FST one signal", w.fst.one);
        }
    }
    if (w.vcd.present) {
        w.vcd.read = Run("", {"child", "read", "vcd", vcd});
        Progress("VCD full read", w.vcd.read);
        Check(w, "VCD", w.vcd.read, exact);
        if (oneVcd >= 0) {
            w.vcd.one = Run("", {"child", "one", "vcd", vcd, std::to_string(oneVcd)});
            Progress("VCD one signal", w.vcd.one);
        }
    }
}

bool FstBuilt() {
#ifdef TARVEL_BENCH_FST
    return true;
#else
    return false;
#endif
}

WorkloadResult RunSynthetic(Synthetic workload, std::uint64_t events, const Options& o) {
    const SyntheticInfo& info = Info(workload);
    WorkloadResult w;
    w.title = info.title;
    w.key = info.key;
    w.events = events;
    w.signals = info.signals;
    std::fprintf(stderr, "%s, %llu events\n", info.title, static_cast<unsigned long long>(events));
    const std::string base = o.dir + "/" + info.key;
    const std::string n = std::to_string(events);
    struct {
        Measures* m;
        const char* name;
        const char* ext;
    } formats[] = {{&w.tarvel, "tarvel", ".twf"}, {&w.fst, "fst", ".fst"}, {&w.vcd, "vcd", ".vcd"}};
    for (auto& f : formats) {
        if (std::string(f.name) == "fst" && !FstBuilt()) continue;
        f.m->write = Run("", {"child", "write", f.name, info.key, n, base + f.ext});
        f.m->present = f.m->write.ok;
        f.m->bytes = FileSize(base + f.ext);
        Progress(std::string(f.name) + " write", f.m->write);
    }
    const int pick = info.signals / 2;
    std::vector<std::string> oneTarvel;
    if (info.signals > 1) oneTarvel = {std::to_string(pick), SignalName(static_cast<std::uint32_t>(pick))};
    ReadAll(w, base, oneTarvel, info.signals > 1 ? pick + 1 : 0, info.signals > 1 ? pick : -1, true);
    for (auto& f : formats) std::remove((base + f.ext).c_str());
    std::remove((base + ".twf.log").c_str());
    return w;
}

// A trace: the project's design simulated (a VCD fixture), made longer; tarvel's file comes from
// `tarvel import-vcd`, FST's from the harness's VCD parse fed to the FST writer; the VCD is the
// input itself. One signal read: tb.clk.
WorkloadResult RunTrace(const std::string& fixture, const std::string& title, const Options& o) {
    WorkloadResult w;
    w.title = title;
    w.key = "trace";
    const std::string base = o.dir + "/trace";
    const std::string vcd = base + ".vcd";
    w.events = LengthenTrace(o.designs + "/" + fixture, vcd, o.traceEvents);
    std::fprintf(stderr, "%s, %llu events\n", title.c_str(), static_cast<unsigned long long>(w.events));
    if (w.events == 0) {
        std::fprintf(stderr, "  skipped: %s/%s not found\n", o.designs.c_str(), fixture.c_str());
        return w;
    }
    w.vcd.present = true;
    w.vcd.bytes = FileSize(vcd);
    VcdReader header;
    header.Open(vcd.c_str());
    w.signals = static_cast<int>(header.Vars().size());
    const int clk = header.FindId("tb.clk");
    if (!o.tarvel.empty()) {
        w.tarvel.write = Run(o.tarvel, {"import-vcd", vcd, "-o", base + ".twf"});
        w.tarvel.present = w.tarvel.write.ok;
        w.tarvel.bytes = FileSize(base + ".twf");
        Progress("tarvel import-vcd", w.tarvel.write);
    }
#ifdef TARVEL_BENCH_FST
    w.fst.write = Run("", {"child", "write-trace", "fst", vcd, base + ".fst"});
    w.fst.present = w.fst.write.ok;
    w.fst.bytes = FileSize(base + ".fst");
    Progress("FST from the VCD", w.fst.write);
#endif
    std::vector<std::string> oneTarvel;
    if (w.tarvel.present && clk >= 0) {
        std::unordered_map<int, std::vector<Tarvel::SIGINFO*>*> listing;
        Tarvel::CreateRawTarvelPreRead((base + ".twf").c_str(), &listing);
        for (const auto& [handle, records] : listing)
            for (const Tarvel::SIGINFO* s : *records)
                if (std::string(s->name) == "tb.clk") oneTarvel = {std::to_string(handle), "tb.clk"};
        Tarvel::DeleteRawTarvelPreRead(&listing);
    }
    ReadAll(w, base, oneTarvel, clk + 1, clk, false);
    for (const char* ext : {".twf", ".fst", ".vcd", ".twf.log"}) std::remove((base + ext).c_str());
    return w;
}

// ---- The table --------------------------------------------------------------------------------

double Rate(const WorkloadResult& w, const Outcome& o) {
    return o.ok && o.seconds > 0 ? static_cast<double>(w.events) / o.seconds / 1e6 : 0;
}

std::string Cell(double v, const char* format) { return v > 0 ? Fmt(format, v) : "—"; }

std::string Ratio(double ours, double theirs) {
    if (ours <= 0 || theirs <= 0) return "—";
    const double r = ours / theirs;
    return r >= 10 ? Fmt("%.0f×", r) : r >= 0.1 ? Fmt("%.2f×", r) : Fmt("%.2g×", r);
}

std::string MachineLine(double minutes, const std::string& loadBefore) {
    std::string cpu = "unknown CPU";
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);)
        if (line.rfind("model name", 0) == 0) {
            cpu = line.substr(line.find(':') + 2);
            break;
        }
    long memoryKb = 0;
    std::ifstream meminfo("/proc/meminfo");
    for (std::string line; std::getline(meminfo, line);)
        if (line.rfind("MemTotal:", 0) == 0) memoryKb = std::atol(line.c_str() + 9);
    std::string load;
    std::ifstream loadavg("/proc/loadavg");
    std::getline(loadavg, load);
    load = load.substr(0, load.find(' '));
    char date[32];
    const std::time_t now = std::time(nullptr);
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
    std::ostringstream s;
    s << "Ran " << date << " on " << cpu << ", " << std::thread::hardware_concurrency() << " cores, "
      << memoryKb / 1024 / 1024 << " GB; load average " << loadBefore << " before, " << load << " after; "
      << "g++ " << __VERSION__ << ", Release; " << Fmt("%.1f", minutes) << " minutes in all.";
    return s.str();
}

std::string Table(const std::vector<WorkloadResult>& results, const std::string& machine) {
    std::ostringstream t;
    t << machine << "\n\n";
    t << "| workload | format | write M ev/s | bytes/event | full read M ev/s | one signal, ms | writer peak MB | "
         "reader peak MB |\n";
    t << "|---|---|---|---|---|---|---|---|\n";
    for (const WorkloadResult& w : results) {
        if (w.events == 0) continue;
        const std::string title = w.title + ", " + Count(w.events) + " events";
        bool first = true;
        auto row = [&](const char* name, const Measures& m) {
            if (!m.present && &m != &w.fst) return;
            t << "| " << (first ? title : "") << " | " << name << " | ";
            first = false;
            if (!m.present) {
                t << "— | — | — | — | — | — |\n";
                return;
            }
            t << Cell(Rate(w, m.write), "%.1f") << " | "
              << (m.bytes >= 0 ? Fmt(m.bytes < 0.1 * static_cast<double>(w.events) ? "%.4f" : "%.2f",
                                     static_cast<double>(m.bytes) / static_cast<double>(w.events))
                               : "—")
              << " | " << Cell(Rate(w, m.read), "%.1f") << " | "
              << (m.one.ok ? Fmt("%.0f", m.one.seconds * 1000) : "—") << " | "
              << (m.write.ok ? Fmt("%.0f", m.write.peakMB) : "—") << " | "
              << (m.read.ok ? Fmt("%.0f", std::max(m.read.peakMB, m.one.peakMB)) : "—") << " |\n";
        };
        auto ratios = [&](const char* name, const Measures& peer) {
            if (!peer.present || !w.tarvel.present) return;
            const Measures& us = w.tarvel;
            t << "| | **tarvel ÷ " << name << "** | " << Ratio(Rate(w, us.write), Rate(w, peer.write)) << " | "
              << Ratio(static_cast<double>(us.bytes), static_cast<double>(peer.bytes)) << " | "
              << Ratio(Rate(w, us.read), Rate(w, peer.read)) << " | "
              << (us.one.ok && peer.one.ok ? Ratio(peer.one.seconds, us.one.seconds) : "—") << " | "
              << (us.write.ok && peer.write.ok && peer.write.peakMB > 0 ? Ratio(us.write.peakMB, peer.write.peakMB) : "—")
              << " | " << Ratio(us.read.peakMB, peer.read.peakMB) << " |\n";
        };
        row("tarvel", w.tarvel);
        if (FstBuilt()) row("FST", w.fst);
        row("VCD", w.vcd);
        if (FstBuilt()) ratios("FST", w.fst);
        ratios("VCD", w.vcd);
    }
    t << "\nTimes are CPU time (user and system) of the process measured. Ratios: speeds (write, full read, one "
         "signal) are how many times faster tarvel is; bytes and peak memory are tarvel's as a fraction of the peer's. "
         "Trace rows: tarvel's write is `tarvel import-vcd` of the VCD (the CPU time of both its threads), FST's the "
         "harness's VCD parse feeding the FST writer (both include the parse; the VCD row has no write), events are the "
         "VCD's value changes, and the one signal is `tb.clk`.";
    if (!FstBuilt())
        t << " FST peer skipped: its sources (fstapi.c and the rest, from Debian's verilator package) were not found "
             "when this was built.";
    t << "\n\n| aim | workload | measured | |\n|---|---|---|---|\n";
    auto verdict = [](bool met) { return met ? "met" : "**not met**"; };
    for (const WorkloadResult& w : results) {
        if (w.events == 0 || !w.fst.present || !w.tarvel.present) continue;
        const double write = Rate(w, w.tarvel.write) / std::max(Rate(w, w.fst.write), 1e-12);
        t << "| writer ≥ 3× FST (goal 5×) | " << w.title << " | " << Fmt("%.2f×", write) << " | " << verdict(write >= 3)
          << " |\n";
    }
    for (const WorkloadResult& w : results) {
        if (w.events == 0 || !w.fst.present || !w.tarvel.present) continue;
        const double read = Rate(w, w.tarvel.read) / std::max(Rate(w, w.fst.read), 1e-12);
        t << "| full read ≥ 1.5× FST | " << w.title << " | " << Fmt("%.2f×", read) << " | " << verdict(read >= 1.5)
          << " |\n";
    }
    for (const WorkloadResult& w : results) {
        if (w.key != "bits" || !w.tarvel.one.ok) continue;
        const double one = w.tarvel.read.seconds / w.tarvel.one.seconds;
        t << "| one of 10,000 signals ≥ 10× faster than tarvel's full read | " << w.title << " | " << Fmt("%.1f×", one)
          << " | " << verdict(one >= 10) << " |\n";
    }
    for (const WorkloadResult& w : results) {
        if (w.events == 0 || !w.tarvel.present || !w.vcd.present) continue;
        const double size = static_cast<double>(w.tarvel.bytes) / static_cast<double>(w.vcd.bytes);
        const bool aimed = w.key == "clock" || w.key == "counters" || w.key == "trace";
        t << "| file ≤ 0.5× VCD" << (aimed ? "" : " (no aim: shown)") << " | " << w.title << " | " << Ratio(static_cast<double>(w.tarvel.bytes), static_cast<double>(w.vcd.bytes))
          << " | " << (aimed ? verdict(size <= 0.5) : "") << " |\n";
    }
    for (const WorkloadResult& w : results) {
        if (w.key != "bits" || !w.fst.present || !w.tarvel.present) continue;
        t << "| FST smaller on random data (expected) | " << w.title << " | tarvel "
          << Fmt("%.2f×", static_cast<double>(w.tarvel.bytes) / static_cast<double>(w.fst.bytes)) << " FST's size | |\n";
    }
    return t.str();
}

bool WriteDocs(const std::string& path, const std::string& table) {
    static const std::string kBegin = "<!-- compare_bench: begin -->", kEnd = "<!-- compare_bench: end -->";
    std::ifstream in(path);
    if (!in) return false;
    std::stringstream all;
    all << in.rdbuf();
    std::string text = all.str();
    const std::size_t begin = text.find(kBegin), end = text.find(kEnd);
    if (begin == std::string::npos || end == std::string::npos || end < begin) return false;
    text.replace(begin + kBegin.size(), end - begin - kBegin.size(), "\n" + table + "\n");
    std::ofstream out(path, std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

int Main(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        if (!v) {
            std::fprintf(stderr, "compare_bench: %s needs a value\n", a.c_str());
            return 2;
        }
        ++i;
        if (a == "--events") o.events = std::strtoull(v, nullptr, 10);
        else if (a == "--real-events") o.realEvents = std::strtoull(v, nullptr, 10);
        else if (a == "--trace-events") o.traceEvents = std::strtoull(v, nullptr, 10);
        else if (a == "--dir") o.dir = v;
        else if (a == "--tarvel") o.tarvel = v;
        else if (a == "--designs") o.designs = v;
        else if (a == "--docs") o.docs = v;
        else if (a == "--only") {
            std::stringstream s(v);
            for (std::string k; std::getline(s, k, ',');) o.only.push_back(k);
        } else {
            std::fprintf(stderr, "compare_bench: unknown option %s\n", a.c_str());
            return 2;
        }
    }
    if (o.realEvents == 0) o.realEvents = o.events / 4;
    if (o.traceEvents == 0) o.traceEvents = o.events / 4;
    auto wanted = [&](const std::string& key) { return o.only.empty() || std::count(o.only.begin(), o.only.end(), key); };
    mkdir(o.dir.c_str(), 0755);
    if (!FstBuilt())
        std::fprintf(stderr, "compare_bench: FST peer skipped: fstapi.c not found when this was built "
                             "(scripts/install-deps.sh bench installs verilator, which ships it)\n");
    if (o.tarvel.empty()) std::fprintf(stderr, "compare_bench: no --tarvel tool given: traces have no tarvel file\n");
    std::string loadBefore;
    {
        std::ifstream loadavg("/proc/loadavg");
        std::getline(loadavg, loadBefore);
        loadBefore = loadBefore.substr(0, loadBefore.find(' '));
    }
    const auto start = WallClock::now();
    std::vector<WorkloadResult> results;
    for (int s = 0; s < 4; ++s) {
        const Synthetic w = static_cast<Synthetic>(s);
        if (wanted(Info(w).key)) results.push_back(RunSynthetic(w, w == Synthetic::kReals ? o.realEvents : o.events, o));
    }
    if (wanted("trace")) {
        results.push_back(RunTrace("counter.iverilog.vcd", "counter design, Icarus Verilog trace", o));
        results.push_back(RunTrace("counter.ghdl.vcd", "counter design, GHDL trace", o));
    }
    const std::string table = Table(results, MachineLine(Since(start) / 60, loadBefore));
    std::printf("%s", table.c_str());
    if (!o.docs.empty() && !WriteDocs(o.docs, table)) {
        std::fprintf(stderr, "compare_bench: could not write the table into %s (markers missing?)\n", o.docs.c_str());
        return 1;
    }
    if (g_failures) std::fprintf(stderr, "compare_bench: %d measurements failed (see above)\n", g_failures);
    return g_failures ? 1 : 0;
}

}  // namespace
}  // namespace compare

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "child") return compare::Child(argc, argv);
    return compare::Main(argc, argv);
}
