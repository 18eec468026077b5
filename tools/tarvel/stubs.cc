// Subcommands that are still to come: each is registered so that --help lists it, and answers
// that it is not there yet. A subcommand's own file replaces its stub here.
#include <cstdio>

#include "commands.h"

namespace TarvelTool {
namespace {

void AddStub(CLI::App& app, const char* name, const char* description) {
    CLI::App* command = app.add_subcommand(name, description);
    command->allow_extras();
    command->callback([name] {
        std::fprintf(stderr, "tarvel %s: not available yet\n", name);
        ExitCode() = kExitBadUsage;
    });
}

}  // namespace

void AddVcdCommands(CLI::App& app) {
    AddStub(app, "import-vcd", "Converts a VCD file into a waveform file");
    AddStub(app, "export-vcd", "Converts a waveform file into a VCD file");
}

}  // namespace TarvelTool
