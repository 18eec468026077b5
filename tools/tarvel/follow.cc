// `tarvel follow FILE [--signal NAME]... [--interval MS]`: prints the events of a file that a
// writer is still writing, as dump does, and then every event that each commit adds, until
// interrupted (Ctrl-C, exit 0) or until the file is complete. Tool layer; one thread.
//
// When is a file complete? A committed file and a file whose writer has committed and resumed
// but not yet written again are the same bytes; only the writer's open file tells them apart.
// So: the file is complete when no process holds it open for writing, which Linux tells by
// letting us take a read lease on it (fcntl F_SETLEASE; taken and given back at once). The
// writer closes the file at its last Release; after that, one more read on takes in everything
// it committed, and follow ends. Where leases are not available (a file of another user, a file
// system without leases), follow runs until interrupted. The library opens its files
// close-on-exec, so a follower started by the writing process does not inherit the writer's
// descriptor; one started by a writer of an older build of the library would, so follow closes
// any such copy first, or it would hold the file open for writing itself.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "commands.h"
#include "events.h"
#include "selection.h"

namespace TarvelTool {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;

void OnInterrupt(int) { g_interrupted = 1; }

// SIGINT and SIGTERM end the follow between two events; a pause returns at once.
void CatchInterrupts() {
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: a pause ends early
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

void Pause(int milliseconds) {
    const struct timespec pause {milliseconds / 1000, static_cast<long>(milliseconds % 1000) * 1000000L};
    nanosleep(&pause, nullptr);
}

enum class Writers { kNone, kSome, kUnknown };

// Whether some process holds `path` open for writing (see the top of this file).
Writers WritersOf(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return Writers::kUnknown;
    Writers writers = Writers::kUnknown;
    if (fcntl(fd, F_SETLEASE, F_RDLCK) == 0) {
        fcntl(fd, F_SETLEASE, F_UNLCK);
        writers = Writers::kNone;
    } else if (errno == EAGAIN) {
        writers = Writers::kSome;
    }
    close(fd);
    return writers;
}

// Closes the descriptors of `path` open for writing that this process inherited.
void CloseInheritedWriters(const std::string& path) {
    struct stat file {};
    DIR* fds = opendir("/proc/self/fd");
    if (!fds || stat(path.c_str(), &file) != 0) {
        if (fds) closedir(fds);
        return;
    }
    const int own = dirfd(fds);
    while (const dirent* entry = readdir(fds)) {
        const int fd = std::atoi(entry->d_name);
        struct stat open {};
        if (entry->d_name[0] == '.' || fd == own || fstat(fd, &open) != 0) continue;
        const int flags = fcntl(fd, F_GETFL);
        if (open.st_dev == file.st_dev && open.st_ino == file.st_ino && flags >= 0 && (flags & O_ACCMODE) != O_RDONLY) close(fd);
    }
    closedir(fds);
}

// Prints the events that the chosen signals gained since the last call.
class Follower {
public:
    Follower(WaveFile& file, std::vector<bool> chosen) : m_file(file), m_chosen(std::move(chosen)), m_printer(file, m_chosen) {}

    void Choose(std::vector<bool> chosen) { m_chosen = std::move(chosen); }

    // False when interrupted.
    bool PrintNew() {
        const std::size_t count = m_file.Signals().size();
        m_shown.resize(count, 0);
        m_last.resize(count, 0);
        std::vector<WalkStart> starts;
        for (const WalkStart& start : StartsOf(m_file, m_chosen, 0)) {
            const std::size_t i = static_cast<std::size_t>(start.signal);
            if (Store(i).count() > m_shown[i]) starts.push_back(WalkStart{start.signal, m_shown[i], m_last[i]});
        }
        EventWalk walk(m_file, starts);
        while (walk.Next()) {
            if (g_interrupted) return false;
            m_printer.Print(walk.Signal(), walk.Event());
        }
        for (const WalkStart& start : starts) {
            const std::size_t i = static_cast<std::size_t>(start.signal);
            m_shown[i] = Store(i).count();
            m_last[i] = Store(i).EndTime();  // a read store ends at its last event
        }
        std::fflush(stdout);
        return true;
    }

private:
    const Tarvel::KEventsStore& Store(std::size_t i) { return *m_file.Reader().GetSignalData(m_file.Signals()[i].handle); }

    WaveFile& m_file;
    std::vector<bool> m_chosen;
    EventPrinter m_printer;
    std::vector<unsigned> m_shown;  // per signal: events printed
    std::vector<int64> m_last;      // per signal: the time of the last one
};

// Waits while a writer holds the file and it does not read yet (before its first commit).
std::unique_ptr<WaveFile> OpenWhenCommitted(const std::string& path, const std::vector<std::string>& names, int interval) {
    bool told = false;
    for (;;) {
        std::unique_ptr<WaveFile> file = OpenFor(path, names);
        if (file || g_interrupted || WritersOf(path) != Writers::kSome) return file;
        if (!told) std::fprintf(stderr, "tarvel follow: waiting for the first commit of %s\n", path.c_str());
        told = true;
        Pause(interval);
    }
}

// Says how the file ended once its writer closed it.
void ReportEnd(const std::string& path) {
    Tarvel::TarvelDiagnosis d;
    Tarvel::DiagnoseTarvelFile(path.c_str(), &d);
    if (d.readable && !d.atTerminator) {
        std::fprintf(stderr, "tarvel follow: %s: closed by its writer after a commit it did not follow with another; "
                     "what came after that commit is not readable\n", path.c_str());
    } else {
        std::fprintf(stderr, "tarvel follow: %s: complete, closed by its writer\n", path.c_str());
    }
}

int Follow(const std::string& path, const std::vector<std::string>& names, int interval) {
    CatchInterrupts();
    CloseInheritedWriters(path);
    std::unique_ptr<WaveFile> file = OpenWhenCommitted(path, names, interval);
    if (g_interrupted) return kExitOk;
    if (!file) {
        ReportUnreadable("follow", path);
        return kExitBadFile;
    }
    std::vector<bool> chosen;
    std::string unknown;
    if (!Choose(*file, names, &chosen, &unknown)) {
        std::fprintf(stderr, "tarvel follow: no signal %s in %s\n", unknown.c_str(), path.c_str());
        return kExitBadUsage;
    }
    Follower follower(*file, chosen);
    while (follower.PrintNew()) {
        Pause(interval);
        if (g_interrupted) break;
        const Writers writers = WritersOf(path);  // before reading on: all it wrote is in the file then
        if (!file->Continue()) {
            ReportUnreadable("follow", path);
            return kExitBadFile;
        }
        Choose(*file, names, &chosen, &unknown);  // new signals below a named one join
        follower.Choose(chosen);
        if (writers == Writers::kNone) {
            if (follower.PrintNew()) ReportEnd(path);
            break;
        }
    }
    return std::fflush(stdout) == 0 ? kExitOk : kExitBadFile;
}

}  // namespace

void AddFollowCommand(CLI::App& app) {
    static std::string path;
    static std::vector<std::string> names;
    static int interval = 200;
    CLI::App* command = app.add_subcommand("follow", "Prints the events of a growing file as its writer commits them");
    command->add_option("file", path, "The waveform file")->required();
    command->add_option("-s,--signal", names, "Follow this signal only, and what is below it (a full name); repeatable");
    command->add_option("--interval", interval, "Milliseconds between two looks at the file (default 200)")->check(CLI::Range(10, 60000));
    command->footer("Lines as dump prints them. Ends at Ctrl-C (exit 0), or when the writer has closed the file (no "
                    "process holds it open for writing; where Linux file leases are not available, only at Ctrl-C). "
                    "Waits for the first commit of a file that a writer holds open.\n");
    command->callback([] { ExitCode() = Follow(path, names, interval); });
}

}  // namespace TarvelTool
