// The campaigns' yardstick: a reference design written in this process (the model's dump after
// each commit, and the finished file with its listing), and the readers a campaign opens on a
// file under test (raw, filtered, both facades, the listing), each held to the dump of one
// commit. Reliability tests; single-threaded.
#ifndef TARVEL_TESTS_RELIABILITY_READER_CHECKS_H
#define TARVEL_TESTS_RELIABILITY_READER_CHECKS_H

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "reader/merge_model.h"
#include "rawreader/filtered_model.h"
#include "rawreader/random_design.h"
#include "rawreader/raw_reader_dump.h"
#include "tarvel/reader.h"

namespace Tarvel::Testing {

// A design of `seed` and `size` written whole into `path`, with the model's dump after every
// commit that `wanted` asks for, and the selection a filtered reader of this round takes.
class Reference final : public CommitObserver {
public:
    Reference(std::uint64_t seed, DesignSize size, const std::string& path,
              std::function<bool(int)> wanted = [](int) { return true; })
        : m_wanted(std::move(wanted)) {
        {
            Design design(seed, path, size, this);
            design.Run();
        }
        Reader full = Open(path);
        W(full != nullptr);
        const Listing listing(path);
        for (const auto& [handle, records] : listing) {
            for (const SIGINFO* info : *records) m_names[handle].push_back(info->name);
        }
        std::mt19937_64 rng(seed);
        m_selection = std::make_unique<RandomSelection>(*full, listing, rng);
    }

    void Committing(int commit, const Design& design) override {
        m_commits = commit;
        if (m_wanted(commit)) m_expected[commit] = design.Expected();
    }
    void Committed(int) override {}

    // The number of commits the design makes.
    int Commits() const { return m_commits; }
    // The model's dump after `commit` (which `wanted` asked for).
    const std::string& Expected(int commit) const { return m_expected.at(commit); }
    bool Has(int commit) const { return m_expected.count(commit) != 0; }
    // What the filtered reader of this round must dump when the full reader dumps `full`.
    std::string ExpectedFiltered(const std::string& full) const { return m_selection->Expected(full); }
    Selection* FilteredSelection() const { return &m_selection->selection; }
    // Empty when `listing` lists exactly the declarations that the full dump `full` holds, each
    // under its handle with the names of the finished file's listing; else what differs.
    std::string ListingFinding(const std::unordered_map<int, std::vector<SIGINFO*>*>& listing, const std::string& full) const {
        std::set<int> expected;
        for (const std::string& item : Items(full)) {
            if (item.rfind("signal ", 0) == 0 && m_selection->declared.count(HandleOf(item))) expected.insert(HandleOf(item));
        }
        std::set<int> listed;
        for (const auto& [handle, records] : listing) {
            listed.insert(handle);
            std::vector<std::string> names;
            for (const SIGINFO* info : *records) {
                if (!info || info->flag != 1 || !info->name) return "an incomplete record of " + std::to_string(handle);
                names.push_back(info->name);
            }
            if (!m_names.count(handle) || names != m_names.at(handle)) return "other names for " + std::to_string(handle);
        }
        return listed == expected ? "" : "lists " + std::to_string(listed.size()) + " declarations of " + std::to_string(expected.size());
    }

private:
    std::function<bool(int)> m_wanted;
    std::map<int, std::string> m_expected;
    int m_commits = 0;
    std::map<int, std::vector<std::string>> m_names;
    std::unique_ptr<RandomSelection> m_selection;
};

// Empty when the facade's merged pass holds the events of its raw reader's stores in the map
// model's order, and its top level the raw reader's signals without a parent; else what differs.
inline std::string FacadeFinding(ITarvelRead& r, bool byPosition) {
    IRawTarvelRead& raw = *r.GetRawReader();
    std::vector<std::pair<int, const KEventsStore*>> stores;
    int tops = 0;
    for (auto it = raw.BeginSignals(); it != raw.EndSignals(); ++it) {
        stores.emplace_back(byPosition ? it.GetSignalNr() : *it, raw.GetSignalData(it));
        IRawTarvelRead::SignalIterator parent;
        raw.GetSignalPlace(it, nullptr, nullptr, nullptr, nullptr, &parent, nullptr);
        tops += parent == raw.EndSignals();
    }
    if (r.GetTopLevelCount() != tops) return "top level of " + std::to_string(r.GetTopLevelCount()) + " signals, not " + std::to_string(tops);
    const std::vector<MergedEvent> model = ModelPass(stores);
    std::size_t n = 0;
    for (int h = r.NextEvent(); h != -1; h = r.NextEvent(), ++n) {
        std::uint64_t value = 0;
        r.GetEventValue(&value);
        const MergedEvent e{h, *r.GetEventTime(), r.GetEventDelta(), value};
        if (n >= model.size() || !(e == model[n])) {
            r.RestartEvents(0);
            return "event " + std::to_string(n) + " of the pass is " + Describe(e) +
                   (n < model.size() ? ", the model's " + Describe(model[n]) : ", beyond the model's");
        }
    }
    return n == model.size() ? "" : "the pass ends after " + std::to_string(n) + " of " + std::to_string(model.size()) + " events";
}

// The readers of one file: raw, filtered (with the reference's selection), both facades, each
// opened once and read on with Continue. Every check holds each reader to the dump of a commit
// within a window and remembers the commit each reader stood on, which never goes back.
class ReaderSet {
public:
    explicit ReaderSet(const Reference& reference) : m_reference(reference) {}

