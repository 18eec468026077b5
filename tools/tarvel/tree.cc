// `tarvel tree FILE [--full-names]`: the signal tree, one signal per line: its name (indented
// below its parent, or its full name), port mode, readable type and properties; elements and
// fields under their bus, members under their virtual bus. Tool layer; one thread.
#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <utility>

#include "commands.h"
#include "text.h"
#include "wave_file.h"

namespace TarvelTool {
namespace {

constexpr int kWidestNameColumn = 48;

// The signals in tree order (depth first, children by position), with their depth.
std::vector<std::pair<int, int>> TreeOrder(const WaveFile& file) {
    std::vector<std::pair<int, int>> order;
    std::vector<std::pair<int, int>> pending;  // (signal, depth), the next one last
    for (auto it = file.TopLevel().rbegin(); it != file.TopLevel().rend(); ++it) pending.emplace_back(*it, 0);
    while (!pending.empty()) {
        const auto [signal, depth] = pending.back();
        pending.pop_back();
        order.emplace_back(signal, depth);
        const std::vector<int>& children = file.Signals()[static_cast<std::size_t>(signal)].children;
        for (auto it = children.rbegin(); it != children.rend(); ++it) pending.emplace_back(*it, depth + 1);
    }
    return order;
}

// Each signal's properties as the file gives them (by number; the last value of a name wins).
std::map<int, std::map<std::string, std::string>> PropertiesOf(Tarvel::IRawTarvelRead& r) {
    std::map<int, std::map<std::string, std::string>> properties;
    for (auto p = r.BeginProperties(); p != r.EndProperties(); ++p) properties[p->signalNr][p->name] = p->value;
    return properties;
}

std::string WhatText(const SignalInfo& s) {
    switch (s.kind) {
        case SignalKind::kScope: return "scope";
        case SignalKind::kVirtualBus: return "virtual bus of " + std::to_string(s.children.size());
        default: return TypeText(s.type);
    }
}

int Tree(const std::string& path, bool fullNames) {
    std::unique_ptr<WaveFile> file = WaveFile::Open("tree", path);
    if (!file) return kExitBadFile;
    const std::vector<std::pair<int, int>> order = TreeOrder(*file);
    const auto properties = PropertiesOf(file->Reader());
    const auto nameOf = [&](int signal, int depth) {
        const SignalInfo& s = file->Signals()[static_cast<std::size_t>(signal)];
        return fullNames ? s.fullName : std::string(static_cast<std::size_t>(2 * depth), ' ') + s.name;
    };
    int width = 0;
    for (const auto& [signal, depth] : order) width = std::max(width, static_cast<int>(nameOf(signal, depth).size()));
    width = std::min(width, kWidestNameColumn);
    for (const auto& [signal, depth] : order) {
        const SignalInfo& s = file->Signals()[static_cast<std::size_t>(signal)];
        std::string line = nameOf(signal, depth);
        line.resize(std::max(line.size(), static_cast<std::size_t>(width)), ' ');
        std::string mode = ModeText(s.mode);
        mode.resize(std::max<std::size_t>(mode.size(), 8), ' ');
        line += "  " + mode + "  " + WhatText(s);
        const auto own = properties.find(s.handle);
        if (own != properties.end()) {
            for (const auto& [name, value] : own->second) line += "  " + name + "=\"" + value + "\"";
        }
        std::printf("%s\n", line.c_str());
    }
    return std::fflush(stdout) == 0 ? kExitOk : kExitBadFile;
}

}  // namespace

void AddTreeCommand(CLI::App& app) {
    static std::string path;
    static bool fullNames = false;
    CLI::App* command = app.add_subcommand("tree", "The signal tree: names, port modes, types, properties");
    command->add_option("file", path, "The waveform file")->required();
    command->add_flag("-f,--full-names", fullNames, "Print full names (tb.dut.data(7), as dump --signal takes them) instead of indenting");
    command->footer("Each line: NAME MODE TYPE [PROPERTIES]. Elements of a bus and fields of a record stand under their bus "
                    "(named after the bus type: (7), a field name), members under their virtual bus, everything inside a "
                    "scope under it. MODE is the port mode (- for none; an element shows its bus's).\n");
    command->callback([] { ExitCode() = Tree(path, fullNames); });
}

}  // namespace TarvelTool
