// The events store: one signal's events (time, delta, value, source) in compressed form, with
// cursors to walk them, a cache of cursor positions, the three emission interfaces through which
// a store hands its content to a file writer, and the direct stores through which a file reader
// refills a store. Public header; compiles as C++17 and later.
//
// Semantics. A KEventsStore is a handle of one pointer on a shared, reference-counted body.
// Copying a handle is cheap and shares the body; every modifying member first makes the body
// private to the handle (copy on write). Two handles that share a body and receive the same
// modification end up sharing one new body again, so operator== tells identical event streams
// apart from different ones without comparing events.
//
// Costs. Appending an event to a store that its handle owns alone takes no lock and no
// allocation in the common case (a few compares and stores). The first modification of a shared
// body copies it. Walking costs a few nanoseconds per event; a run of repeated steps (a clock)
// is walked without decoding and can be jumped over in one call.
//
// Threads. Handles may be copied, assigned and destroyed on any thread, also while they share
// bodies. One handle, and the cursors walking it, belong to one thread at a time.
//
// Memory. Every allocation follows the library's out-of-memory rule: once memory is exhausted,
// store operations throw std::bad_alloc, leave the store as it was, and keep failing until
// PrepareOutOfMemoryBuffer() is called.
#ifndef TARVEL_EVENTS_STORE_H
#define TARVEL_EVENTS_STORE_H

#include <tarvel/config.h>

namespace Tarvel {

struct KEventsStoreBody;
struct EventCursor;
struct EventCursorCacheMap;
class KEventsStore;

// Receives the time steps of a store (KEventsStore::WriteTimeDelta). Each member returns true
// to go on, false to stop the emission. Steps are differences from the previous event's time
// (the first one from time 0).
class TARVEL_API ITimeDeltaWriter {
public:
    // One step: the time difference and the delta-cycle index of the event.
    virtual bool pushTimeDelta(const int64& difference, int delta) = 0;
    // `length` steps (1 to 4), played `count` times in a row.
    virtual bool pushRepeat(int length, const int64& count, const std::pair<int64, int>* steps) = 0;
    // The store's end time (KEventsStore::EndTime); always the last call.
    virtual bool pushEnd(const int64& endTime) = 0;

protected:
    ~ITimeDeltaWriter() = default;
};

// Receives the values of a store (KEventsStore::WriteValue). Value pointers point at
// KEventsStore::GetSize() bytes each and are valid during the call only.
class TARVEL_API IValueWriter {
public:
    // The number of values that the calls of this emission deliver in all (sent first).
    virtual bool pushCount(int count) = 0;
    // One value.
    virtual bool pushValue(const unsigned char* value) = 0;
    // `length` values (1 to 4), played `count` times in a row.
    virtual bool pushRepeatedValue(int length, const int64& count, const unsigned char* const* values) = 0;

protected:
    ~IValueWriter() = default;
};

// Receives the sources of a store (KEventsStore::WriteSource), in the same shapes as values.
class TARVEL_API ISourceWriter {
public:
    // The number of sources that the calls of this emission deliver in all (sent first).
    virtual bool pushCount(int count) = 0;
    // One source number (0: none).
    virtual bool pushSource(int source) = 0;
    // `length` sources (1 to 4) at `sources`, played `count` times in a row.
    virtual bool pushRepeatedSource(int length, const int64& count, const int* sources) = 0;

protected:
    ~ISourceWriter() = default;
};

// A saved set of cursor positions, one per store handle, that speeds up repeated walks
// (KEventsStore::Cache, KEventsStore::GetFirstEvent). Not copyable; one thread at a time.
class TARVEL_API KEventsStoreCache {
public:
    // An empty cache; allocates nothing until the first KEventsStore::Cache.
    KEventsStoreCache();
    // Frees the saved positions. The stores they were saved on are not touched.
    ~KEventsStoreCache();
    KEventsStoreCache(const KEventsStoreCache&) = delete;
    KEventsStoreCache& operator=(const KEventsStoreCache&) = delete;

    // Forgets every saved position.
    void clear();

private:
    friend class KEventsStore;
    EventCursorCacheMap* m_map;  // handle identity -> saved cursor; null until the first Cache()
};

// A cursor on the events of one store. Default-constructed it is bound to no store; the store's
// GetFirstEvent binds it. It stays valid while the handle it walks is neither modified nor
// destroyed.
class TARVEL_API KEventData {
public:
    // A cursor bound to no store (GetIndex() -1).
    KEventData();
    // Copies the position: both cursors then walk on independently.
    KEventData(const KEventData& other);
    KEventData& operator=(const KEventData& other);
    ~KEventData();

