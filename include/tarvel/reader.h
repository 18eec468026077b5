// Reading waveform files by signal handle: the ITarvelRead interface and its two factories,
// CreateStreamRead2 and CreateStreamRead. Public header; compiles as C++17 and later.
//
// Semantics. A reader wraps one raw reader (IRawTarvelRead, see raw_reader.h), which parses the
// file when the reader is made. At creation the reader walks the file's signals once and numbers
// them with handles; from then on it answers questions about the signal tree, types and
// properties from its own index, and it offers passes over the events of all signals merged
// into one order:
//   * events come in ascending (time, delta), times and deltas compared as signed numbers;
//   * events of several signals at the same (time, delta) come newest waiting first: at the
//     start of a pass the signal with the higher handle comes first; a signal whose next event
//     lands on a (time, delta) where other signals are already waiting comes before them.
// This order is part of the contract.
//
// The two factories differ in their handles only (and in two lookups, see GetChild):
//   * CreateStreamRead2: a handle is the signal's position in the file's declaration order,
//     counted from 0 (bus elements are signals of their own, in the place where the file lists
//     them);
//   * CreateStreamRead: a handle is the signal's number in the file, the number the raw
//     reader's by-number operations take (IRawTarvelRead::SignalIterator::GetSignalHandle()).
// For a file whose signals are numbered 0, 1, 2, ... in declaration order both give the same
// handles, tree, properties and events.
//
// Calling order of a client:
//   1. CreateStreamRead2 (or CreateStreamRead); null means the file cannot be read.
//   2. Tree questions (GetTopLevelCount, GetTopLevel, GetChild, GetSignalInfo,
//      GetTypeInfoString) and property questions (GetPropertyValue, GetPropertyCount,
//      GetProperty), in any order.
//   3. For a file that a writer is still writing, Continue whenever the writer may have
//      committed more: the reader holds the file up to the last commit it found when it was
//      opened (or last read on), and Continue reads on. A finished file needs no Continue.
//   4. NextEvent until it returns -1, reading GetEventTime, GetEventDelta and GetEventValue after
//      every call that returned a handle. The call after the -1 starts a new pass from the first
//      event; so does the first call after RestartEvents or Continue.
//   5. Release.
//
// Failures. The factories return null for a file the raw reader refuses (missing, unknown
// header, malformed, exhausted memory); nothing is left allocated then. Queries answer -1 for
// handles, null or "" for text, 0 or false, as each member says. No exception leaves the
// interface and nothing is printed.
//
// Ownership and lifetime. A reader is reference counted: the factory returns it with count 1;
// AddRef and Release share it, and the last Release destroys it (never delete it). The reader
// owns its raw reader. Strings handed out (names, values, type strings) stay valid until the
// next Continue or the last Release, except GetFileName's, which lives as long as the reader.
//
// Threads. A reader is used from one thread at a time, its reference count included. The
// events stores it reads (through GetRawReader) follow the rules of events_store.h.
#ifndef TARVEL_READER_H
#define TARVEL_READER_H

#include <tarvel/config.h>
#include <tarvel/raw_reader.h>

namespace Tarvel {

class TARVEL_API ITarvelRead {
public:
    // Adds a reference. Returns true.
    virtual bool AddRef() = 0;
    // Drops a reference; the last one destroys the reader, its raw reader included. Returns true.
    virtual bool Release() = 0;
    // The file's time unit ("$RESOLUTION"; 1000 when the file gives none).
    virtual int64 GetResolution() = 0;

    // ---- The signal tree ----
    // Number of signals without a parent.
    virtual int GetTopLevelCount() = 0;
    // The handle of the index-th child of `handle` (the child at that position in its parent:
    // an element of a bus or record, a member of a virtual bus, a signal declared below
    // another). A position that no child fills answers 0. The children are counted as the file
    // attaches them; a child whose position is not below that count is reached from nowhere.
    //   CreateStreamRead2: -1 for a handle without a signal or an index outside 0 .. count - 1.
    //   CreateStreamRead: REQUIRES: `handle` is a signal's handle and 0 <= index < its number of
    //   children; nothing is checked.
    virtual int GetChild(int handle, int index) = 0;
    // The handle of the index-th signal without a parent, in declaration order.
    //   CreateStreamRead2: -1 for an index outside 0 .. GetTopLevelCount() - 1.
    //   CreateStreamRead: REQUIRES: 0 <= index < GetTopLevelCount(); nothing is checked.
    virtual int GetTopLevel(int index) = 0;
    // Describes a signal. Every pointer may be null.
    //   *count: CreateStreamRead2: the number of elements of the signal's array type or fields
    //   of its record type, 0 for any other type or none (a scope or a virtual bus too: walk
    //   their children with GetChild until -1); CreateStreamRead: the number of children the
    //   file attaches to it, as the reader indexed them when it opened the file or last read
    //   on successfully (so GetChild below this count is always safe).
    //   *hasSubElements: whether *count is not 0.
    //   *endTime, name, *nameSize: as IRawTarvelRead::GetSignalPlace: the declaration time; the
    //   name relative to the parent ("(7)", a field name, or the declared name at the top),
    //   NUL-terminated into `name` when *nameSize (its capacity, NUL included) is above 0, and
    //   *nameSize set to the name's length.
    // Returns *hasSubElements. For an unknown handle *count is 0, *hasSubElements false, the
    // three raw outputs are left as they were, and the result is false.
    virtual bool GetSignalInfo(int handle, bool* hasSubElements, int* count, int64* endTime, char* name,
                               int* nameSize) = 0;

