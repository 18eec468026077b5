// The output stream: the buffer edge, the commit protocol and resume as the file on disk shows
// them, and failures injected through the platform's file hooks. Writer layer tests;
// single-threaded (the hooks are process-wide).
#include "format_test_support.h"

namespace Tarvel::Testing {
namespace {

TEST(OutputStream, WritesReachTheFileInOrderAcrossTheBufferEdge) {
    FailingFiles counter({});
    WrittenFile file;
    const std::string fill(KOutputStream::kBufferSize - 1, 'a'), large(3 * KOutputStream::kBufferSize + 5, 'b');
    ASSERT_TRUE(file.Stream().Write(fill) && file.Stream().Put('c'));  // exactly full: nothing out yet
    EXPECT_EQ(FailingFiles::Left().writes, 0);
    ASSERT_TRUE(file.Stream().Put('d'));  // one fwrite of the whole buffer before the next byte
    EXPECT_EQ(FailingFiles::Left().writes, 1);
    ASSERT_TRUE(file.Stream().Write(large));
    EXPECT_EQ(file.Finish(), fill + "cd" + large);
}

// The file as a reader finds it between the steps of commit and resume.
TEST(OutputStream, CommitMarkAndRestoredByte) {
    WrittenFile file;
    KLineWriter& w = file.Lines();
    w.WriteHeader();
    w.WriteSourceFile(1, "a");
    ASSERT_TRUE(file.Commit());
    const std::string first = "$WAVE4\r\n$SEF 1 a\r\n$ENDWAVE\r\n";
    EXPECT_EQ(file.Bytes(), first);
    EXPECT_EQ(file.Stream().CommitPosition(), static_cast<std::int64_t>(first.size() - 10));

    ASSERT_TRUE(file.Stream().Resume());
    EXPECT_EQ(file.Bytes(), first) << "nothing changes before the next byte goes out";
    w.WriteSourceFile(2, "b");
    ASSERT_TRUE(file.Stream().Flush());
    EXPECT_EQ(file.Bytes(), "$WAVE4\r\n$SEF 1 a\r\n:SEF 2 b\r\n");

    ASSERT_TRUE(file.Commit());
    const std::string second = "$WAVE4\r\n$SEF 1 a\r\n$SEF 2 b\r\n$ENDWAVE\r\n";
    EXPECT_EQ(file.Bytes(), second);
    ASSERT_TRUE(file.Stream().Resume() && file.Commit());  // nothing between: nothing changes
    ASSERT_TRUE(file.Stream().Resume());
    EXPECT_TRUE(file.Stream().Resume()) << "nothing to resume";
    EXPECT_EQ(file.Finish(), second) << "closing with the mark pending keeps the terminator";
    EXPECT_TRUE(file.Reporter().messages.empty());
}

TEST(OutputStreamFailure, WriteFlushCommitToDiskAndOpen) {
    struct Case {
        FailingFiles::Budget budget;
        int flushesThatWork;
        const char* logged;
    } cases[] = {
        {{.write = 0}, 0, "Cannot write to output file"},
        {{.flush = 0}, 0, "Cannot write to disk"},
        {{.commit = 1, .remote = true}, 1, "Cannot write to disk"},  // fsync after each flush
    };
    for (const Case& c : cases) {
        FailingFiles faults(c.budget);
        WrittenFile file;
        EXPECT_TRUE(file.Stream().Write("abc"));
        for (int flush = 0; flush < c.flushesThatWork; ++flush) EXPECT_TRUE(file.Stream().Flush());
        EXPECT_FALSE(file.Stream().Flush());
        EXPECT_EQ(file.Reporter().logged, c.logged);
        EXPECT_FALSE(file.Stream().IsOpen() || file.Lines().WriteEndLine()) << "later writes fail";
    }
    TestReporter reporter;
    KOutputStream stream(reporter);
    EXPECT_FALSE(stream.Open("/nonexistent-folder/out.wav"));
    EXPECT_EQ(reporter.messages, std::vector<std::string>{"Cannot open output file"});
}

TEST(OutputStreamFailure, RepositionDuringCommit) {
    {
        FailingFiles faults({.seek = 1});  // the resume's seek works, the commit's does not
        WrittenFile file;
        ASSERT_TRUE(file.Lines().WriteHeader() && file.Commit() && file.Stream().Resume());
        file.Lines().WriteEndLine();
        EXPECT_FALSE(file.Commit());
        EXPECT_EQ(file.Reporter().logged, "Previous ftell failed");
    }
    FailingFiles faults({.tell = 0});  // no position at the commit: the resume fails quietly
    WrittenFile file;
    ASSERT_TRUE(file.Lines().WriteHeader() && file.Commit());
    EXPECT_EQ(file.Stream().CommitPosition(), -1);
    EXPECT_FALSE(file.Stream().Resume());
    EXPECT_TRUE(file.Reporter().messages.empty());
}

}  // namespace
}  // namespace Tarvel::Testing
