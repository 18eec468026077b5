// The selection's names, the listing's records and the declarations set aside. Raw reader layer;
// see the header.
#include "rawreader/selection.h"

#include <cstring>
#include <memory>

namespace Tarvel {

void KSelection::CopyNames(const std::map<int, std::vector<char*>*>* selection) {
    if (!selection) return;
    for (const auto& [handle, names] : *selection) {
        Vector<String>& copies = m_names[handle];
        if (!names) continue;
        for (const char* name : *names) {
            if (name) copies.emplace_back(name);
        }
    }
}

void KSelection::List(std::int32_t handle, std::string_view fullName) const {
    // Every object is owned by a unique_ptr until the last step that can throw has passed.
    std::unique_ptr<char[]> name(new char[fullName.size() + 1]);
    std::memcpy(name.get(), fullName.data(), fullName.size());
    name[fullName.size()] = '\0';
    std::unique_ptr<SIGINFO> info(new SIGINFO{1, name.get()});
    const auto found = m_listing->find(handle);
    if (found != m_listing->end() && found->second) {
        found->second->push_back(info.get());
    } else {
        std::unique_ptr<std::vector<SIGINFO*>> records(new std::vector<SIGINFO*>{info.get()});
        if (found != m_listing->end()) {
            found->second = records.get();
        } else {
            m_listing->emplace(handle, records.get());
        }
        records.release();
    }
    info.release();
    name.release();
}

SetAsideSignal* KSelection::FindSetAside(std::int32_t handle) noexcept {
    const auto found = m_setAside.find(handle);
    return found == m_setAside.end() ? nullptr : &found->second;
}

SetAsideSignal& KSelection::SetAside(std::int32_t handle, std::uint64_t sequence) {
    const auto [at, made] = m_setAside.try_emplace(handle);
    if (made) at->second.sequence = sequence;
    return at->second;
}

}  // namespace Tarvel
