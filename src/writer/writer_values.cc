// The writer's values: value sizes, storing values through the staging log or the stores,
// handing the log to the stores, and attached stores. Writer layer; one thread at a time.
#include "foundation/little_endian.h"
#include "store/event_append.h"
#include "writer/tarvel_write.h"

namespace Tarvel {

int KTarvelWrite::GetValueSize(int handle) {
    int size = -1;
    Guard([&] {
        const HandleEntry* entry = m_handles.Find(handle);
        if (!entry) return Error("GetValueSize called for unknown handle %d", handle);
        const TypeHandle* type = m_types.Find(entry->typeIndex);
        size = type ? static_cast<int>(type->ValueSize()) : 0;
        return true;
    });
    return size;
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
    HandleEntry* entry = m_handles.Find(handle);
    // The common case: a staged handle, a value without source, room in the log. A writer that
    // has failed has no room in its log, so it takes the guarded path.
    if (entry && entry->staged && source == 0 && m_stage.HasRoom()) {
        m_stage.Add(entry->stageSlot, m_time, m_delta, LoadValue(data, entry->valueBytes));
        return true;
    }
    return Guard([&] { return StoreValueChecked(handle, data, source); });
}

bool KTarvelWrite::StoreValueChecked(int handle, const unsigned char* data, int source) {
    HandleEntry* entry = m_handles.Find(handle);
    if (!entry) return Error("StoreValueWithSource called for unknown handle %d", handle);
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
    return Guard([&] {
        HandleEntry* entry = m_handles.Find(handle);
        if (!entry) return Error("SetEventsStore called for unknown handle %d", handle);
        if (entry->sized) return Error("SetEventsStore(%d) called after StoreValue", handle);
        const TypeHandle* type = m_types.Find(entry->typeIndex);
        if (!type) return Error("");
        if (!type->IsScalar()) return Error("SetEventsStore(%d) called for non-scalar", handle);
        if (!entry->changed) MarkChanged(*entry, handle);
        entry->store = store;
        entry->changed = true;
        m_dirty = true;
        return true;
    });
}

}  // namespace Tarvel
