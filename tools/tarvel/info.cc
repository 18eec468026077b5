// `tarvel info FILE`: the header, resolution, end time, the numbers of signals, buses, events,
// properties and sources, and whether the file is complete or ends at a commit mark. Tool layer;
// one thread.
#include <sys/stat.h>

#include <tarvel/diagnostics.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "commands.h"
#include "text.h"
#include "wave_file.h"

namespace TarvelTool {
namespace {

std::string HeaderText(const Tarvel::TarvelDiagnosis& d) {
    const char* timed = d.timed ? "TIMED" : "";
    switch (d.version) {
        case 4: return std::string("$WAVE4") + timed + " (layout 4, " + (d.timed ? "timed" : "untimed") + ")";
        case 2: return std::string("$WAVE2") + timed + " or $WAVE3" + timed + " (layout 2, read only)";
        case 1: return "$WAVE (oldest layout, read only)";
        default: return "?";
    }
}

std::string StateText(const Tarvel::TarvelDiagnosis& d) {
    if (!d.readable) return std::string("changed while it was read: ") + d.reason;
    const std::string line = " (line " + std::to_string(d.line) + ")";
    if (d.atTerminator) return "complete: ends with its terminator $ENDWAVE" + line;
    return "ends at a commit mark" + line + ": a writer resumed after its last commit (still writing, or it ended "
           "without committing again); it reads as of that commit";
}

struct Counts {
    int scalars = 0, buses = 0, virtualBuses = 0, scopes = 0, opaque = 0;
    unsigned long long events = 0;
    int64 lastEvent = 0;
    bool anyEvent = false;
};

Counts Count(WaveFile& file) {
    Counts n;
    for (const SignalInfo& s : file.Signals()) {
        switch (s.kind) {
            case SignalKind::kScalar: ++n.scalars; break;
            case SignalKind::kBus: ++n.buses; break;
            case SignalKind::kVirtualBus: ++n.virtualBuses; break;
            case SignalKind::kScope: ++n.scopes; break;
            case SignalKind::kOpaque: ++n.opaque; break;
        }
        const Tarvel::KEventsStore* store = file.Reader().GetSignalData(s.handle);
        if (!store || store->empty()) continue;
        n.events += store->count();
        n.lastEvent = n.anyEvent ? std::max(n.lastEvent, store->EndTime()) : store->EndTime();  // a read store ends at its last event
        n.anyEvent = true;
    }
    return n;
}

std::string Plural(long long count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

}  // namespace

int ShowInfo(const std::string& path) {
    std::unique_ptr<WaveFile> file = WaveFile::Open("info", path);
    if (!file) return kExitBadFile;
    Tarvel::TarvelDiagnosis diagnosis;  // the header's layout and where the read ended: a second read
    Tarvel::DiagnoseTarvelFile(path.c_str(), &diagnosis);
    Tarvel::IRawTarvelRead& r = file->Reader();
    const TimeFormat times(r.GetResolution());
    const Counts n = Count(*file);
    struct stat status {};
    const long long bytes = stat(path.c_str(), &status) == 0 ? static_cast<long long>(status.st_size) : -1;
    long long properties = 0;
    for (auto p = r.BeginProperties(); p != r.EndProperties(); ++p) ++properties;
    const char* project = r.GetProperty(-1, "Project");
    const char* top = r.GetProperty(-1, "TopLevel");

    std::printf("file        %s, %lld bytes\n", path.c_str(), bytes);
    std::printf("header      %s\n", HeaderText(diagnosis).c_str());
    std::printf("resolution  %lld fs: times in units of %s\n", static_cast<long long>(r.GetResolution()), times.UnitText().c_str());
    std::printf("end time    %s = %s", times.Text(r.GetEndTime()).c_str(), times.ReadableText(r.GetEndTime()).c_str());
    if (n.anyEvent) std::printf(" (last event at %s)", times.Text(n.lastEvent).c_str());
    std::printf("\nsignals     %d with values, %s, %s, %s", n.scalars,
                Plural(n.buses, "bus", "buses").c_str(), Plural(n.virtualBuses, "virtual bus", "virtual buses").c_str(),
                Plural(n.scopes, "scope", "scopes").c_str());
    if (n.opaque) std::printf(", %s", Plural(n.opaque, "of a type without values", "of types without values").c_str());
    std::printf("\nevents      %llu\n", n.events);
    std::printf("types       %ld\n", static_cast<long>(r.EndTypes() - r.BeginTypes()));
    std::printf("properties  %lld", properties);
    if (project || top) std::printf(" (Project: %s, TopLevel: %s)", project ? project : "-", top ? top : "-");
    std::printf("\nsources     %s\n", Plural(r.GetSourcer().GetSourcePointsCount(), "source point", "source points").c_str());
    std::printf("state       %s\n", StateText(diagnosis).c_str());
    return std::fflush(stdout) == 0 ? kExitOk : kExitBadFile;
}

void AddInfoCommand(CLI::App& app) {
    static std::string path;
    CLI::App* command = app.add_subcommand("info", "Summary of a waveform file: header, resolution, end time, counts, state");
    command->add_option("file", path, "The waveform file")->required();
    command->callback([] { ExitCode() = ShowInfo(path); });
}

}  // namespace TarvelTool
