// export-vcd: writes a waveform file as a VCD text that GTKWave and other viewers open: the
// timescale from the resolution, scopes from the hierarchy, vectors rebuilt from the elements of
// their buses, enumerations as strings, integers and reals with their VCD types, and one value
// per variable and time (the last delta cycle's). docs/vcd.md states the mapping and every loss.
// The events are taken from the raw reader's stores window by window of time rather than from
// the reader facade's merged pass, which costs several times more per event. Tool layer; uses
// the library's public interface only; one thread.
#ifndef TARVEL_TOOLS_TARVEL_VCD_EXPORT_H
#define TARVEL_TOOLS_TARVEL_VCD_EXPORT_H

#include <cstdint>
#include <functional>
#include <string>

#include "progress.h"

namespace TarvelTool {

struct VcdExportResult {
    bool ok = false;
    std::string message;            // when not ok: the one-line reason
    std::uint64_t variables = 0;    // $var lines written
    std::uint64_t aliases = 0;      // of which share the identifier code of another (equal events)
    std::uint64_t changes = 0;      // value lines written
    std::int64_t endTime = 0;       // the last time written, in the timescale's unit
    std::string timescale;          // "1 ps"
};

struct VcdExportOptions {
    // Events taken from the stores per window of time (see vcd_export.cc); any size gives the
    // same output.
    std::size_t windowEvents = std::size_t{1} << 20;
};

// Writes the waveform file `input` as the VCD `output` ("-": standard output). `progress` (may be
// null) is told how far the events are, in bytes of the input.
VcdExportResult ExportVcd(const std::string& input, const std::string& output, Progress* progress,
                          const VcdExportOptions& options = {});

}  // namespace TarvelTool

#endif  // TARVEL_TOOLS_TARVEL_VCD_EXPORT_H
