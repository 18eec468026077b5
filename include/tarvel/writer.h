// Writing waveform files: the ITarvelWrite interface, its factories and the source callback.
// Public header; compiles as C++17 and later. docs/guide.md walks through a whole design;
// examples/write_design.cc is the program it builds.
//
// A writer's life. A writer is one waveform file being written, from the factory to the last
// Release. Its calls come in this order:
//
//  1. Create. CreateStreamWriteTimed (the usual choice: the file records its end time at every
//     commit) or CreateStreamWrite (untimed: declarations keep their times, the caller writes the
//     end time with SetDefaultEndTime). The factory creates the file and writes its header.
//  2. Declare. SetResolution once, then for every signal its type (SetTypeInfo) and then its
//     declaration (StoreSignal, StoreBus), parents before their children; properties
//     (StoreProperty) at any time. Declarations may also come later, between values.
//  3. Set the time and the delta. Time only moves forward (SetTime, MoveTime); a new time resets
//     the delta to 0, and within one time the delta only moves forward (SetDelta).
//  4. Store values. StoreValue stores one value of one signal at the current time and delta.
//     Values wait in memory until the next Flush or Commit.
//  5. Flush (optional). Writes what waits in memory to the file. Nothing a flush writes is
//     visible to readers until the next commit; flush every few hundred thousand values to keep
//     memory and time per value low.
//  6. Commit. Flushes and ends the file with its terminator. From the moment Commit returns true
//     the file on disk reads, for every reader and even if this process dies at once, exactly
//     as it stands: every declaration, property and value given before the commit.
//  7. Resume. Call it after a commit before anything else goes into the file; the next commit
//     then moves the terminator to the new end. Steps 3 to 7 repeat for as long as the
//     simulation runs, and a reader follows the file with IRawTarvelRead::Continue.
//  8. Release. The last Release flushes, closes the file and destroys the writer. It does not
//     commit: what was given after the last commit is written but stays invisible (readers see
//     the file as it was committed), and a file that was never committed has no terminator and
//     no reader opens it. So always Commit, then Release.
//
// Hierarchy. The file knows signals, buses and parents; the design's scopes are built from them
// in one way, which every tool of this project writes and reads:
//  - A scope (a VHDL entity or block instance, a Verilog module instance) is a signal declared
//    with StoreSignal WITHOUT a type (no SetTypeInfo for its handle), mode kPortNone, named by
//    its local name. It takes no values.
//  - A signal, bus or sub-scope inside a scope is declared with parentBus = the scope's handle
//    and position = 0, 1, 2, ... in the order of declaration among that scope's children. The
//    scope must be declared before its children.
//  - Names are local: "clk", not "top.dut.clk". A reader builds the full name by joining the
//    names from the top with '.'; the writer gives no meaning to separators in names.
//  - A composite signal (array, record) is a bus: StoreBus with its type, and each element or
//    field is a signal of its own, declared with StoreSignal(parentBus = the bus, position =
//    the element's index in value order) and its own SetTypeInfo giving the element's type.
//    Readers name elements after the bus's type: "(7)", "(1,0)" or the field name. Values go
//    to the elements; the bus itself keeps none.
//  - A virtual bus (StoreBus with kPortVirtualBus; members attached with StoreProperty(member,
//    "VBus", "1")) is a group of existing signals for viewers, not a scope. A signal has one
//    parent in the file: attaching a member moves it from its scope to the virtual bus.
//
// Values. StoreValue reads exactly GetValueSize(handle) bytes, little-endian, laid out as
// include/sorvat/typeinfo.h describes: 4 bytes for an enumeration (the position of its
// literal: for std_logic the codes 0 to 8 of 'U' 'X' '0' '1' 'Z' 'W' 'L' 'H' '-', so '1' is 3,
// not the character '1') and for an integer, 8 for a real (IEEE double), a time (physical) or a
// 64-bit integer. Arrays, records and signals without a type have no values of their own.
//
// Failures. Every operation answers false when it fails. A false answer stops the writer for
// good, except from SetResolution and Resume (see there) and from Release of a writer that has
// stopped already. Stopping closes the output file as it stands (it reads as of its last
// commit) and writes one line, the reason, to a log file named as the output file with ".log"
// appended (replacing an older log); every later operation answers false (GetValueSize -1)
// and writes nothing more. Check every answer; on the first false, read the log.
//
// Some mistakes are found only at the next Flush, Commit or Release (which then answers false
// and stops the writer): values stored for a signal without a type ("Unknown typeindex 0 for
// handle %d": a scope, or an element whose SetTypeInfo was forgotten) and enumeration values
// that are no literal of the type ("Cannot convert data ..."). Others are not found at all and
// give a file that readers refuse or misread although every call answered true: a type given
// after the signal's declaration, values for a handle that has a type but was never declared,
// and an element typed otherwise than the element type of its bus. docs/guide.md lists every
// mistake with what it does.
//
// Ownership and threads. Writers are reference counted: the factory's answer holds one
// reference, AddRef adds one, Release gives one back, and the last Release ends the writer.
// Never delete a writer. One writer is used from one thread at a time; distinct writers are
// independent. Values are read from the caller's buffer during the call only.
//
// Costs. StoreValue appends to a log in memory: tens of nanoseconds per value, flush included
// (docs/performance.md), and about 24 bytes per value until the next flush. A writer holds
// about 70 KB of its own, and about 100 KB per page of 4096 handles that holds a handle in use:
// handles close together, counted from 0, cost least.
#ifndef TARVEL_WRITER_H
#define TARVEL_WRITER_H

