// The `tarvel` tool as its users run it: each subcommand on files the writer makes and on
// hand-broken files, its output (golden files for info, tree and dump: TARVEL_REGENERATE_GOLDEN=1
// rewrites them), its exit codes and its one-line errors; follow against a writer writing at
// the same time; import-vcd and export-vcd on a simulator's VCD. Tests of the tool; the tool runs as a child process.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tarvel/tarvel.h>

#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tools/every_kind_design.h"

namespace {

namespace fs = std::filesystem;
using Tarvel::int64;

std::string Read(const fs::path& path) {
    std::ostringstream out;
    if (fs::exists(path)) out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}
void Write(const fs::path& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

// A scratch folder that the tool runs in, so that outputs name files by their short names.
class ToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_dir = fs::temp_directory_path() / ("tarvel_tool_test." + std::to_string(getpid()));
        fs::create_directories(m_dir);
    }
    void TearDown() override { fs::remove_all(m_dir); }

    struct Run {
        int code;
        std::string out, err;
    };
    // Runs `tarvel ARGS` in the folder, after `prefix` (a command such as timeout that runs it).
    Run Tool(const std::string& args, const std::string& prefix = "") const {
        const std::string command = "cd '" + m_dir.string() + "' && " + prefix + " '" TARVEL_TOOL "' " + args + " >out.txt 2>err.txt";
        const int status = std::system(command.c_str());
        return Run{WIFEXITED(status) ? WEXITSTATUS(status) : -1, Read(m_dir / "out.txt"), Read(m_dir / "err.txt")};
    }
    fs::path File(const std::string& name) const { return m_dir / name; }

    // Compares `text` with tests/tools/expected/NAME.
    static void Golden(const std::string& name, const std::string& text) {
        const fs::path path = fs::path(TARVEL_TOOL_TESTS) / "expected" / name;
        if (const char* again = std::getenv("TARVEL_REGENERATE_GOLDEN"); again && std::string(again) == "1") {
            Write(path, text);
            return;
        }
        EXPECT_EQ(Read(path), text) << "golden file " << path << " (TARVEL_REGENERATE_GOLDEN=1 rewrites it)";
    }

    fs::path m_dir;
};

#define W(call) ASSERT_TRUE(call) << #call
using Tarvel::Testing::Put;
using Tarvel::Testing::WriteDesign;

// ---- info, tree, dump --------------------------------------------------------------------------

TEST_F(ToolTest, InfoTreeAndDumpOfAWriterMadeDesign) {
    WriteDesign(File("design.twf"), 8);
    for (const char* command : {"info", "tree", "tree --full-names", "dump"}) {
        const Run run = Tool(std::string(command) + " design.twf");
        EXPECT_EQ(run.code, 0) << command << run.err;
        EXPECT_EQ(run.err, "") << command;
        std::string name = command;
        name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
        std::replace(name.begin(), name.end(), ' ', '_');
        Golden(name + ".txt", run.out);
    }
}

TEST_F(ToolTest, DumpChoosesSignalsAndTimes) {
    WriteDesign(File("design.twf"), 8);
    const auto lines = [](const std::string& text) { return std::count(text.begin(), text.end(), '\n'); };
    // A scope, a bus and an element by full name; times in file units or with a unit, both ends included.
    Run run = Tool("dump design.twf --signal tb.dut.pkt --signal 'tb.dut.data(0)' --from 20ns --to 30000");
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out,
              "20000ps+1 tb.dut.data(0)   0  @dut.vhd:20\n"
              "20000ps+1 tb.dut.pkt.addr  8\n"
              "20000ps+1 tb.dut.pkt.valid FALSE\n"
              "30000ps+1 tb.dut.data(0)   1  @dut.vhd:20\n"
              "30000ps+1 tb.dut.pkt.addr  12\n"
              "30000ps+1 tb.dut.pkt.valid TRUE\n");
    EXPECT_EQ(lines(Tool("dump design.twf -s tb.dut -n 5").out), 5);
    EXPECT_EQ(lines(Tool("dump design.twf --from 2.5ns --to 5ns").out), 2);  // the falling clock and its twin at 5 ns
    EXPECT_EQ(Tool("dump design.twf -s watch").out, Tool("dump design.twf -s watch.state").out);
    // Bad usage: exit 2 and one line.
    run = Tool("dump design.twf -s tb.nothing");
    EXPECT_EQ(run.code, 2);
    EXPECT_EQ(run.err, "tarvel dump: no signal tb.nothing in design.twf (tarvel tree --full-names design.twf lists them)\n");
    run = Tool("dump design.twf --from 10parsecs");
    EXPECT_EQ(run.code, 2);
    EXPECT_EQ(run.err, "tarvel dump: --from 10parsecs: no time (a number of file units, or with a unit: 10ns, 2.5us)\n");
    EXPECT_EQ(Tool("dump design.twf --limit -1").code, 2);
    EXPECT_EQ(Tool("dump").code, 2);
    EXPECT_EQ(Tool("nonsense").code, 2);
}

