// Writing waveform files: the ITarvelWrite interface, its factories and the source callback.
// Public header; compiles as C++17 and later.
//
// Semantics. A writer is one open waveform file. Declare types (SetTypeInfo), signals and buses
// (StoreSignal, StoreBus) and properties, then move time forward (SetTime, MoveTime, SetDelta)
// and store values (StoreValue). Values stay in memory, one compressed events store per signal,
// until Flush or Commit writes them as event blocks; Commit also ends the file with its
// terminator, so a reader (or a crash) finds a complete file up to that point. After a Commit,
// call Resume before writing more. The last Release flushes and closes the file and destroys the
// writer; it does not commit: commit before releasing, or readers refuse a file that was never
// committed and see one that was resumed as it stood at its last commit.
//
// Failures. Every operation returns false when it fails. The first failure closes the output
// file and writes its message to a log file named as the output file with ".log" appended; every
// later operation fails without further messages.
//
// Ownership and threads. Writers are reference counted (count 1 after the factory). A writer is
// used from one thread at a time. Values are read from the caller's buffer during the call only:
// exactly GetValueSize(handle) bytes.
#ifndef TARVEL_WRITER_H
#define TARVEL_WRITER_H

#include <tarvel/config.h>
#include <tarvel/events_store.h>

namespace Tarvel {

// Port modes of declarations.
enum PortMode : int {
    kPortVirtualBus = -1,  // buses only: a virtual bus grouping other signals
    kPortNone = 0,
    kPortIn = 1,
    kPortOut = 2,
    kPortInOut = 3,
    kPortBuffer = 4,
    kPortLinkage = 5,
    kPortSignal = 6,
    kPortVariable = 7,
};

// Turns the caller's source identifiers into a file name and a line number.
class TARVEL_API ISourceCallback {
public:
    // Sets *fileName (valid until the next call) and *line for `source`; false when unknown.
    virtual bool GetSourceLocation(int source, const char** fileName, int* line) const = 0;

protected:
    ~ISourceCallback() = default;
};

class TARVEL_API ITarvelWrite {
public:
    virtual bool AddRef() = 0;
    // At count 0: flushes everything stored and closes the file (no commit), and when both
    // succeeded destroys the writer and returns true. Otherwise returns false and the writer
    // stays, holding only the object itself (a writer that has failed once cannot flush again);
    // a later Release tries once more.
    virtual bool Release() = 0;
    virtual bool Begin() = 0;
    // Writes the pending element lines of the bus declared last.
    virtual bool FlushDeclarations() = 0;
    // Declares a signal. parentBus: the handle of a declared bus the signal is element
    // `position` of (the element gets no line of its own), or -1. time: the declaration time
    // (kept in untimed files). The type is the one SetTypeInfo gave the handle before.
    virtual bool StoreSignal(int handle, int mode, int parentBus, int position, const char* name, const int64& time) = 0;
    // Declares a bus of `width` elements (0 or less: the element count of its type); mode
    // kPortVirtualBus makes a virtual bus, whose members are attached with the property "VBus".
    virtual bool StoreBus(int handle, int mode, int width, int parentBus, int position, const char* name,
                          const int64& time) = 0;
    // A property of `handle` (-1: the file). Properties at time 0 are collected and written at
    // the next flush, one line per (name, value) with all their handles; others are written at
    // once. "VBus" = "1" attaches `handle` to the virtual bus declared last.
    virtual bool StoreProperty(const int64& time, int handle, const char* name, const char* value) = 0;
    virtual bool StoreProperty(int handle, const char* name, const char* value) = 0;
    // Gives `handle` its type (a type-information string, see sorvat/typeinfo.h).
    virtual bool SetTypeInfo(int handle, const char* typeInfo) = 0;
    // Time unit of the file (1000 when never set); a second, different value fails silently.
    virtual bool SetResolution(const int64& resolution) = 0;
    virtual bool MoveTime(const int64& offset) = 0;
    virtual bool SetTime(const int64& time) = 0;
    virtual const int64& GetTime() = 0;
    virtual bool SetDelta(unsigned delta) = 0;
    virtual unsigned GetDelta() = 0;
    // Stores a value (GetValueSize(handle) bytes) at the current time and delta.
    virtual bool StoreValue(int handle, const unsigned char* data) = 0;
    // Bytes of one value of the handle's type; -1 (and a failure) for an unknown handle.
    virtual int GetValueSize(int handle) = 0;
    // As StoreValue; `source` (0: none) is turned into the file's source numbers through the
    // writer's ISourceCallback.
    virtual bool StoreValueWithSource(int handle, const unsigned char* data, int source) = 0;
    virtual bool Commit() = 0;
    virtual bool Resume() = 0;
    virtual bool Flush() = 0;
    virtual const char* GetFileName() = 0;
    // Hands the writer a filled events store for `handle` (a scalar signal without values
    // stored since the last flush); it is written at the next flush.
    virtual bool SetEventsStore(int handle, const KEventsStore& store) = 0;
    // Untimed writers: writes the file's end time.
    virtual bool SetDefaultEndTime(const int64& time) = 0;
    // Writes the source-file and source-line entries of the caller's source `source` through
    // the callback now (values stored with it later reuse them). Source 0 (none) does nothing.
    // A source the callback does not know (or any source, without a callback) is a failure:
    // "StoreSource called for unknown source %d".
    virtual bool StoreSource(int source) = 0;
    virtual ~ITarvelWrite() = default;
};

// Creates an untimed writer ("$WAVE4"); null when the file cannot be created (see its log).
TARVEL_API ITarvelWrite* CreateStreamWrite(const char* fileName);
// Creates a timed writer ("$WAVE4TIMED").
TARVEL_API ITarvelWrite* CreateStreamWriteTimed(const char* fileName);
// Creates a timed writer that resolves source identifiers through `callback`, which must
// outlive the writer.
TARVEL_API ITarvelWrite* CreateStreamWriteTimed(const char* fileName, const ISourceCallback* callback);

}  // namespace Tarvel

#endif  // TARVEL_WRITER_H
