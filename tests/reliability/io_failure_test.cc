// Full disks and failing file operations under a writer: the waveform file's n-th write (which
// then puts only part of its bytes), flush, seek, tell, close or commit to disk fails, once or
// from then on, for every n of a seeded design; and a child process writes a design with its
// file-size limit (RLIMIT_FSIZE) set anywhere below the file's size. Every writer call that
// fails answers false and the log names an I/O failure; a Resume that cannot seek answers false;
// and whatever happened, every reader finds the file as of its last commit (or of the commit
// under way when the failure hit inside it), or refuses it before the first. A run whose calls
// all answered true leaves the whole design. Reliability tests; POSIX (fork, setrlimit).
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <set>

#include "foundation/platform_file.h"
#include "format/lexer_test_support.h"
#include "reliability/campaign.h"
#include "reliability/reader_checks.h"

namespace Tarvel::Testing {
namespace {

// The messages of the writer's I/O failures.
const std::set<std::string> kIoMessages = {"Cannot write to output file", "Cannot write to disk", "Previous ftell failed"};

// File operations of the waveform file (not of its log) that fail on request.
struct FaultyFile {
    enum Op { kWrite, kFlush, kSeek, kTell, kClose, kCommit, kOps };
    static constexpr std::array<const char*, kOps> kNames = {"write", "flush", "seek", "tell", "close", "commit to disk"};
    // What the log may read when an operation of the kind failed: its own message, or the one of
    // putting back the byte the commit mark displaced (a seek, a one-byte write and a flush), or
    // nothing where a Resume that cannot seek answers false quietly.
    static inline const std::array<std::set<std::string>, kOps> kLogs = {{
        {"Cannot write to output file", "Previous ftell failed"},
        {"Cannot write to disk", "Previous ftell failed"},
        {"Previous ftell failed", ""},
        {"Previous ftell failed", ""},
        {"Cannot write to disk"},
        {"Cannot write to disk", "Previous ftell failed"},
    }};

    static inline std::string name;        // the waveform file's path
    static inline std::FILE* file = nullptr;
    static inline std::array<int, kOps> counts{};
    static inline Op failOp = kWrite;
    static inline int failAt = 0;          // 0: nothing fails
    static inline bool sticky = false;     // fail every later call of the kind too (a full disk)
    static inline bool remote = false;     // every file counts as remote: a commit after each flush
    static inline bool injected = false;
    static inline std::mt19937 random;

    static bool Fails(Op op, std::FILE* f) {
        if (f == nullptr || f != file) return false;
        const int n = ++counts[op];
        const bool fail = failAt > 0 && op == failOp && (n == failAt || (sticky && n > failAt));
        injected = injected || fail;
        return fail;
    }

    static constexpr Platform::FileHooks kHooks{
        [](const char* path, const char* mode) {
            std::FILE* f = std::fopen(path, mode);
            if (path == name) file = f;
            return f;
        },
        [](const char*) { return remote; },
        [](const void* data, std::size_t size, std::FILE* f) -> std::size_t {
            if (!Fails(kWrite, f)) return std::fwrite(data, 1, size, f);
            const std::size_t part = size == 0 ? 0 : random() % size;  // the disk took some of it
            return std::fwrite(data, 1, part, f);
        },
        [](std::FILE* f) { return !Fails(kFlush, f) && std::fflush(f) == 0; },
        [](std::FILE* f) -> std::int64_t { return Fails(kTell, f) ? -1 : static_cast<std::int64_t>(ftello(f)); },
        [](std::FILE* f, std::int64_t at) { return at >= 0 && !Fails(kSeek, f) && fseeko(f, at, SEEK_SET) == 0; },
        [](std::FILE* f) {
            const bool fail = Fails(kClose, f);
            if (f == file) file = nullptr;
            return std::fclose(f) == 0 && !fail;
        },
        [](std::FILE* f) { return !Fails(kCommit, f); },
    };

