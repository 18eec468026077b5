// `tarvel check FILE...`: exit 0 when every file reads; otherwise one line "FILE:LINE:COLUMN:
// reason" per unreadable file on stderr, for the fault where the reader stopped, and exit 1. The
// place and the reason come from the library's own parse (DiagnoseTarvelFile), never from a
// second parser. Tool layer; one thread.
#include <tarvel/diagnostics.h>

#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "wave_file.h"

namespace TarvelTool {
namespace {

int Check(const std::vector<std::string>& paths, bool quiet) {
    int code = kExitOk;
    for (const std::string& path : paths) {
        Tarvel::TarvelDiagnosis d;
        if (!Tarvel::DiagnoseTarvelFile(path.c_str(), &d)) {
            std::fprintf(stderr, "%s\n", FaultText(path, d).c_str());
            code = kExitBadFile;
        } else if (!quiet) {
            std::printf("%s: readable; %s at line %lld\n", path.c_str(),
                        d.atTerminator ? "complete, ends with its terminator" : "reads up to the commit mark", static_cast<long long>(d.line));
        }
    }
    return code;
}

}  // namespace

void AddCheckCommand(CLI::App& app) {
    static std::vector<std::string> paths;
    static bool quiet = false;
    CLI::App* command = app.add_subcommand("check", "Checks that waveform files read; names the line and column of a fault");
    command->add_option("files", paths, "The waveform files")->required();
    command->add_flag("-q,--quiet", quiet, "Print nothing for a readable file");
    command->footer("Exit code 0 when every file reads as the library reads it; otherwise 1, with one line "
                    "FILE:LINE:COLUMN: reason on stderr for each file that does not, naming where its read stopped.\n");
    command->callback([] { ExitCode() = Check(paths, quiet); });
}

}  // namespace TarvelTool
