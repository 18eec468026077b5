// Damaged files through every reader: each prefix of a set of small files (the raw reader's fuzz
// seeds, and snapshots of designs caught while their writer had resumed after a commit), and
// larger writer-made files with random bit flips, byte changes, insertions, spliced copies of
// their own lines and deleted ranges. Every reader factory (raw, filtered, both facades) gives
// null or a reader that keeps its invariants through every query, a bounded event pass and a
// Continue onto another version of the file; the listing gives complete records; the diagnosis
// agrees with the raw reader. No file may take longer than a time limit, leave a block of the
// library's heap allocated, or make the library ask the heap for 64 MB at once; the sanitizers
// of the build catch the rest. Reliability tests; a watchdog thread ends a hanging run.
#include <fcntl.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "foundation/test_heap.h"
#include "format/lexer_test_support.h"
#include "reliability/campaign.h"
#include "reliability/reader_checks.h"
#include "tarvel/diagnostics.h"

namespace Tarvel::Testing {
namespace {

// Aborts the process, naming the case, when a case takes longer than its limit.
class Watchdog {
public:
    explicit Watchdog(double seconds) : m_limit(seconds), m_thread([this] { Watch(); }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_wake.notify_all();
        m_thread.join();
    }
    // A new case starts now.
    void Start(const std::string& name) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_case = name;
        m_deadline = std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(m_limit));
    }

private:
    void Watch() {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_stop) {
            if (!m_case.empty() && std::chrono::steady_clock::now() > m_deadline) {
                std::fprintf(stderr, "HANG: %s took more than %.0f seconds\n", m_case.c_str(), m_limit);
                std::abort();
            }
            m_wake.wait_for(lock, std::chrono::milliseconds(200));
        }
    }
    double m_limit;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    std::string m_case;
    std::chrono::steady_clock::time_point m_deadline;
    std::thread m_thread;
};

constexpr int kEventLimit = 4096;     // events walked per store and per pass: a run may stand for billions
constexpr int kSignalLimit = 100000;  // signals visited in a facade's tree

// Every query of a facade, within the ranges its contract allows; empty or what is wrong.
std::string ExerciseFacade(ITarvelRead& r, bool byPosition) {
    const int tops = r.GetTopLevelCount();
    if (tops < 0) return "a negative top-level count";
    std::vector<int> waiting;
    for (int i = 0; i < tops && i < kSignalLimit; ++i) waiting.push_back(r.GetTopLevel(i));
    std::set<int> seen;
    while (!waiting.empty() && static_cast<int>(seen.size()) < kSignalLimit) {
        const int h = waiting.back();
        waiting.pop_back();
        if (!seen.insert(h).second) continue;
        bool sub = false;
        int count = -1, size = 64;
        int64 end = 0;
        char name[64];
        const bool known = r.GetSignalInfo(h, &sub, &count, &end, name, &size);
        if (count < 0 || size < 0 || sub != (count != 0) || known != sub) return "signal info of " + std::to_string(h);
        if (size < 64 && std::strlen(name) > static_cast<std::size_t>(size)) return "a name longer than its size";
        r.GetTypeInfoString(h);
        if (r.GetPropertyValue(h, "Comment") == nullptr) return "a null property value";
        const int properties = r.GetPropertyCount(h);
        for (int k = 0; k < properties && k < 64; ++k) {
            int64 time = 0;
            const char *n = nullptr, *v = nullptr;
            if (!r.GetProperty(h, k, &time, &n, &v) || !n || !v) return "property " + std::to_string(k) + " of " + std::to_string(h);
        }
        if (byPosition) {
            for (int c = 0; c < kSignalLimit; ++c) {
                const int child = r.GetChild(h, c);
                if (child == -1) break;
                waiting.push_back(child);
            }
        } else if (known) {  // unchecked: only a signal's children below its count
            for (int c = 0; c < count && c < kSignalLimit; ++c) waiting.push_back(r.GetChild(h, c));
        }
    }
    for (int n = 0; n < kEventLimit && r.NextEvent() != -1; ++n) {
        std::uint64_t value = 0;
        r.GetEventValue(&value);
        (void)*r.GetEventTime();
        (void)r.GetEventDelta();
    }
    r.RestartEvents(0);
    (void)*r.GetEndTime();
    return r.GetResolution() > 0 && r.GetFileName() ? "" : "resolution or file name";
}

