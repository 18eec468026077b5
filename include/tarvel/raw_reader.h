// Reading waveform files: IRawTarvelRead with its signal and property iterators, and the
// factory CreateRawTarvelRead. Public header; compiles as C++17 and later. docs/guide.md shows
// it at work; examples/read_design.cc and examples/follow_growing_file.cc are its programs.
//
// Semantics. A raw reader parses a whole file when it is made (header, declarations, properties,
// source table and every event block) and keeps the file open. A file that a writer is still
// writing is read up to its last commit; Continue() reads on from there once the writer has
// committed again. Signals are listed in declaration order; every signal has an events store
// (GetSignalData) that can be walked with KEventData.
//
// Signals and the tree. Every declared signal, scope, bus, element and virtual bus is a signal
// of the reader, named by its handle in the file (the writer's handle). GetSignalPlace tells
// where it stands: its parent (the end iterator at the top), its position among the parent's
// children, its number of children and its local name. The writer's files show the design so:
//  - a scope is a signal without type (GetTypeId -1) and without events; its children are the
//    signals, buses and scopes declared inside it, at positions 0, 1, 2, ...;
//  - a bus (array or record signal) has a type and no events; its children are its elements,
//    named after the type ("(7)", "(1,0)", a field name), each with its type and its events;
//  - a virtual bus has no type and answers "1" to GetProperty(signal, "VBus"); its children
//    are its members, which it took from wherever they stood (a signal has one parent);
//  - the full name of a signal is the names from the top down joined with '.'.
//
// Events. A signal's events store holds (time, delta, value, source) per event, times in units
// of GetResolution() femtoseconds. A value is the bytes the writer stored (4 or 8, laid out as
// include/sorvat/typeinfo.h describes); Sorvat::KTypeInfo, built from GetTypeInfo(GetTypeId(s)),
// spells it. A source is a number that GetSourcer() turns into a file name and a line.
//
// Failures. The factory returns null for a file it cannot open or read (unknown header, a
// malformed line, a file without terminator or commit mark: never committed, exhausted
// memory); one bad line makes the whole file unreadable. Queries about unknown signals answer
// -1, null, false or the end iterator. No operation prints; none throws, except that making
// and copying iterators may throw std::bad_alloc when memory is exhausted.
//
// Ownership and lifetime. The caller owns the reader and gives it back with
// DeleteRawTarvelRead. Strings, store pointers and the type listing handed out stay valid until
// the reader reads on (Continue, which may move them) or is deleted; fetch them again after
// Continue. Stores (KEventsStore) may be copied, cheaply, and the copies kept beyond both.
// Signal iterators stay valid while the reader lives, across Continue too. One thread at a time.
#ifndef TARVEL_RAW_READER_H
#define TARVEL_RAW_READER_H

#include <tarvel/config.h>
#include <tarvel/events_store.h>
#include <tarvel/sourcer.h>

#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Tarvel {

struct SignalCursor;
struct PropertyCursor;
class ISignalContainer;
class IPropertyContainer;

// One property of one signal, as PropertyIterator yields them.
struct Property {
    int signalNr;       // the signal's number in the file (-1: the file itself)
    int64 time;         // the time of the property line (0 for properties of the design)
    const char* name;   // valid until the reader reads on (Continue) or is deleted
    const char* value;  // valid until the reader reads on (Continue) or is deleted
};

class TARVEL_API IRawTarvelRead {
public:
    // Walks the signals in declaration order. Copies share a position until one advances.
    // Valid while its reader lives; after Continue, signals read since follow the last one.
    class TARVEL_API SignalIterator {
    public:
        // The end iterator, equal to every reader's EndSignals().
        SignalIterator();
        // Shares `other`'s position (a reference count; no allocation).
        SignalIterator(const SignalIterator& other);
        SignalIterator& operator=(const SignalIterator& other);
        ~SignalIterator();

