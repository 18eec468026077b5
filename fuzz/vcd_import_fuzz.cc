// libFuzzer target for the tool's VCD import: ImportVcd on arbitrary bytes. Whatever the input,
// the import must end (ok or with one message), and when its writer did not fail the waveform
// file must read; that file is exported, and the exported VCD must import again without a fault.
// Fuzz harness.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "vcd_export.h"
#include "vcd_import.h"

namespace {

TarvelTool::VcdImportResult Import(std::string_view text, const std::string& output) {
    TarvelTool::VcdInput input;
    input.OpenText(text);
    Tarvel::ITarvelWrite* writer = Tarvel::CreateStreamWriteTimed(output.c_str());
    if (!writer) __builtin_trap();
    TarvelTool::VcdImportOptions options;
    options.commitEvents = 64;  // many commits, also inside small inputs
    options.flushEvents = 16;
    options.maxVectorWidth = 4096;
    const TarvelTool::VcdImportResult result = TarvelTool::ImportVcd(input, *writer, options, [](const std::string&) {}, nullptr);
    writer->Release();
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string base = "/tmp/vcd_import_fuzz." + std::to_string(getpid());
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const TarvelTool::VcdImportResult first = Import(text, base + ".twf");
    if (first.status == TarvelTool::VcdImportResult::kWriteFailed) return 0;  // e.g. 2^31 handles
    if (first.status == TarvelTool::VcdImportResult::kBadInput && first.message.empty()) __builtin_trap();
    Tarvel::IRawTarvelRead* reader = Tarvel::CreateRawTarvelRead((base + ".twf").c_str());
    if (!reader) __builtin_trap();  // every import commits what it read
    Tarvel::DeleteRawTarvelRead(reader);
    const TarvelTool::VcdExportResult exported = TarvelTool::ExportVcd(base + ".twf", base + ".vcd", nullptr);
    if (!exported.ok) __builtin_trap();
    TarvelTool::VcdInput again;
    std::string error;
    if (!again.Open(base + ".vcd", &error)) __builtin_trap();
    Tarvel::ITarvelWrite* writer = Tarvel::CreateStreamWriteTimed((base + ".2.twf").c_str());
    if (!writer) __builtin_trap();
    const TarvelTool::VcdImportResult second = TarvelTool::ImportVcd(again, *writer, {}, [](const std::string&) {}, nullptr);
    writer->Release();
    if (second.status != TarvelTool::VcdImportResult::kOk) __builtin_trap();  // our own VCDs import
    return 0;
}
