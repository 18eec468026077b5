// Helpers of the format-writer tests: a reporter that behaves like the writer's, a scratch file,
// golden files with a switch to regenerate them. Test support for the writer layer;
// single-threaded.
#ifndef TARVEL_TESTS_WRITER_FORMAT_TEST_SUPPORT_H
#define TARVEL_TESTS_WRITER_FORMAT_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/platform_file.h"
#include "tarvel/writer.h"
#include "writer/line_writer.h"
#include "writer/tarvel_write.h"

namespace Tarvel::Testing {

// Source locations for writer tests: sources up to 50 in one file, spelled two ways (the writer
// compares file names without case); larger ones are unknown.
class Sources final : public ISourceCallback {
public:
    bool GetSourceLocation(int source, const char** fileName, int* line) const override {
        if (source > 50) return false;
        *fileName = source % 2 ? "top.vhd" : "TOP.VHD";
        *line = source * 10;
        return true;
    }
};

// Like the writer's reporter: the first failure closes the stream and is `logged`; every
// message is kept.
struct TestReporter final : IErrorReport {
    KOutputStream* stream = nullptr;
    std::vector<std::string> messages;
    std::string logged;
    bool Error(const char* format, ...) override {
        char text[512];
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        messages.emplace_back(text);
        if (stream != nullptr && stream->IsOpen() && (stream->Close(), logged.empty())) logged = text;
        return false;
    }
};

// Releases a writer that has failed. Its last Release answers false and keeps the object (a
// writer that failed cannot flush); the test destroys it itself so that the leak checker reports
// only real leaks. Returns what Release answered.
inline bool ReleaseFailedWriter(ITarvelWrite* w) {
    if (w->Release()) return true;
    DestroyObject(static_cast<KTarvelWrite*>(w));
    return false;
}

inline std::string ReadBytes(const std::string& path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

// A scratch folder, removed with its content at the end of the test.
struct ScratchFolder {
    std::string path = (std::filesystem::temp_directory_path() / "tarvel-writer-XXXXXX").string();
    ScratchFolder() { mkdtemp(path.data()); }
    ~ScratchFolder() { std::filesystem::remove_all(path); }
    std::string File(const std::string& name) const { return path + "/" + name; }
};

// Compares `bytes` with tests/writer/golden/<name> (CR shown as \r in a failure); with
// TARVEL_REGENERATE_GOLDEN=1 rewrites the golden file instead.
inline void ExpectGolden(const std::string& name, const std::string& bytes) {
    const std::string path = std::string(std::getenv("TARVEL_TEST_DATA")) + "/writer/golden/" + name;
    if (const char* regenerate = std::getenv("TARVEL_REGENERATE_GOLDEN"); regenerate && regenerate == std::string("1")) {
        std::ofstream(path, std::ios::binary) << bytes;
        return;
    }
    auto visible = [](std::string text) {
        for (std::size_t at = 0; (at = text.find('\r', at)) != std::string::npos;) text.replace(at, 1, "\\r");
        return text;
    };
    EXPECT_EQ(visible(ReadBytes(path)), visible(bytes)) << "golden file " << path;
}

// A scratch file written through a stream and a line writer; Finish closes it and gives its bytes.
class WrittenFile {
public:
    explicit WrittenFile(bool timed = false) : m_lines(m_stream, m_reporter, timed) {
        m_reporter.stream = &m_stream;
        m_stream.Open(Path().c_str());
    }
    KOutputStream& Stream() { return m_stream; }
    KLineWriter& Lines() { return m_lines; }
    TestReporter& Reporter() { return m_reporter; }
    std::string Path() const { return m_folder.File("out.wav"); }
    std::string Bytes() const { return ReadBytes(Path()); }
    std::string Finish() {
        m_stream.Close();
        return Bytes();
    }
    bool Commit(std::int64_t time = 0) {
        return m_lines.Commit(time, {[](void* s) { return static_cast<KOutputStream*>(s)->Flush(); }, &m_stream});
    }

private:
    ScratchFolder m_folder;
    TestReporter m_reporter;
    KOutputStream m_stream{m_reporter};
    KLineWriter m_lines;
};

// The bytes `write` produces on a fresh untimed file (no header).
inline std::string Written(const std::function<void(KLineWriter&)>& write) {
    WrittenFile file;
    write(file.Lines());
    return file.Finish();
}

}  // namespace Tarvel::Testing

#endif  // TARVEL_TESTS_WRITER_FORMAT_TEST_SUPPORT_H
