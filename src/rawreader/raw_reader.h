// KRawTarvelRead: the reader behind IRawTarvelRead. It parses a waveform file line by line
// through the lexer into signal entries (with their events stores), a type table, properties and
// the source table, and keeps the file open to read on after a commit mark. Given a selection
// (selection.h) the same parser keeps only the selected signals, or lists the declarations
// (filtered_reader.h). Raw reader layer; one thread at a time.
#ifndef TARVEL_RAWREADER_RAW_READER_H
#define TARVEL_RAWREADER_RAW_READER_H

#include <cstdint>
#include <string_view>
#include <utility>

#include "format/lexer.h"
#include "foundation/memory.h"
#include "store/time_delta_code.h"
#include "tarvel/raw_reader.h"
#include "typeinfo/type_service.h"

namespace Tarvel {

class KRawTarvelRead;
class KBlockSteps;
class KSelection;

// One signal of the file (a signal, a bus, an element of a bus or a virtual bus).
struct SignalEntry {
    std::int32_t number = 0;       // the signal's handle in the file
    std::int32_t typeId = -1;      // type index of its "I" line; -1 for none
    std::int32_t mode = 0;         // port mode number
    std::int32_t parent = -1;      // handle of its parent (bus, virtual bus or declared parent)
    std::int32_t position = 0;     // position among the parent's children
    bool isBus = false;            // declared with "$BUS"
    bool isVirtual = false;        // a virtual bus
    int64 endTime = 0;             // declaration time, or the time an "$ENDSC" line gave
    int64 lastTime = 0;            // absolute time of its last event read so far
    String name;                   // declared name, or the element's name within its bus
    std::int32_t childCount = 0;   // elements, members and declared children attached to it
    std::int32_t width = 0;        // a bus's number of element positions
    TypeHandle type;               // its type, for value text (elements: the bus's element type)
    KEventsStore store;            // its events
    std::uint64_t sequence = 0;    // place in declaration order (declarations and elements)
    bool ancestorOnly = false;     // filtered: entered as the parent of a kept signal only
};

// One "P" line.
struct PropertyRecord {
    Vector<std::int32_t> signals;  // handles of the line, in file order
    int64 time = 0;
    String name;
    String value;
};

// The iteration state behind SignalIterator, shared by copies until one advances.
struct SignalCursor {
    unsigned count = 1;                 // iterators sharing this cursor
    const KRawTarvelRead* reader;       // the reader whose signals are walked
    int index = 0;                      // position in declaration order
};

// The iteration state behind PropertyIterator, owned by one iterator.
struct PropertyCursor {
    Property current{};                  // the property the iterator stands on
    const KRawTarvelRead* reader;        // the reader whose properties are walked
    std::size_t record = 0;              // index of the "P" line
    std::size_t signal = 0;              // index within that line's signals
};

class KRawTarvelRead : public IRawTarvelRead {
public:
    // Elements that element lists may name beyond one per byte of the file read (see
    // ParseElementList).
    static constexpr std::size_t kFreeElements = std::size_t{1} << 16;

    KRawTarvelRead();
    ~KRawTarvelRead() override;

    // Makes the next Open a filtered or listing parse after `selection`, which must outlive the
    // reader; such a parse reads files of the current layout only. REQUIRES: before Open.
    void SetSelection(KSelection* selection) noexcept { m_selection = selection; }
    // Opens `fileName`, reads its header and parses it; false when the file is not readable.
    bool Open(const char* fileName);

    int64 GetResolution() override { return m_resolution; }
    int64 GetEndTime() override { return m_hasEndTime ? m_endTime : 0; }
    bool IsTimed() override { return m_timed; }
    SignalIterator FindSignal(int signalNr) override;
    SignalIterator BeginSignals() override;
    SignalIterator EndSignals() override { return SignalIterator(); }
    bool GetSignalPlace(SignalIterator signal, int* childCount, int64* endTime, char* name, int* nameSize,
                        SignalIterator* parent, int* position) override;
    bool GetSignalPlace(int signalNr, int* childCount, int64* endTime, char* name, int* nameSize,
                        SignalIterator* parent, int* position) override;
    int GetTypeId(SignalIterator signal) override;
    int GetTypeId(int signalNr) override;
    const char* GetProperty(SignalIterator signal, const char* name) override;
    const char* GetProperty(int signalNr, const char* name) override;
    const KEventsStore* GetSignalData(SignalIterator signal) override;
    const KEventsStore* GetSignalData(int signalNr) override;
    PropertyIterator BeginProperties() override;
    PropertyIterator EndProperties() override { return PropertyIterator(); }
    const std::pair<int, const char*>* BeginTypes() override;
    const std::pair<int, const char*>* EndTypes() override;
    const char* GetTypeInfo(int typeId) override;
    bool Continue() override;
    const KSourcer& GetSourcer() override { return m_sourcer; }

