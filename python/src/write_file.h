// A waveform file being written from Python: an ITarvelWrite with the handles chosen for the
// caller, scopes and buses declared as the project's conventions say (elements and fields
// declared with their bus), values given as numbers, and the steps the C++ caller must not
// forget taken here (Resume after a commit, the end time of an untimed file, a flush before a
// signal's events are handed over as a store). Python binding layer, plain C++.
//
// Failures: every refused call throws FileError with the writer's log line as the reason (a
// refusal stops the writer: every later call throws it again); misuse that the module sees
// first throws std::invalid_argument. Threads: not locked itself; the bindings hold Mutex().
#ifndef TARVEL_PYTHON_WRITE_FILE_H
#define TARVEL_PYTHON_WRITE_FILE_H

#include <tarvel/writer.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "read_file.h"
#include "types.h"

namespace TarvelPython {

// One declaration of the writer, by handle.
struct Declaration {
    int parent = -1;                        // the parent's handle; -1 at the top
    std::string name;                       // local; an element's is its index or field name
    std::string fullName;                   // "tb.dut.data(7)"
    SignalKind kind = SignalKind::kScope;
    std::shared_ptr<TypeFacts> type;  // null for scopes and virtual buses
    std::vector<int> elements;              // a bus's elements or fields, by position
    int children = 0;                       // scopes: children declared so far
    std::int64_t lastTime = 0;              // scalars: the latest (time, delta) of a value
    std::uint32_t lastDelta = 0;
    bool pending = false;                   // scalars: values given since the last flush
};

class WriteFile {
public:
    // Creates the file (replacing one) with the time unit `resolution` in femtoseconds.
    WriteFile(std::string path, bool timed, std::int64_t resolution);
    // Closes the file when Close was not called (without a commit).
    ~WriteFile();
    WriteFile(const WriteFile&) = delete;
    WriteFile& operator=(const WriteFile&) = delete;

    std::mutex& Mutex() { return m_mutex; }
    const std::string& Path() const { return m_path; }
    bool Timed() const { return m_timed; }
    bool Closed() const { return m_writer == nullptr; }

    // Declarations; each answers the new handle. `parent` is -1 or a scope's handle.
    int DeclareScope(const std::string& name, int parent);
    // A signal of any type: a scalar, or a bus with its elements (and theirs, for nested types).
    int DeclareSignal(const std::string& name, const std::string& type, int parent, int mode);
    int DeclareVirtualBus(const std::string& name, const std::vector<int>& members, int parent);
    // The declaration of `handle`; throws std::invalid_argument for a handle not declared.
    const Declaration& At(int handle) const;
    // The number of declarations: handles are 0 to Count() - 1, in declaration order.
    std::size_t Count() const { return m_declarations.size(); }
    // The handle of a full name; -1 when none.
    int Find(const std::string& fullName) const;
    // Gives `handle` (-1: the file) a property at `time`.
    void SetProperty(int handle, const std::string& name, const std::string& value, std::int64_t time);

    void SetTime(std::int64_t time);
    void SetDelta(std::uint32_t delta);
    std::int64_t Time();
    std::uint32_t Delta();
    // A source number for StoreValue: the file and line it stands for. Timed writers only.
    int AddSource(const std::string& file, int line);
    // One value of the scalar `handle` at the current time and delta: the value's bytes as a
    // little-endian number. REQUIRES: the value fits the type (the bindings check it).
    void Store(int handle, std::uint64_t raw, int source);
    // `count` values of the scalar `handle` at the given times and deltas (deltas null: 0),
    // without moving the current time. Throws std::invalid_argument when a time goes back, or
    // starts before the current time or before the signal's last value.
    void StoreMany(int handle, const std::int64_t* times, const std::uint32_t* deltas, const std::uint64_t* raws,
                   std::size_t count);

    void Flush();
    // Flush, the end time, and the terminator: the file reads as it stands from here on.
    void Commit();
    // The last Release: flushes and closes without a commit.
    void Close();

private:
    struct Sources;
    void Check(bool ok);
    void CheckOpen();
    void Resume();
    int NewHandle(Declaration declaration);
    int DeclareComposite(const std::string& name, const Sorvat::KTypeInfo& type, int parent, int position, int mode);
    int DeclareScalar(const std::string& name, const Sorvat::KTypeInfo& type, int parent, int position, int mode);
    int PositionIn(int parent);
    std::string FullNameOf(int parent, const std::string& name) const;
    std::shared_ptr<TypeFacts> FactsOf(const Sorvat::KTypeInfo& type);
    void CatchUp();
    Declaration& Scalar(int handle);
    void CheckStamp(const Declaration& d, std::int64_t time, std::uint32_t delta) const;

    std::mutex m_mutex;
    std::string m_path;
    bool m_timed;
    std::unique_ptr<Sources> m_sources;   // the writer's source callback
    Tarvel::ITarvelWrite* m_writer;       // null once closed
    std::string m_stopped;                // the reason, once the writer has stopped
    bool m_committed = false;             // a commit since the last Resume
    std::vector<Declaration> m_declarations;  // by handle
    std::map<std::string, int> m_byName;
    std::map<std::string, std::shared_ptr<TypeFacts>> m_types;
    int m_topLevel = 0;                   // declarations at the top so far
    std::int64_t m_latestTime = 0;        // the latest (time, delta) of any value
    std::uint32_t m_latestDelta = 0;
    std::int64_t m_endTime = -1;          // untimed files: the end time written last
};

}  // namespace TarvelPython

#endif  // TARVEL_PYTHON_WRITE_FILE_H
