// The subcommands import-vcd and export-vcd: arguments, messages and exit codes around
// ImportVcd and ExportVcd. Tool layer; one thread.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "commands.h"
#include "progress.h"
#include "vcd_export.h"
#include "vcd_import.h"

namespace TarvelTool {
namespace {

// Prints one line on stderr, first clearing a progress bar that may stand there.
void Say(const std::string& line) {
    static const bool terminal = isatty(STDERR_FILENO) != 0;
    std::fprintf(stderr, "%s%s\n", terminal ? "\r\033[K" : "", line.c_str());
}

// The reason the writer of `path` stopped: the one line of its log, or when there is none (its
// folder is missing, say) the system's reason.
std::string WriterReason(const std::string& path) {
    std::ifstream log(path + ".log");
    std::string line;
    if (std::getline(log, line) && !line.empty()) return line;
    std::FILE* probe = std::fopen(path.c_str(), "ab");
    if (!probe) return std::strerror(errno);
    std::fclose(probe);
    return "cannot write it";
}

struct Writer {
    Tarvel::ITarvelWrite* w;
    ~Writer() {
        if (w) w->Release();
    }
};

void RunImport(const std::string& input, const std::string& output, std::uint64_t commitEvents) {
    const std::string name = input == "-" ? "<stdin>" : input;
    VcdInput in;
    std::string error;
    if (!in.Open(input, &error)) {
        Say("tarvel import-vcd: cannot read " + name + ": " + error);
        ExitCode() = kExitBadFile;
        return;
    }
    Writer writer{Tarvel::CreateStreamWriteTimed(output.c_str())};
    if (!writer.w) {
        Say("tarvel import-vcd: cannot create " + output + ": " + WriterReason(output));
        ExitCode() = kExitBadFile;
        return;
    }
    VcdImportOptions options;
    options.inputName = name;
    if (commitEvents > 0) options.commitEvents = commitEvents;
    Progress progress("import", in.Size());
    const VcdImportResult result =
        ImportVcd(in, *writer.w, options, [](const std::string& line) { Say("tarvel import-vcd: " + line); }, &progress);
    if (result.status == VcdImportResult::kWriteFailed) {
        Say("tarvel import-vcd: writing " + output + " failed: " + WriterReason(output));
        ExitCode() = kExitBadFile;
        return;
    }
    if (!writer.w->Release()) {
        writer.w = nullptr;
        Say("tarvel import-vcd: writing " + output + " failed: " + WriterReason(output));
        ExitCode() = kExitBadFile;
        return;
    }
    writer.w = nullptr;
    if (result.status == VcdImportResult::kBadInput) {
        Say("tarvel import-vcd: " + result.message + " (" + output + " holds what came before)");
        ExitCode() = kExitBadFile;
        return;
    }
    std::printf("%s: %llu scopes, %llu variables, %llu events up to time %lld (unit %lld fs)%s\n", output.c_str(),
                static_cast<unsigned long long>(result.scopes), static_cast<unsigned long long>(result.variables),
                static_cast<unsigned long long>(result.events), static_cast<long long>(result.endTime),
                static_cast<long long>(result.resolution),
                result.skipped ? (", " + std::to_string(result.skipped) + " variables not imported").c_str() : "");
}

void RunExport(const std::string& input, const std::string& output) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(input, error);
    Progress progress("export", error ? 0 : size);
    const VcdExportResult result = ExportVcd(input, output, &progress);
    if (!result.ok) {
        Say("tarvel export-vcd: " + result.message);
        ExitCode() = kExitBadFile;
        return;
    }
    if (output != "-") {
        std::printf("%s: %llu variables (%llu sharing the code of another), %llu value changes up to time %lld (%s)\n",
                    output.c_str(), static_cast<unsigned long long>(result.variables),
                    static_cast<unsigned long long>(result.aliases), static_cast<unsigned long long>(result.changes),
                    static_cast<long long>(result.endTime), result.timescale.c_str());
    }
}

}  // namespace

void AddVcdCommands(CLI::App& app) {
    struct Arguments {
        std::string input, output;
        std::uint64_t commitEvents = 0;
    };
    auto importArgs = std::make_shared<Arguments>();
    CLI::App* import = app.add_subcommand("import-vcd", "Converts a VCD file into a waveform file");
    import->add_option("input", importArgs->input, "The VCD file; - reads standard input")->required();
    import->add_option("-o,--output", importArgs->output, "The waveform file to write")->required();
    import->add_option("--commit-every", importArgs->commitEvents,
                       "Commit after about this many events, so that readers can follow (default 4194304)")
        ->check(CLI::PositiveNumber);
    import->callback([importArgs] { RunImport(importArgs->input, importArgs->output, importArgs->commitEvents); });

    auto exportArgs = std::make_shared<Arguments>();
    CLI::App* exporter = app.add_subcommand("export-vcd", "Converts a waveform file into a VCD file");
    exporter->add_option("input", exportArgs->input, "The waveform file")->required();
    exporter->add_option("-o,--output", exportArgs->output, "The VCD file to write; - writes standard output")->required();
    exporter->callback([exportArgs] { RunExport(exportArgs->input, exportArgs->output); });
}

}  // namespace TarvelTool