        // True when both are the end, or both stand on the same signal of the same reader.
        bool operator==(const SignalIterator& other) const;
        bool operator!=(const SignalIterator& other) const { return !(*this == other); }
        // Orders by reader, then by declaration order; the end comes after every signal.
        bool operator<(const SignalIterator& other) const;
        // The signal's number in the file (its handle); -1 at the end.
        int operator*() const;
        // The same as operator*.
        int GetSignalHandle() const;
        // The signal's position in declaration order, from 0; -1 at the end.
        int GetSignalNr() const;
        // Steps to the next signal in declaration order (past the last one: the end; the end
        // stays the end). Copies sharing the old position keep it. May throw std::bad_alloc.
        SignalIterator& operator++();
        SignalIterator operator++(int);
        // `steps` single steps; 0 or less does nothing.
        SignalIterator& operator+=(int steps);
        // Difference of the two positions in declaration order (the end counting as the number
        // of signals); 0 when both are the end.
        int operator-(const SignalIterator& other) const;

    private:
        friend class KRawTarvelRead;
        friend struct SignalIteratorAccess;
        explicit SignalIterator(SignalCursor* cursor) : m_cursor(cursor) {}
        SignalCursor* m_cursor;  // shared, counted; null at the end
    };

    // Walks (property line, signal) pairs in file order: every signal of the first property
    // line, then of the next, and so on, stopping at the first property line without signals.
    // Take a new one after Continue: the Property it stands on keeps the strings of before.
    class TARVEL_API PropertyIterator {
    public:
        // The end iterator, equal to every reader's EndProperties().
        PropertyIterator();
        // Copies the position (each iterator owns its own; may throw std::bad_alloc).
        PropertyIterator(const PropertyIterator& other);
        PropertyIterator& operator=(const PropertyIterator& other);
        ~PropertyIterator();

        // True when both are the end, or both stand on the same pair of the same reader.
        bool operator==(const PropertyIterator& other) const;
        bool operator!=(const PropertyIterator& other) const { return !(*this == other); }
        // Orders by reader, then by file order; the end comes after every pair.
        bool operator<(const PropertyIterator& other) const;
        // The property at this position. REQUIRES: not the end.
        const Property& operator*() const;
        const Property* operator->() const;
        // Steps to the next pair; past the last one, the end (the end stays the end). May throw
        // std::bad_alloc (the postfix form copies).
        PropertyIterator& operator++();
        PropertyIterator operator++(int);

    private:
        friend class KRawTarvelRead;
        explicit PropertyIterator(PropertyCursor* cursor) : m_cursor(cursor) {}
        PropertyCursor* m_cursor;  // owned; null at the end
    };