    // For DiagnoseTarvelFile: the fault the failure paths of the last parse recorded, the header's
    // layout (1, 2 or 4; -1 before a header was recognised), whether the last parse ended at the
    // terminator (else at a commit mark), and the file position of the line where it ended.
    const KLexer::Fault& LastFault() const { return m_lexer.LastFault(); }
    int Version() const { return m_version; }
    bool EndedAtTerminator() const { return m_endedAtTerminator; }
    std::int64_t EndOfRead() const { return m_lexer.SavedPosition(); }
    // For GetSignalPortMode: the entry of the signal `handle`, null when unknown.
    const SignalEntry* EntryOfSignal(std::int32_t handle) const { return Find(handle); }

    // For the iterators.
    std::size_t SignalCount() const { return m_signals.size(); }
    std::int32_t HandleAt(std::size_t index) const { return m_signals[index].number; }
    // Fills `cursor` with the property at its record and signal index; false past the end.
    bool SeatProperty(PropertyCursor& cursor) const;
    void CloseFile() { m_lexer.Close(); }

private:
    // One declaration line as read, before it is entered.
    struct DeclarationLine {
        std::int32_t handle = 0;
        std::int32_t typeId = -1;  // version 4: the type index
        std::int32_t width = 0;    // buses
        int mode = 0;
        bool bus = false;
        bool hasX = false;
        std::int32_t x = -1;       // version 4: the parent
        std::int32_t y = 0;        // version 4: the position
        int64 endTime = 0;
    };

    // Parsing (raw_reader.cc).
    bool ReadHeader();
    bool ParseLines();
    bool ReadLines();
    // Failure paths that record a fault (format/lexer.h, "Faults") and return false: a line that
    // failed without one of its own, and the end of the file inside a declaration or a block.
    bool LineFailed();
    bool DeclarationFailed();
    bool BlockFailed();
    bool ParseLine(int c, bool* stop);
    bool ParseKeyword(int& c, bool* stop);
    bool ParseDeclaration(int& c, int mode, bool bus);
    SignalEntry& EnterDeclaration(const DeclarationLine& line);
    std::int32_t TypeIdOfLine(std::int32_t typeIndex) const;
    bool ParseVersion2Tail(int& c, SignalEntry& entry, bool hasX, std::int32_t x);
    // Skips blanks; true when a number starts at `c`.
    bool NumberFollows(int& c);
    bool ParseTypeLine(int& c);
    bool ParseProperty(int& c);
    bool ParseElement(int& c);
    bool ParseElementList(int& c, std::int32_t bus);
    // Most elements the list of a bus of `width` positions may name now.
    std::size_t ElementListLimit(std::int32_t width) const;
    bool ParseElementEnd(int& c);
    bool ParseChild(int& c);
    bool ParseSourceFile(int& c);
    bool ParseSourceLine(int& c);
    bool SkipLine(int& c);
    bool ParseOldLayout();
    bool ParseOldEvents(int& c, std::int32_t handle);

    // Filtered and listing parses (filtered_reader.cc).
    bool Listing() const;
    bool SelectDeclaration(const DeclarationLine& line);
    bool Keeps(const DeclarationLine& line);
    void SetAside(const DeclarationLine& line);
    bool KnownSignal(std::int32_t handle);
    std::int32_t KnownParent(const DeclarationLine& line);
    void FullName(std::int32_t parent, std::string_view name, String& out);
    bool SkipElementList(int& c, std::int32_t bus);
    SignalEntry& Hold(std::int32_t handle);
    void FinishSelection();
    void EnterAncestor(std::int32_t handle);
    void OrderNewSignals();
    // Most signals a block may list: every signal declared or listed so far.
    std::size_t SignalBound() const;

