// The subcommands of the `tarvel` command-line tool. Each file of tools/tarvel/ adds one or more
// subcommands to the application with an Add... function; main.cc calls them all. The tool uses
// the library's public interface only. Single-threaded.
#ifndef TARVEL_TOOLS_TARVEL_COMMANDS_H
#define TARVEL_TOOLS_TARVEL_COMMANDS_H

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace TarvelTool {

// Exit codes of every subcommand.
inline constexpr int kExitOk = 0;
inline constexpr int kExitBadFile = 1;   // an input that cannot be read, an output that cannot be written
inline constexpr int kExitBadUsage = 2;  // wrong arguments (CLI11 reports its own errors with this code)

// The exit code the subcommand that ran has set (kExitOk unless it set another).
int& ExitCode();

// Adds the subcommand(s) of one file to `app`. The callback of a subcommand does the work and
// sets ExitCode(); it prints one-line errors on stderr, "tarvel <command>: <reason>".
void AddInfoCommand(CLI::App& app);
void AddTreeCommand(CLI::App& app);
void AddDumpCommand(CLI::App& app);
void AddCheckCommand(CLI::App& app);
void AddFollowCommand(CLI::App& app);
void AddDemoCommand(CLI::App& app);
void AddVcdCommands(CLI::App& app);  // import-vcd and export-vcd

// The work of info and dump, which demo shows too. Each prints its output on stdout and its
// errors on stderr, and returns the exit code.
int ShowInfo(const std::string& path);
struct DumpRequest {
    std::string path;
    std::string from, to;              // times as the command line gives them; "" for no bound
    std::vector<std::string> signals;  // full names; empty for every signal
    long long limit = -1;              // most events shown; -1 for all
};
int ShowEvents(const DumpRequest& request);

}  // namespace TarvelTool

#endif  // TARVEL_TOOLS_TARVEL_COMMANDS_H