    // The file's time unit in femtoseconds (1000: picoseconds, when the file names none).
    virtual int64 GetResolution() = 0;
    // The file's end time, in resolution units: the last one the file records (a timed writer
    // records the time of every commit that moved it; an untimed one what SetDefaultEndTime
    // gave), 0 when it records none.
    virtual int64 GetEndTime() = 0;
    // True for a file of a timed writer (CreateStreamWriteTimed).
    virtual bool IsTimed() = 0;
    // The signal whose number in the file (handle) is `signalNr`, or the end.
    virtual SignalIterator FindSignal(int signalNr) = 0;
    // The first signal in declaration order; the end when the file has none.
    virtual SignalIterator BeginSignals() = 0;
    // The end iterator.
    virtual SignalIterator EndSignals() = 0;
    // Where a signal stands in the hierarchy. Outputs (each may be null): *childCount its
    // children (elements of a bus, members of a virtual bus); *endTime its end (declaration)
    // time; name and *nameSize: its name relative to its parent ("(7)", a field name, or its
    // declared name at the top), NUL-terminated, at most *nameSize bytes with the NUL, and
    // *nameSize set to the name's length (pass name null to learn the length alone); *parent
    // its parent (the end for a signal at the top); *position its position among the parent's
    // children. The end time is the time the signal's declaration carries: untimed files
    // carry a declaration's time when it differs from the one declared before it; an element
    // takes its bus's, or its own when declared at another time. A declaration that carries
    // none (every one in a timed file) takes the default: the last end time read before it in
    // an untimed file, 0 in a timed file. False (outputs untouched) for an unknown signal.
    virtual bool GetSignalPlace(SignalIterator signal, int* childCount, int64* endTime, char* name, int* nameSize,
                                SignalIterator* parent, int* position) = 0;
    // As above, the signal given by its number in the file.
    virtual bool GetSignalPlace(int signalNr, int* childCount, int64* endTime, char* name, int* nameSize,
                                SignalIterator* parent, int* position) = 0;
    // The signal's type id (the file's type index, for GetTypeInfo); -1 for a signal declared
    // without a type (a scope, a virtual bus) and for an unknown signal. An element has the id
    // of the type line whose text is its bus type's element (or field) type, -1 when the file
    // has none.
    virtual int GetTypeId(SignalIterator signal) = 0;
    // As above, the signal given by its number in the file.
    virtual int GetTypeId(int signalNr) = 0;
    // The value of the property `name` of a signal: the last one the file gives it, whatever its
    // time ("Hidden", "Comment", any stored name); for "VBus", "1" on a virtual bus. Null when
    // the signal has no such property or is unknown, or `name` is null. Valid until Continue.
    virtual const char* GetProperty(SignalIterator signal, const char* name) = 0;
    // As above, the signal given by its number; number -1 asks for the file's own properties
    // ("Project", "TopLevel", ...).
    virtual const char* GetProperty(int signalNr, const char* name) = 0;
    // The signal's events store (empty for scopes, buses and virtual buses: elements and plain
    // signals carry the events); null for an unknown signal. The pointer is valid until
    // Continue; copy the store to keep it longer.
    virtual const KEventsStore* GetSignalData(SignalIterator signal) = 0;
    // As above, the signal given by its number in the file.
    virtual const KEventsStore* GetSignalData(int signalNr) = 0;
    // The first (property line, signal) pair; the end when the file has no property lines or
    // the first one names no signal.
    virtual PropertyIterator BeginProperties() = 0;
    // The end iterator.
    virtual PropertyIterator EndProperties() = 0;
    // The type table as (type id, type-information string) pairs, in file order, from
    // BeginTypes() up to EndTypes() (equal when the file has no types). Valid until Continue.
    virtual const std::pair<int, const char*>* BeginTypes() = 0;
    virtual const std::pair<int, const char*>* EndTypes() = 0;
    // The type-information string of `typeId` (as GetTypeId answers it); null for -1 and every
    // unknown id. Valid until Continue.
    virtual const char* GetTypeInfo(int typeId) = 0;
    // Reads on from the commit mark where the last parse stopped: when the writer has committed
    // since, the signals, properties, types and events given before that commit are added (a
    // signal's new events follow its old ones in its store); otherwise nothing changes. True
    // in both cases. False when the file cannot be read on (damaged there, or of the oldest
    // layout, which has no commits); what was read up to the failing line stays.
    // Strings and store pointers handed out before may move: fetch them again.
    virtual bool Continue() = 0;
    // The file's source table, which turns KEventData::GetSource() into a file name and a line.
    // The reference is valid while the reader lives; copy it (by assignment) to keep the table
    // as it stands.
    virtual const KSourcer& GetSourcer() = 0;
    // Do not delete a reader: give it to DeleteRawTarvelRead.
    virtual ~IRawTarvelRead() = default;
};

// Opens and reads the waveform file `fileName` up to its last commit; null when it cannot be
// read (see Failures above). The caller owns the answer.
TARVEL_API IRawTarvelRead* CreateRawTarvelRead(const char* fileName);
// Closes the file and destroys the reader (null allowed), also one of
// CreateFilteredRawTarvelRead.
TARVEL_API void DeleteRawTarvelRead(IRawTarvelRead* reader);

