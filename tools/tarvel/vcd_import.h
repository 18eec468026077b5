// import-vcd: reads a VCD text (IEEE 1364, with the nine std_logic characters of VHDL
// simulators) and writes its scopes, variables and value changes with a tarvel writer, streaming:
// memory grows with the variables and one flush interval's events, never with the input.
// docs/vcd.md states the mapping and every loss. Tool layer; uses the library's public interface
// only. Called from one thread; the values reach the writer through a second one.
#ifndef TARVEL_TOOLS_TARVEL_VCD_IMPORT_H
#define TARVEL_TOOLS_TARVEL_VCD_IMPORT_H

#include <tarvel/tarvel.h>

#include <cstdint>
#include <functional>
#include <string>

#include "progress.h"
#include "vcd_input.h"

namespace TarvelTool {

struct VcdImportOptions {
    // The name of the input in messages ("in.vcd", "<stdin>").
    std::string inputName = "<input>";
    // The writer is flushed at the first time change after this many events since the last
    // flush (its staging log holds 2^20 events; beyond them it works harder), and committed (then resumed) at the first time change after this many events since
    // the last commit, so that a reader can follow the import.
    std::uint64_t flushEvents = (std::uint64_t{1} << 20) - (std::uint64_t{1} << 17);
    std::uint64_t commitEvents = std::uint64_t{1} << 22;
    // Vectors wider than this are reported and not imported (every bit is a signal of the file).
    std::uint32_t maxVectorWidth = std::uint32_t{1} << 24;
};

struct VcdImportResult {
    enum Status {
        kOk,
        kBadInput,    // the input is no VCD, or malformed at `message`'s line
        kWriteFailed  // the writer stopped; its reason is in the output's log file
    };
    Status status = kOk;
    std::string message;          // kBadInput: "in.vcd:12: time goes back from 40 to 30"
    std::uint64_t scopes = 0;     // scopes declared
    std::uint64_t variables = 0;  // variables imported (aliases count once per scope they are in)
    std::uint64_t skipped = 0;    // variables reported and not imported
    std::uint64_t events = 0;     // values stored
    std::uint64_t commits = 0;    // commits, the last one included
    std::int64_t endTime = 0;     // the last time of the input, in its time unit
    std::int64_t resolution = 1000;  // the time unit in femtoseconds
};

// Reports what cannot be imported, one line at a time ("in.vcd:7: tb.name: string variable ...").
using VcdWarn = std::function<void(const std::string&)>;

// Imports `input` into `writer`, which must be fresh (nothing declared). Declares every scope and
// variable, stores every value change, commits after the declarations, every
// options.commitEvents events and at the end. On kBadInput the writer holds, committed,
// everything before the fault. `progress` (may be null) is told the input bytes consumed.
// Does not release the writer.
VcdImportResult ImportVcd(VcdInput& input, Tarvel::ITarvelWrite& writer, const VcdImportOptions& options,
                          const VcdWarn& warn, Progress* progress);

}  // namespace TarvelTool

#endif  // TARVEL_TOOLS_TARVEL_VCD_IMPORT_H
