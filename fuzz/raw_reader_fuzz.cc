// libFuzzer target for the raw reader: CreateRawTarvelRead on arbitrary bytes, then every query
// of the interface on every signal (place, type, properties, events with values and sources),
// the property walk, the types and the source table, once more after Continue(); and
// DiagnoseTarvelFile, which must agree with the reader and name a recorded reason for every
// refusal. Fuzz harness.
//
// The input goes through a scratch file of this process, since the reader opens files by name.
// A broken reader invariant (a fault counted by the dump) is a crash that libFuzzer records.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "rawreader/raw_reader_dump.h"
#include "tarvel/diagnostics.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = "/tmp/raw_reader_fuzz." + std::to_string(getpid()) + ".twf";
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) return 0;
    std::fwrite(data, 1, size, file);
    std::fclose(file);
    Tarvel::IRawTarvelRead* reader = Tarvel::CreateRawTarvelRead(path.c_str());
    Tarvel::TarvelDiagnosis diagnosis;
    const bool readable = Tarvel::DiagnoseTarvelFile(path.c_str(), &diagnosis);
    if (readable != (reader != nullptr)) __builtin_trap();
    if (!readable && (diagnosis.line < 1 || std::strcmp(diagnosis.reason, "malformed line") == 0)) __builtin_trap();
    if (!reader) return 0;
    // A run record may stand for billions of events: walk at most some thousands per store.
    int faults = 0;
    Tarvel::Testing::Dump(*reader, 4096, &faults);
    if (reader->Continue()) Tarvel::Testing::Dump(*reader, 4096, &faults);
    if (faults != 0) __builtin_trap();
    Tarvel::DeleteRawTarvelRead(reader);
    return 0;
}
