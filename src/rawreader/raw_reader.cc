// The raw reader's line parser: header, declarations, types, properties, element and hierarchy
// lines, source tables, the older layouts, and the queries of IRawTarvelRead.
// Raw reader layer; one thread at a time.
#include "rawreader/raw_reader.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "format/index_lists.h"
#include "format/names.h"
#include "format/numbers.h"
#include "format/strings.h"
#include "format/type_strings.h"
#include "rawreader/sourcer_access.h"
#include "store/store_access.h"
#include "format/vocabulary.h"
#include "tarvel/port_mode.h"

namespace Tarvel {
namespace {

bool Is(const String& word, std::string_view expected) { return std::string_view(word) == expected; }

constexpr const char* kResolutionNotPositive = "resolution must be above 0";

}  // namespace

KRawTarvelRead::KRawTarvelRead() = default;
KRawTarvelRead::~KRawTarvelRead() = default;

// ---- Opening and the header -------------------------------------------------------------------

bool KRawTarvelRead::Open(const char* fileName) {
    if (!fileName) return false;
    try {
        m_fileName = fileName;
        if (!m_lexer.Open(fileName) || !ReadHeader()) return false;
        return m_version == 1 ? ParseOldLayout() : ParseLines();
    } catch (const std::bad_alloc&) {
        return m_lexer.FailAt(m_lexer.Position(), "out of memory");
    }
}

bool KRawTarvelRead::ReadHeader() {
    int c = m_lexer.Next();
    if (c == KLexer::kEnd) return m_lexer.FailAtEnd("the file is empty");
    if (c != Format::kKeywordLead) return m_lexer.Fail(c, "no waveform file: the first line is no $WAVE header");
    c = m_lexer.Next();
    if (!m_lexer.ReadWord(c, m_word)) return m_lexer.Fail(c, "header word expected after '$'");
    if (!m_lexer.EndOfLine(c)) return false;
    for (const Format::HeaderWord& header : Format::kHeaderWords) {
        if (std::string_view(m_word) == header.word) {
            m_version = header.version;
            m_timed = header.timed;
            return true;
        }
    }
    return m_lexer.FailAt(0, "unknown header '%s'");
}

// ---- The line loop ----------------------------------------------------------------------------

bool KRawTarvelRead::ParseLines() {
    m_stoppedAtMark = false;
    for (;;) {
        m_lexer.SavePosition();
        bool stop = false;
        if (!ParseLine(m_lexer.Next(), &stop)) return LineFailed();
        if (stop) break;
    }
    // Blocks grow the stores' last chunks as they come; what is read is final until Continue.
    for (SignalEntry& entry : m_signals) ShrinkTimeSteps(entry.store);
    return true;
}

// Every failure path of a line records its fault; this one makes sure that a fault recorded by
// an earlier line (a field tried and given up) never stands for this line's.
bool KRawTarvelRead::LineFailed() {
    const KLexer::Fault& fault = m_lexer.LastFault();
    if (!fault.reason || fault.position < m_lexer.SavedPosition()) m_lexer.FailAt(m_lexer.SavedPosition(), "malformed line");
    return false;
}

bool KRawTarvelRead::ParseLine(int c, bool* stop) {
    switch (c) {
        case Format::kKeywordLead: c = m_lexer.Next(); return ParseKeyword(c, stop);
        case Format::kCommitMark:
            m_stoppedAtMark = true;
            m_endedAtTerminator = false;
            *stop = true;
            return true;
        case Format::kCommentLead: return SkipLine(c);
        case Format::kTypeLead: c = m_lexer.Next(); return ParseTypeLine(c);
        case Format::kPropertyLead: c = m_lexer.Next(); return ParseProperty(c);
        case Format::kScalarElementLead: c = m_lexer.Next(); return ParseElement(c);
        case KLexer::kEnd: return m_lexer.FailAtEnd("file ends without $ENDWAVE or a commit mark");
        case '\r':
        case '\n': return m_lexer.Fail(c, "empty line");
        default: return m_lexer.Fail(c, "unknown line '%s'");
    }
}

bool KRawTarvelRead::SkipLine(int& c) {
    while (c != '\n' && c != KLexer::kEnd) c = m_lexer.Next();
    return c == '\n' || m_lexer.FailAtEnd(KLexer::kEndsInsideLine);
}

bool KRawTarvelRead::ParseKeyword(int& c, bool* stop) {
    if (!m_lexer.ReadWord(c, m_word)) return m_lexer.Fail(c, "keyword expected after '$'");
    int mode = 0;
    if (Format::ModeFromWord(m_word, false, &mode)) return ParseDeclaration(c, mode, false) || DeclarationFailed();
    if (Is(m_word, Format::kBus)) {
        if (m_version != 4) return ParseDeclaration(c, 0, true) || DeclarationFailed();
        if (!m_lexer.SkipBlanks(c) || !m_lexer.ReadWord(c, m_word)) return m_lexer.Fail(c, "port mode expected after $BUS");
        if (!Format::ModeFromWord(m_word, true, &mode)) return m_lexer.FailAfterToken(c, "unknown port mode '%s'");
        return ParseDeclaration(c, mode, true) || DeclarationFailed();
    }
    if (Is(m_word, Format::kWaves)) return ParseWaves(c);
    if (Is(m_word, Format::kElementList)) return ParseElementList(c, m_currentBus);
    if (Is(m_word, Format::kElementListOfBus)) {
        std::int32_t bus = 0;
        return Format::ReadRelative(m_lexer, c, bus) && ParseElementList(c, bus);
    }
    if (Is(m_word, Format::kElementEnd)) return ParseElementEnd(c);
    if (Is(m_word, Format::kChild)) return ParseChild(c);
    if (Is(m_word, Format::kSourceFile)) return ParseSourceFile(c);
    if (Is(m_word, Format::kSourceLine)) return ParseSourceLine(c);
    if (Is(m_word, Format::kEndTime)) {
        int64 time = 0;
        if (!Format::ReadWide(m_lexer, c, time) || !m_lexer.EndOfLine(c)) return false;
        m_endTime = time;
        m_hasEndTime = true;
        if (!m_timed) m_defaultEndTime = time;
        return true;
    }
    if (Is(m_word, Format::kResolution)) {
        int64 resolution = 0;
        if (!Format::ReadWide(m_lexer, c, resolution)) return false;
        if (resolution <= 0) return m_lexer.FailAfterToken(c, kResolutionNotPositive);
        if (!m_lexer.EndOfLine(c)) return false;
        m_resolution = resolution;
        return true;
    }
    if (Is(m_word, Format::kTerminatorWord)) {
        // The terminator's line stays the position to read on from: a writer that resumes turns
        // it into a commit mark and writes on over it.
        m_stoppedAtMark = true;
        m_endedAtTerminator = true;
        *stop = true;
        return m_lexer.EndOfLineOrFile(c);
    }
    return m_lexer.FailAfterToken(c, "unknown keyword '%s'");
}

bool KRawTarvelRead::DeclarationFailed() { return m_lexer.RefineEndFault("file ends inside a declaration"); }

// ---- Declarations -----------------------------------------------------------------------------

SignalEntry& KRawTarvelRead::Declare(std::int32_t handle) {
    const auto found = m_index.find(handle);
    if (found != m_index.end()) return m_signals[found->second];
    m_signals.emplace_back();
    try {
        m_index.emplace(handle, m_signals.size() - 1);
    } catch (...) {
        m_signals.pop_back();
        throw;
    }
    SignalEntry& entry = m_signals.back();
    entry.number = handle;
    return entry;
}

// "$" mode handle [type] [width] name [parent position [time]] (version 4), or the version-2
// form with its tail (see docs/format.md).
bool KRawTarvelRead::ParseDeclaration(int& c, int mode, bool bus) {
    std::int32_t handle = 0, typeId = -1, width = 0;
    if (!Format::ReadRelative(m_lexer, c, handle)) return false;
    if (m_version == 4 && !Format::ReadInteger(m_lexer, c, typeId)) return false;
    if (bus && !Format::ReadInteger(m_lexer, c, width)) return false;
    if (!Format::ReadName(m_lexer, c, m_previousName, m_scratch)) return false;
    SignalEntry& entry = Declare(handle);
    entry.mode = mode;
    entry.isBus = bus;
    entry.isVirtual = bus && mode == Format::kModeVirtualBus;
    entry.width = width;
    entry.name = m_previousName;
    if (bus) m_currentBus = handle;
    std::int32_t x = -1;
    const bool hasX = m_lexer.SkipBlanks(c) && Format::ReadInteger(m_lexer, c, x);
    if (m_version != 4) return ParseVersion2Tail(c, entry, hasX, x);
    // Type index 0 is the writer's "declared without a type", unless a type line gave it.
    const TypeHandle* type = TypeOf(typeId);
    entry.typeId = typeId == 0 && !type ? -1 : typeId;
    if (type) entry.type = *type;
    // X (the parent) may stand alone; with Y (the position) an end time may follow. A missing end
    // time is the default end time.
    std::int32_t y = 0;
    const bool hasY = hasX && NumberFollows(c);
    if (hasY && !Format::ReadInteger(m_lexer, c, y)) return false;
    entry.endTime = m_defaultEndTime;
    if (hasY && NumberFollows(c) && !Format::ReadWide(m_lexer, c, entry.endTime)) return false;
    if (!m_lexer.EndOfLine(c)) return false;
    if (hasX) Attach(x, handle, y);
    return true;
}

bool KRawTarvelRead::NumberFollows(int& c) {
    return m_lexer.SkipBlanks(c) && (KLexer::IsDigit(c) || c == '-');
}

// Version 2: after the name, optionally X (the type index), Y (the parent), a word that may give
// the mode (after Y, on NOMODE and SIGNAL lines only) and the declaration time; without a time
// the default end time.
bool KRawTarvelRead::ParseVersion2Tail(int& c, SignalEntry& entry, bool hasX, std::int32_t x) {
    std::int32_t parent = -1;
    entry.endTime = m_defaultEndTime;
    if (hasX) {
        entry.typeId = x;
        if (const TypeHandle* type = TypeOf(x)) entry.type = *type;
        const bool hasY = NumberFollows(c);
        if (hasY && !Format::ReadInteger(m_lexer, c, parent)) return false;
        if (hasY && m_lexer.SkipBlanks(c) && !KLexer::IsDigit(c) && c != '-') {
            if (entry.mode != Format::kModeNone && entry.mode != Format::kModeSignal) {
                return m_lexer.Fail(c, "a mode word may follow only on NOMODE and SIGNAL lines");
            }
            if (!m_lexer.ReadWord(c, m_word)) return false;
            int mode = 0;
            entry.mode = Format::ModeFromWord(m_word, false, &mode) ? mode : 0;
        }
        if (m_lexer.SkipBlanks(c) && !Format::ReadWide(m_lexer, c, entry.endTime)) return false;
    }
    if (!m_lexer.EndOfLine(c)) return false;
    if (parent >= 0) Attach(parent, entry.number, 0);
    return true;
}

// Makes `child` the child at `position` of `parent` when the parent is a known signal.
void KRawTarvelRead::Attach(std::int32_t parent, std::int32_t child, std::int32_t position) {
    SignalEntry* up = Find(parent);
    SignalEntry* down = Find(child);
    if (!up || !down || parent == child) return;
    if (SignalEntry* old = Find(down->parent)) --old->childCount;  // one parent: attached again, it moves
    down->parent = parent;
    down->position = position;
    ++up->childCount;
}

bool KRawTarvelRead::ParseTypeLine(int& c) {
    std::int32_t id = 0;
    if (!Format::ReadInteger(m_lexer, c, id) || !Format::ReadTypeString(m_lexer, c, m_text) || !m_lexer.EndOfLine(c)) return false;
    // A repeated id takes the later text; both stay in the type listing.
    m_types.push_back(TypeEntry{id, TypeHandle(m_text.c_str()), m_text});
    try {
        m_typeIndex[id] = m_types.size() - 1;
    } catch (...) {
        m_types.pop_back();
        throw;
    }
    m_typeList.clear();
    if (m_stdLogic < 0 && IsStdLogicTypeString(m_text.c_str())) m_stdLogic = id;
    return true;
}

bool KRawTarvelRead::ParseProperty(int& c) {
    PropertyRecord record;
    if (m_version == 4) {
        if (!Format::ReadWide(m_lexer, c, record.time) || !Format::ReadIndexList(m_lexer, c, record.signals)) return false;
    } else {
        std::int32_t handle = 0;
        if (!Format::ReadRelative(m_lexer, c, handle) || !Format::ReadWide(m_lexer, c, record.time)) return false;
        record.signals.push_back(handle);
    }
    if (!Format::ReadString(m_lexer, c, record.name) || !Format::ReadString(m_lexer, c, record.value) || !m_lexer.EndOfLine(c)) return false;
    m_properties.push_back(std::move(record));
    for (std::int32_t handle : m_properties.back().signals) m_propertiesOf[handle].push_back(m_properties.size() - 1);
    return true;
}

// "S handle position": the element's position, used when its element list comes.
bool KRawTarvelRead::ParseElement(int& c) {
    std::int32_t handle = 0, position = 0;
    if (!Format::ReadRelative(m_lexer, c, handle) || !Format::ReadInteger(m_lexer, c, position) || !m_lexer.EndOfLine(c)) return false;
    m_elementPositions[handle] = position;
    return true;
}

// The listed signals become elements of `bus`: signals of their own, named and typed after the
// bus type's child at their position.
bool KRawTarvelRead::ParseElementList(int& c, std::int32_t busHandle) {
    const SignalEntry* target = Find(busHandle);
    if (!target) return m_lexer.FailAt(m_lexer.SavedPosition(), "element list of a bus that is not declared");
    // A bus has at most `width` elements. And every element is a signal of its own, so the
    // elements of all lists together may not outnumber kFreeElements plus the bytes read so far:
    // a writer's file spends an "S" line on each element, so only damage (a wrapped width and a
    // long range, say) meets the bound, and the memory a file can make the reader take grows
    // with its size.
    const std::size_t width = static_cast<std::size_t>(target->width < 0 ? 0 : target->width);
    const std::size_t allowance = kFreeElements + static_cast<std::size_t>(m_lexer.Position()) - m_elementsListed;
    if (!Format::ReadIndexList(m_lexer, c, m_list, std::min(width, allowance)) || !m_lexer.EndOfLine(c)) return false;
    m_elementsListed += m_list.size();
    for (std::size_t i = 0; i < m_list.size(); ++i) {
        const std::int32_t handle = m_list[i];
        const auto given = m_elementPositions.find(handle);
        const std::int32_t position = given != m_elementPositions.end() ? given->second : static_cast<std::int32_t>(i);
        if (given != m_elementPositions.end()) m_elementPositions.erase(given);
        SignalEntry& element = Declare(handle);
        const SignalEntry* busEntry = Find(busHandle);  // again: Declare may have moved the entries
        if (!busEntry) return false;
        const SignalEntry& bus = *busEntry;
        element.endTime = bus.endTime;
        element.type = bus.type.ChildType(position);
        element.typeId = TypeIdOf(element.type.Text());
        element.name = bus.type.ChildName(position).c_str();
        if (element.name.empty()) element.name = bus.name;
        Attach(busHandle, handle, position);
    }
    return true;
}

bool KRawTarvelRead::ParseElementEnd(int& c) {
    std::int32_t handle = 0;
    int64 time = 0;
    if (!Format::ReadInteger(m_lexer, c, handle) || !Format::ReadWide(m_lexer, c, time) || !m_lexer.EndOfLineOrFile(c)) return false;
    SignalEntry* entry = Find(handle);
    if (!entry) return m_lexer.FailAt(m_lexer.SavedPosition(), "$ENDSC names a signal that is not declared");
    entry->endTime = time;
    return true;
}

// "$CHILD bus member position": the member joins the virtual bus.
bool KRawTarvelRead::ParseChild(int& c) {
    if (!Format::ReadIndexList(m_lexer, c, m_list, 3) || !m_lexer.EndOfLine(c)) return false;
    if (m_list.size() >= 2) Attach(m_list[0], m_list[1], m_list.size() > 2 ? m_list[2] : 0);
    return true;
}

bool KRawTarvelRead::ParseSourceFile(int& c) {
    std::int32_t index = 0;
    if (!Format::ReadInteger(m_lexer, c, index) || !Format::ReadString(m_lexer, c, m_text) || !m_lexer.EndOfLine(c)) return false;
    KSourcerAccess::EnterFile(m_sourcer, index, m_text);
    return true;
}

bool KRawTarvelRead::ParseSourceLine(int& c) {
    std::int32_t point = 0, file = 0, line = 0;
    if (!Format::ReadInteger(m_lexer, c, point) || !Format::ReadInteger(m_lexer, c, file) || !Format::ReadInteger(m_lexer, c, line) ||
        !m_lexer.EndOfLine(c)) {
        return false;
    }
    KSourcerAccess::EnterPoint(m_sourcer, point, file, line);
    return true;
}

// ---- Version 1 --------------------------------------------------------------------------------

bool KRawTarvelRead::ParseOldLayout() {
    for (;;) {
        m_lexer.SavePosition();  // the start of the line, where a diagnostic names the end
        int c = m_lexer.Next();
        if (c == Format::kCommentLead) {
            if (!SkipLine(c)) return false;
            continue;
        }
        if (c == Format::kTypeLead) {
            c = m_lexer.Next();
            if (!ParseTypeLine(c)) return false;
            continue;
        }
        if (c == Format::kKeywordLead) {  // only "$RESOLUTION" in this layout
            c = m_lexer.Next();
            int64 resolution = 0;
            if (!m_lexer.ReadWord(c, m_word)) return m_lexer.Fail(c, "keyword expected after '$'");
            if (!Is(m_word, Format::kResolution)) return m_lexer.FailAfterToken(c, "unknown keyword '%s'");
            if (!Format::ReadWide(m_lexer, c, resolution)) return false;
            if (resolution <= 0) return m_lexer.FailAfterToken(c, kResolutionNotPositive);
            if (!m_lexer.EndOfLine(c)) return false;
            m_resolution = resolution;
            continue;
        }
        if (c == KLexer::kEnd) return m_lexer.FailAtEnd("file ends without ENDWAVE");
        if (!m_lexer.ReadWord(c, m_word)) return m_lexer.Fail(c, "empty line");
        if (Is(m_word, Format::kTerminatorWord)) return m_lexer.EndOfLineOrFile(c);
        // Signal lines are declarations like those of the newer layouts, with the mode word
        // "SIGNAL" and no "$" before it.
        if (Is(m_word, Format::kOldSignal)) {
            if (!ParseDeclaration(c, Format::kModeSignal, false)) return false;
            continue;
        }
        std::int32_t handle = 0;
        if (!Is(m_word, Format::kOldEvents)) return m_lexer.FailAfterToken(c, "unknown line '%s'");
        if (!Format::ReadInteger(m_lexer, c, handle) || !m_lexer.EndOfLine(c) || !ParseOldEvents(c, handle)) return false;
    }
}

// Event lines "time [D delta] value" of one signal, up to the next line that starts otherwise.
bool KRawTarvelRead::ParseOldEvents(int& c, std::int32_t handle) {
    SignalEntry* entry = Find(handle);
    if (!entry) return m_lexer.FailAt(m_lexer.SavedPosition(), "EVENTS of a signal that is not declared");
    SizeStore(*entry);
    KEventsStore& store = entry->store;
    if (!store.empty()) store.restart();
    unsigned char bytes[8];
    for (;;) {
        m_lexer.SavePosition();
        c = m_lexer.Next();
        if (!KLexer::IsDigit(c) && c != '-') break;
        int64 time = 0;
        std::int32_t delta = 0;
        if (!Format::ReadWide(m_lexer, c, time)) return false;
        if (time < entry->lastTime) return m_lexer.FailAfterToken(c, "time goes back");
        if (!m_lexer.SkipBlanks(c)) return m_lexer.Fail(c, "value expected");
        if (c == 'D') {
            c = m_lexer.Next();
            if (!Format::ReadInteger(m_lexer, c, delta)) return false;
            if (!m_lexer.SkipBlanks(c)) return m_lexer.Fail(c, "value expected");
        }
        if (!ParseValue(c, *entry, bytes) || !m_lexer.EndOfLine(c)) return false;
        store.push_back(time, delta, bytes);
        entry->lastTime = time;
    }
    store.push_end(entry->lastTime, 0);
    // The line that ended the events belongs to the caller: read it again from its start.
    return m_lexer.RestorePosition() || m_lexer.FailAt(m_lexer.SavedPosition(), "the file cannot be read again here");
}

// ---- Lookups ----------------------------------------------------------------------------------

SignalEntry* KRawTarvelRead::Find(std::int32_t handle) {
    const auto found = m_index.find(handle);
    return found == m_index.end() ? nullptr : &m_signals[found->second];
}

const SignalEntry* KRawTarvelRead::Find(std::int32_t handle) const {
    const auto found = m_index.find(handle);
    return found == m_index.end() ? nullptr : &m_signals[found->second];
}

const TypeHandle* KRawTarvelRead::TypeOf(std::int32_t typeId) const {
    const auto found = m_typeIndex.find(typeId);
    return found == m_typeIndex.end() ? nullptr : &m_types[found->second].type;
}

std::int32_t KRawTarvelRead::TypeIdOf(const char* text) const {
    for (const TypeEntry& type : m_types) {
        if (type.text == text) return type.id;
    }
    return -1;
}

const SignalEntry* KRawTarvelRead::EntryOf(const SignalIterator& it) const {
    const SignalCursor* cursor = it.m_cursor;
    if (!cursor || cursor->reader != this || cursor->index < 0 || static_cast<std::size_t>(cursor->index) >= m_signals.size()) {
        return nullptr;
    }
    return &m_signals[static_cast<std::size_t>(cursor->index)];
}

IRawTarvelRead::SignalIterator KRawTarvelRead::IteratorAt(std::size_t index) const {
    if (index >= m_signals.size()) return SignalIterator();
    SignalCursor* cursor = NewObject<SignalCursor>();
    cursor->reader = this;
    cursor->index = static_cast<int>(index);
    return SignalIterator(cursor);
}

IRawTarvelRead::SignalIterator KRawTarvelRead::FindSignal(int signalNr) {
    const auto found = m_index.find(signalNr);
    return found == m_index.end() ? SignalIterator() : IteratorAt(found->second);
}

IRawTarvelRead::SignalIterator KRawTarvelRead::BeginSignals() { return IteratorAt(0); }

bool KRawTarvelRead::Place(const SignalEntry* entry, int* childCount, int64* endTime, char* name, int* nameSize,
                           SignalIterator* parent, int* position) {
    if (!entry) return false;
    if (childCount) *childCount = entry->childCount;
    if (endTime) *endTime = entry->endTime;
    if (name && nameSize && *nameSize > 0) {
        const std::size_t length = entry->name.size() < static_cast<std::size_t>(*nameSize - 1)
                                       ? entry->name.size()
                                       : static_cast<std::size_t>(*nameSize - 1);
        std::memcpy(name, entry->name.data(), length);
        name[length] = '\0';
    }
    if (nameSize) *nameSize = static_cast<int>(entry->name.size());
    if (parent) *parent = entry->parent >= 0 ? FindSignal(entry->parent) : SignalIterator();
    if (position) *position = entry->position;
    return true;
}

bool KRawTarvelRead::GetSignalPlace(SignalIterator signal, int* childCount, int64* endTime, char* name, int* nameSize,
                                    SignalIterator* parent, int* position) {
    return Place(EntryOf(signal), childCount, endTime, name, nameSize, parent, position);
}

bool KRawTarvelRead::GetSignalPlace(int signalNr, int* childCount, int64* endTime, char* name, int* nameSize,
                                    SignalIterator* parent, int* position) {
    return Place(Find(signalNr), childCount, endTime, name, nameSize, parent, position);
}

int KRawTarvelRead::GetTypeId(SignalIterator signal) {
    const SignalEntry* entry = EntryOf(signal);
    return entry ? entry->typeId : -1;
}

int KRawTarvelRead::GetTypeId(int signalNr) {
    const SignalEntry* entry = Find(signalNr);
    return entry ? entry->typeId : -1;
}

// The value of the last property `name` stored for `handle`; "VBus" is "1" for a virtual bus.
const char* KRawTarvelRead::PropertyOf(const SignalEntry* entry, std::int32_t handle, const char* name) const {
    if (!name) return nullptr;
    const auto records = m_propertiesOf.find(handle);
    if (records != m_propertiesOf.end()) {
        for (std::size_t i = records->second.size(); i-- > 0;) {
            const PropertyRecord& record = m_properties[records->second[i]];
            if (record.name == name) return record.value.c_str();
        }
    }
    if (entry && entry->isVirtual && std::strcmp(name, "VBus") == 0) return "1";
    return nullptr;
}

const char* KRawTarvelRead::GetProperty(SignalIterator signal, const char* name) {
    const SignalEntry* entry = EntryOf(signal);
    return entry ? PropertyOf(entry, entry->number, name) : nullptr;
}

const char* KRawTarvelRead::GetProperty(int signalNr, const char* name) {
    if (signalNr == -1) return PropertyOf(nullptr, -1, name);
    const SignalEntry* entry = Find(signalNr);
    return entry ? PropertyOf(entry, signalNr, name) : nullptr;
}

const KEventsStore* KRawTarvelRead::GetSignalData(SignalIterator signal) {
    const SignalEntry* entry = EntryOf(signal);
    return entry ? &entry->store : nullptr;
}

const KEventsStore* KRawTarvelRead::GetSignalData(int signalNr) {
    const SignalEntry* entry = Find(signalNr);
    return entry ? &entry->store : nullptr;
}

const std::pair<int, const char*>* KRawTarvelRead::BeginTypes() {
    if (m_typeList.size() != m_types.size()) {
        try {
            m_typeList.clear();
            for (const TypeEntry& type : m_types) m_typeList.emplace_back(type.id, type.text.c_str());
        } catch (const std::bad_alloc&) {
            m_typeList.clear();
        }
    }
    return m_typeList.data();
}

const std::pair<int, const char*>* KRawTarvelRead::EndTypes() { return BeginTypes() + m_typeList.size(); }

const char* KRawTarvelRead::GetTypeInfo(int typeId) {
    const auto found = m_typeIndex.find(typeId);
    return found == m_typeIndex.end() ? nullptr : m_types[found->second].text.c_str();
}

bool KRawTarvelRead::Continue() {
    if (!m_lexer.IsOpen() || m_version == 1) return false;
    if (m_stoppedAtMark && !m_lexer.RestorePosition()) return false;
    try {
        return ParseLines();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// ---- Properties -------------------------------------------------------------------------------

bool KRawTarvelRead::SeatProperty(PropertyCursor& cursor) const {
    if (cursor.record >= m_properties.size()) return false;
    const PropertyRecord& record = m_properties[cursor.record];
    if (cursor.signal >= record.signals.size()) return false;
    cursor.current = Property{record.signals[cursor.signal], record.time, record.name.c_str(), record.value.c_str()};
    return true;
}

IRawTarvelRead::PropertyIterator KRawTarvelRead::BeginProperties() {
    PropertyCursor probe;
    probe.reader = this;
    if (!SeatProperty(probe)) return PropertyIterator();
    return PropertyIterator(NewObject<PropertyCursor>(probe));
}

// ---- Factories --------------------------------------------------------------------------------

IRawTarvelRead* CreateRawTarvelRead(const char* fileName) {
    KRawTarvelRead* reader = nullptr;
    try {
        reader = NewObject<KRawTarvelRead>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    if (!reader->Open(fileName)) {
        DestroyObject(reader);
        return nullptr;
    }
    return reader;
}

bool GetSignalPortMode(IRawTarvelRead* reader, int signalNr, int* mode) {
    const auto* raw = dynamic_cast<const KRawTarvelRead*>(reader);
    const SignalEntry* entry = raw ? raw->EntryOfSignal(signalNr) : nullptr;
    if (!entry || !mode) return false;
    *mode = entry->mode;
    return true;
}

void DeleteRawTarvelRead(IRawTarvelRead* reader) {
    if (!reader) return;
    auto* raw = static_cast<KRawTarvelRead*>(reader);
    raw->CloseFile();
    DestroyObject(raw);
}

}  // namespace Tarvel
