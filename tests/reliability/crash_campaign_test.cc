// The promise that a file reads up to its last commit at every moment, end to end: a child
// process writes a seeded random design (scopes, buses, elements, virtual buses, properties,
// sources, flushes, commits and resumes) and tells through a pipe when each commit begins and
// returns. Killed with SIGKILL at random moments (or just after a commit began), it leaves a file
// that every reader must present exactly as of the last commit that returned, or of the one
// under way; a reader that follows a file being written sees, at every Continue, exactly a
// commit at least as late as the one before. The model of each commit comes from the same
// design written again in this process. Reliability tests; POSIX (fork, pipe, kill).
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "format/lexer_test_support.h"
#include "reliability/campaign.h"
#include "reliability/reader_checks.h"
#include "tarvel/diagnostics.h"

namespace Tarvel::Testing {
namespace {

using Clock = std::chrono::steady_clock;

// The child: writes the design into `path` and reports its commits, pausing up to `pauseMicros`
// after each (a simulator computing); exits 0 when the design is written whole, 3 when a writer
// call failed.
[[noreturn]] void WriteInChild(std::uint64_t seed, DesignSize size, const std::string& path, RecordPipe& pipe, int pauseMicros) {
    pipe.ChildSide();
    struct Teller final : CommitObserver {
        const RecordPipe* pipe;
        int pause;
        std::mt19937 random{std::random_device{}()};
        void Committing(int commit, const Design&) override { pipe->Send(CommitRecord::kCommitting, commit); }
        void Committed(int commit) override {
            pipe->Send(CommitRecord::kCommitted, commit);
            if (pause > 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % static_cast<unsigned>(pause)));
        }
    } teller;
    teller.pipe = &pipe;
    teller.pause = pauseMicros;
    try {
        Design design(seed, path, size, &teller);
        design.Run();
    } catch (...) {
        _exit(3);
    }
    pipe.Send(CommitRecord::kFinished, 0);
    _exit(0);
}

// A design of tens of kilobytes to a few megabytes: tens to some hundred signals, tens to some
// hundred commits.
DesignSize SizeOf(std::uint64_t seed) { return {2 + static_cast<int>(seed % 19), 1 + static_cast<int>(seed / 19 % 4)}; }

struct ChildWriter {
    RecordPipe pipe;
    pid_t pid = -1;
    CommitJournal journal;
    Clock::time_point start = Clock::now();

    ChildWriter(std::uint64_t seed, DesignSize size, const std::string& path, int pauseMicros = 0) {
        pid = fork();
        if (pid == 0) WriteInChild(seed, size, path, pipe, pauseMicros);
        pipe.ParentSide();
    }
    ~ChildWriter() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    // True once the child has ended by itself; `status` then holds its wait status.
    bool Ended(int* status) {
        journal.Drain(pipe.fds[0]);
        if (pid <= 0 || waitpid(pid, status, WNOHANG) != pid) return false;
        pid = -1;
        journal.Drain(pipe.fds[0]);
        return true;
    }
    // Kills the child (when it still runs); returns its wait status.
    int Kill() {
        int status = 0;
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            pid = -1;
        }
        journal.Drain(pipe.fds[0]);
        return status;
    }
};

// Writes what a reader presented and what the model expected beside each other for a failing
// round, and names the folder.
std::string KeepFinding(const std::string& path, std::uint64_t seed) {
    const std::string kept = "/tmp/tarvel-finding-" + std::to_string(seed) + ".twf";
    WriteBytes(kept, ReadBytes(path));
    return " (the file is kept as " + kept + ")";
}

// How long the design of a round takes to write whole here, and how many commits it makes.
struct Timing {
    double seconds = 0;
    int commits = 0;
};
Timing TimeDesign(std::uint64_t seed, DesignSize size, const std::string& path) {
    struct Counter final : CommitObserver {
        int commits = 0;
        void Committing(int commit, const Design&) override { commits = commit; }
        void Committed(int) override {}
    } counter;
    const auto start = Clock::now();
    Design(seed, path, size, &counter).Run();
    return {std::chrono::duration<double>(Clock::now() - start).count(), counter.commits};
}