TEST_F(ToolTest, EverySubcommandHasHelpAndTheToolAVersion) {
    for (const char* command : {"info", "tree", "dump", "check", "follow", "demo", "import-vcd", "export-vcd"}) {
        const Run run = Tool(std::string(command) + " --help");
        EXPECT_EQ(run.code, 0) << command;
        EXPECT_NE(run.out.find("Usage: tarvel " + std::string(command)), std::string::npos) << command << run.out;
    }
    EXPECT_EQ(Tool("--version").out, std::string(TARVEL_VERSION) + "\n");
}

// ---- check and the errors of every reading subcommand -------------------------------------------

// The place of byte `offset` of `bytes` as "LINE:COLUMN".
std::string PlaceOf(const std::string& bytes, std::size_t offset) {
    const std::string before = bytes.substr(0, offset);
    const std::size_t lineStart = before.rfind('\n') == std::string::npos ? 0 : before.rfind('\n') + 1;
    return std::to_string(std::count(before.begin(), before.end(), '\n') + 1) + ":" + std::to_string(offset - lineStart + 1);
}

TEST_F(ToolTest, CheckNamesTheLineAndColumnOfEachFault) {
    WriteDesign(File("design.twf"), 8);
    const std::string design = Read(File("design.twf"));
    const std::size_t block = design.find("$WAVES");
    const std::size_t name = design.find("level");
    const std::string head = "$WAVE4TIMED\r\nI 1 \"e#9#std_logicc9 UX01ZWLH-\"\r\n$IN 1 1 clk\r\n";
    const struct {
        const char* file;
        std::string bytes;
        std::string expected;
    } broken[] = {
        {"keyword.twf", head + "$WAVEZ 1\r\n$ENDWAVE\r\n", "keyword.twf:4:1: unknown keyword '$WAVEZ'"},
        {"block.twf", design.substr(0, block + 40), "block.twf:" + PlaceOf(design, block + 40) + ": file ends inside a block"},
        {"number.twf", head + "$WAVES 1\r\nR 1 x T 5\r\n", "number.twf:5:5: number expected"},
        {"resolution.twf", head + "$RESOLUTION 0\r\n$ENDWAVE\r\n", "resolution.twf:4:13: resolution must be above 0"},
        {"name.twf", design.substr(0, name + 3), "name.twf:" + PlaceOf(design, name + 3) + ": file ends inside a declaration"},
        {"quoted.twf", head + "$OUT 2 1 \"a b", "quoted.twf:4:14: file ends inside a quoted string"},
        {"empty.twf", "", "empty.twf:1:1: the file is empty"},
    };
    for (const auto& test : broken) {
        Write(File(test.file), test.bytes);
        const Run run = Tool(std::string("check ") + test.file);
        EXPECT_EQ(run.code, 1) << test.file;
        EXPECT_EQ(run.err, test.expected + "\n");
        EXPECT_EQ(run.out, "");
        // Every reading subcommand says the same, after its name, and exits 1.
        for (const char* command : {"info", "tree", "dump", "follow"}) {
            const Run read = Tool(std::string(command) + " " + test.file);
            EXPECT_EQ(read.code, 1) << command << " " << test.file;
            EXPECT_EQ(read.err, "tarvel " + std::string(command) + ": " + test.expected + "\n");
        }
    }
    const Run missing = Tool("check missing.twf design.twf");
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.err, "missing.twf: cannot open the file\n");
    EXPECT_EQ(missing.out, "design.twf: readable; complete, ends with its terminator at line " +
                               std::to_string(std::count(design.begin(), design.end(), '\n')) + "\n");
}

