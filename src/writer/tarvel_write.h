// KTarvelWrite: the writer object behind ITarvelWrite. It keeps the handle table (type index,
// events store and changed flag per handle), the pending declaration lines, the source
// numbering and the time, and drives the line writer. Its members live in four files: its life
// and failures (tarvel_write.cc), declarations (writer_declarations.cc), values
// (writer_values.cc) and the flush with commits (writer_flush.cc). Writer layer; one thread at a
// time.
//
// Failures. Every operation that can fail runs through Guard: once the writer has failed it
// answers false at once, and exhausted memory inside is the failure "Out of memory". Every
// failure goes to Error, the one reporter: the first closes the file and logs its message to
// "<file>.log"; later ones are silent.
#ifndef TARVEL_WRITER_TARVEL_WRITE_H
#define TARVEL_WRITER_TARVEL_WRITE_H

#include <cstdarg>
#include <cstdint>
#include <new>
#include <utility>

#include "foundation/memory.h"
#include "tarvel/writer.h"
#include "writer/error_report.h"
#include "writer/event_stage.h"
#include "writer/line_writer.h"
#include "writer/output_stream.h"
#include "writer/type_registry.h"

namespace Tarvel {

// Per handle: its type, its events since the last flush and whether it has any.
struct HandleEntry {
    std::int32_t typeIndex = 0;  // 0: no type given
    bool present = false;        // the handle was declared or given a type
    bool changed = false;        // events stored (or a store attached) since the last flush
    bool sized = false;          // a value was stored in this flush interval (store prepared)
    bool staged = false;         // this interval's next values go through the staging log
    bool stagedSource = false;   // ...and one of them has a source
    std::uint8_t valueBytes = 0; // bytes of one value as the store keeps it (0 to 8)
    std::uint32_t stageSlot = 0; // its place in the list of changed handles and the log's slot
    KEventsStore store;
};

// Handle -> entry, in pages of 4096 entries made on first use, so that handles far apart cost
// only the pages they touch.
class HandleTable {
public:
    static constexpr int kPageBits = 12;
    static constexpr int kPageSize = 1 << kPageBits;

    HandleTable() = default;
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;
    ~HandleTable();

    // The entry of a present handle, or null.
    HandleEntry* Find(int handle) const {
        if (handle < 0) return nullptr;
        const std::size_t page = static_cast<std::size_t>(handle) >> kPageBits;
        if (page >= m_pages.size() || !m_pages[page]) return nullptr;
        HandleEntry* entry = &m_pages[page][handle & (kPageSize - 1)];
        return entry->present ? entry : nullptr;
    }
    // The entry of a handle known to be present.
    HandleEntry& At(int handle) const {
        return m_pages[static_cast<std::size_t>(handle) >> kPageBits][handle & (kPageSize - 1)];
    }
    // The entry of `handle` (>= 0), made present. May throw std::bad_alloc.
    HandleEntry& Make(int handle);
    // Forgets every entry and gives their memory back.
    void Clear() noexcept;

private:
    Vector<HandleEntry*> m_pages;
};

struct FlushMember;

class KTarvelWrite final : public ITarvelWrite, public ITypesWriter {
public:
    KTarvelWrite(const char* fileName, bool timed, const ISourceCallback* callback);
    ~KTarvelWrite() override;

    // Opens the file and writes the header; false (reported) when that fails.
    bool Open();

    bool AddRef() override;
    bool Release() override;
    bool Begin() override;
    bool FlushDeclarations() override;
    bool StoreSignal(int handle, int mode, int parentBus, int position, const char* name, const int64& time) override;
    bool StoreBus(int handle, int mode, int width, int parentBus, int position, const char* name,
                  const int64& time) override;
    bool StoreProperty(const int64& time, int handle, const char* name, const char* value) override;
    bool StoreProperty(int handle, const char* name, const char* value) override;
    bool SetTypeInfo(int handle, const char* typeInfo) override;
    bool SetResolution(const int64& resolution) override;
    bool MoveTime(const int64& offset) override;
    bool SetTime(const int64& time) override;
    const int64& GetTime() override;
    bool SetDelta(unsigned delta) override;
    unsigned GetDelta() override;
    bool StoreValue(int handle, const unsigned char* data) override;
    int GetValueSize(int handle) override;
    bool StoreValueWithSource(int handle, const unsigned char* data, int source) override;
    bool Commit() override;
    bool Resume() override;
    bool Flush() override;
    const char* GetFileName() override;
    bool SetEventsStore(int handle, const KEventsStore& store) override;
    bool SetDefaultEndTime(const int64& time) override;
    bool StoreSource(int source) override;

