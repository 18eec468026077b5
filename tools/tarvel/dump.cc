// `tarvel dump FILE [--from T] [--to T] [--signal NAME]... [--limit N]`: events in time order as
// text, one line per event. Tool layer; one thread.
#include <unistd.h>

#include <cstdio>
#include <limits>
#include <memory>

#include "commands.h"
#include "events.h"
#include "progress.h"
#include "selection.h"

namespace TarvelTool {
namespace {

constexpr const char* kLineFormat =
    "Each line: TIME NAME VALUE [@FILE:LINE]. TIME is in the file's unit (see tarvel info), with +DELTA "
    "when the delta cycle is not 0; NAME is the full name; VALUE is spelled by the signal's type "
    "(std_logic characters, enumeration literals, numbers); the source follows when the event has one. "
    "Events of one time and delta come in declaration order.\n";

bool ParseBound(const char* option, const std::string& text, const TimeFormat& times, int64* time) {
    if (text.empty() || times.Parse(text, time)) return true;
    std::fprintf(stderr, "tarvel dump: %s %s: no time (a number of file units, or with a unit: 10ns, 2.5us)\n", option,
                 text.c_str());
    return false;
}

std::uint64_t EventCount(WaveFile& file, const std::vector<WalkStart>& starts) {
    std::uint64_t count = 0;
    for (const WalkStart& start : starts) {
        count += file.Reader().GetSignalData(file.Signals()[static_cast<std::size_t>(start.signal)].handle)->count();
    }
    return count;
}

}  // namespace

int ShowEvents(const DumpRequest& request) {
    std::vector<bool> chosen;
    int code = kExitOk;
    std::unique_ptr<WaveFile> file = OpenChosen("dump", request.path, request.signals, &chosen, &code);
    if (!file) return code;
    const TimeFormat times(file->Reader().GetResolution());
    int64 from = std::numeric_limits<int64>::min(), to = std::numeric_limits<int64>::max();
    if (!ParseBound("--from", request.from, times, &from) || !ParseBound("--to", request.to, times, &to)) return kExitBadUsage;
    const std::vector<WalkStart> starts = StartsOf(*file, chosen, from);
    EventWalk walk(*file, starts);
    EventPrinter printer(*file, chosen);
    // The bar shares the terminal with the lines only when they go elsewhere.
    std::unique_ptr<Progress> progress;
    if (!isatty(STDOUT_FILENO)) progress = std::make_unique<Progress>("dump", EventCount(*file, starts), "M events");
    long long shown = 0;
    for (; (request.limit < 0 || shown < request.limit) && walk.Next(); ++shown) {
        if (walk.Event().GetTime() > to) break;
        printer.Print(walk.Signal(), walk.Event());
        if (progress) progress->Update(static_cast<std::uint64_t>(shown));
    }
    if (progress) progress->Finish(static_cast<std::uint64_t>(shown));
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "tarvel dump: cannot write the output\n");
        return kExitBadFile;
    }
    return kExitOk;
}

void AddDumpCommand(CLI::App& app) {
    static DumpRequest request;
    CLI::App* command = app.add_subcommand("dump", "Events in time order as text, one line per event");
    command->add_option("file", request.path, "The waveform file")->required();
    command->add_option("--from", request.from, "Show events from this time on: file units (5000) or with a unit (10ns, 2.5us)");
    command->add_option("--to", request.to, "Show events up to this time (included)");
    command->add_option("-s,--signal", request.signals,
                        "Show this signal only, and what is below it (a scope, a bus); a full name as tree --full-names "
                        "prints it (tb.dut.data(7)). Repeatable");
    command->add_option("-n,--limit", request.limit, "Show at most this many events")->check(CLI::NonNegativeNumber);
    command->footer(kLineFormat);
    command->callback([] { ExitCode() = ShowEvents(request); });
}

}  // namespace TarvelTool
