// The two readers behind ITarvelRead: indexing the raw reader's signals and properties, the tree
// and property queries, the event pass, reference counting and the factories.
// Reader facade layer; one thread at a time.
#include "reader/stream_reader.h"

#include <cstring>
#include <new>

#include "typeinfo/type_service.h"

namespace Tarvel {
namespace {

using SignalIterator = IRawTarvelRead::SignalIterator;

// Answered by GetEventTime when no pass is in progress.
constexpr int64 kNoTime = 0;

// The signal properties every record starts with, in this order, at time 0.
constexpr const char* kAttributes[] = {"Stimulator", "EmptyRow", "Expression"};

}  // namespace

template <HandleKind kHandles>
KStreamRead<kHandles>::KStreamRead(const char* fileName) : m_fileName(fileName ? fileName : "") {}

template <HandleKind kHandles>
KStreamRead<kHandles>::~KStreamRead() {
    // The pass first (its cursors walk the raw reader's stores), then the raw reader; the index
    // and the file name go with the members.
    EndPass();
    DeleteRawTarvelRead(m_raw);
    m_raw = nullptr;
}

template <HandleKind kHandles>
bool KStreamRead<kHandles>::Open() {
    m_raw = CreateRawTarvelRead(m_fileName.c_str());
    if (!m_raw) return false;
    Reindex();
    return true;
}

// ---- Indexing ---------------------------------------------------------------------------------

template <HandleKind kHandles>
const typename KStreamRead<kHandles>::SignalRecord* KStreamRead<kHandles>::Find(int handle) const {
    const auto found = m_records.find(handle);
    return found == m_records.end() ? nullptr : &found->second;
}

template <HandleKind kHandles>
bool KStreamRead<kHandles>::RawPlace(std::int32_t number, int* childCount, int64* endTime, char* name, int* nameSize,
                                     SignalIterator* parent, int* position) {
    if constexpr (kHandles == HandleKind::kPosition) {
        return m_raw->GetSignalPlace(m_raw->FindSignal(number), childCount, endTime, name, nameSize, parent, position);
    } else {
        return m_raw->GetSignalPlace(number, childCount, endTime, name, nameSize, parent, position);
    }
}

template <HandleKind kHandles>
std::int32_t KStreamRead<kHandles>::RawTypeId(std::int32_t number) {
    if constexpr (kHandles == HandleKind::kPosition) {
        return m_raw->GetTypeId(m_raw->FindSignal(number));
    } else {
        return m_raw->GetTypeId(number);
    }
}

// One walk over the raw reader's signals makes the records, the top-level list and the end time.
// Children are attached to their parents as they come; a child whose parent comes later in the
// walk (a signal that joined a virtual bus declared after it) is attached when the walk ends.
template <HandleKind kHandles>
void KStreamRead<kHandles>::Reindex() {
    Index index;
    Vector<Link> waiting;
    std::int32_t position = 0;
    for (SignalIterator it = m_raw->BeginSignals(), end = m_raw->EndSignals(); it != end; ++it, ++position) {
        IndexSignal(index, it, position, waiting);
    }
    for (const Link& link : waiting) Attach(index, link);
    IndexProperties(index);
    m_topLevel.swap(index.topLevel);
    m_records.swap(index.records);
    m_endTime = index.endTime;
}

template <HandleKind kHandles>
void KStreamRead<kHandles>::IndexSignal(Index& index, const SignalIterator& signal, std::int32_t position,
                                        Vector<Link>& waiting) {
    const std::int32_t number = signal.GetSignalHandle();
    const std::int32_t handle = kHandles == HandleKind::kPosition ? position : number;
    int childCount = 0, place = 0;
    SignalIterator parent;
    const bool known = kHandles == HandleKind::kPosition
                           ? m_raw->GetSignalPlace(signal, &childCount, nullptr, nullptr, nullptr, &parent, &place)
                           : m_raw->GetSignalPlace(number, &childCount, nullptr, nullptr, nullptr, &parent, &place);
    if (!known) return;  // the handle stays unused
    SignalRecord record;
    record.number = number;
    record.children.assign(static_cast<std::size_t>(childCount > 0 ? childCount : 0), 0);
    for (const char* name : kAttributes) {
        const char* value = kHandles == HandleKind::kPosition ? m_raw->GetProperty(signal, name) : m_raw->GetProperty(number, name);
        if (value) record.properties.push_back(PropertyRecord{0, String(name), String(value)});
    }
    index.records.emplace(handle, std::move(record));
    const KEventsStore* store = kHandles == HandleKind::kPosition ? m_raw->GetSignalData(signal) : m_raw->GetSignalData(number);
    if (store && store->EndTime() > index.endTime) index.endTime = store->EndTime();
    if (parent == SignalIterator()) {
        index.topLevel.push_back(handle);
        return;
    }
    const Link link{handle, kHandles == HandleKind::kPosition ? parent.GetSignalNr() : parent.GetSignalHandle(), place};
    if (!Attach(index, link)) waiting.push_back(link);
}

// A child whose position is not below its parent's child count stays unreachable.
template <HandleKind kHandles>
bool KStreamRead<kHandles>::Attach(Index& index, const Link& link) {
    const auto parent = index.records.find(link.parent);
    if (parent == index.records.end()) return false;
    Vector<std::int32_t>& children = parent->second.children;
    if (link.position >= 0 && static_cast<std::size_t>(link.position) < children.size()) {
        children[static_cast<std::size_t>(link.position)] = link.child;
    }
    return true;
}

// Property lines name signals by their raw numbers; a property of a signal without record (or of
// the file itself) is dropped.
template <HandleKind kHandles>
void KStreamRead<kHandles>::IndexProperties(Index& index) {
    for (IRawTarvelRead::PropertyIterator p = m_raw->BeginProperties(), end = m_raw->EndProperties(); p != end; ++p) {
        const std::int32_t handle = kHandles == HandleKind::kPosition ? m_raw->FindSignal(p->signalNr).GetSignalNr() : p->signalNr;
        const auto record = index.records.find(handle);
        if (record == index.records.end()) continue;
        record->second.properties.push_back(
            PropertyRecord{p->time, String(p->name ? p->name : ""), String(p->value ? p->value : "")});
    }
}

// ---- Reference counting -----------------------------------------------------------------------

template <HandleKind kHandles>
bool KStreamRead<kHandles>::AddRef() {
    ++m_references;
    return true;
}

template <HandleKind kHandles>
bool KStreamRead<kHandles>::Release() {
    if (--m_references == 0) {
        KStreamRead* self = this;
        DestroyObject(self);
    }
    return true;
}

// ---- The tree and properties ------------------------------------------------------------------

template <HandleKind kHandles>
int64 KStreamRead<kHandles>::GetResolution() {
    return m_raw->GetResolution();
}

template <HandleKind kHandles>
int KStreamRead<kHandles>::GetTopLevelCount() {
    return static_cast<int>(m_topLevel.size());
}

template <HandleKind kHandles>
int KStreamRead<kHandles>::GetChild(int handle, int index) {
    const SignalRecord* record = Find(handle);
    if (!record) return -1;
    if constexpr (kHandles == HandleKind::kPosition) {
        if (index < 0 || static_cast<std::size_t>(index) >= record->children.size()) return -1;
    }
    return record->children[static_cast<std::size_t>(index)];
}

template <HandleKind kHandles>
int KStreamRead<kHandles>::GetTopLevel(int index) {
    if constexpr (kHandles == HandleKind::kPosition) {
        if (index < 0 || static_cast<std::size_t>(index) >= m_topLevel.size()) return -1;
    }
    return m_topLevel[static_cast<std::size_t>(index)];
}

template <HandleKind kHandles>
bool KStreamRead<kHandles>::GetSignalInfo(int handle, bool* hasSubElements, int* count, int64* endTime, char* name,
                                          int* nameSize) {
    int children = 0;
    try {
        if constexpr (kHandles == HandleKind::kPosition) {
            // The raw reader describes the place (name, declaration time); the count is the type's.
            const SignalRecord* record = Find(handle);
            SignalIterator parent;
            int position = 0;
            if (record && RawPlace(record->number, &children, endTime, name, nameSize, &parent, &position)) {
                const TypeHandle type(m_raw->GetTypeInfo(RawTypeId(record->number)));
                const bool composite = type.Kind() == kTypeArray || type.Kind() == kTypeRecord;
                children = composite ? static_cast<int>(type.ChildCount()) : 0;
            } else {
                children = 0;
            }
        } else {
            // The count is the raw reader's, but never above the children this reader indexed:
            // GetChild does not check its index, and a Continue that failed half-way may have
            // attached more children in the raw reader than the index holds.
            if (!RawPlace(handle, &children, endTime, name, nameSize, nullptr, nullptr)) children = 0;
            const SignalRecord* record = Find(handle);
            const int indexed = record ? static_cast<int>(record->children.size()) : 0;
            if (children > indexed) children = indexed;
        }
    } catch (const std::bad_alloc&) {
        children = 0;
    }
    if (count) *count = children;
    if (hasSubElements) *hasSubElements = children != 0;
    return children != 0;
}

template <HandleKind kHandles>
const char* KStreamRead<kHandles>::GetPropertyValue(int handle, const char* name) {
    const SignalRecord* record = Find(handle);
    if (!record || !name) return "";
    for (const PropertyRecord& p : record->properties) {
        if (p.time == 0 && std::strcmp(p.name.c_str(), name) == 0) return p.value.c_str();
    }
    return "";
}

template <HandleKind kHandles>
const char* KStreamRead<kHandles>::GetTypeInfoString(int handle) {
    try {
        if constexpr (kHandles == HandleKind::kPosition) {
            const SignalRecord* record = Find(handle);
            return record ? m_raw->GetTypeInfo(RawTypeId(record->number)) : nullptr;
        } else {
            return m_raw->GetTypeInfo(RawTypeId(handle));
        }
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

template <HandleKind kHandles>
int KStreamRead<kHandles>::GetPropertyCount(int handle) {
    const SignalRecord* record = Find(handle);
    return record ? static_cast<int>(record->properties.size()) : 0;
}

template <HandleKind kHandles>
bool KStreamRead<kHandles>::GetProperty(int handle, int index, int64* time, const char** name, const char** value) {
    const SignalRecord* record = Find(handle);
    if (!record) return false;
    const PropertyRecord& p = record->properties[static_cast<std::size_t>(index)];
    if (time) *time = p.time;
    if (name) *name = p.name.c_str();
    if (value) *value = p.value.c_str();
    return true;
}

template <HandleKind kHandles>
const char* KStreamRead<kHandles>::GetFileName() {
    return m_fileName.c_str();
}

// ---- The event pass ---------------------------------------------------------------------------

// Every signal whose store holds events takes part, in iteration order: that order is the entry
// order, which decides among equal stamps at the start of the pass.
template <HandleKind kHandles>
int KStreamRead<kHandles>::StartPass() {
    Vector<KEventMerge::Source> sources;
    std::int32_t position = 0;
    for (SignalIterator it = m_raw->BeginSignals(), end = m_raw->EndSignals(); it != end; ++it, ++position) {
        const std::int32_t number = it.GetSignalHandle();
        const KEventsStore* store = kHandles == HandleKind::kPosition ? m_raw->GetSignalData(it) : m_raw->GetSignalData(number);
        if (store && !store->empty()) sources.push_back({kHandles == HandleKind::kPosition ? position : number, store});
    }
    m_merge = NewObject<KEventMerge>(sources);
    if (!m_merge->Start()) {
        EndPass();
        return -1;
    }
    return m_merge->CurrentHandle();
}

template <HandleKind kHandles>
void KStreamRead<kHandles>::EndPass() noexcept {
    DestroyObject(m_merge);
    m_merge = nullptr;
}

template <HandleKind kHandles>
int KStreamRead<kHandles>::NextEvent() {
    if (!m_merge) {
        try {
            return StartPass();
        } catch (const std::bad_alloc&) {
            EndPass();
            return -1;
        }
    }
    if (m_merge->Next()) return m_merge->CurrentHandle();
    EndPass();
    return -1;
}

template <HandleKind kHandles>
bool KStreamRead<kHandles>::RestartEvents(int) {
    EndPass();
    return true;
}

template <HandleKind kHandles>
const int64* KStreamRead<kHandles>::GetEventTime() {
    return m_merge ? &m_merge->CurrentStamp().time : &kNoTime;
}

template <HandleKind kHandles>
int KStreamRead<kHandles>::GetEventDelta() {
    return m_merge ? m_merge->CurrentStamp().delta : 0;
}

template <HandleKind kHandles>
bool KStreamRead<kHandles>::GetEventValue(void* buffer) {
    if (!m_merge) return false;
    m_merge->CurrentValue(static_cast<unsigned char*>(buffer));
    return true;
}

// The stores change under a pass's cursors while the raw reader reads on, so the pass ends first.
// The index is built again as a reader opened now would build it: the file may have added
// signals, moved old ones under new virtual buses and given them new properties.
template <HandleKind kHandles>
bool KStreamRead<kHandles>::Continue() {
    EndPass();
    if (!m_raw->Continue()) return false;
    try {
        Reindex();
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

template class KStreamRead<HandleKind::kPosition>;
template class KStreamRead<HandleKind::kNumber>;

// ---- Factories --------------------------------------------------------------------------------

namespace {

// Makes and opens a reader; a reader that cannot open its file (or runs out of memory on the
// way) is released, which frees whatever it had built.
template <HandleKind kHandles>
ITarvelRead* Create(const char* fileName) {
    KStreamRead<kHandles>* reader = nullptr;
    try {
        reader = NewObject<KStreamRead<kHandles>>(fileName);
        if (reader->Open()) return reader;
    } catch (const std::bad_alloc&) {
    }
    if (reader) reader->Release();
    return nullptr;
}

}  // namespace

ITarvelRead* CreateStreamRead2(const char* fileName) { return Create<HandleKind::kPosition>(fileName); }

ITarvelRead* CreateStreamRead(const char* fileName) { return Create<HandleKind::kNumber>(fileName); }

}  // namespace Tarvel
