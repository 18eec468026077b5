// What the filtered reader and the listing must present, derived from the full reader's dump:
// a listing and a selection that own their memory, the dump cut into items, and the expected
// dump of a filtered reader for a set of kept signals. Shared by the filtered-reader and
// reliability tests; single-threaded.
#ifndef TARVEL_TESTS_RAWREADER_FILTERED_MODEL_H
#define TARVEL_TESTS_RAWREADER_FILTERED_MODEL_H

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "rawreader/random_design.h"

namespace Tarvel::Testing {

// A listing that frees itself; Names(handle) are its names in order.
struct Listing : std::unordered_map<int, std::vector<SIGINFO*>*> {
    explicit Listing(const std::string& path) { CreateRawTarvelPreRead(path.c_str(), this); }
    ~Listing() { DeleteRawTarvelPreRead(this); }
    std::vector<std::string> Names(int handle) const {
        std::vector<std::string> names;
        if (count(handle)) {
            for (const SIGINFO* info : *at(handle)) names.push_back(info->flag == 1 ? info->name : "!! flag");
        }
        return names;
    }
};

// A selection with storage of its own.
struct Selection : std::map<int, std::vector<char*>*> {
    std::deque<std::string> texts;
    std::deque<std::vector<char*>> vectors;
    Selection& Add(int handle, const std::vector<std::string>& names) {
        (*this)[handle] = &vectors.emplace_back();
        for (const std::string& name : names) vectors.back().push_back(texts.emplace_back(name).data());
        return *this;
    }
};

inline Reader OpenFiltered(const std::string& path, Selection* selection) {
    return Reader(CreateFilteredRawTarvelRead(path.c_str(), selection), DeleteRawTarvelRead);
}

// A dump cut into items: a line that starts as a dump line does starts an item; names and values
// holding line feeds continue it.
inline std::vector<std::string> Items(const std::string& dump) {
    static const char* kStarts[] = {"file ", "top ", "type ", "signal ", "  prop ", "  events ", "property ", "source ", "!!"};
    std::vector<std::string> items;
    for (std::size_t at = 0, end; at < dump.size(); at = end) {
        end = dump.find('\n', at) + 1;
        const std::string line = dump.substr(at, end - at);
        const bool starts = std::any_of(std::begin(kStarts), std::end(kStarts), [&](const char* s) { return line.rfind(s, 0) == 0; });
        if (starts || items.empty()) items.push_back(line);
        else items.back() += line;
    }
    return items;
}

inline int HandleOf(const std::string& item) { return std::atoi(item.c_str() + item.find(' ') + 1); }

// The signal item with the number after `key` ("nr=" from the left, "children=" from the right).
inline std::string WithNumber(std::string item, const std::string& key, int value) {
    const std::size_t at = (key == " nr=" ? item.find(key) : item.rfind(key)) + key.size();
    return item.replace(at, item.find_first_not_of("-0123456789", at) - at, std::to_string(value));
}

// What a filtered reader must show: the full reader's dump of the kept signals and their
// parents (`parentOf`, -1 at the top), parents without events, numbered anew, children counted
// among those shown; the property walk of those shown and of the file.
inline std::string ExpectedDump(const std::string& fullDump, const std::set<int>& kept, const std::map<int, int>& parentOf) {
    std::set<int> shown;
    for (int h : kept) {
        for (int at = h; at != -1 && shown.insert(at).second;) at = parentOf.at(at);
    }
    std::map<int, int> children;
    for (int h : shown) ++children[parentOf.at(h)];
    std::string out;
    int nr = 0, current = 0;
    for (const std::string& item : Items(fullDump)) {
        if (item.rfind("signal ", 0) == 0) {
            current = HandleOf(item);
            if (shown.count(current)) out += WithNumber(WithNumber(item, " nr=", nr++), " children=", children[current]);
        } else if (item.rfind("  ", 0) == 0) {
            if (shown.count(current) && (kept.count(current) || item.rfind("  events ", 0) != 0)) out += item;
        } else if (item.rfind("property ", 0) != 0 || HandleOf(item) == -1 || shown.count(HandleOf(item))) {
            out += item;
        }
    }
    return out;
}

// The signal items of a dump by handle, without their numbers: what a reader holds, in any order.
inline std::string ByHandle(const std::string& dump) {
    std::multimap<int, std::string> signals;
    std::string rest;
    int current = 0;
    for (const std::string& item : Items(dump)) {
        if (item.rfind("signal ", 0) == 0) current = HandleOf(item);
        if (item.rfind("signal ", 0) == 0 || item.rfind("  ", 0) == 0) signals.emplace(current, WithNumber(item, " nr=", 0));
        else rest += item;
    }
    for (const auto& [handle, item] : signals) rest += item;
    return rest;
}

// A random selection from a file's listing: some handles by their name, with another name
// besides, with a wrong name or none, and a handle never declared; with what a filtered reader of
// it must dump for a state of the file: the selected declarations and the elements of kept buses
// (these designs declare no signal inside a bus).
struct RandomSelection {
    Selection selection;
    std::set<int> declared;  // the listing's handles: declarations rather than elements
    std::set<int> selected;  // the handles the selection picks where they are declared

    RandomSelection(IRawTarvelRead& full, const std::unordered_map<int, std::vector<SIGINFO*>*>& listing, std::mt19937_64& rng) {
        for (const auto& [handle, records] : listing) {
            declared.insert(handle);
            if (rng() % 3 == 0) continue;
            const std::string name = (*records)[0]->name;
            const int how = static_cast<int>(rng() % 10);
            selection.Add(handle, how < 6 ? std::vector<std::string>{name}
                                  : how < 8 ? std::vector<std::string>{"other", name}
                                            : std::vector<std::string>(how - 8, name + "x"));
            int size = 0;
            full.GetSignalPlace(handle, nullptr, nullptr, nullptr, &size, nullptr, nullptr);
            if (how < 8 || size == 0) selected.insert(handle);  // an unnamed declaration: by its handle
        }
        selection.Add(77777777, {"nothing"});
    }

    // What a filtered reader of this selection must dump when the full reader dumps `fullDump`.
    std::string Expected(const std::string& fullDump) const {
        std::set<int> keep;
        std::map<int, int> parents;
        for (const std::string& item : Items(fullDump)) {
            if (item.rfind("signal ", 0) != 0) continue;
            const int handle = HandleOf(item);
            const std::size_t at = item.rfind(" parent=") + 8;
            parents[handle] = item[at] == '-' ? -1 : std::atoi(item.c_str() + at);
            if (declared.count(handle) ? selected.count(handle) : keep.count(parents[handle])) keep.insert(handle);
        }
        return ExpectedDump(fullDump, keep, parents);
    }
};

}  // namespace Tarvel::Testing

#endif  // TARVEL_TESTS_RAWREADER_FILTERED_MODEL_H
