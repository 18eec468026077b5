// What a filtered parse keeps and what a listing parse lists (CreateFilteredRawTarvelRead,
// CreateRawTarvelPreRead): the caller's names by handle, the caller's listing, and the
// declarations the parse set aside. Raw reader layer; belongs to one reader, one thread at a time.
#ifndef TARVEL_RAWREADER_SELECTION_H
#define TARVEL_RAWREADER_SELECTION_H

#include <cstdint>
#include <map>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "foundation/memory.h"
#include "tarvel/raw_reader.h"

namespace Tarvel {

// A declaration the parse did not keep: what the reader needs to enter it later as the parent
// of a kept signal, and to build the full names of the signals declared inside it.
struct SetAsideSignal {
    String name;                 // declared name
    std::int32_t typeId = -1;    // as a kept signal would have it
    std::int32_t mode = 0;       // port mode number
    std::int32_t parent = -1;    // its parent, when that was a known signal
    std::int32_t position = 0;   // position among the parent's children
    std::int32_t width = 0;      // a bus's number of element positions
    bool isBus = false;          // declared with "$BUS"
    bool isVirtual = false;      // a virtual bus
    int64 endTime = 0;           // declaration time
    std::uint64_t sequence = 0;  // place in declaration order
};

class KSelection {
public:
    // The three answers of the selection test.
    enum Answer : int { kNotSelected = 0, kSelected = 1, kOtherName = -1 };

    // A selection that keeps nothing and lists nothing.
    KSelection() = default;
    KSelection(const KSelection&) = delete;
    KSelection& operator=(const KSelection&) = delete;

    // Copies the names of `selection` under their handles (a null map, vector or name: none).
    // May throw std::bad_alloc.
    void CopyNames(const std::map<int, std::vector<char*>*>* selection);
    // Makes this a listing into `listing` (not null): nothing is kept, every declaration listed.
    void ListInto(std::unordered_map<int, std::vector<SIGINFO*>*>* listing) noexcept { m_listing = listing; }
    bool Listing() const noexcept { return m_listing != nullptr; }

    // The selection test of a declaration of `handle` named `declaredName`: kNotSelected when
    // the handle is no key; kSelected when the declared name is empty or `fullName()` (a String)
    // is one of the key's names; kOtherName otherwise. `fullName` is called only in that case.
    template <class FullName>
    Answer Test(std::int32_t handle, std::string_view declaredName, FullName&& fullName) const {
        const auto names = m_names.find(handle);
        if (names == m_names.end()) return kNotSelected;
        if (declaredName.empty()) return kSelected;
        const String& full = fullName();
        for (const String& name : names->second) {
            if (name == full) return kSelected;
        }
        return kOtherName;
    }

    // Appends a record (flag 1, a copy of `fullName`) to the listing's vector of `handle`, making
    // the vector when the handle has none. Uses the caller's allocators (the caller frees the
    // records); may throw std::bad_alloc, and then leaves the listing as it was.
    void List(std::int32_t handle, std::string_view fullName) const;

    // The declaration of `handle` set aside, or null.
    SetAsideSignal* FindSetAside(std::int32_t handle) noexcept;
    // The record of `handle`, made with `sequence` when there is none. May throw std::bad_alloc.
    SetAsideSignal& SetAside(std::int32_t handle, std::uint64_t sequence);
    // Drops the record of `handle` (kept or entered after all).
    void Forget(std::int32_t handle) noexcept { m_setAside.erase(handle); }
    std::size_t SetAsideCount() const noexcept { return m_setAside.size(); }

private:
    HashMap<std::int32_t, Vector<String>> m_names;                      // the selection's names by handle
    std::unordered_map<int, std::vector<SIGINFO*>*>* m_listing = nullptr;  // the caller's listing, or null
    HashMap<std::int32_t, SetAsideSignal> m_setAside;                  // declarations not kept, by handle
};

}  // namespace Tarvel

#endif  // TARVEL_RAWREADER_SELECTION_H