    // Opens every reader on `path`; returns how many opened (0 to 4).
    int Open(const std::string& path) {
        m_raw = Testing::Open(path);
        m_filtered = OpenFiltered(path, m_reference.FilteredSelection());
        m_two = OpenFacade(path, true);
        m_one = OpenFacade(path, false);
        m_continued = false;
        return (m_raw != nullptr) + (m_filtered != nullptr) + (m_two != nullptr) + (m_one != nullptr);
    }
    // Reads on with every reader; the names of those whose Continue failed.
    std::string Continue() {
        std::string failed;
        if (m_raw && !m_raw->Continue()) failed += " raw";
        if (m_filtered && !m_filtered->Continue()) failed += " filtered";
        if (m_two && !m_two->Continue()) failed += " CreateStreamRead2";
        if (m_one && !m_one->Continue()) failed += " CreateStreamRead";
        m_continued = true;
        return failed;
    }

    // Empty when each reader presents the file as of one commit from `low` to `high` (and not
    // earlier than the commit it presented before); else what is wrong.
    std::string Check(int low, int high) {
        std::string finding;
        const auto full = [&](int c) { return m_reference.Expected(c); };
        if (m_raw) {
            Held("raw reader", Dump(*m_raw), low, high, &m_at[0], finding, full);
        } else {
            finding += "raw reader is null; ";
        }
        if (m_filtered) {
            const auto normal = [&](const std::string& dump) { return m_continued ? ByHandle(dump) : dump; };
            Held("filtered reader", normal(Dump(*m_filtered)), low, high, &m_at[1], finding,
                 [&](int c) { return normal(m_reference.ExpectedFiltered(m_reference.Expected(c))); });
        } else {
            finding += "filtered reader is null; ";
        }
        for (int i = 0; i < 2; ++i) {
            ITarvelRead* facade = (i == 0 ? m_two : m_one).get();
            const std::string name = i == 0 ? "CreateStreamRead2" : "CreateStreamRead";
            if (!facade) {
                finding += name + " is null; ";
                continue;
            }
            Held(name.c_str(), Dump(*facade->GetRawReader()), low, high, &m_at[2 + i], finding, full);
            const std::string pass = FacadeFinding(*facade, i == 0);
            if (!pass.empty()) finding += name + ": " + pass + "; ";
        }
        return finding;
    }
    // The commit the raw reader stood on at the last check (0 before any).
    int RawCommit() const { return m_at[0]; }

private:
    template <class Expected>
    void Held(const char* name, const std::string& observed, int low, int high, int* at, std::string& finding, Expected expected) {
        for (int c = std::max({low, *at, 1}); c <= high; ++c) {
            if (m_reference.Has(c) && observed == expected(c)) {
                *at = c;
                return;
            }
        }
        finding += std::string(name) + " presents none of the commits " + std::to_string(std::max(low, *at)) + " to " +
                   std::to_string(high) + "; ";
    }

    const Reference& m_reference;
    Reader m_raw{nullptr, DeleteRawTarvelRead}, m_filtered{nullptr, DeleteRawTarvelRead};
    Facade m_two{nullptr, nullptr}, m_one{nullptr, nullptr};
    bool m_continued = false;
    int m_at[4] = {0, 0, 0, 0};
};

}  // namespace Tarvel::Testing

#endif  // TARVEL_TESTS_RELIABILITY_READER_CHECKS_H