// ---- Reading part of a file ---------------------------------------------------------------------
//
// A viewer of a large file lists what the file declares without reading events
// (CreateRawTarvelPreRead), then loads only the signals the user picked
// (CreateFilteredRawTarvelRead). Both read files of the current layout only ("$WAVE4" and
// "$WAVE4TIMED"); files of the older layouts are refused.
//
// Keys and names. Both key a declaration by its handle (the signal's number in the file, as
// GetSignalHandle() answers it) and name it by its full name: the local names of its parents and
// its own, joined with '.' from the top down (a name starting with '(' follows its parent
// directly), e.g. "tb.dut.count", the parents being those the file has given it when it is
// declared. Elements of a bus have no declaration of their own: they are neither listed nor
// picked, and come with their bus.

// One declaration listed by CreateRawTarvelPreRead. The caller owns it (see there).
struct SIGINFO {
    unsigned char flag;  // always 1
    char* name;          // the full name, NUL-terminated; made with new[]
};

// Opens `fileName` like CreateRawTarvelRead, but keeps only what `selection` picks: each signal
// or bus whose handle is a key of `selection` and whose full name is one of that key's names (or
// whose declared name is empty: it is picked by its handle alone), with the parts of a picked
// bus (its elements, and the signals and buses declared inside it, with their elements). For
// those the reader answers as the full reader does: place, type, properties, events, sources.
// The scopes, buses and virtual buses they stand in are there too, with their place, type and
// properties but no events, elements or members of their own, so that every kept signal has its
// parent; a child count counts the children the reader holds. Nothing else: no other signal,
// none of its events, none of its properties in the property walk. The file's resolution, end
// time, types, sources and own properties are the full reader's.
// Signals come in declaration order, except that a parent first needed after a Continue follows
// the signals read before.
// Costs: events of signals not kept are passed over without being stored or decoded, so the
// reader costs a scan of the file's bytes plus the work and memory of the kept events. Lines of
// blocks passed over are checked only for their structure (their time-point definitions are
// taken), so a file damaged only there reads filtered.
// Null, as CreateRawTarvelRead, for a file it cannot read (damage in lines passed over aside),
// for an older layout, and when memory runs out. A null `selection` keeps nothing, as an empty one does. The reader copies the names of
// `selection` while the factory runs: the caller may free it afterwards, and Continue selects
// the signals declared after a commit by the same names. The caller owns the reader and gives
// it back with DeleteRawTarvelRead.
TARVEL_API IRawTarvelRead* CreateFilteredRawTarvelRead(const char* fileName, std::map<int, std::vector<char*>*>* selection);

// Lists every signal and bus declaration of `fileName` into `result` without reading events:
// for each declaration, in file order, a new SIGINFO (flag 1, a copy of the full name) is
// appended to the vector under its handle, a new vector being made (with new) and inserted for a
// handle that has none (or a null one); a handle declared twice gets two records. Nothing else
// of `result` is touched. Reads the file up to its terminator or commit mark; when the file is
// of an older layout, cannot be opened, is cut short or damaged, or memory runs out, `result`
// holds what was listed until then, each record complete, and nothing is left allocated besides
// it. Nothing is thrown or printed.
// Ownership: the caller owns the vectors, the records and the names. Free them with
// DeleteRawTarvelPreRead, or, when the caller and the library share one C++ runtime, with
// `delete[] info->name; delete info;` for each record and `delete vector;` for each vector.
TARVEL_API void CreateRawTarvelPreRead(const char* fileName, std::unordered_map<int, std::vector<SIGINFO*>*>* result);

// Frees every vector, record and name in `result` (as CreateRawTarvelPreRead made them) and
// empties it. Null allowed.
TARVEL_API void DeleteRawTarvelPreRead(std::unordered_map<int, std::vector<SIGINFO*>*>* result);

}  // namespace Tarvel

#endif  // TARVEL_RAW_READER_H
