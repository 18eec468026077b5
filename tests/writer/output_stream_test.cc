// The output stream: the buffer edge, the commit protocol and resume as the file on disk shows
// them. Failing file operations, with the message each leaves, are the reliability campaign's
// (IoFailure). Writer layer tests; single-threaded (the hooks are process-wide).
#include "format_test_support.h"

namespace Tarvel::Testing {
namespace {

int g_writes = 0;  // the file writes made through the platform layer

TEST(OutputStream, WritesReachTheFileInOrderAcrossTheBufferEdge) {
    static const Platform::FileHooks kCounting{nullptr,
                                               nullptr,
                                               [](const void* data, std::size_t size, std::FILE* file) {
                                                   ++g_writes;
                                                   return std::fwrite(data, 1, size, file);
                                               },
                                               nullptr, nullptr, nullptr, nullptr, nullptr};
    Platform::SetFileHooks(&kCounting);
    WrittenFile file;
    const std::string fill(KOutputStream::kBufferSize - 1, 'a'), large(3 * KOutputStream::kBufferSize + 5, 'b');
    ASSERT_TRUE(file.Stream().Write(fill) && file.Stream().Put('c'));  // exactly full: nothing out yet
    EXPECT_EQ(g_writes, 0);
    ASSERT_TRUE(file.Stream().Put('d'));  // one fwrite of the whole buffer before the next byte
    EXPECT_EQ(g_writes, 1);
    Platform::SetFileHooks(nullptr);
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

}  // namespace
}  // namespace Tarvel::Testing
