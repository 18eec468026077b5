// Reading waveform files: IRawTarvelRead with its signal and property iterators, and the
// factory CreateRawTarvelRead. Public header; compiles as C++17 and later.
//
// Semantics. A raw reader parses a whole file when it is made (header, declarations, properties,
// source table and every event block) and keeps the file open. A file that a writer is still
// writing is read up to its last commit; Continue() reads on from there once the writer has
// committed again. Signals are listed in declaration order; every signal has an events store
// (GetSignalData) that can be walked with KEventData.
//
// Failures. The factory returns null for a file it cannot open or read (unknown header, a
// malformed line, exhausted memory). Queries about unknown signals answer -1, null, false or the
// end iterator. No operation prints or throws.
//
// Ownership and threads. The caller owns the reader and gives it back with DeleteRawTarvelRead.
// Strings and pointers handed out live as long as the reader unless said otherwise; stores
// (KEventsStore) may be copied and kept beyond it. One thread at a time.
#ifndef TARVEL_RAW_READER_H
#define TARVEL_RAW_READER_H

#include <tarvel/config.h>
#include <tarvel/events_store.h>
#include <tarvel/sourcer.h>

#include <utility>

namespace Tarvel {

struct SignalCursor;
struct PropertyCursor;
class ISignalContainer;
class IPropertyContainer;

// One property of one signal, as PropertyIterator yields them.
struct Property {
    int signalNr;       // the signal's number in the file (-1: the file itself)
    int64 time;         // the time of the property line (0 for properties of the design)
    const char* name;   // lives as long as the reader
    const char* value;  // lives as long as the reader
};

class TARVEL_API IRawTarvelRead {
public:
    // Walks the signals in declaration order. Copies share a position until one advances.
    class TARVEL_API SignalIterator {
    public:
        SignalIterator();  // the end
        SignalIterator(const SignalIterator& other);
        SignalIterator& operator=(const SignalIterator& other);
        ~SignalIterator();

        bool operator==(const SignalIterator& other) const;
        bool operator!=(const SignalIterator& other) const { return !(*this == other); }
        bool operator<(const SignalIterator& other) const;
        // The signal's number in the file (its handle).
        int operator*() const;
        int GetSignalHandle() const;
        // The signal's position in declaration order, from 0.
        int GetSignalNr() const;
        SignalIterator& operator++();
        SignalIterator operator++(int);
        SignalIterator& operator+=(int steps);
        // Difference of the two positions.
        int operator-(const SignalIterator& other) const;

    private:
        friend class KRawTarvelRead;
        friend struct SignalIteratorAccess;
        explicit SignalIterator(SignalCursor* cursor) : m_cursor(cursor) {}
        SignalCursor* m_cursor;  // shared, counted; null at the end
    };

    // Walks (property line, signal) pairs in file order, stopping at the first property line
    // without signals.
    class TARVEL_API PropertyIterator {
    public:
        PropertyIterator();  // the end
        PropertyIterator(const PropertyIterator& other);
        PropertyIterator& operator=(const PropertyIterator& other);
        ~PropertyIterator();

        bool operator==(const PropertyIterator& other) const;
        bool operator!=(const PropertyIterator& other) const { return !(*this == other); }
        bool operator<(const PropertyIterator& other) const;
        const Property& operator*() const;
        const Property* operator->() const;
        PropertyIterator& operator++();
        PropertyIterator operator++(int);

    private:
        friend class KRawTarvelRead;
        explicit PropertyIterator(PropertyCursor* cursor) : m_cursor(cursor) {}
        PropertyCursor* m_cursor;  // owned; null at the end
    };

    virtual int64 GetResolution() = 0;
    // The file's end time ("$ENDTIME"; 0 when absent).
    virtual int64 GetEndTime() = 0;
    virtual bool IsTimed() = 0;
    // The signal with that number in the file, or the end.
    virtual SignalIterator FindSignal(int signalNr) = 0;
    virtual SignalIterator BeginSignals() = 0;
    virtual SignalIterator EndSignals() = 0;
    // Where a signal stands in the hierarchy. Outputs (each may be null): *childCount its
    // children (elements of a bus, members of a virtual bus); *endTime its end (declaration)
    // time; name and *nameSize: its name relative to its parent ("(7)", a field name, or its
    // declared name at the top), NUL-terminated, at most *nameSize bytes with the NUL, and
    // *nameSize set to the name's length; *parent its parent (the end for a signal at the top);
    // *position its position among the parent's children. False for an unknown signal.
    virtual bool GetSignalPlace(SignalIterator signal, int* childCount, int64* endTime, char* name, int* nameSize,
                                SignalIterator* parent, int* position) = 0;
    virtual bool GetSignalPlace(int signalNr, int* childCount, int64* endTime, char* name, int* nameSize,
                                SignalIterator* parent, int* position) = 0;
    // The signal's type id (the file's type index), -1 when it has none or is unknown.
    virtual int GetTypeId(SignalIterator signal) = 0;
    virtual int GetTypeId(int signalNr) = 0;
    // A property of a signal ("CS", "Hidden", "VBus" or any stored name); null when it has none.
    // For signal number -1, the file's "Project" and "TopLevel".
    virtual const char* GetProperty(SignalIterator signal, const char* name) = 0;
    virtual const char* GetProperty(int signalNr, const char* name) = 0;
    // The signal's events store; null for an unknown signal.
    virtual const KEventsStore* GetSignalData(SignalIterator signal) = 0;
    virtual const KEventsStore* GetSignalData(int signalNr) = 0;
    virtual PropertyIterator BeginProperties() = 0;
    virtual PropertyIterator EndProperties() = 0;
    // The type table as (type id, type-information string) pairs.
    virtual const std::pair<int, const char*>* BeginTypes() = 0;
    virtual const std::pair<int, const char*>* EndTypes() = 0;
    virtual const char* GetTypeInfo(int typeId) = 0;
    // Reads on from the commit mark where the last parse stopped; false when the file cannot be
    // read there. Signals, properties and events that follow are added.
    virtual bool Continue() = 0;
    virtual const KSourcer& GetSourcer() = 0;
    virtual ~IRawTarvelRead() = default;
};

// Opens and reads a waveform file; null when it cannot be read.
TARVEL_API IRawTarvelRead* CreateRawTarvelRead(const char* fileName);
// Closes the file and destroys the reader (null allowed).
TARVEL_API void DeleteRawTarvelRead(IRawTarvelRead* reader);

}  // namespace Tarvel

#endif  // TARVEL_RAW_READER_H
