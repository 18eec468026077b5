// Which signals dump and follow show: all of them, or those the command line names by full name
// (a name chooses the signal and everything below it: a scope, a bus with its elements). Tool
// layer; one thread.
//
// This is the one place that changes when the filtered raw reader comes: OpenFor will then open
// the file with a reader that reads the named signals only, instead of reading every signal and
// choosing afterwards.
#ifndef TARVEL_TOOLS_TARVEL_SELECTION_H
#define TARVEL_TOOLS_TARVEL_SELECTION_H

#include <memory>
#include <string>
#include <vector>

#include "wave_file.h"

namespace TarvelTool {

// Opens `path` for the signals `names` (every signal when empty), without a word on failure.
std::unique_ptr<WaveFile> OpenFor(const std::string& path, const std::vector<std::string>& names);

// Opens `path` for the signals `names` (every signal when empty) and sets *chosen (one flag per
// signal of the table). Null when the file does not read (kExitBadFile, the error printed) or a
// name names no signal (kExitBadUsage, "tarvel <command>: no signal NAME in PATH" printed);
// *exitCode says which.
std::unique_ptr<WaveFile> OpenChosen(const char* command, const std::string& path, const std::vector<std::string>& names,
                                     std::vector<bool>* chosen, int* exitCode);

// Chooses again in the same file (after it read on: new signals below a named one join). False,
// with the first unknown name in *unknown, when a name names no signal.
bool Choose(const WaveFile& file, const std::vector<std::string>& names, std::vector<bool>* chosen, std::string* unknown);

}  // namespace TarvelTool

#endif  // TARVEL_TOOLS_TARVEL_SELECTION_H
