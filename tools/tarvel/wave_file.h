// A waveform file as the `tarvel` subcommands see it: a raw reader (the library's public
// IRawTarvelRead) and a table of its signals with their place in the design, full names, kinds,
// types and port modes. Opening prints the one-line error of the tool when the file does not
// read. Tool layer; one thread.
#ifndef TARVEL_TOOLS_TARVEL_WAVE_FILE_H
#define TARVEL_TOOLS_TARVEL_WAVE_FILE_H

#include <sorvat/typeinfo.h>
#include <tarvel/diagnostics.h>
#include <tarvel/raw_reader.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "signal_kind.h"

namespace TarvelTool {

using Tarvel::Client::SignalKind;

// One signal of the file, in declaration order.
struct SignalInfo {
    int handle = 0;                // the signal's number in the file
    int parent = -1;               // index of its parent in the table; -1 at the top
    int position = 0;              // among its parent's children
    std::string name;              // local: "clk", "(7)", "addr"
    std::string fullName;          // "tb.dut.data(7)" (design.md, "Conventions every tool follows")
    SignalKind kind = SignalKind::kScope;
    int mode = 0;                  // port mode; an element shows its bus's
    Sorvat::KTypeInfo type;        // invalid without type
    std::vector<int> children;     // indexes, by position
};

class WaveFile {
public:
    // Opens `path` with a raw reader. When it does not read, returns null and, unless `command`
    // is null, prints "tarvel <command>: PATH:LINE:COLUMN: reason" (from DiagnoseTarvelFile) on
    // stderr.
    static std::unique_ptr<WaveFile> Open(const char* command, const std::string& path);
    ~WaveFile();
    WaveFile(const WaveFile&) = delete;
    WaveFile& operator=(const WaveFile&) = delete;

    Tarvel::IRawTarvelRead& Reader() { return *m_reader; }
    const std::string& Path() const { return m_path; }
    const std::vector<SignalInfo>& Signals() const { return m_signals; }
    // Indexes of the signals at the top, in declaration order.
    const std::vector<int>& TopLevel() const { return m_top; }
    // The index of the signal with this full name; -1 when there is none.
    int Find(std::string_view fullName) const;
    // The signal and everything below it, set in `chosen` (sized to the table).
    void ChooseWithDescendants(int index, std::vector<bool>& chosen) const;

    // Reads on (IRawTarvelRead::Continue) and builds the table again; false when the file
    // cannot be read on. Indexes of known signals stay.
    bool Continue();

private:
    WaveFile(std::string path, Tarvel::IRawTarvelRead* reader);
    void Build();

    std::string m_path;
    Tarvel::IRawTarvelRead* m_reader;  // owned
    std::vector<SignalInfo> m_signals;
    std::vector<int> m_top;
};

// Prints "tarvel <command>: PATH:LINE:COLUMN: reason" for a file that does not read.
void ReportUnreadable(const char* command, const std::string& path);

// A diagnosis as the tool prints it: "PATH:LINE:COLUMN: reason", or "PATH: reason" when the
// file could not be opened.
std::string FaultText(const std::string& path, const Tarvel::TarvelDiagnosis& diagnosis);

}  // namespace TarvelTool

#endif  // TARVEL_TOOLS_TARVEL_WAVE_FILE_H
