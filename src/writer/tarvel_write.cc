// The writer object: factories, declarations, time, values, flushing and commits.
// Writer layer; one thread at a time (see the public header).
#include "writer/tarvel_write.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <new>

#include "format/value_text.h"
#include "store/event_append.h"
#include "foundation/little_endian.h"
#include "writer/block_writers.h"
#include "format/vocabulary.h"

namespace Tarvel {
namespace {

String LowerCase(const char* text) {
    String lower(text ? text : "");
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

// Runs `body`, turning exhausted memory into the writer's "Out of memory" failure.
template <class Fn>
bool Guarded(KTarvelWrite& writer, Fn&& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return writer.ReportError("Out of memory");
    }
}

ITarvelWrite* Create(const char* fileName, bool timed, const ISourceCallback* callback) {
    KTarvelWrite* writer = nullptr;
    try {
        writer = NewObject<KTarvelWrite>(fileName, timed, callback);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    if (!writer->Open()) {
        DestroyObject(writer);
        return nullptr;
    }
    return writer;
}

}  // namespace

HandleTable::~HandleTable() { Clear(); }

void HandleTable::Clear() noexcept {
    for (HandleEntry* page : m_pages) {
        if (!page) continue;
        for (int i = 0; i < kPageSize; ++i) page[i].~HandleEntry();
        Free(page);
    }
    Vector<HandleEntry*>().swap(m_pages);
}

HandleEntry& HandleTable::Make(int handle) {
    const std::size_t page = static_cast<std::size_t>(handle) >> kPageBits;
    if (page >= m_pages.size()) m_pages.resize(page + 1, nullptr);
    if (!m_pages[page]) {
        HandleEntry* entries = static_cast<HandleEntry*>(Allocate(sizeof(HandleEntry) * kPageSize));
        for (int i = 0; i < kPageSize; ++i) new (&entries[i]) HandleEntry();
        m_pages[page] = entries;
    }
    HandleEntry& entry = m_pages[page][handle & (kPageSize - 1)];
    entry.present = true;
    return entry;
}

KTarvelWrite::KTarvelWrite(const char* fileName, bool timed, const ISourceCallback* callback)
    : m_fileName(fileName ? fileName : ""),
      m_logName(m_fileName + ".log"),
      m_timed(timed),
      m_stream(*this),
      m_lines(m_stream, *this, timed),
      m_types(*this),
      m_callback(callback) {}

KTarvelWrite::~KTarvelWrite() = default;

bool KTarvelWrite::Open() {
    if (!m_stream.Open(m_fileName.c_str())) return false;
    return m_lines.WriteHeader() && m_stream.IsOpen();
}

// ---- Failures ---------------------------------------------------------------------------------

bool KTarvelWrite::Report(const char* format, std::va_list args) {
    if (m_failed) return false;
    m_failed = true;
    m_stream.Close();
    if (format && *format) {
        if (std::FILE* log = std::fopen(m_logName.c_str(), "w")) {
            std::vfprintf(log, format, args);
            std::fclose(log);
        }
    }
    return false;
}

bool KTarvelWrite::ReportError(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    Report(format, args);
    va_end(args);
    return false;
}

bool KTarvelWrite::Error(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    Report(format, args);
    va_end(args);
    return false;
}

bool KTarvelWrite::WriteTypeLine(std::int32_t typeIndex, const char* typeInfo) {
    return m_lines.WriteTypeLine(typeIndex, typeInfo);
}

// ---- Life cycle -------------------------------------------------------------------------------

bool KTarvelWrite::AddRef() {
    ++m_references;
    return true;
}

bool KTarvelWrite::Release() {
    if (m_references > 1) {
        --m_references;
        return true;
    }
    m_references = 0;
    // The last release flushes and closes; it does not commit. A file that was never committed
    // therefore has no terminator (readers refuse it), and what was written after the last
    // commit stays behind that commit's mark: readers see the file as it was committed.
    const bool flushed = Flush();
    const bool closed = m_stream.Close();
    if (flushed && closed) {
        KTarvelWrite* self = this;
        DestroyObject(self);
        return true;
    }
    // The writer could not finish its file and stays (a later Release tries again); what it
    // holds beyond the object itself is given back now.
    GiveBackMemory();
    return false;
}

void KTarvelWrite::GiveBackMemory() noexcept {
    m_stage.FreeBuffers();
    m_handles.Clear();
    Vector<std::int32_t>().swap(m_changed);
    Map<std::int32_t, BusInfo>().swap(m_buses);
    Vector<std::pair<std::int32_t, std::int32_t>>().swap(m_pendingElements);
    Vector<std::pair<std::int32_t, int64>>().swap(m_pendingEnds);
    Vector<PendingProperty>().swap(m_pendingProperties);
    Map<String, std::size_t>().swap(m_pendingPropertyIndex);
    HashMap<int, int>().swap(m_sourceNumbers);
    Map<String, int>().swap(m_fileNumbers);
    m_pendingBus = -1;
    m_dirty = false;
}

bool KTarvelWrite::Begin() { return true; }

const char* KTarvelWrite::GetFileName() { return m_fileName.c_str(); }

// ---- Declarations -----------------------------------------------------------------------------

bool KTarvelWrite::SetTypeInfo(int handle, const char* typeInfo) {
    if (m_failed) return false;
    return Guarded(*this, [&] {
        if (handle < 0) return ReportError("Internal error in StoreSignal(%d)", handle);
        std::int32_t index = 0;
        if (!m_types.Register(typeInfo, &index)) return false;
        HandleEntry& entry = m_handles.Make(handle);
        if (entry.typeIndex != 0 && entry.typeIndex != index) {
            return ReportError("Two different typeinfos specified for signal %d", handle);
        }
        entry.typeIndex = index;
        return true;
    });
}

bool KTarvelWrite::StoreSignal(int handle, int mode, int parentBus, int position, const char* name, const int64& time) {
    if (m_failed) return false;
    return Guarded(*this, [&] {
        if (handle < 0) return ReportError("Internal error in StoreSignal(%d)", handle);
        if (parentBus >= 0 && m_buses.count(parentBus)) return DeclareElement(handle, parentBus, position, time);
        if (!WritePendingElements()) return false;
        HandleEntry& entry = m_handles.Make(handle);
        DeclarationFields fields;
        fields.mode = mode;
        fields.handle = handle;
        fields.typeIndex = entry.typeIndex;
        fields.name = name ? name : "";
        fields.trailing[0] = parentBus;
        fields.trailing[1] = position;
        fields.time = time;
        fields.shortForm = parentBus < 0 && (m_timed || time == m_lines.LastDeclarationTime());
        return m_lines.WriteSignalDeclaration(fields);
    });
}

bool KTarvelWrite::StoreBus(int handle, int mode, int width, int parentBus, int position, const char* name,
                            const int64& time) {
    if (m_failed) return false;
    return Guarded(*this, [&] {
        if (handle < 0) return ReportError("Internal error in StoreBus(%d)", handle);
        if (!WritePendingElements()) return false;
        HandleEntry& entry = m_handles.Make(handle);
        if (width <= 0) {
            const TypeHandle* type = m_types.Find(entry.typeIndex);
            width = type ? static_cast<int>(std::min<std::int64_t>(type->ChildCount(), 0x7FFFFFFF)) : 0;
        }
        BusInfo& bus = m_buses[handle];
        bus.width = width;
        bus.time = time;
        bus.taken.assign(static_cast<std::size_t>(width), 0);
        bus.children = 0;
        if (mode == Format::kModeVirtualBus) m_lastVirtualBus = handle;
        DeclarationFields fields;
        fields.mode = mode;
        fields.handle = handle;
        fields.typeIndex = entry.typeIndex;
        fields.hasExtra = true;
        fields.extra = width;
        fields.name = name ? name : "";
        fields.trailing[0] = parentBus;
        fields.trailing[1] = position;
        fields.time = time;
        fields.shortForm = parentBus < 0 && (m_timed || time == m_lines.LastDeclarationTime());
        return m_lines.WriteBusDeclaration(fields);
    });
}

// Makes `handle` element `position` of the declared bus `parentBus`: no line of its own, but an
// "S" line, a place in the bus's element list and, when declared at another time, an "$ENDSC".
bool KTarvelWrite::DeclareElement(int handle, int parentBus, int position, const int64& time) {
    BusInfo& bus = m_buses[parentBus];
    if (position < 0 || position >= bus.width) return ReportError("Scalar out of range: %d for signal %d", position, handle);
    if (bus.taken[static_cast<std::size_t>(position)]) return ReportError("Scalar %d redefined for handle %d", position, handle);
    if (m_pendingBus != parentBus && !WritePendingElements()) return false;
    m_handles.Make(handle);
    m_pendingElements.emplace_back(handle, position);
    if (time != bus.time) m_pendingEnds.emplace_back(handle, time);
    bus.taken[static_cast<std::size_t>(position)] = 1;
    m_pendingBus = parentBus;
    return true;
}

bool KTarvelWrite::WritePendingElements() {
    if (m_pendingBus < 0) return true;
    for (const auto& element : m_pendingElements) {
        if (!m_lines.WriteScalarElement(element.first, element.second)) return false;
    }
    Vector<std::int32_t> handles;
    handles.reserve(m_pendingElements.size());
    for (const auto& element : m_pendingElements) handles.push_back(element.first);
    if (!m_lines.WriteElementList(m_pendingBus, handles.data(), handles.size())) return false;
    for (const auto& end : m_pendingEnds) {
        if (!m_lines.WriteElementEnd(end.first, end.second)) return false;
    }
    m_lines.ForgetLastBus();
    m_pendingElements.clear();
    m_pendingEnds.clear();
    m_pendingBus = -1;
    return true;
}

bool KTarvelWrite::FlushDeclarations() {
    if (m_failed) return false;
    return Guarded(*this, [&] { return WritePendingElements(); });
}

bool KTarvelWrite::StoreProperty(const int64& time, int handle, const char* name, const char* value) {
    if (m_failed) return false;
    return Guarded(*this, [&] {
        const char* n = name ? name : "";
        const char* v = value ? value : "";
        if (std::strcmp(n, "VBus") == 0 && std::strcmp(v, "1") == 0) return AttachToVirtualBus(handle);
        if (time == 0) return AddPendingProperty(handle, n, v);
        if (!WritePendingElements()) return false;
        const std::int32_t handles[1] = {handle};
        return m_lines.WriteProperty(time, handles, 1, n, v);
    });
}

bool KTarvelWrite::StoreProperty(int handle, const char* name, const char* value) {
    return StoreProperty(m_time, handle, name, value);
}

bool KTarvelWrite::AttachToVirtualBus(int handle) {
    auto bus = m_buses.find(m_lastVirtualBus);
    if (bus == m_buses.end() || handle < 0) return ReportError("Internal error in StoreProperty(%d)", handle);
    if (!WritePendingElements()) return false;
    return m_lines.WriteChild(m_lastVirtualBus, handle, bus->second.children++);
}

bool KTarvelWrite::AddPendingProperty(int handle, const char* name, const char* value) {
    String key(name);
    key.push_back('\0');
    key.append(value);
    auto found = m_pendingPropertyIndex.find(key);
    if (found == m_pendingPropertyIndex.end()) {
        m_pendingProperties.push_back(PendingProperty{String(name), String(value), {}});
        try {
            found = m_pendingPropertyIndex.emplace(key, m_pendingProperties.size() - 1).first;
        } catch (...) {
            m_pendingProperties.pop_back();
            throw;
        }
    }
    m_pendingProperties[found->second].handles.push_back(handle);
    return true;
}

bool KTarvelWrite::WritePendingProperties() {
    for (PendingProperty& property : m_pendingProperties) {
        Vector<std::int32_t>& handles = property.handles;
        std::sort(handles.begin(), handles.end());
        handles.erase(std::unique(handles.begin(), handles.end()), handles.end());
        if (!m_lines.WriteProperty(0, handles.data(), handles.size(), property.name, property.value)) return false;
    }
    m_pendingProperties.clear();
    m_pendingPropertyIndex.clear();
    return true;
}

bool KTarvelWrite::SetResolution(const int64& resolution) {
    if (m_failed) return false;
    return Guarded(*this, [&] { return resolution > 0 && m_lines.WriteResolution(resolution); });
}

// ---- Sources ----------------------------------------------------------------------------------

bool KTarvelWrite::NumberSource(int source, int* number) {
    *number = 0;
    if (source == 0 || !m_callback) return true;
    const auto known = m_sourceNumbers.find(source);
    if (known != m_sourceNumbers.end()) {
        *number = known->second;
        return true;
    }
    const char* fileName = nullptr;
    int line = 0;
    if (!m_callback->GetSourceLocation(source, &fileName, &line)) return true;
    const String key = LowerCase(fileName);
    auto file = m_fileNumbers.find(key);
    if (file == m_fileNumbers.end()) {
        const int fileNumber = static_cast<int>(m_fileNumbers.size()) + 1;
        file = m_fileNumbers.emplace(key, fileNumber).first;
        if (!m_lines.WriteSourceFile(fileNumber, fileName ? fileName : "")) return false;
    }
    const int sourceNumber = static_cast<int>(m_sourceNumbers.size()) + 1;
    m_sourceNumbers.emplace(source, sourceNumber);
    *number = sourceNumber;
    return m_lines.WriteSourceLine(sourceNumber, file->second, line);
}

bool KTarvelWrite::StoreSource(int source) {
    if (m_failed) return false;
    if (source == 0) return true;  // no source: nothing to enter
    return Guarded(*this, [&] {
        int number = 0;
        if (!NumberSource(source, &number)) return false;
        return number != 0 || ReportError("StoreSource called for unknown source %d", source);
    });
}

// ---- Time and values --------------------------------------------------------------------------

bool KTarvelWrite::MoveTime(const int64& offset) {
    if (m_failed) return false;
    if (offset < 0) return ReportError("Negative offset in MoveTime");
    if (offset > 0) {
        m_time += offset;
        m_delta = 0;
    }
    return true;
}

bool KTarvelWrite::SetTime(const int64& time) {
    if (m_failed) return false;
    if (time < m_time) return ReportError("SetTime tries to move back in time");
    if (time > m_time) {
        m_time = time;
        m_delta = 0;
    }
    return true;
}

const int64& KTarvelWrite::GetTime() { return m_time; }

bool KTarvelWrite::SetDelta(unsigned delta) {
    if (m_failed) return false;
    if (delta < m_delta) return ReportError("SetDelta tries to move back in time");
    m_delta = delta;
    return true;
}

unsigned KTarvelWrite::GetDelta() { return m_delta; }

int KTarvelWrite::GetValueSize(int handle) {
    if (m_failed) return -1;
    const HandleEntry* entry = m_handles.Find(handle);
    if (!entry) {
        ReportError("GetValueSize called for unknown handle %d", handle);
        return -1;
    }
    const TypeHandle* type = m_types.Find(entry->typeIndex);
    return type ? static_cast<int>(type->ValueSize()) : 0;
}

bool KTarvelWrite::StoreValue(int handle, const unsigned char* data) { return StoreValueWithSource(handle, data, 0); }

namespace {

// The value as a number: exactly `bytes` bytes of the caller's, read little-endian (as the
// stores read values).
std::uint64_t LoadValue(const unsigned char* data, unsigned bytes) {
    switch (bytes) {
        case 0: return 0;
        case 4: return LittleEndian::Load<std::uint32_t>(data);
        case 8: return LittleEndian::Load<std::uint64_t>(data);
        default: return LittleEndian::LoadPart(data, bytes);
    }
}

}  // namespace

bool KTarvelWrite::StoreValueWithSource(int handle, const unsigned char* data, int source) {
    if (m_failed) return false;
    HandleEntry* entry = m_handles.Find(handle);
    // The common case: a staged handle, a value without source, room in the log.
    if (entry && entry->staged && source == 0 && m_stage.HasRoom()) {
        m_stage.Add(entry->stageSlot, m_time, m_delta, LoadValue(data, entry->valueBytes));
        return true;
    }
    return Guarded(*this, [&] { return StoreValueChecked(handle, data, source); });
}

bool KTarvelWrite::StoreValueChecked(int handle, const unsigned char* data, int source) {
    HandleEntry* entry = m_handles.Find(handle);
    if (!entry) return ReportError("StoreValueWithSource called for unknown handle %d", handle);
    if (!entry->sized) {
        const TypeHandle* type = m_types.Find(entry->typeIndex);
        const int typeBytes = type && type->IsScalar() ? static_cast<int>(type->ValueSize()) : 0;
        if (!entry->changed) {
            MarkChanged(*entry, handle);
            // Each handle's store is its own, so it changes in place and its values can be staged.
            MakePrivate(StoreAccess::BodySlot(entry->store));
            entry->store.SetSize(typeBytes);
            entry->changed = true;
            StartStaging(*entry);
        }
        // The bytes read from the caller: the store's value size, but never more than the
        // type's (a store attached with SetEventsStore may keep wider values).
        const int storeBytes = entry->store.GetSize();
        entry->valueBytes = static_cast<std::uint8_t>(storeBytes < typeBytes ? storeBytes : typeBytes);
        entry->sized = true;
    }
    int number = 0;
    if (!NumberSource(source, &number)) return false;
    m_dirty = true;
    if (entry->staged) {
        if (!m_stage.HasRoom()) DrainStage();
        if (number != 0) {
            m_stage.AddWithSource(entry->stageSlot, m_time, m_delta, LoadValue(data, entry->valueBytes), number);
            entry->stagedSource = true;
        } else {
            m_stage.Add(entry->stageSlot, m_time, m_delta, LoadValue(data, entry->valueBytes));
        }
        return true;
    }
    unsigned char value[8];
    LittleEndian::Store<std::uint64_t>(value, LoadValue(data, entry->valueBytes));
    entry->store.push_back(m_time, static_cast<int>(m_delta), value, number);
    // Once the store is the handle's alone (after a store attached by SetEventsStore was
    // copied), the next values are staged.
    StartStaging(*entry);
    return true;
}

void KTarvelWrite::StartStaging(HandleEntry& entry) {
    if (!m_stage.Enabled() || !StoreAccess::Body(entry.store)->OwnedAlone()) return;
    if (!m_stage.Allocated()) m_stage.Allocate();
    entry.staged = true;
}

void KTarvelWrite::MarkChanged(HandleEntry& entry, std::int32_t handle) {
    m_changed.push_back(handle);
    try {
        entry.stageSlot = m_stage.NewSlot();
    } catch (...) {
        m_changed.pop_back();
        throw;
    }
}

void KTarvelWrite::DrainStage() {
    if (m_stage.empty()) return;
    m_stage.SortBySlot();
    try {
        for (std::uint32_t slot = 0; slot < m_changed.size(); ++slot) {
            const std::uint32_t start = m_stage.RangeStart(slot);
            const std::uint32_t end = m_stage.RangeEnd(slot);
            if (end == start) continue;
            AppendEvents(m_handles.At(m_changed[slot]).store, end - start, EventStage::Range(m_stage, start));
        }
    } catch (...) {
        // Out of memory: the writer fails; the log is left empty.
        m_stage.Clear();
        throw;
    }
    m_stage.Clear();
}

bool KTarvelWrite::SetEventsStore(int handle, const KEventsStore& store) {
    if (m_failed) return false;
    return Guarded(*this, [&] {
        HandleEntry* entry = m_handles.Find(handle);
        if (!entry) return ReportError("SetEventsStore called for unknown handle %d", handle);
        if (entry->sized) return ReportError("SetEventsStore(%d) called after StoreValue", handle);
        const TypeHandle* type = m_types.Find(entry->typeIndex);
        if (!type) return ReportError("");
        if (!type->IsScalar()) return ReportError("SetEventsStore(%d) called for non-scalar", handle);
        if (!entry->changed) MarkChanged(*entry, handle);
        entry->store = store;
        entry->changed = true;
        m_dirty = true;
        return true;
    });
}

bool KTarvelWrite::SetDefaultEndTime(const int64& time) {
    if (m_failed) return false;
    if (m_timed) return ReportError("SetDefaultEndTime used for timed tarvel");
    return Guarded(*this, [&] { return m_lines.WriteEndTime(time); });
}

// ---- Flushing and commits ---------------------------------------------------------------------

bool KTarvelWrite::Flush() {
    if (m_failed) return false;
    return Guarded(*this, [&] { return FlushAll(); });
}

bool KTarvelWrite::FlushThunk(void* owner) { return static_cast<KTarvelWrite*>(owner)->FlushAll(); }

bool KTarvelWrite::FlushAll() {
    if (!WritePendingElements() || !WritePendingProperties()) return false;
    if (m_dirty && !WriteChangedStores()) return false;
    return m_stream.Flush();
}

// One changed handle at a flush. Handles whose events since the last flush are equal and whose
// types are equal form one group and are written as one block that lists them all; `group` is
// the member whose events the block takes. Groups are written by type index, then in the order
// in which their stores' bodies were made (a serial number), which keeps the order of the blocks
// the same from run to run.
struct FlushMember {
    std::int32_t typeIndex;
    std::int32_t serial;
    const void* body;
    std::uint32_t order;   // place in the list of changed handles
    std::int32_t handle;
    std::uint32_t first;   // the handle's range of the sorted staging log
    std::uint32_t count;
    bool logged;           // written straight from that range (else from its store)
    std::uint32_t events;  // events of the interval: the range's, or the store's
    std::uint64_t fingerprint = 0;
    std::uint32_t group = 0;  // index (in the member list) of the group's representative
    bool operator<(const FlushMember& other) const {
        if (typeIndex != other.typeIndex) return typeIndex < other.typeIndex;
        if (serial != other.serial) return serial < other.serial;
        if (body != other.body) return std::less<const void*>()(body, other.body);
        return order < other.order;
    }
};

namespace {

// A member's events as (time, delta, value bits, source), from its log range or its store.
class EventWalk {
public:
    EventWalk(const EventStage& stage, const FlushMember& member, const KEventsStore& store)
        : m_range(stage, member.first), m_logged(member.logged), m_count(member.events), m_store(store) {
        m_more = m_logged ? m_count > 0 : store.GetFirstEvent(&m_data);
    }
    bool More() const { return m_more; }
    // The current event folded into four words, then a step to the next.
    void Take(std::uint64_t words[4]) {
        if (m_logged) {
            words[0] = static_cast<std::uint64_t>(m_range.Time(m_index));
            words[1] = m_range.Delta(m_index) & 0xFFFF;
            words[2] = m_range.Bits(m_index);
            words[3] = static_cast<std::uint32_t>(m_range.Source(m_index));
            m_more = ++m_index < m_count;
            return;
        }
        unsigned char value[8] = {};
        m_data.GetValue(value, static_cast<unsigned>(m_store.GetSize()));
        words[0] = static_cast<std::uint64_t>(m_data.GetTime());
        words[1] = m_data.GetDelta() & 0xFFFF;
        words[2] = LittleEndian::Load<std::uint64_t>(value);
        words[3] = static_cast<std::uint32_t>(m_data.GetSource());
        m_more = m_store.GetNextEvent(&m_data);
    }

private:
    EventStage::Range m_range;
    bool m_logged;
    std::uint32_t m_count;
    std::uint32_t m_index = 0;
    const KEventsStore& m_store;
    KEventData m_data;
    bool m_more = false;
};

inline std::uint64_t MixWord(std::uint64_t hash, std::uint64_t word) {
    hash = (hash ^ word) * 0x9E3779B97F4A7C15ull;
    return hash ^ (hash >> 29);
}

// A hash of `count` words in four independent lanes, so that the multiplications overlap.
std::uint64_t HashWords(const std::uint64_t* words, std::size_t count) {
    std::uint64_t lane[4] = {1, 2, 3, 4};
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) {
        for (int k = 0; k < 4; ++k) lane[k] = MixWord(lane[k], words[i + static_cast<std::size_t>(k)]);
    }
    for (; i < count; ++i) lane[0] = MixWord(lane[0], words[i]);
    return MixWord(MixWord(lane[0], lane[1]), MixWord(lane[2], lane[3]));
}

}  // namespace

// The events of a logged member as the log keeps them: narrow entries and, when the log has
// them, wide ones. Within one filling of the log a time point's index names its (time, delta)
// alone, so equal entries are equal events.
std::uint64_t KTarvelWrite::LoggedFingerprint(const FlushMember& member) const {
    const std::uint64_t narrow = HashWords(reinterpret_cast<const std::uint64_t*>(m_stage.NarrowAt(member.first)), member.count);
    if (!m_stage.HasWide()) return narrow;
    return MixWord(narrow, HashWords(reinterpret_cast<const std::uint64_t*>(m_stage.WideAt(member.first)), member.count));
}

std::uint64_t KTarvelWrite::EventFingerprint(const FlushMember& member) const {
    EventWalk walk(m_stage, member, m_handles.At(member.handle).store);
    std::uint64_t hash = 5;
    std::uint64_t words[4];
    while (walk.More()) {
        walk.Take(words);
        hash = MixWord(hash, HashWords(words, 4));
    }
    return hash;
}

bool KTarvelWrite::SameEvents(const FlushMember& a, const FlushMember& b) const {
    if (a.body == b.body && !a.logged && !b.logged) return true;
    if (a.logged && b.logged) {
        const std::size_t n = a.count;
        if (std::memcmp(m_stage.NarrowAt(a.first), m_stage.NarrowAt(b.first), n * sizeof(EventStage::Narrow)) != 0) return false;
        return !m_stage.HasWide() || std::memcmp(m_stage.WideAt(a.first), m_stage.WideAt(b.first), n * sizeof(EventStage::Wide)) == 0;
    }
    EventWalk left(m_stage, a, m_handles.At(a.handle).store);
    EventWalk right(m_stage, b, m_handles.At(b.handle).store);
    std::uint64_t x[4], y[4];
    while (left.More() && right.More()) {
        left.Take(x);
        right.Take(y);
        if (std::memcmp(x, y, sizeof x) != 0) return false;
    }
    return left.More() == right.More();
}

// Gives every member its group: members of one type and one number of events are candidates,
// told apart by a fingerprint of their events and then compared in full.
void KTarvelWrite::GroupEqualEvents(Vector<FlushMember>& members) const {
    Vector<std::uint32_t> byCount(members.size());
    for (std::uint32_t i = 0; i < members.size(); ++i) {
        byCount[i] = i;
        members[i].group = i;
    }
    auto countKey = [&](std::uint32_t i) { return std::make_pair(members[i].typeIndex, members[i].events); };
    std::sort(byCount.begin(), byCount.end(), [&](std::uint32_t a, std::uint32_t b) {
        return countKey(a) != countKey(b) ? countKey(a) < countKey(b) : members[a] < members[b];
    });
    for (std::size_t first = 0; first < byCount.size();) {
        std::size_t last = first + 1;
        while (last < byCount.size() && countKey(byCount[last]) == countKey(byCount[first])) ++last;
        if (last - first > 1) {
            // Logged members alone compare their log entries; a store among them makes every
            // member walk its events.
            bool allLogged = true;
            for (std::size_t i = first; i < last; ++i) allLogged = allLogged && members[byCount[i]].logged;
            for (std::size_t i = first; i < last; ++i) {
                FlushMember& member = members[byCount[i]];
                member.fingerprint = allLogged ? LoggedFingerprint(member) : EventFingerprint(member);
            }
            std::stable_sort(byCount.begin() + static_cast<std::ptrdiff_t>(first), byCount.begin() + static_cast<std::ptrdiff_t>(last),
                             [&](std::uint32_t a, std::uint32_t b) { return members[a].fingerprint < members[b].fingerprint; });
            for (std::size_t i = first; i < last; ++i) {
                FlushMember& member = members[byCount[i]];
                // Representatives met so far with the same fingerprint, first one first.
                for (std::size_t j = i; j-- > first && members[byCount[j]].fingerprint == member.fingerprint;) {
                    const std::uint32_t rep = byCount[j];
                    if (members[rep].group == rep && SameEvents(members[rep], member)) member.group = rep;
                }
            }
        }
        first = last;
    }
}

bool KTarvelWrite::WriteChangedStores() {
    // The staging log sorted by handle: each handle's events form one range of it.
    if (!m_stage.empty()) m_stage.SortBySlot();
    Vector<FlushMember> members;
    try {
        if (!CloseChangedStores(members)) return false;
        m_dirty = false;
        std::sort(members.begin(), members.end());
        GroupEqualEvents(members);
        if (!WriteGroups(members)) {
            m_stage.Clear();
            return ReportError("");
        }
    } catch (...) {
        m_stage.Clear();
        throw;
    }
    for (const FlushMember& member : members) {
        if (!member.logged) m_handles.At(member.handle).store.clear();
    }
    m_changed.clear();
    m_stage.Clear();
    m_stage.ClearSlots();
    return true;
}

// Closes the store of each changed handle (those written from the log need none) and lists the
// handles with their ranges of the log.
bool KTarvelWrite::CloseChangedStores(Vector<FlushMember>& members) {
    members.reserve(m_changed.size());
    for (std::uint32_t slot = 0; slot < m_changed.size(); ++slot) {
        const std::int32_t handle = m_changed[slot];
        HandleEntry* entry = &m_handles.At(handle);
        const std::uint32_t start = m_stage.RangeStart(slot);
        FlushMember member{entry->typeIndex, 0, nullptr, slot, handle, start, m_stage.RangeEnd(slot) - start, false, 0};
        // A handle whose events all wait in the log, none with a source, is written straight
        // from it; the others get their logged events first and are written from the store.
        member.logged = member.count > 0 && entry->store.count() == 0 && !entry->stagedSource;
        if (!member.logged) {
            if (member.count > 0) AppendEvents(entry->store, member.count, EventStage::Range(m_stage, member.first));
            entry->store.push_end(m_time, static_cast<int>(m_delta));
        }
        entry->changed = false;
        entry->sized = false;
        entry->staged = false;
        entry->stagedSource = false;
        if (!m_types.Find(entry->typeIndex)) {
            m_stage.Clear();
            return ReportError("Unknown typeindex %d for handle %d", entry->typeIndex, handle);
        }
        member.events = member.logged ? member.count : entry->store.count();
        member.serial = entry->store.GetNr();
        member.body = StoreAccess::Body(entry->store);
        members.push_back(member);
    }
    return true;
}

// One block per group, in member order, listing the group's handles in ascending order.
bool KTarvelWrite::WriteGroups(const Vector<FlushMember>& members) {
    Vector<Vector<std::int32_t>> handlesOf(members.size());
    Vector<std::uint32_t> loggedOf(members.size(), UINT32_MAX);  // a logged member of the group
    for (std::uint32_t i = 0; i < members.size(); ++i) {
        const FlushMember& member = members[i];
        handlesOf[member.group].push_back(member.handle);
        if (member.logged && loggedOf[member.group] == UINT32_MAX) loggedOf[member.group] = i;
    }
    for (std::uint32_t i = 0; i < members.size(); ++i) {
        if (members[i].group != i) continue;
        Vector<std::int32_t>& handles = handlesOf[i];
        std::sort(handles.begin(), handles.end());
        bool written;
        if (loggedOf[i] != UINT32_MAX) {
            const FlushMember& logged = members[loggedOf[i]];
            written = WriteLoggedBlock(logged.typeIndex, m_handles.At(logged.handle), handles,
                                       EventStage::Range(m_stage, logged.first), logged.count);
        } else {
            written = WriteBlock(members[i].typeIndex, m_handles.At(members[i].handle).store, handles);
        }
        if (!written) return false;
    }
    return true;
}

bool KTarvelWrite::WriteLoggedBlock(std::int32_t typeIndex, const HandleEntry& entry, const Vector<std::int32_t>& handles,
                                    const EventStage::Range& range, std::size_t count) {
    const TypeHandle& type = *m_types.Find(typeIndex);
    if (!Format::HasValueText(type)) return true;
    if (!m_lines.WriteWavesLine(handles.data(), handles.size())) return false;
    if (!EmitLoggedSteps(m_lines, range, count) || !m_lines.WriteValuesLine()) return false;
    const KEventsStoreBody& body = *StoreAccess::Body(entry.store);
    if (body.valueKind != ValueKind::kNone) {
        KValueWriter values(m_lines, m_types, typeIndex, entry.store.GetSize(), static_cast<int>(type.ValueSize()));
        bool ok = false;
        switch (body.valueKind) {
            case ValueKind::kSize1: ok = EmitLoggedValues<KValueStore<4, 1>>(values, range, count); break;
            case ValueKind::kSize4: ok = EmitLoggedValues<KValueStore<4, 4>>(values, range, count); break;
            case ValueKind::kSize8: ok = EmitLoggedValues<KValueStore<8, 8>>(values, range, count); break;
            case ValueKind::kNone: break;
        }
        if (!ok) return false;
    }
    return m_lines.WriteEndLine();
}

bool KTarvelWrite::WriteBlock(std::int32_t typeIndex, const KEventsStore& store, const Vector<std::int32_t>& handles) {
    const TypeHandle& type = *m_types.Find(typeIndex);
    if (!Format::HasValueText(type)) return true;
    if (!m_lines.WriteWavesLine(handles.data(), handles.size())) return false;
    KTimeDeltaWriter steps(m_lines);
    if (!store.WriteTimeDelta(&steps) || !m_lines.WriteValuesLine()) return false;
    if (store.GetSize() > 0) {
        KValueWriter values(m_lines, m_types, typeIndex, store.GetSize(), static_cast<int>(type.ValueSize()));
        if (!store.WriteValue(&values)) return false;
    }
    if (store.Sources()) {
        KSourceWriter sources(m_lines);
        if (!m_lines.WriteSourcesLine() || !store.WriteSource(&sources)) return false;
    }
    return m_lines.WriteEndLine();
}

bool KTarvelWrite::Commit() {
    if (m_failed) return false;
    return Guarded(*this, [&] { return m_lines.Commit(m_time, FlushCallback{&KTarvelWrite::FlushThunk, this}); });
}

bool KTarvelWrite::Resume() {
    if (m_failed) return false;
    return m_stream.Resume();
}

// ---- Factories --------------------------------------------------------------------------------

ITarvelWrite* CreateStreamWrite(const char* fileName) { return Create(fileName, false, nullptr); }

ITarvelWrite* CreateStreamWriteTimed(const char* fileName) { return Create(fileName, true, nullptr); }

ITarvelWrite* CreateStreamWriteTimed(const char* fileName, const ISourceCallback* callback) {
    return Create(fileName, true, callback);
}

}  // namespace Tarvel