    // Events the staging log takes before it hands them to the stores (tests; 0: no staging).
    void SetStageLimit(std::uint32_t events) { m_stage.SetLimit(events); }

    // ITypesWriter, with IErrorReport: the first failure closes the file and logs its message
    // (an empty message logs nothing); every call answers false.
    bool Error(const char* format, ...) override;
    bool WriteTypeLine(std::int32_t typeIndex, const char* typeInfo) override;

private:
    struct BusInfo {
        std::int32_t width = 0;    // element positions 0 .. width-1
        int64 time = 0;            // declaration time
        Vector<std::uint8_t> taken;  // positions given to an element
        std::int32_t children = 0;  // members attached to a virtual bus
    };
    struct PendingProperty {
        String name;
        String value;
        Vector<std::int32_t> handles;
    };

    // Runs an operation: false at once once the writer has failed; exhausted memory inside
    // `body` is the failure "Out of memory".
    // A noexcept body (the time operations, called once per time step) needs no handler.
    template <class Fn>
    bool Guard(Fn&& body) {
        if (m_failed) return false;
        if constexpr (noexcept(body())) {
            return body();
        } else {
            try {
                return body();
            } catch (const std::bad_alloc&) {
                return Error("Out of memory");
            }
        }
    }
    void WriteLog(const char* format, std::va_list args) noexcept;
    // Gives back everything but the object itself (a writer whose last Release failed).
    void GiveBackMemory() noexcept;

    bool DeclareElement(int handle, int parentBus, int position, const int64& time);
    bool WritePendingElements();
    bool WritePendingProperties();
    bool AddPendingProperty(int handle, const char* name, const char* value);
    bool AttachToVirtualBus(int handle);
    bool NumberSource(int source, int* number);
    bool FlushAll();
    // The event blocks of a flush: close the changed stores, group handles with equal events,
    // write one block per group, empty the stores.
    bool WriteChangedStores();
    bool CloseChangedStores(Vector<FlushMember>& members);
    void GroupEqualEvents(Vector<FlushMember>& members) const;
    std::uint64_t LoggedFingerprint(const FlushMember& member) const;
    std::uint64_t EventFingerprint(const FlushMember& member) const;
    bool SameEvents(const FlushMember& a, const FlushMember& b) const;
    bool WriteGroups(const Vector<FlushMember>& members);
    bool WriteBlock(std::int32_t typeIndex, const KEventsStore& store, const Vector<std::int32_t>& handles);
    bool WriteLoggedBlock(std::int32_t typeIndex, const HandleEntry& entry, const Vector<std::int32_t>& handles,
                          const EventStage::Range& range, std::size_t count);
    bool StoreValueChecked(int handle, const unsigned char* data, int source);
    void DrainStage();
    void MarkChanged(HandleEntry& entry, std::int32_t handle);
    // Stages the handle's next values when its store is its own (and staging is on).
    void StartStaging(HandleEntry& entry);
    static bool FlushThunk(void* owner);

    unsigned m_references = 1;        // 0 once the last Release failed and kept the writer
    String m_fileName;
    String m_logName;
    bool m_timed;
    bool m_failed = false;            // the first failure has happened: every operation fails
    KOutputStream m_stream;
    KLineWriter m_lines;
    TypeRegistry m_types;
    int64 m_time = 0;                 // current time
    unsigned m_delta = 0;             // current delta
    bool m_dirty = false;             // some handle has events since the last flush
    HandleTable m_handles;
    Vector<std::int32_t> m_changed;   // handles whose changed flag is set
    EventStage m_stage;               // values not yet handed to their stores
    Map<std::int32_t, BusInfo> m_buses;
    std::int32_t m_pendingBus = -1;   // bus of the pending element lines
    Vector<std::pair<std::int32_t, std::int32_t>> m_pendingElements;  // (element, position)
    Vector<std::pair<std::int32_t, int64>> m_pendingEnds;  // (element, its declaration time)
    std::int32_t m_lastVirtualBus = -1;
    Vector<PendingProperty> m_pendingProperties;
    Map<String, std::size_t> m_pendingPropertyIndex;  // name NUL value -> entry
    const ISourceCallback* m_callback;
    HashMap<int, int> m_sourceNumbers;  // caller's source -> source number (0: unknown to the callback)
    Map<String, int> m_fileNumbers;     // lower-cased file name -> file number
};

}  // namespace Tarvel

#endif  // TARVEL_WRITER_TARVEL_WRITE_H
