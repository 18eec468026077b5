// Helpers of the raw-reader tests: a lexer over a scratch file with given bytes, and input-file
// operations that read in small random pieces or fail to seek. Test support for the raw reader
// layer; single-threaded (the input hooks are process-wide).
#ifndef TARVEL_TESTS_FORMAT_LEXER_TEST_SUPPORT_H
#define TARVEL_TESTS_FORMAT_LEXER_TEST_SUPPORT_H

#include <cstdio>
#include <fstream>
#include <random>
#include <string>

#include "foundation/platform_file.h"
#include "format/lexer.h"
#include "writer/format_test_support.h"

namespace Tarvel::Testing {

inline void WriteBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// A lexer opened on a file holding `bytes`, with `c` its first character.
struct Lexed {
    ScratchFolder folder;
    std::string path = folder.File("in.wav");
    KLexer lexer;
    int c = KLexer::kEnd;
    String name, scratch;  // for ReadName
    explicit Lexed(const std::string& bytes) {
        WriteBytes(path, bytes);
        EXPECT_TRUE(lexer.Open(path.c_str()));
        c = lexer.Next();
    }
};

// While alive, every read delivers 1 to `maxPiece` bytes (seeded), and seeks fail if asked to.
struct ChoppyInput {
    struct State {
        std::mt19937 random;
        std::size_t maxPiece;
        bool failSeeks;
    };
    static State& Now() {
        static State state;
        return state;
    }
    ChoppyInput(unsigned seed, std::size_t maxPiece, bool failSeeks = false) {
        Now() = State{std::mt19937(seed), maxPiece, failSeeks};
        static const Platform::InputFileHooks hooks{
            nullptr,
            [](void* data, std::size_t size, std::FILE* file) {
                const std::size_t piece = 1 + Now().random() % Now().maxPiece;
                return std::fread(data, 1, piece < size ? piece : size, file);
            },
            nullptr,
            [](std::FILE* file, std::int64_t at) { return !Now().failSeeks && std::fseek(file, at, SEEK_SET) == 0; },
            nullptr,
        };
        Platform::SetInputFileHooks(&hooks);
    }
    ~ChoppyInput() { Platform::SetInputFileHooks(nullptr); }
};

}  // namespace Tarvel::Testing

#endif  // TARVEL_TESTS_FORMAT_LEXER_TEST_SUPPORT_H
