// Selections and listings with storage of their own, for the tests of the filtered reader and
// the listing. Test support of the raw reader layer; single-threaded.
#ifndef TARVEL_TESTS_RAWREADER_SELECTION_SUPPORT_H
#define TARVEL_TESTS_RAWREADER_SELECTION_SUPPORT_H

#include <deque>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "tarvel/raw_reader.h"

namespace Tarvel::Testing {

using Listing = std::unordered_map<int, std::vector<SIGINFO*>*>;

// A listing that frees itself.
struct OwnedListing {
    Listing map;
    OwnedListing() = default;
    explicit OwnedListing(const std::string& path) { CreateRawTarvelPreRead(path.c_str(), &map); }
    ~OwnedListing() { DeleteRawTarvelPreRead(&map); }
    // The names listed under `handle`, in order.
    std::vector<std::string> Names(int handle) const {
        std::vector<std::string> names;
        const auto found = map.find(handle);
        if (found != map.end() && found->second) {
            for (const SIGINFO* info : *found->second) names.push_back(info->flag == 1 ? info->name : "!! flag");
        }
        return names;
    }
};

// A selection with storage of its own: handle -> names.
struct Selection {
    std::deque<std::string> texts;
    std::deque<std::vector<char*>> vectors;
    std::map<int, std::vector<char*>*> map;
    void Add(int handle, const std::vector<std::string>& names) {
        std::vector<char*>& v = vectors.emplace_back();
        for (const std::string& name : names) v.push_back(texts.emplace_back(name).data());
        map[handle] = &v;
    }
};

}  // namespace Tarvel::Testing

#endif  // TARVEL_TESTS_RAWREADER_SELECTION_SUPPORT_H