TEST(CrashCampaign, KilledWritersLeaveFilesThatEveryReaderReadsAsTheirLastCommit) {
    Rounds rounds(40, 12);
    ScratchFolder folder;
    const std::string path = folder.File("killed.twf"), model = folder.File("model.twf");
    std::mt19937_64 timing(std::random_device{}());
    std::uint64_t kills = 0, inCommit = 0, beforeFirst = 0, whole = 0, commitsSeen = 0, bytes = 0;
    for (std::uint64_t seed; rounds.Next(&seed);) {
        SCOPED_TRACE(SeedTrace(seed));
        const DesignSize size = SizeOf(seed);
        const Timing design = TimeDesign(seed, size, model);
        std::remove(path.c_str());
        ChildWriter child(seed, size, path);
        // Kill at a random moment of the run, or a random moment after a random commit began.
        const bool onCommit = timing() % 3 == 0;
        const int killCommit = 1 + static_cast<int>(timing() % static_cast<std::uint64_t>(design.commits));
        const auto killAt = child.start + std::chrono::duration<double>(onCommit ? 1e6 : design.seconds * 1.1 * (timing() % 1000) / 1000.0);
        int status = 0;
        bool ended = false;
        while (!(ended = child.Ended(&status)) && Clock::now() < killAt && !(onCommit && child.journal.started >= killCommit)) {
            std::this_thread::sleep_for(std::chrono::microseconds(onCommit ? 20 : 100));
        }
        if (!ended && onCommit) std::this_thread::sleep_for(std::chrono::microseconds(timing() % 300));
        if (!ended) {
            status = child.Kill();
            ended = WIFEXITED(status);  // it ended by itself just before the kill
        }
        const CommitJournal j = child.journal;
        if (ended) {
            ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0 && j.finished) << "the writer failed, status " << status;
            ++whole;
        } else {
            ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;
            ++kills;
            inCommit += j.started > j.done;
            beforeFirst += j.done == 0;
        }
        // What readers may present: the last commit that returned, or the one under way.
        const int low = j.done, high = j.started > j.done ? j.done + 1 : j.done;
        Reference reference(seed, size, model, [&](int c) { return c == low || c == high; });
        if (ended) {
            ASSERT_EQ(j.done, reference.Commits());
        }
        ReaderSet readers(reference);
        const int opened = readers.Open(path);
        TarvelDiagnosis diagnosis;
        const bool readable = DiagnoseTarvelFile(path.c_str(), &diagnosis);
        if (high == 0 || (low == 0 && opened == 0)) {
            ASSERT_EQ(opened, 0) << "readers opened a file before its first commit" << KeepFinding(path, seed);
            ASSERT_FALSE(readable);
        } else {
            ASSERT_TRUE(readable) << diagnosis.reason << KeepFinding(path, seed);
            const std::string finding = readers.Check(low, high);
            ASSERT_EQ(finding, "") << "commits " << low << " to " << high << KeepFinding(path, seed);
            const Listing listing(path);
            ASSERT_EQ(reference.ListingFinding(listing, reference.Expected(readers.RawCommit())), "") << KeepFinding(path, seed);
            commitsSeen += static_cast<std::uint64_t>(readers.RawCommit());
        }
        bytes += ReadBytes(path).size();
    }
    ReportFigures("crash", {{"rounds", rounds.Done()}, {"kills", kills}, {"kills_inside_a_commit", inCommit},
                            {"kills_before_the_first_commit", beforeFirst}, {"written_whole", whole},
                            {"commits_checked", commitsSeen}, {"bytes_checked", bytes}},
                  rounds.Elapsed());
    EXPECT_GT(kills, whole) << "most writers should be killed";
}

// A reader of every kind follows a file that a child process writes and commits: opened after
// the first commit, then read on with Continue at random moments while the writer runs, and once
// more after it ended. Each time each reader presents exactly one commit: one that had returned
// before the Continue, or a later one that had begun before it ended, never earlier than the one
// it presented before; at the end, the last commit.
TEST(CrashCampaign, ReadersFollowingAGrowingFileSeeOneCommitAtEveryContinue) {
    Rounds rounds(12, 4);
    ScratchFolder folder;
    const std::string path = folder.File("growing.twf"), model = folder.File("model.twf");
    std::mt19937_64 timing(std::random_device{}());
    std::uint64_t continues = 0, advanced = 0, commits = 0;
    for (std::uint64_t seed; rounds.Next(&seed);) {
        SCOPED_TRACE(SeedTrace(seed));
        const DesignSize size = {3 + static_cast<int>(seed % 8), 1 + static_cast<int>(seed / 8 % 3)};
        const Reference reference(seed, size, model);
        commits += static_cast<std::uint64_t>(reference.Commits());
        std::remove(path.c_str());
        ChildWriter child(seed, size, path, 2000);
        int status = 0;
        bool ended = false;
        while (!(ended = child.Ended(&status)) && child.journal.done == 0) std::this_thread::sleep_for(std::chrono::microseconds(50));
        ReaderSet readers(reference);
        int low = child.journal.done;
        ASSERT_EQ(readers.Open(path), 4) << KeepFinding(path, seed);
        child.journal.Drain(child.pipe.fds[0]);
        ASSERT_EQ(readers.Check(low, child.journal.started), "") << KeepFinding(path, seed);
        while (!ended) {
            std::this_thread::sleep_for(std::chrono::microseconds(timing() % 3000));
            ended = child.Ended(&status);
            low = child.journal.done;
            const int before = readers.RawCommit();
            ASSERT_EQ(readers.Continue(), "") << "Continue failed";
            child.journal.Drain(child.pipe.fds[0]);
            ASSERT_EQ(readers.Check(low, child.journal.started), "") << KeepFinding(path, seed);
            ++continues;
            advanced += readers.RawCommit() > before;
        }
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the writer failed, status " << status;
        ASSERT_EQ(child.journal.done, reference.Commits());
        ASSERT_EQ(readers.Continue(), "");
        ASSERT_EQ(readers.Check(reference.Commits(), reference.Commits()), "") << "at the end" << KeepFinding(path, seed);
    }
    ReportFigures("following", {{"rounds", rounds.Done()}, {"continues", continues}, {"continues_that_read_on", advanced},
                                {"commits_written", commits}},
                  rounds.Elapsed());
}

}  // namespace
}  // namespace Tarvel::Testing
