// Crash safety of the commit protocol: a child process writes lines and commits in a loop and is
// killed with SIGKILL at random moments; every file left behind must read as complete up to a
// commit mark or terminator, with nothing lost before the last commit the child saw return.
// Writer layer tests; POSIX only (fork, pipe, kill).
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>

#include "format_test_support.h"

namespace Tarvel::Testing {
namespace {

constexpr int kKills = 220;
constexpr std::string_view kHeader = "$WAVE4\r\n";
constexpr std::string_view kTerminator = "$ENDWAVE\r\n";

// Line `index` of every crash file: state-free, of varying length (up to a few hundred bytes).
std::string ExpectedLine(std::uint64_t index) {
    return "$SEF " + std::to_string(index) + " f" + std::string(index * 7 % 300, 'a') + "\r\n";
}

class ChildReporter final : public IErrorReport {
public:
    bool Error(const char*, ...) override { _exit(3); }
};

// The child: commits batches of lines (sometimes none, sometimes more than a buffer) and sends
// the number of lines committed after every commit that returned.
[[noreturn]] void RunWriter(const std::string& path, int record, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    ChildReporter reporter;
    KOutputStream stream(reporter);
    KLineWriter lines(stream, reporter, false);
    const FlushCallback flush{[](void* s) { return static_cast<KOutputStream*>(s)->Flush(); }, &stream};
    if (!stream.Open(path.c_str()) || !lines.WriteHeader()) _exit(2);
    std::uint64_t written = 0;
    for (int cycle = 0; cycle < 1000000; ++cycle) {
        const std::uint64_t batch = random() % 32 == 0 ? 300 + random() % 600 : random() % 30;
        for (std::uint64_t end = written + batch; written < end; ++written) {
            const std::string line = ExpectedLine(written);
            if (!lines.PutText(line)) _exit(4);
        }
        if (!lines.Commit(0, flush)) _exit(5);
        if (write(record, &written, sizeof written) != sizeof written) _exit(6);
        if (!stream.Resume()) _exit(7);
    }
    _exit(0);
}

// Checks a file left by a killed writer that had seen `committed` lines committed. Returns an
// empty text when the file is sound, otherwise what is wrong.
std::string CheckFile(const std::string& bytes, std::uint64_t committed) {
    if (bytes.size() < kHeader.size()) {
        return committed == 0 && kHeader.starts_with(bytes) ? "" : "short header";
    }
    if (!bytes.starts_with(kHeader)) return "bad header";
    std::uint64_t line = 0;
    for (std::size_t at = kHeader.size(); at < bytes.size(); ++line) {
        if (bytes[at] == ':') {
            return line >= committed ? "" : "mark before the last commit";
        }
        const std::size_t end = bytes.find('\n', at);
        const std::string text = bytes.substr(at, end == std::string::npos ? end : end + 1 - at);
        if (text == kTerminator) {
            if (at + text.size() != bytes.size()) return "bytes after the terminator";
            return line >= committed ? "" : "terminator before the last commit";
        }
        const std::string expected = ExpectedLine(line);
        if (end == std::string::npos) {  // a line cut by the kill: only before the first commit
            const bool prefix = expected.starts_with(text) || kTerminator.starts_with(text);
            return committed == 0 && prefix ? "" : "cut line after a commit: " + text;
        }
        if (text != expected) return "line " + std::to_string(line) + " is " + text;
        at = end + 1;
    }
    return committed == 0 ? "" : "no terminator and no mark";
}

// Takes the records that arrived; the last one is the number of lines committed.
void ReadRecords(int record, std::uint64_t& committed) {
    for (std::uint64_t value = 0; read(record, &value, sizeof value) == sizeof value;) committed = value;
}

TEST(CommitCrash, KilledWriterLeavesAFileReadableUpToItsLastCommit) {
    const char* given = std::getenv("TARVEL_CRASH_SEED");
    const std::uint64_t seed = given != nullptr ? std::stoull(given) : std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed) + " (rerun with TARVEL_CRASH_SEED)");
    std::mt19937_64 random(seed);
    ScratchFolder folder;
    int committedFiles = 0;
    for (int kill = 0; kill < kKills; ++kill) {
        const std::string path = folder.File("crash" + std::to_string(kill) + ".wav");
        int record[2];
        ASSERT_EQ(pipe(record), 0);
        const std::uint64_t childSeed = random();
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(record[0]);
            RunWriter(path, record[1], childSeed);
        }
        close(record[1]);
        fcntl(record[0], F_SETFL, O_NONBLOCK);
        std::uint64_t committed = 0;  // read while the child runs, so the pipe never fills up
        const auto killAt = std::chrono::steady_clock::now() + std::chrono::microseconds(random() % 12000);
        while (std::chrono::steady_clock::now() < killAt) {
            ReadRecords(record[0], committed);
            usleep(200);
        }
        ::kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself, status " << status;
        ReadRecords(record[0], committed);
        close(record[0]);
        committedFiles += committed != 0;
        ASSERT_EQ(CheckFile(ReadBytes(path), committed), "") << "kill " << kill << ", " << committed << " lines committed";
        std::remove(path.c_str());
    }
    EXPECT_GT(committedFiles, kKills / 4) << "most kills should land after a commit";
}

}  // namespace
}  // namespace Tarvel::Testing
