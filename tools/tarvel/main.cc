// The `tarvel` command-line tool: reads, checks, follows, imports and exports waveform files.
// Tool layer; uses the library's public interface only.
#include <cstdio>
#include <new>

#include "commands.h"

namespace TarvelTool {

int& ExitCode() {
    static int code = kExitOk;
    return code;
}

}  // namespace TarvelTool

int main(int argc, char** argv) {
    CLI::App app{"tarvel: read, check, follow, import and export waveform files", "tarvel"};
    app.require_subcommand(1);
    app.set_version_flag("--version", TARVEL_VERSION);
    TarvelTool::AddInfoCommand(app);
    TarvelTool::AddTreeCommand(app);
    TarvelTool::AddDumpCommand(app);
    TarvelTool::AddCheckCommand(app);
    TarvelTool::AddFollowCommand(app);
    TarvelTool::AddDemoCommand(app);
    TarvelTool::AddVcdCommands(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help and --version are "errors" with exit code 0; every other one is bad usage.
        const int printed = app.exit(e);
        return printed == 0 ? TarvelTool::kExitOk : TarvelTool::kExitBadUsage;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "tarvel: out of memory\n");
        return TarvelTool::kExitBadFile;
    }
    return TarvelTool::ExitCode();
}