    // ---- Properties ----
    // The value of the signal's first property at time 0 named exactly `name` (bytes compared,
    // letter case counts); "" when there is none or the handle is unknown. The signal's
    // "Stimulator", "EmptyRow" and "Expression" come first, as the raw reader answers them.
    virtual const char* GetPropertyValue(int handle, const char* name) = 0;
    // The signal's type-information string; null for an unknown handle or a signal without type.
    virtual const char* GetTypeInfoString(int handle) = 0;
    // Number of the signal's property records; 0 for an unknown handle. The records are: the
    // signal's "Stimulator", "EmptyRow" and "Expression" (those it has, in this order, with
    // time 0), then every property line of the file that names the signal, in file order, with
    // the line's time. A property given both ways is therefore counted twice.
    virtual int GetPropertyCount(int handle) = 0;
    // Writes the index-th record's time, name and value (each pointer may be null). Returns false
    // and writes nothing for an unknown handle.
    // REQUIRES: 0 <= index < GetPropertyCount(handle); the index is not checked.
    virtual bool GetProperty(int handle, int index, int64* time, const char** name, const char** value) = 0;

    // ---- The event pass ----
    // Ends the pass in progress; the next NextEvent starts a new pass. The argument is ignored.
    // Returns true.
    virtual bool RestartEvents(int ignored) = 0;
    // Reserved; returns false.
    virtual bool Reserved12(int, int) = 0;
    // Reserved; returns its argument.
    virtual int Reserved13(int value) = 0;
    // The time of the current event; a pointer to 0 when no pass is in progress. The pointer is
    // valid until the next NextEvent, RestartEvents, Continue or Release.
    virtual const int64* GetEventTime() = 0;
    // The delta-cycle index of the current event; 0 when no pass is in progress.
    virtual int GetEventDelta() = 0;
    // Steps to the next event of the merged order (see the top of this header) and returns the
    // handle of its signal; -1 when there is none, which ends the pass (the next call starts a
    // new one). Signals whose store holds no events take no part. Costs: a pass starts with a
    // few allocations and one step per signal; each event then costs one step of its signal's
    // store and constant work, plus a heap operation per distinct (time, delta). -1 also when
    // memory runs out while a pass starts.
    virtual int NextEvent() = 0;
    // Copies the current event's value into `buffer`: the value size of the signal's events
    // store (KEventsStore::GetSize(): 4 or 8 bytes; nothing for a store without values), in the
    // store's little-endian layout. False when no pass is in progress.
    // REQUIRES: `buffer` holds the store's value size; 8 bytes always suffice.
    virtual bool GetEventValue(void* buffer) = 0;
    // Reserved; returns 0.
    virtual int Reserved18() = 0;

    // ---- The file ----
    // The path given to the factory.
    virtual const char* GetFileName() = 0;
    // The largest end time of any signal's events store, 0 when none is above 0. Brought up to
    // date by Continue. The pointer lives as long as the reader.
    virtual const int64* GetEndTime() = 0;
    // Reads on from the commit mark where the file ended when it was last read (a writer that
    // committed since has added declarations, properties and events). Ends the pass in
    // progress, then indexes the file again as a reader opened now would (handles of known
    // signals stay the same; new signals, parents and properties show; the end time grows);
    // events added to any signal show in the next pass. Costs as much as indexing at creation:
    // a walk over all signals and property lines. False when the raw reader cannot read on or
    // memory runs out; the index then keeps what it had.
    virtual bool Continue() = 0;
    // Reserved; return 0, 0, false, 0, -1, nothing, nothing.
    virtual int64 Reserved22(int) = 0;
    virtual int64 Reserved23(int) = 0;
    virtual bool Reserved24(int, int, int) = 0;
    virtual int Reserved25(int, int, int, int, int) = 0;
    virtual int Reserved26(int) = 0;
    virtual void Reserved27(int, int, int, int) = 0;
    virtual void Reserved28(int, int, int) = 0;
    // The raw reader underneath, still owned by this reader: never delete it. Calling its
    // Continue directly leaves this reader's index and end time as they were.
    virtual IRawTarvelRead* GetRawReader() = 0;

protected:
    // Readers are destroyed by their last Release only.
    virtual ~ITarvelRead() = default;
};

// Opens `fileName` with a raw reader and returns a reader whose handles are declaration
// positions; null when the file cannot be read.
TARVEL_API ITarvelRead* CreateStreamRead2(const char* fileName);
// As CreateStreamRead2, with the file's own signal numbers as handles and unchecked GetChild and
// GetTopLevel.
TARVEL_API ITarvelRead* CreateStreamRead(const char* fileName);

}  // namespace Tarvel

#endif  // TARVEL_READER_H