// Every reader of one file: opened, queried, and read on after the file changed.
class AllReaders {
public:
    // Opens and queries every reader of `path`; empty or what is wrong.
    std::string Open(const std::string& path, bool currentLayout) {
        m_raw = Testing::Open(path);
        TarvelDiagnosis d;
        const bool readable = DiagnoseTarvelFile(path.c_str(), &d);
        if (readable != (m_raw != nullptr)) return "the diagnosis says readable=" + std::to_string(readable);
        // A refusal names its place and the reason its failure path recorded ("malformed line"
        // stands in for a path that records none).
        if (!readable && (d.line < 1 || d.column < 1 || std::string(d.reason) == "malformed line" || d.reason[0] == 0)) {
            return "no place or reason: " + std::to_string(d.line) + ":" + std::to_string(d.column) + ": " + d.reason;
        }
        std::string finding = RawFinding(m_raw.get(), "raw reader");
        m_listing = std::make_unique<Listing>(path);
        std::size_t at = 0;
        m_selection = Selection();
        for (const auto& [handle, records] : *m_listing) {
            if (!records || records->empty()) return "an empty listed vector";
            for (const SIGINFO* info : *records) {
                if (!info || info->flag != 1 || !info->name) return "an incomplete listed record";
            }
            if (at % 2 == 0) m_selection.Add(handle, {(*records)[at % records->size()]->name});
            if (at == 1) m_selection.Add(handle, {});
            ++at;
        }
        m_filtered = OpenFiltered(path, &m_selection);
        if (!m_filtered && m_raw && currentLayout) finding += "the filtered reader refuses a file the raw reader reads; ";
        finding += RawFinding(m_filtered.get(), "filtered reader");
        m_two = OpenFacade(path, true);
        m_one = OpenFacade(path, false);
        finding += FacadeFinding();
        return finding;
    }
    // Reads on with every reader (the file may have changed) and queries them again.
    std::string Continue() {
        std::string finding;
        if (m_raw) m_raw->Continue();
        if (m_filtered) m_filtered->Continue();
        if (m_two) m_two->Continue();
        if (m_one) m_one->Continue();
        finding += RawFinding(m_raw.get(), "raw reader after Continue");
        finding += RawFinding(m_filtered.get(), "filtered reader after Continue");
        return finding + FacadeFinding();
    }
    int Opened() const { return (m_raw != nullptr) + (m_filtered != nullptr) + (m_two != nullptr) + (m_one != nullptr); }
    void Close() {
        m_raw.reset();
        m_filtered.reset();
        m_two.reset();
        m_one.reset();
        m_listing.reset();
    }

private:
    static std::string RawFinding(IRawTarvelRead* r, const std::string& name) {
        if (!r) return "";
        int faults = 0;
        const std::string dump = Dump(*r, kEventLimit, &faults);
        return faults == 0 ? "" : name + " breaks an invariant: " + dump.substr(dump.find("!!"), 80) + "; ";
    }
    std::string FacadeFinding() {
        std::string finding;
        if ((m_two != nullptr) != (m_raw != nullptr) || (m_one != nullptr) != (m_raw != nullptr)) finding += "a facade and the raw reader disagree; ";
        if (m_two) finding += ExerciseFacade(*m_two, true);
        if (m_one) finding += ExerciseFacade(*m_one, false);
        return finding;
    }

    Reader m_raw{nullptr, DeleteRawTarvelRead}, m_filtered{nullptr, DeleteRawTarvelRead};
    Facade m_two{nullptr, nullptr}, m_one{nullptr, nullptr};
    std::unique_ptr<Listing> m_listing;
    Selection m_selection;
};

bool CurrentLayout(const std::string& bytes) {
    const std::string word = bytes.substr(0, bytes.find_first_of(" \t\r\n\v\f"));
    return word == "$WAVE4" || word == "$WAVE4TIMED";
}