    // Index of the event from 0; -1 before the first event.
    int GetIndex() const;
    // The event's time, in the file's resolution units. Valid until the cursor moves.
    const int64& GetTime() const;
    // The event's delta cycle (stores keep its low 16 bits).
    unsigned GetDelta() const;
    // Copies the event's value into `buffer`: min(size, the store's value size) bytes.
    // Returns false when the store keeps no value for this event.
    bool GetValue(unsigned char* buffer, unsigned size) const;
    // The event's source, 0 when the store keeps no source for it.
    int GetSource() const;

private:
    friend class KEventsStore;
    friend struct StoreAccess;
    EventCursor* m_cursor;  // owned iteration state
};

class TARVEL_API KEventsStore {
public:
    // An empty store without value size; shares one global empty body and allocates nothing.
    KEventsStore();
    // Shares `other`'s body: one atomic count, no copy of events (copy on write).
    KEventsStore(const KEventsStore& other);
    // Shares `other`'s body and releases the old one. Safe for self-assignment.
    KEventsStore& operator=(const KEventsStore& other);
    // Releases the body; the last handle on it frees it.
    ~KEventsStore();

    // Exchanges the bodies of the two handles.
    void swap(KEventsStore* other);

    // Sets the value size in bytes: 1 and 4 give stores of 4-byte values (the kind made for 1 is
    // tuned for values below 256), 8 gives 8-byte values, 0 and any other size give a store that
    // keeps times only. Changing the kind empties the store.
    void SetSize(int size);
    // The size of one stored value: 4, 4 or 8 for the sizes 1, 4 and 8; 0 without values.
    int GetSize() const;
    // The stored width of a value: 4, 4 or 8 for the sizes 1, 4 and 8; 0 without values.
    int GetSecondSize() const;
    // Marks the store as a bus: it drops its values and sources and keeps time steps only.
    void SetBus();
    // True after SetBus (on this body or the one it was copied from).
    bool GetBus() const;

    // Appends a time step without value. A step equal to the last pushed one is absorbed.
    // Returns the index of the (last) event.
    int push_back(const int64& time, int delta);
    // Appends an event with value (GetSize() bytes are read when the store keeps values) and
    // source 0. Returns its index.
    int push_back(const int64& time, int delta, const unsigned char* value);
    // Appends an event with value and source (0 for none). Returns its index.
    int push_back(const int64& time, int delta, const unsigned char* value, int source);
    // Closes the store: flushes the coders and records the end time and delta.
    void push_end(const int64& time, int delta);
    // Reopens a closed store for appending.
    void restart();
    // Empties the store, keeping its value size.
    void clear();

    // True when the store holds no event.
    bool empty() const;
    // The number of events.
    unsigned count() const;
    // The index of the last event: count() - 1, so -1 when empty.
    int LastIndex() const;
    // True when the store keeps at least one source entry.
    bool Sources() const;
    // The time given to the last push_end (0 before any): where the store's events end, which
    // may be later than its last event.
    const int64& EndTime() const;
    // The delta given to the last push_end (its low 16 bits; 0 before any).
    int EndDelta() const;
    // The body's serial number; it changes whenever a modification had to copy the body.
    int GetNr() const;

    // Walking (expects a closed store). GetFirstEvent(data) stands on the first event.
    bool GetFirstEvent(KEventData* data) const;
    // Stands on the last event before `time` (or on the first event when none is earlier;
    // on the first event for time 0). With a cache holding a position of this handle not later
    // than `time`, stands there instead. Returns false for an empty store.
    bool GetFirstEvent(const int64& time, KEventData* data, KEventsStoreCache* cache) const;
    // Steps to the next event; false after the last.
    bool GetNextEvent(KEventData* data) const;
    // As above; inside a repeated run whose every step is shorter than `span` (and span is not
    // -1) it jumps to the run's last event at once and sets *skipped.
    bool GetNextEvent(KEventData* data, const int64& span, bool* skipped) const;
    // Batched walking: decodes the events that GetNextEvent(data) would step to one by one, at
    // most `capacity` of them, into the caller's arrays: times[i] and deltas[i] (low 16 bits);
    // when `values` is not null, GetSize() bytes per event at values + i * GetSize() (nothing for
    // a store without values; zero bytes for an event whose value the store does not keep);
    // when `sources` is not null, sources[i] (0 where none). As GetNextEvent, it starts at the
    // first event when `data` does not walk this handle's body. Leaves `data` on the last event
    // decoded, so that single steps and batches can take turns on one cursor.
    // Returns the number of events decoded; 0 after the last event, and `data` is then
    // unchanged. Costs a few nanoseconds per event less than single steps: repeat codes are
    // expanded and values unpacked a record at a time, and the cursor is met once per batch.
    int GetNextEvents(KEventData* data, int capacity, int64* times, unsigned* deltas, unsigned char* values,
                      int* sources) const;
    // Saves data's position in the cache under this handle.
    void Cache(KEventData* data, KEventsStoreCache* cache) const;

