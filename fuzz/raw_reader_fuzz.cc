// libFuzzer target for the raw readers: CreateRawTarvelRead on arbitrary bytes, then every query
// of the interface on every signal (place, type, properties, events with values and sources),
// the property walk, the types and the source table, once more after Continue(); and
// DiagnoseTarvelFile, which must agree with the reader and name a recorded reason for every
// refusal; then the listing of CreateRawTarvelPreRead, and CreateFilteredRawTarvelRead with a
// selection taken from the listing (every other listed handle, by one of its names; one handle
// with no name), queried the same way. Fuzz harness.
//
// The input goes through a scratch file of this process, since the readers open files by name.
// A broken reader invariant (a fault counted by the dump), an incomplete listed record, or a
// filtered reader refusing a file of the current layout that the full reader reads, is a crash
// that libFuzzer records.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "rawreader/raw_reader_dump.h"
#include "tarvel/diagnostics.h"

namespace {

// True when the bytes start with a header of the current layout (which the full reader then
// accepts only alone on its line).
bool CurrentLayout(std::string_view bytes) {
    const std::size_t end = bytes.find_first_of(" \t\r\n\v\f");
    const std::string_view word = bytes.substr(0, end);
    return word == "$WAVE4" || word == "$WAVE4TIMED";
}

// Dumps the reader (and again after Continue) and deletes it; returns the faults found.
int DumpAndDelete(Tarvel::IRawTarvelRead* reader) {
    // A run record may stand for billions of events: walk at most some thousands per store.
    int faults = 0;
    Tarvel::Testing::Dump(*reader, 4096, &faults);
    if (reader->Continue()) Tarvel::Testing::Dump(*reader, 4096, &faults);
    Tarvel::DeleteRawTarvelRead(reader);
    return faults;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = "/tmp/raw_reader_fuzz." + std::to_string(getpid()) + ".twf";
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) return 0;
    std::fwrite(data, 1, size, file);
    std::fclose(file);
    Tarvel::IRawTarvelRead* reader = Tarvel::CreateRawTarvelRead(path.c_str());
    const bool fullReads = reader != nullptr;
    Tarvel::TarvelDiagnosis diagnosis;
    const bool readable = Tarvel::DiagnoseTarvelFile(path.c_str(), &diagnosis);
    if (readable != fullReads) __builtin_trap();
    if (!readable && (diagnosis.line < 1 || std::strcmp(diagnosis.reason, "malformed line") == 0)) __builtin_trap();
    if (reader && DumpAndDelete(reader) != 0) __builtin_trap();

    std::unordered_map<int, std::vector<Tarvel::SIGINFO*>*> listing;
    Tarvel::CreateRawTarvelPreRead(path.c_str(), &listing);
    std::map<int, std::vector<char*>*> selection;
    std::vector<std::vector<char*>> names(listing.size() + 1);
    std::size_t at = 0;
    for (const auto& [handle, records] : listing) {
        if (!records || records->empty()) __builtin_trap();
        for (const Tarvel::SIGINFO* info : *records) {
            if (!info || info->flag != 1 || !info->name) __builtin_trap();
        }
        if (at % 2 == 0) names[at].push_back((*records)[at % records->size()]->name);
        if (at % 2 == 0 || at == 1) selection[handle] = &names[at];
        ++at;
    }
    Tarvel::IRawTarvelRead* filtered = Tarvel::CreateFilteredRawTarvelRead(path.c_str(), &selection);
    Tarvel::DeleteRawTarvelPreRead(&listing);
    if (!filtered && fullReads && CurrentLayout(std::string_view(reinterpret_cast<const char*>(data), size))) __builtin_trap();
    if (filtered && DumpAndDelete(filtered) != 0) __builtin_trap();
    return 0;
}