// Puts `bytes` into the file at `path` in place: written over and then cut to size, never cut to
// nothing first, which on ext4 makes the close wait for the disk (some ten thousand times a run).
void Overwrite(const std::string& path, const std::string& bytes) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0644);
    const bool ok = fd >= 0 && pwrite(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()) &&
                    ftruncate(fd, static_cast<off_t>(bytes.size())) == 0;
    if (fd >= 0) close(fd);
    if (!ok) throw std::runtime_error("cannot write " + path);
}

// Reads `bytes` with every reader, then `later` (the file grown or changed) with Continue.
// Empty or what is wrong; the blocks left and the largest request count as wrong too.
std::string ReadDamaged(const std::string& path, const std::string& bytes, const std::string& later, int* opened) {
    Overwrite(path, bytes);
    std::string finding;
    std::size_t left = 0, largest = 0;
    {
        TestHeap heap;
        {
            AllReaders readers;
            finding = readers.Open(path, CurrentLayout(bytes));
            *opened = readers.Opened();
            Overwrite(path, later);
            finding += readers.Continue();
        }
        left = heap.live.size();
        largest = heap.largest;
    }
    if (left != 0) finding += std::to_string(left) + " blocks left behind; ";
    if (largest >= std::size_t{64} << 20) finding += "a request of " + std::to_string(largest) + " bytes; ";
    return finding;
}

std::string Keep(const std::string& bytes, const std::string& name) {
    const std::string kept = (std::filesystem::temp_directory_path() / ("tarvel-damaged-" + name + ".twf")).string();
    WriteBytes(kept, bytes);
    return " (kept as " + kept + ")";
}

// The small files: the raw reader's fuzz seeds, and a design caught after each of its commits
// with the writer resumed and flushed further (a commit mark, lines behind it).
std::vector<std::pair<std::string, std::string>> SmallFiles(const std::string& folder) {
    std::vector<std::pair<std::string, std::string>> files;
    const char* data = std::getenv("TARVEL_TEST_DATA");  // the tests' folder of the source tree
    if (!data) throw std::runtime_error("TARVEL_TEST_DATA is not set");
    const std::filesystem::path seeds = std::filesystem::path(data) / "../fuzz/corpus/raw_reader";
    for (const auto& entry : std::filesystem::directory_iterator(seeds)) files.emplace_back(entry.path().filename().string(), ReadBytes(entry.path().string()));
    std::sort(files.begin(), files.end());
    struct Snapshots final : CommitObserver {
        std::string path;
        std::vector<std::pair<std::string, std::string>>* files;
        void Committing(int commit, const Design&) override {
            if (commit > 1) files->emplace_back("growing-" + std::to_string(commit), ReadBytes(path));
        }
        void Committed(int) override {}
    } snapshots;
    snapshots.path = folder + "/growing.twf";
    snapshots.files = &files;
    Design(17, snapshots.path, {2, 1}, &snapshots).Run();
    return files;
}

// One to a few damages: most change a value or a number, which leaves the file's structure
// readable; some change the structure (a byte of a keyword, a line feed, a deleted or inserted
// range, a copy of other lines); few cut the file.
std::string Mutate(std::string bytes, std::mt19937_64& rng) {
    static const char kBytes[] = "0123456789 \t\r\n$:-+\"*=RTDV\\k#";
    static const char* kNumbers[] = {"4294967296", "-1", "99999999999", "2147483648", "0", "-2147483649", "18446744073709551616", "65536"};
    int damages = 1;
    while (damages < 8 && rng() % 2) ++damages;
    for (; damages > 0 && !bytes.empty(); --damages) {
        const std::size_t at = rng() % bytes.size();
        const std::size_t digits = bytes.find_first_of("0123456789", at);
        switch (rng() % 12) {
            case 0: bytes[at] = static_cast<char>(bytes[at] ^ (1 << rng() % 8)); break;
            case 1: bytes[at] = kBytes[rng() % (sizeof kBytes - 1)]; break;
            case 2: bytes.erase(at, 1 + rng() % 64); break;
            case 3: bytes.insert(at, std::string(1 + rng() % 8, kBytes[rng() % (sizeof kBytes - 1)])); break;
            case 4: bytes.insert(at, bytes.substr(rng() % bytes.size(), 1 + rng() % 512)); break;  // a copy of other lines
            case 5: if (rng() % 4 == 0) bytes.resize(at); break;
            case 6: case 7:  // a digit changed
                if (digits != std::string::npos) bytes[digits] = static_cast<char>('0' + rng() % 10);
                break;
            default:  // a number made large, negative or wrapping
                if (digits != std::string::npos) {
                    const std::size_t end = bytes.find_first_not_of("0123456789", digits);
                    bytes.replace(digits, (end == std::string::npos ? bytes.size() : end) - digits, kNumbers[rng() % 8]);
                }
                break;
        }
    }
    return bytes;
}