TEST_F(ToolTest, CheckAcceptsEveryFileTheWriterMakes) {
    WriteDesign(File("design.twf"), 8);
    WriteDesign(File("long.twf"), 300);
    WriteDesign(File("growing.twf"), 9, false);  // resumed after its last commit and wrote on
    std::string files = "design.twf long.twf growing.twf";
    for (const auto& seed : fs::directory_iterator(fs::path(TARVEL_SOURCE_DIR) / "fuzz/corpus/raw_reader")) {
        if (seed.path().filename().string().rfind("design", 0) == 0) files += " " + seed.path().string();  // writer-made seeds
    }
    const Run run = Tool("check -q " + files);
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out + run.err, "");
    EXPECT_EQ(Tool("check growing.twf").out, "growing.twf: readable; reads up to the commit mark at line 335\n");
    EXPECT_NE(Tool("info growing.twf").out.find("state       ends at a commit mark (line 335)"), std::string::npos);
    // A file never committed has no terminator.
    WriteDesign(File("never.twf"), 2, false);
    EXPECT_EQ(Tool("check never.twf").code, 1);
}

// ---- follow --------------------------------------------------------------------------------------

void Sleep(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Whether this file system lets follow see that a writer closed its file (Linux file leases).
bool LeasesWork(const fs::path& path) {
    Write(path, "");
    const int fd = open(path.c_str(), O_RDONLY);
    const bool works = fcntl(fd, F_SETLEASE, F_RDLCK) == 0;
    close(fd);
    return works;
}

TEST_F(ToolTest, FollowPrintsEachCommitOnceAndEndsWhenTheWriterCloses) {
    if (!LeasesWork(File("lease"))) GTEST_SKIP() << "no file leases here: follow runs until interrupted";
    const fs::path path = File("live.twf");
    Tarvel::ITarvelWrite* w = Tarvel::CreateStreamWriteTimed(path.c_str());
    ASSERT_NE(w, nullptr);
    W(w->SetTypeInfo(1, "i#7#integer") && w->StoreSignal(1, Tarvel::kPortOut, -1, 0, "n", 0));
    W(w->SetTime(0) && w->Flush());
    Run followed;  // at most 20 s
    std::jthread follower([&] { followed = Tool("follow live.twf --interval 20", "timeout 20"); });
    Sleep(150);  // it waits for the first commit while the writer holds the file
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < 3; ++i) {
            W(w->SetTime(round * 1000 + i * 10));
            Put(*w, 1, static_cast<std::uint64_t>(round * 10 + i));
        }
        W(w->Commit() && w->Resume());
        if (round == 1) {  // a signal declared later
            W(w->SetTypeInfo(2, "i#7#integer") && w->StoreSignal(2, Tarvel::kPortOut, -1, 0, "m", 0));
            Put(*w, 2, 7);
        }
        Sleep(round % 2 ? 100 : 0);  // some commits come together
    }
    W(w->SetTime(5000) && w->Commit() && w->Release());
    follower.join();
    ASSERT_EQ(followed.code, 0) << followed.err << followed.out;
    const auto squeeze = [](std::string text) {
        text.erase(std::unique(text.begin(), text.end(), [](char a, char b) { return a == ' ' && b == ' '; }), text.end());
        return text;
    };
    EXPECT_EQ(squeeze(followed.out), squeeze(Tool("dump live.twf").out));
    EXPECT_EQ(followed.err, "tarvel follow: waiting for the first commit of live.twf\ntarvel follow: live.twf: complete, closed by its writer\n");
}

