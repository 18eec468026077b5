// Helpers of the VCD tests: a temporary folder, import and export of files in-process, the
// fixtures' paths, and running programs (the tool, GTKWave's converters, the simulators) with
// their exit code and output. Test support; one thread.
#ifndef TARVEL_TESTS_VCD_VCD_TEST_SUPPORT_H
#define TARVEL_TESTS_VCD_VCD_TEST_SUPPORT_H

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "vcd/vcd_model.h"
#include "vcd_export.h"
#include "vcd_import.h"

namespace TarvelTool::Testing {

struct Folder {
    std::string path = (std::filesystem::temp_directory_path() / "tarvel-vcd-XXXXXX").string();
    Folder() {
        if (!mkdtemp(path.data())) throw std::runtime_error("mkdtemp failed");
    }
    ~Folder() { std::filesystem::remove_all(path); }
    std::string File(const std::string& name) const { return path + "/" + name; }
    // Writes `text` to the file `name` and answers its path.
    std::string Write(const std::string& name, const std::string& text) const {
        std::ofstream(File(name), std::ios::binary) << text;
        return File(name);
    }
};

inline std::string ReadText(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// The committed fixture `name` of tests/designs/.
inline std::string Fixture(const std::string& name) {
    const char* data = std::getenv("TARVEL_TEST_DATA");
    return std::string(data ? data : "tests") + "/designs/" + name;
}

struct Imported {
    VcdImportResult result;
    std::vector<std::string> warnings;
};
// Imports the VCD file `vcd` into the waveform file `twf`.
inline Imported ImportFile(const std::string& vcd, const std::string& twf, VcdImportOptions options = {}) {
    Imported imported;
    VcdInput input;
    std::string error;
    if (!input.Open(vcd, &error)) throw std::runtime_error("cannot open " + vcd + ": " + error);
    Tarvel::ITarvelWrite* writer = Tarvel::CreateStreamWriteTimed(twf.c_str());
    if (!writer) throw std::runtime_error("cannot create " + twf);
    options.inputName = "in.vcd";
    imported.result =
        ImportVcd(input, *writer, options, [&](const std::string& line) { imported.warnings.push_back(line); }, nullptr);
    writer->Release();
    return imported;
}

// Exports the waveform file `twf` as the VCD file `vcd`; throws when the export fails.
inline VcdExportResult ExportFile(const std::string& twf, const std::string& vcd) {
    VcdExportResult result = ExportVcd(twf, vcd, nullptr);
    if (!result.ok) throw std::runtime_error("export failed: " + result.message);
    return result;
}

struct Ran {
    int status;          // the exit code; -1 when it did not run or was killed
    std::string output;  // stdout and stderr together
};
// Runs `command` through the shell.
inline Ran RunShell(const std::string& command) {
    Ran ran{-1, ""};
    std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return ran;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) ran.output.append(buffer, n);
    const int status = pclose(pipe);
    ran.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return ran;
}

// True when the program `name` is on the PATH.
inline bool Have(const std::string& name) { return RunShell("command -v " + name).status == 0; }

}  // namespace TarvelTool::Testing

#endif  // TARVEL_TESTS_VCD_VCD_TEST_SUPPORT_H