#include <tarvel/config.h>
#include <tarvel/events_store.h>

namespace Tarvel {

// Port modes of declarations (the `mode` of StoreSignal and StoreBus).
enum PortMode : int {
    kPortVirtualBus = -1,  // StoreBus only: a virtual bus grouping other signals
    kPortNone = 0,         // not a port: scopes, and internal signals of some simulators
    kPortIn = 1,
    kPortOut = 2,
    kPortInOut = 3,
    kPortBuffer = 4,
    kPortLinkage = 5,
    kPortSignal = 6,       // an internal signal
    kPortVariable = 7,     // a variable
};

// Turns the caller's source identifiers (any int but 0, chosen by the caller: one per process,
// statement or assignment that produces values) into a file name and a line number. Given to
// CreateStreamWriteTimed; asked at an identifier's first use, and again at each later use as
// long as it answers false.
class TARVEL_API ISourceCallback {
public:
    // Sets *fileName (read during the call only) and *line for `source` and returns true, or
    // returns false when the source is unknown.
    virtual bool GetSourceLocation(int source, const char** fileName, int* line) const = 0;

protected:
    ~ISourceCallback() = default;
};

// Handles. Every signal, bus and scope is named by a handle: an int of the caller's choice,
// 0 or more, unique in the file, which readers report as the signal's number. Declarations and
// SetTypeInfo refuse a negative handle; StoreProperty takes -1 for the file itself.
class TARVEL_API ITarvelWrite {
public:
    // Adds a reference. Always true.
    virtual bool AddRef() = 0;
    // Gives back a reference; true while others remain. The last one flushes everything stored
    // (step 8 above: no commit) and closes the file; when both succeed it destroys the writer
    // and answers true. Otherwise it answers false and the writer is not destroyed: it gives
    // back everything it holds but the object itself (about 70 KB), and a later Release tries
    // once more. A writer that has stopped always answers false here.
    virtual bool Release() = 0;
    // Does nothing and answers true; no call needs it.
    virtual bool Begin() = 0;
    // Writes the element lines of the bus declared last, which otherwise wait until the next
    // declaration line or flush. Only needed when another program reads the file before that.
    virtual bool FlushDeclarations() = 0;
    // Declares the signal `handle`, of the type SetTypeInfo gave it before (or none: a scope).
    // REQUIRES: the handle's SetTypeInfo came first (a type given afterwards is accepted but
    // the declaration carries none, and readers refuse the file once it has values); each
    // handle is declared once.
    //   mode: a PortMode from kPortNone to kPortVariable.
    //   parentBus: -1 for a signal at the top; the handle of a scope declared before, for a
    //     signal inside it; the handle of a bus declared before (StoreBus), for an element of
    //     it.
    //   position: inside a scope, the signal's place among the scope's children (0, 1, 2, ...
    //     in declaration order); for an element, its index in the bus's value order (left
    //     index first, last dimension fastest: in std_logic_vector(7 downto 0) bit b is at
    //     position 7 - b; in a record, the field number); ignored at the top (pass 0).
    //   name: the local name (any bytes but NUL; null is ""). An element's name is not
    //     written: readers name it after its bus's type, "(7)" or a field name.
    //   time: the declaration time. Untimed files keep it (readers report it as the signal's
    //     end time); timed files do not, except for an element declared at another time than
    //     its bus. Pass 0 (or the current time).
    // Elements: an element has no declaration line; its type must be exactly the bus type's
    // element (or field) type, or readers misread its values. Its SetTypeInfo may come after
    // this call but must come before its first value.
    // False (and the writer stops) for a negative handle ("Internal error in StoreSignal(%d)"),
    // a mode outside the table ("Unknown mode %d"), an element position outside 0 .. width - 1
    // of its bus ("Scalar out of range: %d for signal %d") or taken already ("Scalar %d
    // redefined for handle %d"), or a failed write. A parent that is neither a bus nor declared
    // before is not checked: readers then show the signal at the top.
    virtual bool StoreSignal(int handle, int mode, int parentBus, int position, const char* name, const int64& time) = 0;
    // Declares the bus `handle`: an array or record signal (of the type SetTypeInfo gave it
    // before), whose elements are declared next with StoreSignal(parentBus = handle), or a
    // virtual bus (mode kPortVirtualBus, no type), whose members are attached with
    // StoreProperty(member, "VBus", "1").
    //   width: the number of element positions; 0 or less takes the type's element count (all
    //     elements of an array, the fields of a record). For a virtual bus, its member count
    //     (only reported, never checked).
    //   parentBus, position, name, time: as for StoreSignal. A bus inside a scope names the
    //     scope; a record field that is itself an array or a record is a bus whose parentBus is
    //     the record, position its field number and name the field's name.
    // The bus keeps no values: StoreValue on it answers true and writes nothing; its elements
    // carry the events. False (and the writer stops) as for StoreSignal.
    virtual bool StoreBus(int handle, int mode, int width, int parentBus, int position, const char* name,
                          const int64& time) = 0;
    // Gives `handle` (-1: the file) the property `name` = `value` (any text; null is ""). A
    // property at time 0 waits and is written at the next flush, together with every handle
    // given the same name and value; one at another time is written now, with its time. Readers
    // answer the last value given for a name. Properties of the design belong at time 0. Names
    // the tools know: "Project" and "TopLevel" (of the file), "Comment", "Measurement",
    // "Hidden" ("1": not shown), "Stimulator", "EmptyRow", "Expression".
    // "VBus" = "1" is no property: it makes `handle` the next member of the virtual bus
    // declared last (time ignored); without a virtual bus declared before it is refused
    // ("Internal error in StoreProperty(%d)") and the writer stops.
    virtual bool StoreProperty(const int64& time, int handle, const char* name, const char* value) = 0;
    // As above, at the current time (GetTime()).
    virtual bool StoreProperty(int handle, const char* name, const char* value) = 0;
    // Gives `handle` its type: a type-information string (grammar and a table of common VHDL
    // and Verilog types in include/sorvat/typeinfo.h). Each distinct string is written to the
    // file once. Call it before the handle's StoreSignal or StoreBus (for an element: before its
    // first value). Scopes and virtual buses have no type.
    // False (and the writer stops) for a malformed string ("Invalid typeinfo '%s'"), a handle
    // that has another type already ("Two different typeinfos specified for signal %d") or a
    // negative handle. The same type again is accepted.
    virtual bool SetTypeInfo(int handle, const char* typeInfo) = 0;
    // Sets the file's time unit as a number of femtoseconds: 1 is fs, 1000 ps (the default,
    // when never set), 1000000 ns. Every time of the interface counts in this unit. Call it
    // once, before the first value. A second call with the same value does nothing and answers
    // true. Answers false for a different second value or a value of 0 or less; the file keeps
    // its first resolution and the writer does NOT stop (nothing is logged).
    virtual bool SetResolution(const int64& resolution) = 0;
    // Moves the current time forward by `offset` (in resolution units). An offset above 0
    // resets the delta to 0; 0 changes nothing. A negative offset is refused ("Negative offset
    // in MoveTime") and the writer stops.
    virtual bool MoveTime(const int64& offset) = 0;
    // Sets the current time (in resolution units; starts at 0). A later time resets the delta to
    // 0; the current time again keeps the delta. An earlier time is refused ("SetTime tries to
    // move back in time") and the writer stops.
    virtual bool SetTime(const int64& time) = 0;
    // The current time. The reference lives as long as the writer; its value follows the time.
    virtual const int64& GetTime() = 0;
    // Sets the current delta cycle within the current time (starts at 0, and at 0 after every
    // change of time). The same or a larger delta is accepted; a smaller one is refused
    // ("SetDelta tries to move back in time") and the writer stops. The file keeps the low 16
    // bits of a delta: deltas above 65535 read back modulo 65536.
    virtual bool SetDelta(unsigned delta) = 0;
    // The current delta.
    virtual unsigned GetDelta() = 0;
    // Stores the value at `data` (GetValueSize(handle) bytes, see Values above) for `handle` at
    // the current time and delta. Several values of one handle at one time and delta are all
    // kept. REQUIRES: `handle` is declared (StoreSignal) with a scalar type (an element counts):
    // values for a handle without type (a scope, a virtual bus, an element without its
    // SetTypeInfo) stop the writer at the next flush ("Unknown typeindex 0 for handle %d"), and
    // values for a handle that has a type but no declaration give a file that readers refuse.
    // On a bus (array or record) it answers true and keeps no value.
    // False (and the writer stops) for a handle that has neither a declaration nor a type
    // ("StoreValueWithSource called for unknown handle %d") or when memory is exhausted ("Out
    // of memory").
    virtual bool StoreValue(int handle, const unsigned char* data) = 0;
    // Bytes of one value of the handle's type: 4 or 8 for scalar types, the whole value's size
    // for arrays and records (which keep no values), 0 for a handle without type. -1 for a
    // handle that has neither a declaration nor a type, and the writer stops ("GetValueSize
    // called for unknown handle %d"). -1 once the writer has stopped.
    virtual int GetValueSize(int handle) = 0;
    // As StoreValue, with the caller's source identifier (0: none), which the writer's
    // ISourceCallback turns into a source file and line the first time it is used. A source the
    // callback does not know, or any source of a writer without a callback, is stored as none.
    virtual bool StoreValueWithSource(int handle, const unsigned char* data, int source) = 0;
    // Step 6 above: in a timed file writes the end time (the current time) when it changed,
    // flushes, and ends the file with the terminator. When it answers true the file reads as it
    // stands, now and after this process ends. After a commit, call Resume before storing,
    // declaring or flushing anything: without it, what follows is written behind the
    // terminator, the calls answer true, and no reader ever sees it (a later commit does not
    // repair this). False (and the writer stops) when a flush fails (see Flush) or the file
    // cannot be written or repositioned.
    virtual bool Commit() = 0;
    // Step 7 above: prepares to write on after a commit. Until the next commit, readers keep
    // seeing the file as of the last one. Does nothing (and answers true) when nothing was
    // committed since the last Resume. False when the file cannot be repositioned; the writer
    // then does not stop and goes on as if Resume had not been called (nothing is logged).
    virtual bool Resume() = 0;
    // Writes pending declarations, pending properties and the values stored since the last flush
    // (one block per group of same-typed signals with equal events), and hands the file to the
    // system. Readers see none of it before the next commit. False (and the writer stops) for
    // values of a handle without type ("Unknown typeindex %d for handle %d"), an enumeration
    // value that is no literal of its type ("Cannot convert data %x %x %x %x to string"), a
    // full disk ("Cannot write to disk", "Cannot write to output file") or exhausted memory.
    virtual bool Flush() = 0;
    // The file name given to the factory; valid as long as the writer.
    virtual const char* GetFileName() = 0;
    // Hands the writer a store filled by the caller (events at their absolute times, value size
    // GetValueSize(handle)) as the events of `handle` since the last flush; it is written at
    // the next flush like stored values. The writer keeps its own handle on the store (copy on
    // write: what the caller changes afterwards is not written). REQUIRES: `handle`
    // is declared with a scalar type and received no value since the last flush. False (and
    // the writer stops) for an unknown handle ("SetEventsStore called for unknown handle %d"),
    // a handle that received a value ("SetEventsStore(%d) called after StoreValue"), or a
    // handle of a non-scalar type or none ("SetEventsStore(%d) called for non-scalar").
    virtual bool SetEventsStore(int handle, const KEventsStore& store) = 0;
    // Untimed writers (CreateStreamWrite) only: writes the file's end time now; readers report
    // the last one written. In a timed writer it is refused ("SetDefaultEndTime used for timed
    // tarvel") and the writer stops: timed files record their end time at every commit.
    virtual bool SetDefaultEndTime(const int64& time) = 0;
    // Writes the file and line of the caller's source `source` through the callback now, so
    // that the values stored with it later reuse them. Source 0 (none) does nothing and answers
    // true. A source the callback does not know (any source, without a callback) is refused
    // ("StoreSource called for unknown source %d") and the writer stops.
    virtual bool StoreSource(int source) = 0;
    // Destroys the writer without flushing or committing. Do not call it: use Release.
    virtual ~ITarvelWrite() = default;
};

// Creates the untimed waveform file `fileName` (header "$WAVE4"), replacing an existing one,
// and answers its writer with one reference; null when the file cannot be created (the reason,
// "Cannot open output file", is in fileName + ".log").
TARVEL_API ITarvelWrite* CreateStreamWrite(const char* fileName);
// As CreateStreamWrite, for a timed file ("$WAVE4TIMED"): every commit records the current time
// as the file's end time. The usual choice for a simulator.
TARVEL_API ITarvelWrite* CreateStreamWriteTimed(const char* fileName);
// As above, with a callback that turns source identifiers into file names and lines. REQUIRES:
// `callback` outlives the writer.
TARVEL_API ITarvelWrite* CreateStreamWriteTimed(const char* fileName, const ISourceCallback* callback);

}  // namespace Tarvel

#endif  // TARVEL_WRITER_H
