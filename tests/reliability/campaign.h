// What every reliability campaign shares: its length (a fixed number of rounds in `make test`, a
// time budget in `make soak`), its seeds, the figures it reports, and the pipe through which a
// writer in a child process tells about its commits. Reliability tests; single-threaded.
//
// Long form: with TARVEL_SOAK_SECONDS=N a campaign runs rounds until N seconds have passed
// (at least one), and appends its figures as one line to the file TARVEL_SOAK_REPORT names.
// Seeds: TARVEL_SEED=S runs the one round of seed S; otherwise the regression seeds a campaign
// keeps run first, then seeds counted up from a random one. A failure names its seed.
#ifndef TARVEL_TESTS_RELIABILITY_CAMPAIGN_H
#define TARVEL_TESTS_RELIABILITY_CAMPAIGN_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace Tarvel::Testing {

// True in builds with AddressSanitizer or ThreadSanitizer, where everything runs several times
// slower: the quick form then runs fewer rounds.
constexpr bool kSanitized =
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    true;
#else
    false;
#endif
#else
    false;
#endif

// The rounds of one campaign and their seeds.
class Rounds {
public:
    // `quick`: the rounds of the quick form (`quickSanitized` in a sanitized build); `regressions`:
    // seeds that once failed, run first in either form.
    Rounds(int quick, int quickSanitized, std::initializer_list<std::uint64_t> regressions = {})
        : m_regressions(regressions), m_start(std::chrono::steady_clock::now()) {
        const char* fixed = std::getenv("TARVEL_SEED");
        const char* soak = std::getenv("TARVEL_SOAK_SECONDS");
        m_fixed = fixed != nullptr;
        m_next = m_fixed ? std::strtoull(fixed, nullptr, 10) : std::random_device()() * 1000003ull;
        m_quick = kSanitized ? quickSanitized : quick;
        if (soak && !m_fixed) m_seconds = std::strtod(soak, nullptr);
        if (m_fixed) m_regressions.clear();
    }

    // Takes the next round's seed; false when the campaign is done.
    bool Next(std::uint64_t* seed) {
        if (m_done == 0 || !m_fixed) {
            const bool more = m_done < static_cast<int>(m_regressions.size()) ||
                              (m_seconds > 0 ? Elapsed() < m_seconds || m_done == 0 : m_done < (m_fixed ? 1 : m_quick));
            if (more) {
                *seed = m_done < static_cast<int>(m_regressions.size()) ? m_regressions[static_cast<std::size_t>(m_done)] : m_next++;
                ++m_done;
                return true;
            }
        }
        return false;
    }
    bool Soak() const { return m_seconds > 0; }
    // True in the long form once the time budget is spent: a round that is long in itself (a
    // sweep) may stop early, except the first.
    bool OutOfTime() const { return m_seconds > 0 && m_done > 1 && Elapsed() >= m_seconds; }
    double Elapsed() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count(); }
    int Done() const { return m_done; }

private:
    std::vector<std::uint64_t> m_regressions;
    std::chrono::steady_clock::time_point m_start;
    bool m_fixed = false;
    std::uint64_t m_next = 0;
    int m_quick = 0, m_done = 0;
    double m_seconds = 0;
};

// The trace a failing round prints: its seed and how to run it alone.
inline std::string SeedTrace(std::uint64_t seed) {
    return "seed " + std::to_string(seed) + " (TARVEL_SEED=" + std::to_string(seed) + " repeats it)";
}

// Prints a campaign's figures and, in the long form, appends them to TARVEL_SOAK_REPORT as
// "campaign name=value ...".
inline void ReportFigures(const std::string& campaign, const std::vector<std::pair<std::string, std::uint64_t>>& figures,
                          double seconds) {
    std::string line = campaign;
    for (const auto& [name, value] : figures) line += " " + name + "=" + std::to_string(value);
    char time[32];
    std::snprintf(time, sizeof time, " seconds=%.0f", seconds);
    line += time;
    std::printf("[ figures  ] %s\n", line.c_str());
    if (const char* report = std::getenv("TARVEL_SOAK_REPORT")) std::ofstream(report, std::ios::app) << line << "\n";
}

// ---- A writer in a child process ----------------------------------------------------------------

// What a child writer tells its parent, one record per write (atomic on a pipe).
struct CommitRecord {
    enum Kind : std::int32_t { kCommitting = 1, kCommitted = 2, kFinished = 3 };
    std::int32_t kind;
    std::int32_t commit;
};

// The parent's view of a child's records: the last commit begun and the last one that returned.
struct CommitJournal {
    int started = 0, done = 0;
    bool finished = false;
    std::string pending;  // bytes of a record not yet whole

    // Takes every record the pipe `fd` (non-blocking) holds now.
    void Drain(int fd) {
        char bytes[4096];
        for (ssize_t n; (n = read(fd, bytes, sizeof bytes)) > 0;) pending.append(bytes, static_cast<std::size_t>(n));
        std::size_t at = 0;
        for (; at + sizeof(CommitRecord) <= pending.size(); at += sizeof(CommitRecord)) {
            CommitRecord r;
            std::memcpy(&r, pending.data() + at, sizeof r);
            if (r.kind == CommitRecord::kCommitting) started = r.commit;
            if (r.kind == CommitRecord::kCommitted) done = r.commit;
            if (r.kind == CommitRecord::kFinished) finished = true;
        }
        pending.erase(0, at);
    }
};

// A pipe whose read end is non-blocking.
struct RecordPipe {
    int fds[2] = {-1, -1};
    RecordPipe() {
        if (pipe(fds) == 0) fcntl(fds[0], F_SETFL, O_NONBLOCK);
    }
    ~RecordPipe() {
        for (int fd : fds) {
            if (fd >= 0) close(fd);
        }
    }
    // In the child: keep the write end only. In the parent: keep the read end only.
    void ChildSide() { close(std::exchange(fds[0], -1)); }
    void ParentSide() { close(std::exchange(fds[1], -1)); }
    void Send(CommitRecord::Kind kind, int commit) const {
        const CommitRecord r{kind, commit};
        if (write(fds[1], &r, sizeof r) != sizeof r) _exit(6);
    }
};

}  // namespace Tarvel::Testing

#endif  // TARVEL_TESTS_RELIABILITY_CAMPAIGN_H