TEST_F(ToolTest, FollowStopsOnInterruptAndRefusesWhatDoesNotRead) {
    const fs::path path = File("held.twf");
    Tarvel::ITarvelWrite* w = Tarvel::CreateStreamWriteTimed(path.c_str());
    ASSERT_NE(w, nullptr);
    W(w->SetTypeInfo(1, "i#7#integer") && w->StoreSignal(1, Tarvel::kPortOut, -1, 0, "n", 0) && w->Commit());
    EXPECT_EQ(Tool("follow held.twf -s n", "timeout --preserve-status -s INT 0.3").code, 0);  // stops on interrupt
    W(w->Release());
    Write(File("junk.twf"), "$WAVE4\r\n$JUNK\r\n");
    const Run junk = Tool("follow junk.twf");
    EXPECT_EQ(junk.code, 1);
    EXPECT_EQ(junk.err, "tarvel follow: junk.twf:2:1: unknown keyword '$JUNK'\n");
    EXPECT_EQ(Tool("follow held.twf -s nothing").code, 2);
}

// ---- import-vcd and export-vcd ------------------------------------------------------------------

TEST_F(ToolTest, VcdImportAndExportOfFilesAndStandardStreams) {
    const std::string vcd = std::string(TARVEL_SOURCE_DIR) + "/tests/designs/counter.ghdl.vcd";
    Run run = Tool("import-vcd " + vcd + " -o a.twf");
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out.rfind("a.twf: 6 scopes, 20 variables, ", 0), 0u) << run.out;
    // Reports go to stderr, one line each, named after the input.
    run = Tool("import-vcd - -o b.twf < " + vcd);
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.err, "tarvel import-vcd: <stdin>:71: tb.level: real values keep 6 significant digits in the waveform format "
                       "(0.074500000000000011 becomes 0.0745)\n");
    run = Tool("export-vcd b.twf -o b.vcd");
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out.rfind("b.vcd: 20 variables (", 0), 0u) << run.out;
    run = Tool("export-vcd a.twf -o -");
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, Read(File("b.vcd")));
    // Files that cannot be read or written: exit 1 and one line.
    Write(File("text.vcd"), "just some text\n");
    for (const auto& [arguments, message] : std::initializer_list<std::pair<std::string, std::string>>{
             {"import-vcd none.vcd -o o.twf", "tarvel import-vcd: cannot read none.vcd: No such file or directory"},
             {"import-vcd . -o o.twf", "tarvel import-vcd: cannot read .: Is a directory"},
             {"import-vcd text.vcd -o o.twf",
              "tarvel import-vcd: text.vcd:1: 'just' where a $ section should start: not a VCD file (o.twf holds what came before)"},
             {"import-vcd " + vcd + " -o no/such/dir/o.twf", "tarvel import-vcd: cannot create no/such/dir/o.twf: No such file or directory"},
             {"export-vcd text.vcd -o o.vcd", "tarvel export-vcd: text.vcd:1:1: no waveform file: the first line is no $WAVE header"},
         }) {
        run = Tool(arguments);
        EXPECT_EQ(run.code, 1) << arguments;
        EXPECT_EQ(run.err, message + "\n");
    }
    for (const char* arguments : {"import-vcd", "import-vcd in.vcd", "export-vcd x.twf", "import-vcd a.vcd -o b --bogus",
                                  "import-vcd a.vcd -o b --commit-every 0"}) {
        EXPECT_EQ(Tool(arguments).code, 2) << arguments;
    }
}

// ---- demo --------------------------------------------------------------------------------------------

TEST_F(ToolTest, DemoWritesItsFileAndShowsInfoAndTheFirstEvents) {
    const Run run = Tool("demo --cycles 2000 -o demo.twf --lines 7");
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out.rfind("tarvel demo: 2000 clock cycles of a counter design\nwrote demo.twf: ", 0), 0u) << run.out;
    const std::string infoMark = "\n$ tarvel info demo.twf\n", dumpMark = "\n$ tarvel dump demo.twf --limit 7\n";
    const std::size_t info = run.out.find(infoMark) + infoMark.size(), dump = run.out.find(dumpMark);
    ASSERT_TRUE(info > infoMark.size() && dump != std::string::npos) << run.out;
    EXPECT_EQ(run.out.substr(info, dump - info), Tool("info demo.twf").out);
    EXPECT_EQ(run.out.substr(dump + dumpMark.size()), Tool("dump demo.twf -n 7").out);
    EXPECT_EQ(Tool("check -q demo.twf").code, 0);
    EXPECT_EQ(Tool("demo -o no/such/folder/demo.twf").code, 1);
}

}  // namespace