    // Event blocks (waves_block.cc).
    bool ParseWaves(int& c);
    bool SkipBlock(int& c);
    template <class Stops>
    void SkipPlainLines(Stops stops);
    bool SkipTimePart(int& c);
    bool SkipValuePart(int& c);
    bool SkipSourcePart(int& c);
    bool ParseBlockInto(int& c, SignalEntry& entry, const SignalEntry& typed);
    bool ParseTimePart(int& c, KBlockSteps& steps);
    bool ParsePoint(int& c, TimeDelta* point);
    bool ReadShortPoint(TimeDelta* point);
    int ReadShortValues(const SignalEntry& typed, std::uint64_t* words, int room);
    bool ParseValuePart(int& c, KEventsStore& store, const SignalEntry& typed);
    bool ParseValue(int& c, const SignalEntry& typed, unsigned char* bytes);
    bool ParseSourcePart(int& c, KEventsStore& store, std::uint32_t eventsBefore);
    bool ExpectKeyword(int& c, std::string_view word);
    bool TooManyEvents();  // records the fault of a store that would outgrow its limit
    void SizeStore(SignalEntry& entry);

    // Lookups.
    SignalEntry* Find(std::int32_t handle);
    const SignalEntry* Find(std::int32_t handle) const;
    const SignalEntry* EntryOf(const SignalIterator& it) const;
    SignalEntry& Declare(std::int32_t handle);
    const TypeHandle* TypeOf(std::int32_t typeId) const;
    std::int32_t TypeIdOf(const char* text) const;
    SignalIterator IteratorAt(std::size_t index) const;
    bool Place(const SignalEntry* entry, int* childCount, int64* endTime, char* name, int* nameSize,
               SignalIterator* parent, int* position);
    const char* PropertyOf(const SignalEntry* entry, std::int32_t handle, const char* name) const;
    void Attach(std::int32_t parent, std::int32_t child, std::int32_t position);

    KLexer m_lexer;
    KSelection* m_selection = nullptr;  // filtered or listing parse; null for the full reader
    String m_fileName;
    int m_version = -1;          // 1, 2 or 4
    bool m_timed = false;
    int64 m_resolution = 1000;
    int64 m_endTime = -1;        // the last "$ENDTIME", as given
    bool m_hasEndTime = false;   // some "$ENDTIME" was read
    int64 m_defaultEndTime = 0;  // untimed files: "$ENDTIME" too
    bool m_stoppedAtMark = false;  // the last parse stopped at a commit mark or the terminator
    bool m_endedAtTerminator = true;  // ... at the terminator (not at a commit mark)
    Vector<SignalEntry> m_signals;               // in declaration order
    HashMap<std::int32_t, std::size_t> m_index;  // handle -> entry index
    struct TypeEntry {
        std::int32_t id;
        TypeHandle type;
        String text;
    };
    Vector<TypeEntry> m_types;                   // in file order
    Map<std::int32_t, std::size_t> m_typeIndex;  // type id -> m_types index
    std::int32_t m_stdLogic = -1;                // id of the first std_logic type line
    Vector<std::pair<int, const char*>> m_typeList;  // built on first use
    Vector<PropertyRecord> m_properties;         // in file order
    Map<std::int32_t, Vector<std::size_t>> m_propertiesOf;  // handle -> its property records
    KSourcer m_sourcer;
    std::int32_t m_currentBus = -1;              // the bus declared last ("$SC")
    Map<std::int32_t, std::int32_t> m_elementPositions;  // "S" lines waiting for their list
    std::size_t m_elementsListed = 0;            // elements named by all element lists so far
    String m_previousName;                       // for compressed names
    String m_scratch;                            // working space of ReadName
    Vector<TimeDelta> m_points;                  // the time-point dictionary
    String m_word;                               // scratch token
    String m_text;                               // scratch token
    Vector<std::int32_t> m_list;                 // scratch index list
    Vector<std::size_t> m_blockEntries;          // scratch: entries of the block being read
    std::uint64_t m_sequence = 0;                // declarations and elements met so far
    std::size_t m_ordered = 0;                   // filtered: entries put in order by the last finish
    std::size_t m_elementsSkipped = 0;           // filtered: elements of lists not kept
    Vector<const String*> m_chain;               // scratch: names of a parent chain
};

}  // namespace Tarvel

#endif  // TARVEL_RAWREADER_RAW_READER_H