    // Emission: each returns true when every call of the writer returned true.
    bool WriteTimeDelta(ITimeDeltaWriter* writer) const;
    // False at once, calling nothing, when the store keeps no values (GetSize() == 0).
    bool WriteValue(IValueWriter* writer) const;
    // False at once, calling nothing, when the store keeps no sources (check Sources() first:
    // a store whose sources are all 0 may keep none).
    bool WriteSource(ISourceWriter* writer) const;

    // True exactly when both handles hold the same body.
    bool operator==(const KEventsStore& other) const { return m_body == other.m_body; }
    bool operator!=(const KEventsStore& other) const { return m_body != other.m_body; }
    // Orders handles by the address of their body.
    bool operator<(const KEventsStore& other) const;

private:
    friend class KDirectTimeDeltaStore;
    friend class KDirectValueStore;
    friend class KDirectSourceStore;
    friend struct StoreAccess;
    KEventsStoreBody* m_body;
};

// The state of a refill of a store's time steps (used inside the library).
struct DirectStepsState {
    KEventsStoreBody* body;  // the store's private body
    int count;               // event count, stored back into the body at the end
    int64 time;              // running absolute time of the last step
    unsigned delta;          // delta of the last step
};

// Refills a store's time steps from exactly the calls a ITimeDeltaWriter receives, coding each
// call as it comes. Construction makes the body private to the handle and reopens it; the
// destructor closes the stream again. The handle must outlive this object.
class TARVEL_API KDirectTimeDeltaStore final : public ITimeDeltaWriter {
public:
    // Makes `store`'s body private and reopens its time steps for appending. May throw
    // std::bad_alloc.
    explicit KDirectTimeDeltaStore(KEventsStore* store);
    // Closes the time steps again; the store then walks as usual.
    ~KDirectTimeDeltaStore();
    KDirectTimeDeltaStore(const KDirectTimeDeltaStore&) = delete;
    KDirectTimeDeltaStore& operator=(const KDirectTimeDeltaStore&) = delete;

    // As ITimeDeltaWriter; pushRepeat refuses (false) lengths outside 1 to 4 and negative
    // counts, and pushEnd sets the store's end time.
    bool pushTimeDelta(const int64& difference, int delta) override;
    bool pushRepeat(int length, const int64& count, const std::pair<int64, int>* steps) override;
    bool pushEnd(const int64& endTime) override;

private:
    DirectStepsState m_state;  // the refill in progress
};

// Refills a store's values from the calls an IValueWriter receives. The store must have its
// value size already (KEventsStore::SetSize); without one the values are dropped.
class TARVEL_API KDirectValueStore final : public IValueWriter {
public:
    // Makes `store`'s body private and reopens its values for appending. The store must
    // outlive this object. May throw std::bad_alloc.
    explicit KDirectValueStore(KEventsStore* store);
    // Closes the values again (without memory to compact them, they stay uncompressed).
    ~KDirectValueStore();
    KDirectValueStore(const KDirectValueStore&) = delete;
    KDirectValueStore& operator=(const KDirectValueStore&) = delete;

    // As IValueWriter; pushCount is taken as a hint.
    bool pushCount(int count) override;
    bool pushValue(const unsigned char* value) override;
    bool pushRepeatedValue(int length, const int64& count, const unsigned char* const* values) override;

private:
    KEventsStoreBody* m_body;
};

// Refills a store's sources from the calls an ISourceWriter receives.
class TARVEL_API KDirectSourceStore final : public ISourceWriter {
public:
    // Makes `store`'s body private and opens its sources for appending (making them when it has
    // none). The store must outlive this object. May throw std::bad_alloc.
    explicit KDirectSourceStore(KEventsStore* store);
    // Closes the sources again (without memory to compact them, they stay uncompressed).
    ~KDirectSourceStore();
    KDirectSourceStore(const KDirectSourceStore&) = delete;
    KDirectSourceStore& operator=(const KDirectSourceStore&) = delete;

    // As ISourceWriter; pushCount is taken as a hint.
    bool pushCount(int count) override;
    bool pushSource(int source) override;
    bool pushRepeatedSource(int length, const int64& count, const int* sources) override;

private:
    KEventsStoreBody* m_body;
};

}  // namespace Tarvel

#endif  // TARVEL_EVENTS_STORE_H
