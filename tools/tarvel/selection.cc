// Choosing signals by full name. Tool layer; one thread.
#include "selection.h"

#include <cstdio>

#include "commands.h"

namespace TarvelTool {

bool Choose(const WaveFile& file, const std::vector<std::string>& names, std::vector<bool>* chosen, std::string* unknown) {
    chosen->assign(file.Signals().size(), names.empty());
    for (const std::string& name : names) {
        const int index = file.Find(name);
        if (index < 0) {
            *unknown = name;
            return false;
        }
        file.ChooseWithDescendants(index, *chosen);
    }
    return true;
}

std::unique_ptr<WaveFile> OpenFor(const std::string& path, const std::vector<std::string>& /*names*/) {
    // With the filtered raw reader, the names go to it here and only their signals are read.
    return WaveFile::Open(nullptr, path);
}

std::unique_ptr<WaveFile> OpenChosen(const char* command, const std::string& path, const std::vector<std::string>& names,
                                     std::vector<bool>* chosen, int* exitCode) {
    std::unique_ptr<WaveFile> file = OpenFor(path, names);
    if (!file) {
        ReportUnreadable(command, path);
        *exitCode = kExitBadFile;
        return nullptr;
    }
    std::string unknown;
    if (!Choose(*file, names, chosen, &unknown)) {
        std::fprintf(stderr, "tarvel %s: no signal %s in %s (tarvel tree --full-names %s lists them)\n", command, unknown.c_str(),
                     path.c_str(), path.c_str());
        *exitCode = kExitBadUsage;
        return nullptr;
    }
    return file;
}

}  // namespace TarvelTool
