// KStreamRead: the readers behind ITarvelRead. One class template serves both factories: the
// template argument says what a handle is. Reader facade layer; one thread at a time.
//
//   KTarvelRead (CreateStreamRead2): handles are positions in the raw reader's signal iteration;
//     the raw reader is asked through its iterator operations; GetChild and GetTopLevel check
//     their arguments; GetSignalInfo counts the elements or fields of the signal's type.
//   KOldTarvelRead (CreateStreamRead): handles are the raw reader's signal numbers; it is asked
//     through its by-number operations; GetChild and GetTopLevel index without checks;
//     GetSignalInfo gives the raw reader's child count.
//
// Both keep the same index, built when the file is opened and built again by Continue: the
// handles of the signals without parent, per signal its children by position and its property
// records, and the end time.
#ifndef TARVEL_READER_STREAM_READER_H
#define TARVEL_READER_STREAM_READER_H

#include <cstdint>

#include "foundation/memory.h"
#include "reader/event_merge.h"
#include "tarvel/reader.h"

namespace Tarvel {

enum class HandleKind {
    kPosition,  // the signal's position in the raw reader's iteration, from 0
    kNumber,    // the raw reader's number for the signal (SignalIterator::GetSignalHandle)
};

template <HandleKind kHandles>
class KStreamRead final : public ITarvelRead {
public:
    // Keeps the file name; Open reads the file. May throw std::bad_alloc.
    explicit KStreamRead(const char* fileName);
    // Makes the raw reader and indexes the file; false when the raw reader refuses the file.
    // May throw std::bad_alloc (the caller then releases the reader).
    bool Open();
    // Public for DestroyObject only: clients end a reader with its last Release.
    ~KStreamRead() override;

    bool AddRef() override;
    bool Release() override;
    int64 GetResolution() override;
    int GetTopLevelCount() override;
    int GetChild(int handle, int index) override;
    int GetTopLevel(int index) override;
    bool GetSignalInfo(int handle, bool* hasSubElements, int* count, int64* endTime, char* name, int* nameSize) override;
    const char* GetPropertyValue(int handle, const char* name) override;
    const char* GetTypeInfoString(int handle) override;
    int GetPropertyCount(int handle) override;
    bool GetProperty(int handle, int index, int64* time, const char** name, const char** value) override;
    bool RestartEvents(int ignored) override;
    bool Reserved12(int, int) override { return false; }
    int Reserved13(int value) override { return value; }
    const int64* GetEventTime() override;
    int GetEventDelta() override;
    int NextEvent() override;
    bool GetEventValue(void* buffer) override;
    int Reserved18() override { return 0; }
    const char* GetFileName() override;
    const int64* GetEndTime() override { return &m_endTime; }
    bool Continue() override;
    int64 Reserved22(int) override { return 0; }
    int64 Reserved23(int) override { return 0; }
    bool Reserved24(int, int, int) override { return false; }
    int Reserved25(int, int, int, int, int) override { return 0; }
    int Reserved26(int) override { return -1; }
    void Reserved27(int, int, int, int) override {}
    void Reserved28(int, int, int) override {}
    IRawTarvelRead* GetRawReader() override { return m_raw; }

private:
    struct PropertyRecord {
        int64 time;   // the property line's time; 0 for the attributes taken at indexing
        String name;
        String value;
    };
    struct SignalRecord {
        std::int32_t number = 0;              // the raw reader's number for the signal
        Vector<std::int32_t> children;        // child handles by position; 0 where none is
        Vector<PropertyRecord> properties;    // in the order they were added
    };
    // A child whose parent had no record yet when the child was indexed.
    struct Link {
        std::int32_t child;
        std::int32_t parent;
        std::int32_t position;
    };

    // What indexing a file gives; Continue builds a new one and swaps it in.
    struct Index {
        Vector<std::int32_t> topLevel;
        HashMap<std::int32_t, SignalRecord> records;
        int64 endTime = 0;
    };

    const SignalRecord* Find(int handle) const;
    // The raw reader's place query for the signal with raw number `number`.
    bool RawPlace(std::int32_t number, int* childCount, int64* endTime, char* name, int* nameSize,
                  IRawTarvelRead::SignalIterator* parent, int* position);
    std::int32_t RawTypeId(std::int32_t number);
    // Indexes everything the raw reader holds now into `index`, then swaps it into the members.
    // May throw std::bad_alloc; the members are then unchanged.
    void Reindex();
    void IndexSignal(Index& index, const IRawTarvelRead::SignalIterator& signal, std::int32_t position,
                     Vector<Link>& waiting);
    // Stores the child at its position among the parent's children; false when the parent has
    // no record (yet).
    static bool Attach(Index& index, const Link& link);
    void IndexProperties(Index& index);
    int StartPass();
    void EndPass() noexcept;

    String m_fileName;                           // the path given to the factory
    std::int32_t m_references = 1;               // AddRef/Release count
    IRawTarvelRead* m_raw = nullptr;             // owned; null only while Open has not succeeded
    Vector<std::int32_t> m_topLevel;             // handles without parent, in iteration order
    HashMap<std::int32_t, SignalRecord> m_records;  // by handle
    int64 m_endTime = 0;                         // largest EndTime of any store, at least 0
    KEventMerge* m_merge = nullptr;              // owned; the pass in progress, null when none
};

using KTarvelRead = KStreamRead<HandleKind::kPosition>;
using KOldTarvelRead = KStreamRead<HandleKind::kNumber>;

}  // namespace Tarvel

#endif  // TARVEL_READER_STREAM_READER_H