// Each prefix of each small file, read and then read on after the whole file is back.
TEST(DamagedFiles, EveryPrefixOfSmallFilesGivesNullOrASoundReader) {
    Rounds rounds(8, 1);
    ScratchFolder folder;
    const auto files = SmallFiles(folder.path);
    const std::string path = folder.File("cut.twf");
    Watchdog watchdog(kSanitized ? 120 : 20);
    std::uint64_t prefixes = 0, readable = 0;
    for (std::uint64_t seed; rounds.Next(&seed);) {
        const auto& [name, whole] = files[seed % files.size()];
        SCOPED_TRACE(SeedTrace(seed) + ", file " + name);
        for (std::size_t n = 0; n <= whole.size(); ++n) {
            // The prefix alone, and with a commit mark after it, as a writer that resumed there
            // leaves it; then the whole file comes back and the readers read on.
            for (const std::string& cut : {whole.substr(0, n), whole.substr(0, n) + ":"}) {
                watchdog.Start(name + " cut after " + std::to_string(n) + " bytes");
                int opened = 0;
                const std::string finding = ReadDamaged(path, cut, whole, &opened);
                ASSERT_EQ(finding, "") << "cut after " << n << " bytes" << Keep(cut, name + "-" + std::to_string(n));
                ++prefixes;
                readable += opened > 0;
            }
        }
    }
    ReportFigures("prefixes", {{"files", rounds.Done()}, {"prefixes", prefixes}, {"readable_prefixes", readable}}, rounds.Elapsed());
}

// Writer-made files of some kilobytes to some hundred, damaged at random, read, then read on
// after the file changed to another damaged version.
TEST(DamagedFiles, RandomlyDamagedFilesGiveNullOrASoundReader) {
    Rounds rounds(400, 80);
    ScratchFolder folder;
    const std::string path = folder.File("damaged.twf"), source = folder.File("source.twf");
    Watchdog watchdog(kSanitized ? 120 : 20);
    std::uint64_t files = 0, readable = 0, bytes = 0;
    std::string whole;
    std::uint64_t fileSeed = 0;
    for (std::uint64_t seed; rounds.Next(&seed);) {
        SCOPED_TRACE(SeedTrace(seed));
        std::mt19937_64 rng(seed);
        if (whole.empty() || rng() % 8 == 0) {  // a new writer-made file now and then
            Design(seed, source, {1 + static_cast<int>(rng() % 8), 1 + static_cast<int>(rng() % 2)}).Run();
            whole = ReadBytes(source);
            fileSeed = seed;
        }
        // A round damages the file an earlier round made, so its seed alone may not repeat it;
        // the damaged files are kept for that.
        SCOPED_TRACE("writer-made file of seed " + std::to_string(fileSeed));
        const std::string damaged = Mutate(whole, rng), later = rng() % 2 ? whole : Mutate(whole, rng);
        watchdog.Start("damaged file of seed " + std::to_string(seed));
        int opened = 0;
        const std::string finding = ReadDamaged(path, damaged, later, &opened);
        ASSERT_EQ(finding, "") << Keep(damaged, std::to_string(seed)) << Keep(later, std::to_string(seed) + "-later");
        ++files;
        readable += opened > 0;
        bytes += damaged.size();
    }
    ReportFigures("damaged", {{"files", files}, {"readable", readable}, {"bytes", bytes}}, rounds.Elapsed());
}

}  // namespace
}  // namespace Tarvel::Testing
