// The type strings that the documentation hands to newcomers, who copy them: every one in
// docs/typeinfo.md, docs/guide.md and include/sorvat/typeinfo.h must be well formed, and in the
// markdown tables its value size must be the one the row gives.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "sorvat/typeinfo.h"

namespace {

std::vector<std::string> Lines(const std::string& relativePath) {
    const std::string path = std::string(std::getenv("TARVEL_TEST_DATA")) + "/../" + relativePath;
    std::ifstream in(path);
    EXPECT_TRUE(in.good()) << path;
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// A type string begins with a kind letter, '#', digits and '#'.
const std::regex kTypeStart("^[ecilfparxyu]#[0-9]+#");

// The first number of the first table cell after `from` that starts with one ("32: ..."), or -1.
long long SizeCell(const std::string& row, std::size_t from) {
    static const std::regex number(R"(^\s*([0-9]+)(:|\s*$))");
    for (std::size_t bar = row.find('|', from); bar != std::string::npos; bar = row.find('|', bar + 1)) {
        const std::string cell = row.substr(bar + 1, row.find('|', bar + 1) - bar - 1);
        std::smatch m;
        if (std::regex_search(cell, m, number)) return std::stoll(m[1]);
    }
    return -1;
}

struct Counts {
    int strings = 0;  // type strings checked
    int sized = 0;    // of them, checked against the size of their table row
};

// Type strings between backquotes (text, tables) or double quotes (code).
Counts CheckMarkdown(const std::string& file) {
    const std::vector<std::string> lines = Lines(file);
    Counts counts;
    for (std::size_t n = 0; n < lines.size(); ++n) {
        const std::string& line = lines[n];
        bool first = true;
        std::size_t end = 0;
        for (std::size_t open = line.find_first_of("`\""); open != std::string::npos;
             open = line.find_first_of("`\"", end + 1)) {
            end = line.find(line[open], open + 1);
            if (end == std::string::npos) break;
            const std::string span = line.substr(open + 1, end - open - 1);
            if (!std::regex_search(span, kTypeStart)) continue;
            EXPECT_TRUE(Sorvat::KTypeInfo::CheckTypeInfo(span.c_str())) << file << ":" << n + 1 << ": " << span;
            ++counts.strings;
            // In a table row, the first string's size is the first number of a later cell.
            const long long size = first && line[0] == '|' ? SizeCell(line, line.find('|', end)) : -1;
            first = false;
            if (size < 0) continue;
            EXPECT_EQ(Sorvat::KTypeInfo(span.c_str()).GetSimpleSize_OldFormat(), size) << file << ":" << n + 1;
            ++counts.sized;
        }
    }
    return counts;
}

TEST(DocumentedTypes, MarkdownStringsParseWithTheSizesTheirTablesGive) {
    const Counts reference = CheckMarkdown("docs/typeinfo.md");
    EXPECT_GE(reference.strings, 30);
    EXPECT_GE(reference.sized, 20);
    const Counts guide = CheckMarkdown("docs/guide.md");
    EXPECT_GE(guide.strings, 15);
    EXPECT_GE(guide.sized, 10);
}

TEST(DocumentedTypes, HeaderStringsParse) {
    // In comments, a string runs from a blank, a quote or a parenthesis to two blanks, ", ",
    // " / ", a quote or the line's end.
    const std::regex string(R"((?:^|[\s"(])([ecilfparxyu]#[0-9]+#.*?)(?=  |, | / |"|$))");
    int strings = 0;
    const std::vector<std::string> lines = Lines("include/sorvat/typeinfo.h");
    for (std::size_t n = 0; n < lines.size(); ++n) {
        for (std::sregex_iterator m(lines[n].begin(), lines[n].end(), string), end; m != end; ++m) {
            EXPECT_TRUE(Sorvat::KTypeInfo::CheckTypeInfo((*m)[1].str().c_str())) << "typeinfo.h:" << n + 1 << ": " << (*m)[1];
            ++strings;
        }
    }
    EXPECT_GT(strings, 20);
}

}  // namespace
