// Filtered and listing parses: what the line parser does differently when a selection is set
// (which declarations it keeps, what it sets aside, the finishing step that enters the parents of
// what it kept), and the factories CreateFilteredRawTarvelRead, CreateRawTarvelPreRead and
// DeleteRawTarvelPreRead. The event blocks of signals not kept are passed over in waves_block.cc.
// Raw reader layer; one thread at a time.
#include "rawreader/filtered_reader.h"

#include <algorithm>
#include <memory>
#include <new>

#include "format/index_lists.h"
#include "format/vocabulary.h"

namespace Tarvel {

bool KRawTarvelRead::Listing() const { return m_selection && m_selection->Listing(); }

// ---- Declarations -----------------------------------------------------------------------------

// A listing lists every declaration and keeps none. A filtered parse enters a declaration it
// keeps as the full reader does, and an update of a signal it holds already; it sets the others
// aside. A bus set aside still becomes the bus declared last, so that its "$SC" lines are read and
// attach nothing.
bool KRawTarvelRead::SelectDeclaration(const DeclarationLine& line) {
    if (Listing()) {
        FullName(KnownParent(line), m_previousName, m_text);
        m_selection->List(line.handle, m_text);
    } else {
        SignalEntry* held = Find(line.handle);
        const bool keep = Keeps(line);
        if (keep || held) {
            SignalEntry& entry = EnterDeclaration(line);
            if (keep) {
                entry.ancestorOnly = false;
                m_selection->Forget(line.handle);
            }
            return true;
        }
    }
    SetAside(line);
    if (line.bus) m_currentBus = line.handle;
    return true;
}

// A declaration inside a bus the parse keeps is a part of it (a record's field that is an array,
// say); any other is kept when the selection test selects it.
bool KRawTarvelRead::Keeps(const DeclarationLine& line) {
    if (line.hasX) {
        const SignalEntry* up = Find(line.x);
        if (up && up->isBus && !up->isVirtual && !up->ancestorOnly) return true;
    }
    const auto fullName = [this, &line]() -> const String& {
        FullName(KnownParent(line), m_previousName, m_text);
        return m_text;
    };
    return m_selection->Test(line.handle, m_previousName, fullName) == KSelection::kSelected;
}

void KRawTarvelRead::SetAside(const DeclarationLine& line) {
    const bool made = m_selection->FindSetAside(line.handle) == nullptr;
    SetAsideSignal& aside = m_selection->SetAside(line.handle, m_sequence);
    if (made) ++m_sequence;  // a declaration given again keeps its place
    aside.name = m_previousName;
    aside.typeId = TypeIdOfLine(line.typeId);
    aside.mode = line.mode;
    aside.width = line.width;
    aside.isBus = line.bus;
    aside.isVirtual = line.bus && line.mode == Format::kModeVirtualBus;
    aside.endTime = line.endTime;
    if (line.hasX && line.x != line.handle && KnownSignal(line.x)) {
        aside.parent = line.x;
        aside.position = line.y;
    }
}

bool KRawTarvelRead::KnownSignal(std::int32_t handle) {
    return Find(handle) || (m_selection && m_selection->FindSetAside(handle));
}

// The parent a declaration names, when it is a signal declared (or listed) before; else -1.
std::int32_t KRawTarvelRead::KnownParent(const DeclarationLine& line) {
    return line.hasX && line.x != line.handle && KnownSignal(line.x) ? line.x : -1;
}

// The full name of a signal named `name` under `parent`: the names of the parent chain, from the
// top, and `name`, joined with '.' (a name starting with '(' follows its parent directly). The
// chain holds at most one link per known signal: a damaged file can make it a cycle.
void KRawTarvelRead::FullName(std::int32_t parent, std::string_view name, String& out) {
    m_chain.clear();
    const std::size_t limit = m_signals.size() + m_selection->SetAsideCount();
    for (std::int32_t up = parent; up >= 0 && m_chain.size() < limit;) {
        if (const SignalEntry* entry = Find(up)) {
            m_chain.push_back(&entry->name);
            up = entry->parent;
        } else if (const SetAsideSignal* aside = m_selection->FindSetAside(up)) {
            m_chain.push_back(&aside->name);
            up = aside->parent;
        } else {
            break;
        }
    }
    out.clear();
    const auto join = [&out](std::string_view piece, bool first) {
        if (!first && (piece.empty() || piece.front() != '(')) out.push_back('.');
        out.append(piece);
    };
    for (std::size_t i = m_chain.size(); i-- > 0;) join(*m_chain[i], i + 1 == m_chain.size());
    join(name, m_chain.empty());
}

// ---- Element lists ----------------------------------------------------------------------------

// The element list of a bus the parse does not keep: read with the same bounds (its relative
// numbers carry on into the lines after it) and dropped, with the positions its "S" lines gave.
bool KRawTarvelRead::SkipElementList(int& c, std::int32_t busHandle) {
    const SignalEntry* entry = Find(busHandle);
    const SetAsideSignal* aside = m_selection->FindSetAside(busHandle);
    const std::int32_t width = entry ? entry->width : aside ? aside->width : 0;
    if (!Format::ReadIndexList(m_lexer, c, m_list, ElementListLimit(width)) || !m_lexer.EndOfLine(c)) return false;
    m_elementsListed += m_list.size();
    m_elementsSkipped += m_list.size();
    for (std::int32_t handle : m_list) m_elementPositions.erase(handle);
    return true;
}

std::size_t KRawTarvelRead::SignalBound() const {
    if (!m_selection) return m_signals.size();
    return m_signals.size() + m_selection->SetAsideCount() + m_elementsSkipped;
}

// ---- The finishing step -----------------------------------------------------------------------
//
// After each parse of a filtered reader (the first and every Continue): a kept signal whose
// parent was set aside gets its parent, and so on up its chain, entered as a signal of its own
// without events (an ancestor), so that every signal the reader holds stands where the full
// reader shows it. The signals entered by the parse are then put in declaration order, and every
// child count counts the children the reader holds. The declarations set aside that no kept
// signal hangs under stay aside: a later Continue may read a signal declared under one of them.

void KRawTarvelRead::FinishSelection() {
    if (!m_selection || Listing()) return;
    for (std::size_t i = 0; i < m_signals.size(); ++i) {  // grows with the ancestors entered
        const std::int32_t parent = m_signals[i].parent;
        if (!Find(parent) && m_selection->FindSetAside(parent)) EnterAncestor(parent);
    }
    const auto bySequence = [](const SignalEntry& a, const SignalEntry& b) { return a.sequence < b.sequence; };
    if (!std::is_sorted(m_signals.begin() + static_cast<std::ptrdiff_t>(m_ordered), m_signals.end(), bySequence)) OrderNewSignals();
    m_ordered = m_signals.size();
    for (SignalEntry& entry : m_signals) entry.childCount = 0;
    for (const SignalEntry& entry : m_signals) {
        if (SignalEntry* parent = Find(entry.parent)) ++parent->childCount;
    }
}

// The entry of `handle`: the one held, or one entered from the declaration set aside (as the
// full reader has it from that declaration, in its place in declaration order), or a new one.
SignalEntry& KRawTarvelRead::Hold(std::int32_t handle) {
    if (SignalEntry* held = Find(handle)) return *held;
    const SetAsideSignal* aside = m_selection->FindSetAside(handle);
    if (!aside) return Declare(handle);
    SignalEntry made;  // filled first, so that a failing copy leaves nothing half entered
    made.name = aside->name;
    SignalEntry& entry = Declare(handle);
    entry.name.swap(made.name);
    entry.typeId = aside->typeId;
    entry.mode = aside->mode;
    entry.parent = aside->parent;
    entry.position = aside->position;
    entry.width = aside->width;
    entry.isBus = aside->isBus;
    entry.isVirtual = aside->isVirtual;
    entry.endTime = aside->endTime;
    entry.sequence = aside->sequence;
    m_selection->Forget(handle);
    return entry;
}

void KRawTarvelRead::EnterAncestor(std::int32_t handle) { Hold(handle).ancestorOnly = true; }

// Puts the entries since the last finishing step in declaration order: the ancestors entered
// now, and declarations set aside that an element list then named, were declared before. Made as a new vector and swapped in, so that
// a failing copy leaves the entries as they were. Signals of earlier parses keep their positions
// (signal iterators hold positions).
void KRawTarvelRead::OrderNewSignals() {
    Vector<std::size_t> order;
    order.reserve(m_signals.size() - m_ordered);
    for (std::size_t i = m_ordered; i < m_signals.size(); ++i) order.push_back(i);
    std::sort(order.begin(), order.end(),
              [this](std::size_t a, std::size_t b) { return m_signals[a].sequence < m_signals[b].sequence; });
    Vector<SignalEntry> ordered;
    ordered.reserve(m_signals.size());
    ordered.insert(ordered.end(), m_signals.begin(), m_signals.begin() + static_cast<std::ptrdiff_t>(m_ordered));
    for (std::size_t i : order) ordered.push_back(m_signals[i]);
    m_signals.swap(ordered);
    for (std::size_t i = m_ordered; i < m_signals.size(); ++i) {
        const auto at = m_index.find(m_signals[i].number);
        if (at != m_index.end()) at->second = i;
    }
}

// ---- Factories --------------------------------------------------------------------------------

IRawTarvelRead* CreateFilteredRawTarvelRead(const char* fileName, std::map<int, std::vector<char*>*>* selection) {
    KRawFilteredTarvelRead* reader = nullptr;
    try {
        reader = NewObject<KRawFilteredTarvelRead>();
        reader->Select(selection);
    } catch (const std::bad_alloc&) {
        DestroyObject(reader);
        return nullptr;
    }
    if (!reader->Open(fileName)) {
        KRawFilteredTarvelRead::Delete(reader);
        return nullptr;
    }
    return reader;
}

void CreateRawTarvelPreRead(const char* fileName, std::unordered_map<int, std::vector<SIGINFO*>*>* result) {
    if (!fileName || !result) return;
    try {
        KSelection listing;
        listing.ListInto(result);
        const auto destroy = [](KRawTarvelRead* reader) {
            reader->CloseFile();
            DestroyObject(reader);
        };
        std::unique_ptr<KRawTarvelRead, decltype(destroy)> reader(NewObject<KRawTarvelRead>(), destroy);
        reader->SetSelection(&listing);
        reader->Open(fileName);  // lists into `result` as it goes; a failure stops the listing there
    } catch (const std::bad_alloc&) {
        // Nothing was made but the working reader, already gone.
    }
}

void DeleteRawTarvelPreRead(std::unordered_map<int, std::vector<SIGINFO*>*>* result) {
    if (!result) return;
    for (auto& [handle, records] : *result) {
        if (!records) continue;
        for (SIGINFO* info : *records) {
            if (info) delete[] info->name;
            delete info;
        }
        delete records;
    }
    result->clear();
}

}  // namespace Tarvel
