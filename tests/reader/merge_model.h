// The reference model of the merged event order, written the plain way: an ordered map from
// (time, delta) to the list of stores whose current event has that stamp; the next event is the
// last store of the smallest stamp's list, which then steps and is appended to its next stamp's
// list; and a facade that releases itself. Shared by the merge and reader tests; single-threaded.
#ifndef TARVEL_TESTS_READER_MERGE_MODEL_H
#define TARVEL_TESTS_READER_MERGE_MODEL_H

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tarvel/events_store.h"
#include "tarvel/reader.h"

namespace Tarvel::Testing {

// A facade that releases itself: CreateStreamRead2 (`byPosition`) or CreateStreamRead.
using Facade = std::unique_ptr<ITarvelRead, void (*)(ITarvelRead*)>;
inline Facade OpenFacade(const std::string& path, bool byPosition) {
    return Facade(byPosition ? CreateStreamRead2(path.c_str()) : CreateStreamRead(path.c_str()), [](ITarvelRead* r) { r->Release(); });
}

// One event of a merged pass as a client sees it.
struct MergedEvent {
    int handle;
    std::int64_t time;
    int delta;
    std::uint64_t value;  // the value's bytes (up to 8), little-endian; 0 for a store without values

    bool operator==(const MergedEvent& o) const {
        return handle == o.handle && time == o.time && delta == o.delta && value == o.value;
    }
};

inline std::string Describe(const MergedEvent& e) {
    return "handle " + std::to_string(e.handle) + " at " + std::to_string(e.time) + "/" + std::to_string(e.delta) +
           " value " + std::to_string(e.value);
}

// The merged pass over `stores` (with their handles, in entry order), by the model.
inline std::vector<MergedEvent> ModelPass(const std::vector<std::pair<int, const KEventsStore*>>& stores) {
    std::vector<std::unique_ptr<KEventData>> cursors;
    std::map<std::pair<std::int64_t, int>, std::vector<std::size_t>> pending;
    auto wait = [&](std::size_t entry) {
        const KEventData& c = *cursors[entry];
        pending[{c.GetTime(), static_cast<int>(c.GetDelta())}].push_back(entry);
    };
    for (std::size_t e = 0; e < stores.size(); ++e) {
        cursors.push_back(std::make_unique<KEventData>());
        if (!stores[e].second->empty() && stores[e].second->GetFirstEvent(cursors[e].get())) wait(e);
    }
    std::vector<MergedEvent> out;
    while (!pending.empty()) {
        const auto smallest = pending.begin();
        const std::size_t e = smallest->second.back();
        unsigned char bytes[8] = {};
        const int size = stores[e].second->GetSize();
        if (size > 0) cursors[e]->GetValue(bytes, static_cast<unsigned>(size));
        std::uint64_t value = 0;
        std::memcpy(&value, bytes, 8);
        out.push_back({stores[e].first, smallest->first.first, smallest->first.second, value});
        smallest->second.pop_back();
        if (smallest->second.empty()) pending.erase(smallest);
        if (stores[e].second->GetNextEvent(cursors[e].get())) wait(e);
    }
    return out;
}

}  // namespace Tarvel::Testing

#endif  // TARVEL_TESTS_READER_MERGE_MODEL_H
