// The writer behind tarvel.Writer. Python binding layer.
#include "write_file.h"

#include <fstream>
#include <stdexcept>

namespace TarvelPython {
namespace {

std::string LogReason(const std::string& path) {
    std::ifstream log(path + ".log");
    std::string line;
    if (!std::getline(log, line) || line.empty()) return "the writer failed (no reason in " + path + ".log)";
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
    return line;
}

void PutRaw(std::uint64_t raw, unsigned char bytes[8]) {
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(raw >> (8 * i));
}

bool Before(std::int64_t time, std::uint32_t delta, std::int64_t otherTime, std::uint32_t otherDelta) {
    return time != otherTime ? time < otherTime : delta < otherDelta;
}

}  // namespace

// The writer's source callback: source n (from 1) is the n-th AddSource.
struct WriteFile::Sources final : public Tarvel::ISourceCallback {
    std::vector<std::pair<std::string, int>> table;

    bool GetSourceLocation(int source, const char** fileName, int* line) const override {
        if (source < 1 || static_cast<std::size_t>(source) > table.size()) return false;
        *fileName = table[static_cast<std::size_t>(source) - 1].first.c_str();
        *line = table[static_cast<std::size_t>(source) - 1].second;
        return true;
    }
};

WriteFile::WriteFile(std::string path, bool timed, std::int64_t resolution)
    : m_path(std::move(path)), m_timed(timed), m_sources(std::make_unique<Sources>()) {
    if (resolution <= 0) throw std::invalid_argument("the resolution must be above 0 (femtoseconds per time unit)");
    m_writer = timed ? Tarvel::CreateStreamWriteTimed(m_path.c_str(), m_sources.get()) : Tarvel::CreateStreamWrite(m_path.c_str());
    if (!m_writer) throw FileError(m_path, LogReason(m_path), 0, 0);
    m_writer->SetResolution(resolution);  // a new writer takes any resolution above 0
}

WriteFile::~WriteFile() {
    try {
        Close();
    } catch (...) {  // the reason is in the log; nothing to tell from a destructor
    }
}

void WriteFile::Check(bool ok) {
    if (ok) return;
    m_stopped = LogReason(m_path);
    throw FileError(m_path, m_stopped, 0, 0);
}

void WriteFile::CheckOpen() {
    if (!m_writer) throw std::invalid_argument("the writer of " + m_path + " is closed");
    if (!m_stopped.empty()) throw FileError(m_path, "the writer has stopped: " + m_stopped, 0, 0);
}

// Step 7 of a writer's life, before anything goes into the file after a commit.
void WriteFile::Resume() {
    if (!m_committed) return;
    if (!m_writer->Resume()) throw FileError(m_path, "cannot write on after the commit (the file cannot be repositioned)", 0, 0);
    m_committed = false;
}

const Declaration& WriteFile::At(int handle) const {
    if (handle < 0 || static_cast<std::size_t>(handle) >= m_declarations.size()) {
        throw std::invalid_argument("no declaration " + std::to_string(handle) + " in the writer of " + m_path);
    }
    return m_declarations[static_cast<std::size_t>(handle)];
}

int WriteFile::Find(const std::string& fullName) const {
    const auto found = m_byName.find(fullName);
    return found == m_byName.end() ? -1 : found->second;
}

int WriteFile::NewHandle(Declaration declaration) {
    const int handle = static_cast<int>(m_declarations.size());
    m_byName.emplace(declaration.fullName, handle);
    m_declarations.push_back(std::move(declaration));
    return handle;
}

// The position of a new child of `parent` (a scope, or -1 for the top).
int WriteFile::PositionIn(int parent) {
    if (parent < 0) return m_topLevel++;
    const Declaration& d = At(parent);
    if (d.kind != SignalKind::kScope) {
        throw std::invalid_argument(d.fullName + " is no scope: signals are declared in scopes (a bus declares its elements itself)");
    }
    return m_declarations[static_cast<std::size_t>(parent)].children++;
}

std::string WriteFile::FullNameOf(int parent, const std::string& name) const {
    if (parent < 0) return name;
    const std::string& up = At(parent).fullName;
    return !name.empty() && name[0] == '(' ? up + name : up + "." + name;
}

std::shared_ptr<TypeFacts> WriteFile::FactsOf(const Sorvat::KTypeInfo& type) {
    auto found = m_types.find(type.GetTypeInfoString());
    if (found == m_types.end()) found = m_types.emplace(type.GetTypeInfoString(), std::make_shared<TypeFacts>(type)).first;
    return found->second;
}

int WriteFile::DeclareScope(const std::string& name, int parent) {
    CheckOpen();
    Resume();
    const int position = PositionIn(parent);
    Declaration d;
    d.parent = parent;
    d.name = name;
    d.fullName = FullNameOf(parent, name);
    const int handle = NewHandle(std::move(d));
    Check(m_writer->StoreSignal(handle, Tarvel::kPortNone, parent, parent < 0 ? 0 : position, name.c_str(), 0));
    return handle;
}

int WriteFile::DeclareSignal(const std::string& name, const std::string& type, int parent, int mode) {
    CheckOpen();
    Resume();
    if (!Sorvat::KTypeInfo::CheckTypeInfo(type.c_str())) throw std::invalid_argument("'" + type + "' is no type string");
    if (mode < Tarvel::kPortNone || mode > Tarvel::kPortVariable) throw std::invalid_argument("no port mode " + std::to_string(mode));
    const Sorvat::KTypeInfo info(type.c_str());
    const int position = PositionIn(parent);
    const int kind = info.GetKind();
    if (kind == Sorvat::kKindArray || kind == Sorvat::kKindRecord) return DeclareComposite(name, info, parent, position, mode);
    return DeclareScalar(name, info, parent, position, mode);
}

// A scalar (or a type without values), at the top, in a scope or as an element of a bus.
int WriteFile::DeclareScalar(const std::string& name, const Sorvat::KTypeInfo& type, int parent, int position, int mode) {
    Declaration d;
    d.parent = parent;
    d.name = name;
    d.fullName = FullNameOf(parent, name);
    d.type = FactsOf(type);
    d.kind = d.type->Kind() == ValueKind::kNone ? SignalKind::kOpaque : SignalKind::kScalar;
    const int handle = NewHandle(std::move(d));
    Check(m_writer->SetTypeInfo(handle, type.GetTypeInfoString()));
    Check(m_writer->StoreSignal(handle, mode, parent, parent < 0 ? 0 : position, name.c_str(), 0));
    return handle;
}

// A bus, then each of its elements or fields (a bus again when composite) at its position.
int WriteFile::DeclareComposite(const std::string& name, const Sorvat::KTypeInfo& type, int parent, int position, int mode) {
    Declaration d;
    d.parent = parent;
    d.name = name;
    d.fullName = FullNameOf(parent, name);
    d.type = FactsOf(type);
    d.kind = SignalKind::kBus;
    const int bus = NewHandle(std::move(d));
    Check(m_writer->SetTypeInfo(bus, type.GetTypeInfoString()));
    Check(m_writer->StoreBus(bus, mode, 0, parent, parent < 0 ? 0 : position, name.c_str(), 0));
    const std::int64_t count = type.GetNbOfChildren();
    for (std::int64_t child = 0; child < count; ++child) {
        char childName[256];
        if (!type.GetChildName(child, childName, sizeof childName)) childName[0] = '\0';
        const Sorvat::KTypeInfo childType = type.GetChildType(child);
        const int kind = childType.GetKind();
        const int element = kind == Sorvat::kKindArray || kind == Sorvat::kKindRecord
                                ? DeclareComposite(childName, childType, bus, static_cast<int>(child), mode)
                                : DeclareScalar(childName, childType, bus, static_cast<int>(child), mode);
        m_declarations[static_cast<std::size_t>(bus)].elements.push_back(element);
    }
    return bus;
}

int WriteFile::DeclareVirtualBus(const std::string& name, const std::vector<int>& members, int parent) {
    CheckOpen();
    Resume();
    for (int member : members) {
        if (At(member).kind == SignalKind::kScope) throw std::invalid_argument(At(member).fullName + " is a scope, no signal");
    }
    const int position = PositionIn(parent);
    Declaration d;
    d.parent = parent;
    d.name = name;
    d.fullName = FullNameOf(parent, name);
    d.kind = SignalKind::kVirtualBus;
    d.elements = members;
    const int bus = NewHandle(std::move(d));
    Check(m_writer->StoreBus(bus, Tarvel::kPortVirtualBus, static_cast<int>(members.size()), parent, parent < 0 ? 0 : position,
                             name.c_str(), 0));
    for (int member : members) Check(m_writer->StoreProperty(0, member, "VBus", "1"));
    return bus;
}

void WriteFile::SetProperty(int handle, const std::string& name, const std::string& value, std::int64_t time) {
    CheckOpen();
    if (handle != -1) At(handle);
    if (name == "VBus") throw std::invalid_argument("\"VBus\" is no property: declare a virtual bus instead");
    Resume();
    Check(m_writer->StoreProperty(time, handle, name.c_str(), value.c_str()));
}

void WriteFile::SetTime(std::int64_t time) {
    CheckOpen();
    Resume();
    Check(m_writer->SetTime(time));
}

void WriteFile::SetDelta(std::uint32_t delta) {
    CheckOpen();
    Resume();
    Check(m_writer->SetDelta(delta));
}

std::int64_t WriteFile::Time() {
    CheckOpen();
    return m_writer->GetTime();
}

std::uint32_t WriteFile::Delta() {
    CheckOpen();
    return m_writer->GetDelta();
}

int WriteFile::AddSource(const std::string& file, int line) {
    CheckOpen();
    if (!m_timed) throw std::invalid_argument("sources need a timed writer (timed=True)");
    m_sources->table.emplace_back(file, line);
    return static_cast<int>(m_sources->table.size());
}

void WriteFile::CheckStamp(const Declaration& d, std::int64_t time, std::uint32_t delta) const {
    if (!Before(time, delta, d.lastTime, d.lastDelta)) return;
    throw std::invalid_argument("a value of " + d.fullName + " at " + std::to_string(time) + "+" + std::to_string(delta) +
                                " comes before its last one, at " + std::to_string(d.lastTime) + "+" + std::to_string(d.lastDelta));
}

Declaration& WriteFile::Scalar(int handle) {
    if (At(handle).kind != SignalKind::kScalar) throw std::invalid_argument(At(handle).fullName + " takes no values of its own");
    return m_declarations[static_cast<std::size_t>(handle)];
}

void WriteFile::Store(int handle, std::uint64_t raw, int source) {
    CheckOpen();
    Resume();
    Declaration& d = Scalar(handle);
    const std::int64_t time = m_writer->GetTime();
    const std::uint32_t delta = m_writer->GetDelta();
    CheckStamp(d, time, delta);
    unsigned char bytes[8];
    PutRaw(raw, bytes);
    Check(source == 0 ? m_writer->StoreValue(handle, bytes) : m_writer->StoreValueWithSource(handle, bytes, source));
    d.lastTime = time;
    d.lastDelta = delta;
    d.pending = true;
}

void WriteFile::StoreMany(int handle, const std::int64_t* times, const std::uint32_t* deltas, const std::uint64_t* raws,
                          std::size_t count) {
    CheckOpen();
    Resume();
    Declaration& d = Scalar(handle);
    if (count == 0) return;
    const auto deltaAt = [deltas](std::size_t i) { return deltas ? deltas[i] & 0xFFFFu : 0u; };
    if (Before(times[0], deltaAt(0), m_writer->GetTime(), m_writer->GetDelta())) {
        throw std::invalid_argument("store_many: the first time lies before the writer's current time");
    }
    CheckStamp(d, times[0], deltaAt(0));
    for (std::size_t i = 1; i < count; ++i) {
        if (Before(times[i], deltaAt(i), times[i - 1], deltaAt(i - 1))) {
            throw std::invalid_argument("store_many: the times (and deltas) go back at index " + std::to_string(i));
        }
    }
    if (d.pending) Flush();  // the writer takes a store only for a signal without values since the last flush
    Tarvel::KEventsStore store;
    store.SetSize(static_cast<int>(d.type->Type().GetSimpleSize_OldFormat()));
    for (std::size_t i = 0; i < count; ++i) {
        unsigned char bytes[8];
        PutRaw(raws[i], bytes);
        store.push_back(times[i], static_cast<int>(deltaAt(i)), bytes);
    }
    Check(m_writer->SetEventsStore(handle, store));
    d.lastTime = times[count - 1];
    d.lastDelta = deltaAt(count - 1);
    d.pending = true;
    if (Before(m_latestTime, m_latestDelta, d.lastTime, d.lastDelta)) {
        m_latestTime = d.lastTime;
        m_latestDelta = d.lastDelta;
    }
}

// Moves the current time up to the latest value stored by StoreMany, so that every store ends
// where the writer stands when it flushes.
void WriteFile::CatchUp() {
    if (!Before(m_writer->GetTime(), m_writer->GetDelta(), m_latestTime, m_latestDelta)) return;
    Check(m_writer->SetTime(m_latestTime));
    if (m_latestDelta > m_writer->GetDelta()) Check(m_writer->SetDelta(m_latestDelta));
}

void WriteFile::Flush() {
    CheckOpen();
    Resume();
    CatchUp();
    Check(m_writer->Flush());
    for (Declaration& d : m_declarations) d.pending = false;
}

void WriteFile::Commit() {
    CheckOpen();
    Resume();
    CatchUp();
    const std::int64_t now = m_writer->GetTime();
    if (!m_timed && now > m_endTime) {  // what a timed writer records at every commit itself
        Check(m_writer->SetDefaultEndTime(now));
        m_endTime = now;
    }
    Check(m_writer->Commit());
    m_committed = true;
    for (Declaration& d : m_declarations) d.pending = false;
}

void WriteFile::Close() {
    if (!m_writer) return;
    const bool stoppedBefore = !m_stopped.empty();
    if (!stoppedBefore && !m_committed) {
        try {
            CatchUp();
        } catch (const FileError&) {  // the writer stopped: Release answers false below
        }
    }
    Tarvel::ITarvelWrite* writer = m_writer;
    m_writer = nullptr;
    if (writer->Release()) return;
    // A writer whose last Release fails is not destroyed (it must not be deleted); nor is the
    // callback it may still hold.
    static_cast<void>(m_sources.release());
    if (stoppedBefore) return;  // told when it stopped
    if (m_stopped.empty()) m_stopped = LogReason(m_path);
    throw FileError(m_path, m_stopped, 0, 0);
}

}  // namespace TarvelPython
