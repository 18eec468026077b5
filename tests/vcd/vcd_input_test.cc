// The import's input: words across the blanks of every kind, line numbers, words that cross the
// block boundary or are longer than a block, and a word kept across a refill (files that cannot be
// read are the tool test's). Tool tests.
#include <gtest/gtest.h>

#include "vcd/vcd_test_support.h"
#include "vcd_input.h"

namespace TarvelTool::Testing {
namespace {

std::vector<std::string> Words(VcdInput& in, std::vector<std::uint64_t>* lines = nullptr) {
    std::vector<std::string> words;
    std::string_view word;
    while (in.NextWord(&word)) {
        words.emplace_back(word);
        if (lines) lines->push_back(in.Line());
    }
    return words;
}

TEST(VcdInput, WordsAreRunsOfNonBlanksWithTheirLines) {
    VcdInput in;
    in.OpenText("$var wire\t1 ! a $end\r\n\n  #10\x0b 1!\r\nb1 \"  ");
    std::vector<std::uint64_t> lines;
    EXPECT_EQ(Words(in, &lines), (std::vector<std::string>{"$var", "wire", "1", "!", "a", "$end", "#10", "1!", "b1", "\""}));
    EXPECT_EQ(lines, (std::vector<std::uint64_t>{1, 1, 1, 1, 1, 1, 3, 3, 4, 4}));
    VcdInput empty;
    empty.OpenText("  \n ");
    EXPECT_TRUE(Words(empty).empty());
}

// The words of the file holding `text`, read through VcdInput, which reads the first
// VcdInput::kBlockSize bytes at once.
std::vector<std::string> FileWords(const std::string& text, std::uint64_t* lines) {
    Folder folder;
    VcdInput in;
    std::string error;
    if (!in.Open(folder.Write("in.vcd", text), &error)) throw std::runtime_error(error);
    std::vector<std::string> words = Words(in);
    EXPECT_FALSE(in.ReadError());
    EXPECT_EQ(in.Consumed(), text.size());
    *lines = in.Line();
    return words;
}

TEST(VcdInput, WordsCrossingTheBlockBoundaryArriveWhole) {
    const std::size_t block = VcdInput::kBlockSize;
    for (std::size_t before = 0; before <= 9; ++before) {
        std::uint64_t lines = 0;
        const std::string text = std::string(block - before, '\n') + "abcdefgh\nij";
        EXPECT_EQ(FileWords(text, &lines), (std::vector<std::string>{"abcdefgh", "ij"})) << before;
        EXPECT_EQ(lines, block - before + 2) << before;
    }
    std::uint64_t lines = 0;
    const std::string longWord(2 * block + 5, 'L');  // longer than the buffer: it grows
    EXPECT_EQ(FileWords("a " + longWord + " z", &lines), (std::vector<std::string>{"a", longWord, "z"}));
}

TEST(VcdInput, AKeptWordSurvivesTheRefill) {
    Folder folder;
    // The digits end just before the block boundary, the code starts right after it.
    const std::string text = std::string(VcdInput::kBlockSize - 6, ' ') + "b0101 !c";
    VcdInput in;
    std::string error;
    ASSERT_TRUE(in.Open(folder.Write("in.vcd", text), &error)) << error;
    std::string_view digits, code;
    ASSERT_TRUE(in.NextWord(&digits));
    const char* before = digits.data();
    ASSERT_TRUE(in.NextWordKeeping(&digits, &code));
    EXPECT_NE(digits.data(), before);  // the data moved
    EXPECT_EQ(digits, "b0101");
    EXPECT_EQ(code, "!c");
}

}  // namespace
}  // namespace TarvelTool::Testing