    FaultyFile(const std::string& path, Op op, int at, bool fromThenOn, bool remoteFile, unsigned seed) {
        name = path;
        file = nullptr;
        counts = {};
        failOp = op;
        failAt = at;
        sticky = fromThenOn;
        remote = remoteFile;
        injected = false;
        random.seed(seed);
        Platform::SetFileHooks(&kHooks);
    }
    ~FaultyFile() { Platform::SetFileHooks(nullptr); }
};

// What a writer did before it stopped: the last commit begun and the last one that returned.
struct Progress final : CommitObserver {
    int started = 0, done = 0;
    void Committing(int commit, const Design&) override { started = commit; }
    void Committed(int commit) override { done = commit; }
};

// How a design's writing ended.
struct Written {
    Progress progress;
    bool failed = false;   // a writer call answered false
    std::string failure;   // which one
};

Written WriteDesign(std::uint64_t seed, DesignSize size, const std::string& path) {
    Written w;
    std::remove((path + ".log").c_str());
    std::unique_ptr<Design> design;
    try {
        design = std::make_unique<Design>(seed, path, size, &w.progress);
        design->Run();
    } catch (const std::runtime_error& e) {
        w.failed = true;
        w.failure = e.what();
    }
    if (ITarvelWrite* writer = design ? design->Abandon() : nullptr) ReleaseFailedWriter(writer);
    return w;
}

// Empty when the file at `path` is what a writer that got as far as `w` must leave, and its log
// names what stopped it; else what is wrong.
std::string CheckLeftFile(const std::string& path, const Written& w, const Reference& reference) {
    const std::string log = ReadBytes(path + ".log");
    // Only a Resume that cannot seek answers false without a report (the writer goes on).
    const bool quiet = w.failure == "failed: m_w->Resume()" && log.empty();
    if (w.failed && !quiet && !kIoMessages.count(log)) return "the log reads '" + log + "' after " + w.failure;
    if (!log.empty() && !kIoMessages.count(log)) return "the log reads '" + log + "'";
    const int low = w.failed ? w.progress.done : reference.Commits();
    const int high = w.failed && w.progress.started > w.progress.done ? w.progress.started : low;
    ReaderSet readers(reference);
    const int opened = readers.Open(path);
    if (opened == 0 && low == 0) return "";
    const std::string finding = readers.Check(low, high);
    return finding.empty() ? "" : finding + " (commits " + std::to_string(low) + " to " + std::to_string(high) + ")";
}

TEST(IoFailure, EveryFailingFileOperationOfAWriterLeavesItsLastCommit) {
    Rounds rounds(6, 3, {5, 8});
    ScratchFolder folder;
    const std::string path = folder.File("io.twf");
    std::uint64_t injected = 0, stopped = 0, unnoticed = 0;
    for (std::uint64_t seed; rounds.Next(&seed);) {
        SCOPED_TRACE(SeedTrace(seed));
        const DesignSize size = {2 + static_cast<int>(seed % 3), 1};
        const Reference reference(seed, size, folder.File("model.twf"));
        const bool remote = seed % 2 == 0;
        std::array<int, FaultyFile::kOps> counts{};
        {
            FaultyFile count(path, FaultyFile::kWrite, 0, false, remote, 0);
            const Written whole = WriteDesign(seed, size, path);
            ASSERT_FALSE(whole.failed) << whole.failure;
            counts = FaultyFile::counts;
        }
        for (int op = 0; op < FaultyFile::kOps; ++op) {
            for (int n = 1; n <= counts[static_cast<std::size_t>(op)]; ++n) {
                for (const bool sticky : {false, true}) {
                    SCOPED_TRACE(std::string(FaultyFile::kNames[static_cast<std::size_t>(op)]) + " " + std::to_string(n) +
                                 (sticky ? " and every later one" : " alone") + " fails" + (remote ? ", remote file" : ""));
                    Written w;
                    {
                        FaultyFile faults(path, static_cast<FaultyFile::Op>(op), n, sticky, remote, static_cast<unsigned>(seed + n));
                        w = WriteDesign(seed, size, path);
                        ASSERT_TRUE(FaultyFile::injected);
                    }
                    ++injected;
                    stopped += w.failed;
                    unnoticed += !w.failed;
                    const std::string log = ReadBytes(path + ".log");
                    ASSERT_TRUE(!w.failed || FaultyFile::kLogs[static_cast<std::size_t>(op)].count(log)) << "the log reads '" << log << "'";
                    ASSERT_EQ(CheckLeftFile(path, w, reference), "") << (w.failed ? w.failure : "every call answered true");
                }
            }
        }
    }
    ReportFigures("io_operations", {{"designs", rounds.Done()}, {"failures_injected", injected}, {"writers_stopped", stopped},
                                    {"failures_without_consequence", unnoticed}},
                  rounds.Elapsed());
}

// A child writes with its file-size limit below the file's size (SIGXFSZ ignored, so writes
// beyond the limit fail with EFBIG as on a full disk) and tells its commits through the pipe.
TEST(IoFailure, AFileSizeLimitStopsTheWriterWithTheFileReadableAsOfItsLastCommit) {
    Rounds rounds(30, 10);
    ScratchFolder folder;
    const std::string path = folder.File("limited.twf");
    std::uint64_t limited = 0, completed = 0;
    for (std::uint64_t seed; rounds.Next(&seed);) {
        SCOPED_TRACE(SeedTrace(seed));
        const DesignSize size = {2 + static_cast<int>(seed % 6), 1 + static_cast<int>(seed / 6 % 2)};
        const Reference reference(seed, size, folder.File("model.twf"));
        const std::uint64_t whole = ReadBytes(folder.File("model.twf")).size();
        const rlim_t limit = static_cast<rlim_t>(64 + (seed * 2654435761u) % (whole + whole / 8));
        SCOPED_TRACE("file-size limit " + std::to_string(limit) + " of " + std::to_string(whole) + " bytes");
        std::remove(path.c_str());
        RecordPipe pipe;
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            pipe.ChildSide();
            signal(SIGXFSZ, SIG_IGN);
            const rlimit bound{limit, limit};
            if (setrlimit(RLIMIT_FSIZE, &bound) != 0) _exit(9);
            const Written w = WriteDesign(seed, size, path);
            pipe.Send(CommitRecord::kCommitting, w.progress.started);
            pipe.Send(CommitRecord::kCommitted, w.progress.done);
            if (w.failed) pipe.Send(CommitRecord::kFinished, 0);
            _exit(0);
        }
        pipe.ParentSide();
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
        CommitJournal journal;
        journal.Drain(pipe.fds[0]);
        Written w;
        w.failed = journal.finished;  // sent for a writer that stopped
        w.failure = "a writer call";
        w.progress.started = journal.started;
        w.progress.done = journal.done;
        ASSERT_EQ(w.failed, limit < whole) << "the limit " << (limit < whole ? "went unnoticed" : "stopped a file that fits");
        (w.failed ? limited : completed) += 1;
        ASSERT_EQ(CheckLeftFile(path, w, reference), "");
        ASSERT_LE(ReadBytes(path).size(), limit);
    }
    ReportFigures("file_size_limit", {{"designs", rounds.Done()}, {"stopped_by_the_limit", limited}, {"within_the_limit", completed}},
                  rounds.Elapsed());
}

}  // namespace
}  // namespace Tarvel::Testing
