// A waveform file opened for Python: a raw reader of the whole file or of the named signals
// (with the listing that finds their handles), and the table of its signals with their place in
// the design, full names, kinds, port modes, types and properties. Python binding layer, built on
// the public interface (IRawTarvelRead, CreateFilteredRawTarvelRead, CreateRawTarvelPreRead).
//
// Threads: one thread at a time; the bindings hold a mutex around every use (with the GIL
// released for long ones), so that Python threads can share a file and a long read lets others
// run.
#ifndef TARVEL_PYTHON_READ_FILE_H
#define TARVEL_PYTHON_READ_FILE_H

#include <tarvel/raw_reader.h>

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "signal_kind.h"
#include "types.h"

namespace TarvelPython {

// A file that does not read, with the place and reason DiagnoseTarvelFile gives.
class FileError : public std::runtime_error {
public:
    FileError(std::string path, std::string reason, long long line, long long column);
    const std::string& Path() const { return m_path; }
    const std::string& Reason() const { return m_reason; }
    long long Line() const { return m_line; }
    long long Column() const { return m_column; }

private:
    std::string m_path, m_reason;
    long long m_line, m_column;  // from 1; 0 when the file could not be opened
};

using Tarvel::Client::KindName;
using Tarvel::Client::SignalKind;

// One signal of the file, in the reader's declaration order.
struct SignalRecord {
    int handle = 0;                          // its number in the file
    int parent = -1;                         // index of its parent in the table; -1 at the top
    int position = 0;                        // among its parent's children
    std::string name;                        // local: "clk", "(7)", "addr"
    std::string fullName;                    // "tb.dut.data(7)"
    SignalKind kind = SignalKind::kScope;
    int mode = 0;                            // port mode; an element shows its bus's
    std::shared_ptr<TypeFacts> type;   // null without type
    std::vector<int> children;               // indexes, by position
    std::map<std::string, std::string> properties;
};

class ReadFile {
public:
    // Reads the whole file (`names` null) or only the signals whose full name is in `names`
    // or below one of them (with the scopes above them); a name that the file does not declare
    // (an element, a field) brings the nearest declaration above it. Throws FileError when the
    // file does not read, std::bad_alloc when memory runs out.
    static std::unique_ptr<ReadFile> Open(const std::string& path, const std::vector<std::string>* names);
    ~ReadFile();
    ReadFile(const ReadFile&) = delete;
    ReadFile& operator=(const ReadFile&) = delete;

    Tarvel::IRawTarvelRead& Reader() { return *m_reader; }
    const std::string& Path() const { return m_path; }
    bool Filtered() const { return m_filtered; }
    // The names given to Open that name no declaration of the file and none above a declaration
    // (elements and fields of a bus, which the bus brought, or no signal at all).
    const std::vector<std::string>& UnmatchedNames() const { return m_unmatched; }
    const std::vector<SignalRecord>& Signals() const { return m_signals; }
    const std::map<std::string, std::string>& FileProperties() const { return m_fileProperties; }
    // The events store of the signal at `index`; null for an unknown index.
    const Tarvel::KEventsStore* Store(int index);
    // Counts the Update calls: stores and cursors of an earlier generation are gone.
    unsigned Generation() const { return m_generation; }

    // Reads on from the last commit (IRawTarvelRead::Continue) and builds the table again;
    // indexes of known signals stay. Throws FileError when the file cannot be read on.
    void Update();

private:
    ReadFile(std::string path, Tarvel::IRawTarvelRead* reader, bool filtered);
    void Build();
    bool HoldsSignalsNamed(const std::vector<std::string>& names) const;
    void ReadProperties();

    std::string m_path;
    Tarvel::IRawTarvelRead* m_reader;  // owned
    bool m_filtered;
    std::vector<std::string> m_unmatched;
    std::vector<SignalRecord> m_signals;
    std::map<std::string, std::string> m_fileProperties;
    std::map<std::string, std::shared_ptr<TypeFacts>> m_types;  // by type string, parsed once
    unsigned m_generation = 0;
};

// Every declaration of `path` as (handle, full name), by handle (a handle declared twice in
// file order), without reading events
// (CreateRawTarvelPreRead). A file that does not read lists what comes before its fault; one of
// an older layout lists nothing.
std::vector<std::pair<int, std::string>> ListDeclarations(const std::string& path);

// Throws the FileError of a file that does not read: where and why (DiagnoseTarvelFile).
[[noreturn]] void ThrowUnreadable(const std::string& path);

}  // namespace TarvelPython

#endif  // TARVEL_PYTHON_READ_FILE_H
