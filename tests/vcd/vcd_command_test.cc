// The tarvel tool's import-vcd and export-vcd as a user runs them: the summaries, standard
// input, reports on stderr, one-line errors and the exit codes 0, 1 and 2. Tool tests.
#include <gtest/gtest.h>

#include "commands.h"
#include "vcd/vcd_test_support.h"

namespace TarvelTool::Testing {
namespace {

Ran Tool(const std::string& arguments) { return RunShell(std::string(TARVEL_CLI) + " " + arguments); }

TEST(VcdCommand, ImportAndExportAFileAndStandardInput) {
    Folder folder;
    Ran ran = Tool("import-vcd " + Fixture("counter.ghdl.vcd") + " -o " + folder.File("a.twf"));
    EXPECT_EQ(ran.status, kExitOk);
    EXPECT_NE(ran.output.find("a.twf: 6 scopes, 20 variables, "), std::string::npos) << ran.output;
    ran = Tool("import-vcd - -o " + folder.File("b.twf") + " < " + Fixture("counter.ghdl.vcd"));
    EXPECT_EQ(ran.status, kExitOk) << ran.output;
    EXPECT_NE(ran.output.find("<stdin>:"), std::string::npos) << ran.output;  // the real's report
    ran = Tool("export-vcd " + folder.File("b.twf") + " -o " + folder.File("b.vcd"));
    EXPECT_EQ(ran.status, kExitOk) << ran.output;
    EXPECT_NE(ran.output.find("b.vcd: 20 variables ("), std::string::npos) << ran.output;
    ran = Tool("export-vcd " + folder.File("a.twf") + " -o - > " + folder.File("a.vcd"));
    EXPECT_EQ(ran.status, kExitOk) << ran.output;
    EXPECT_EQ(ran.output, "");
    EXPECT_EQ(ReadText(folder.File("a.vcd")), ReadText(folder.File("b.vcd")));
}

TEST(VcdCommand, ReportsGoToStderrOneLineEach) {
    Folder folder;
    const std::string vcd = folder.Write("s.vcd",
        "$timescale 1ns $end $scope module t $end $var string 1 ! s $end $var wire 1 \" w $end $upscope $end\n"
        "$enddefinitions $end\n"
        "#0 shi ! 1\" #1 sho ! 0\"\n");
    const Ran ran = RunShell("(" + std::string(TARVEL_CLI) + " import-vcd " + vcd + " -o " + folder.File("s.twf") +
                             " 2>&1 >/dev/null)");
    EXPECT_EQ(ran.status, kExitOk);
    EXPECT_EQ(ran.output, "tarvel import-vcd: " + vcd + ":1: t.s: string variable not imported (the waveform format has no strings)\n");
}

TEST(VcdCommand, UnreadableInputsExitWithOneAndOneLine) {
    Folder folder;
    const std::string text = folder.Write("text.vcd", "just some text\n");
    struct Case {
        std::string arguments, message;
    };
    const Case cases[] = {
        {"import-vcd " + folder.File("none.vcd") + " -o " + folder.File("o.twf"),
         "tarvel import-vcd: cannot read " + folder.File("none.vcd") + ": No such file or directory\n"},
        {"import-vcd " + text + " -o " + folder.File("o.twf"),
         "tarvel import-vcd: " + text + ":1: 'just' where a $ section should start: not a VCD file (" +
             folder.File("o.twf") + " holds what came before)\n"},
        {"import-vcd " + Fixture("counter.ghdl.vcd") + " -o " + folder.path + "/no/such/dir/o.twf",
         "tarvel import-vcd: cannot create " + folder.path + "/no/such/dir/o.twf: No such file or directory\n"},
        {"export-vcd " + text + " -o " + folder.File("o.vcd"),
         "tarvel export-vcd: " + text + ":1:1: no waveform file: the first line is no $WAVE header\n"},
    };
    for (const Case& c : cases) {
        const Ran ran = Tool(c.arguments);
        EXPECT_EQ(ran.status, kExitBadFile) << c.arguments;
        EXPECT_EQ(ran.output, c.message);
    }
}

TEST(VcdCommand, WrongArgumentsExitWithTwo) {
    for (const char* arguments : {"import-vcd", "import-vcd in.vcd", "export-vcd x.twf", "import-vcd a.vcd -o b --bogus",
                                  "import-vcd a.vcd -o b --commit-every 0"}) {
        EXPECT_EQ(Tool(arguments).status, kExitBadUsage) << arguments;
    }
    const Ran help = Tool("--help");
    EXPECT_EQ(help.status, kExitOk);
    EXPECT_NE(help.output.find("import-vcd"), std::string::npos);
    EXPECT_NE(help.output.find("export-vcd"), std::string::npos);
}

}  // namespace
}  // namespace TarvelTool::Testing
