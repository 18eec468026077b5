// The platform layer's files: the library's descriptors are not inherited by programs the host
// starts (a child holding a writer's descriptor would keep the file open for writing).
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "foundation/platform_file.h"

#if !defined(_WIN32)
#include <fcntl.h>
#include <unistd.h>

namespace Tarvel::Platform {
namespace {

bool ClosesOnExec(std::FILE* stream) { return (fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC) != 0; }

TEST(PlatformFile, OutputAndInputFilesAreNotInherited) {
    const std::string path = (std::filesystem::temp_directory_path() / ("tarvel_cloexec_" + std::to_string(getpid()))).string();
    const OutputFile out = OpenOutputFile(path.c_str());
    ASSERT_NE(out.stream, nullptr);
    EXPECT_TRUE(ClosesOnExec(out.stream));
    std::FILE* in = OpenInputFile(path.c_str());
    ASSERT_NE(in, nullptr);
    EXPECT_TRUE(ClosesOnExec(in));
    CloseInput(in);
    CloseFile(out.stream);
    std::remove(path.c_str());
}

}  // namespace
}  // namespace Tarvel::Platform
#endif
