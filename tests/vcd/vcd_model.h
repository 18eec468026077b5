// A plain reading of a whole VCD file into its variables and their value changes, for the tests
// of import-vcd and export-vcd. Independent of the tool's own reader on purpose: it splits the
// whole text into words and interprets them directly, so that a fault of the import's tokenizer
// cannot hide behind the same fault here. Test support; one thread.
#ifndef TARVEL_TESTS_VCD_VCD_MODEL_H
#define TARVEL_TESTS_VCD_VCD_MODEL_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace TarvelTool::Testing {

// A change, normalised so that equal meanings compare equal: bits in lower case and extended to
// the variable's width; integers of 0s and 1s as signed (time: unsigned) decimal numbers; reals
// as the significant digits of their double that the reading asks for.
struct VcdChange {
    std::int64_t time;  // in femtoseconds
    std::string value;
    bool operator==(const VcdChange& other) const { return time == other.time && value == other.value; }
};

struct VcdVariable {
    enum Category { kBits, kInteger, kReal, kString, kEvent };
    Category category = kBits;
    std::string keyword;  // the $var type
    std::uint32_t width = 0;
    // The variable's changes: the last value of each time at which it was given one, without
    // values equal to the one before (except for events, whose every firing counts).
    std::vector<VcdChange> changes;
};

struct VcdModel {
    std::int64_t unit = 0;     // the timescale in femtoseconds
    std::int64_t endTime = 0;  // the last time line, in femtoseconds
    // By key: the full name ("tb.dut.count"), and for bit variables wider than one bit or given
    // a range, the range (" [7:0]"; a vector without one gets [width-1:0]).
    std::map<std::string, VcdVariable> variables;
    std::set<std::string> scopes;  // full names of the scopes
};

// Reads the VCD file `path`, reals to `realDigits` significant digits (the waveform format keeps
// 6). Throws std::runtime_error for a file it cannot make sense of.
VcdModel ReadVcdModel(const std::string& path, int realDigits = 17);

// The first difference of `actual` from `expected`, "" when they agree: the same timescale-free
// times (femtoseconds), the same variables (but those whose keys are in `ignore`) with the same
// category, width (bit variables) and changes, and the same end time.
std::string CompareVcdModels(const VcdModel& expected, const VcdModel& actual, const std::set<std::string>& ignore = {});

}  // namespace TarvelTool::Testing

#endif  // TARVEL_TESTS_VCD_VCD_MODEL_H
