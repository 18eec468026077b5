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

void AddInfoCommand(CLI::App& app) { AddStub(app, "info", "Summary of a waveform file"); }
void AddTreeCommand(CLI::App& app) { AddStub(app, "tree", "The signal tree of a waveform file"); }
void AddDumpCommand(CLI::App& app) { AddStub(app, "dump", "Events in time order as text"); }
void AddCheckCommand(CLI::App& app) { AddStub(app, "check", "Finds the first fault of a waveform file"); }
void AddFollowCommand(CLI::App& app) { AddStub(app, "follow", "Prints the events of a growing file as it is committed"); }
void AddDemoCommand(CLI::App& app) { AddStub(app, "demo", "Writes the built-in example design"); }

}  // namespace TarvelTool
