// The input of import-vcd: a VCD text read in large blocks from a file or from standard input
// and handed out word by word (runs of bytes other than blanks), with the line number of each
// word on demand. Nothing is allocated per word. Tool layer; one thread.
#ifndef TARVEL_TOOLS_TARVEL_VCD_INPUT_H
#define TARVEL_TOOLS_TARVEL_VCD_INPUT_H

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace TarvelTool {

class VcdInput {
public:
    // Bytes read from the file at a time.
    static constexpr std::size_t kBlockSize = std::size_t{1} << 20;
    // Bytes after the data that can always be read (so that a word's first 8 bytes load at once).
    static constexpr std::size_t kPadding = 8;

    VcdInput() = default;
    ~VcdInput();
    VcdInput(const VcdInput&) = delete;
    VcdInput& operator=(const VcdInput&) = delete;

    // Opens `path`, "-" for standard input. False with the reason ("No such file or directory")
    // in *error.
    bool Open(const std::string& path, std::string* error);
    // Reads from the text `text` instead of a file (tests).
    void OpenText(std::string_view text);

    // The next word into *word, valid until the next call; false at the end of the input or when
    // reading fails (ReadError() tells). A word is never empty. The 8 bytes at word->data() may
    // be read even when the word is shorter.
    bool NextWord(std::string_view* word) {
        const char* p = m_next;
        while (p < m_end && static_cast<unsigned char>(*p) <= ' ') {
            m_lines += *p == '\n';
            ++p;
        }
        const char* start = p;
        while (p < m_end && static_cast<unsigned char>(*p) > ' ') ++p;
        if (p == m_end && !m_atEnd) return Refill(start, p, word);
        if (p == start) {
            m_next = p;
            return false;
        }
        *word = std::string_view(start, static_cast<std::size_t>(p - start));
        m_next = p;
        return true;
    }

    // As NextWord, and keeps `*previous` (a word handed out just before) valid: it is moved with
    // the data when the buffer is refilled.
    bool NextWordKeeping(std::string_view* previous, std::string_view* word) {
        const std::uint64_t at = m_offset + static_cast<std::uint64_t>(previous->data() - m_buffer.data());
        m_keep = previous->data();
        const bool found = NextWord(word);
        m_keep = nullptr;
        *previous = std::string_view(m_buffer.data() + (at - m_offset), previous->size());
        return found;
    }

    // The line of the word handed out last (1 for the first line).
    std::uint64_t Line() const { return m_lines + 1; }
    // Bytes of the input consumed so far.
    std::uint64_t Consumed() const { return m_offset + static_cast<std::uint64_t>(m_next - m_buffer.data()); }
    // The size of the input file; 0 when not known (standard input, a pipe).
    std::uint64_t Size() const { return m_size; }
    // True when a read failed; the text of the reason is ReadErrorText().
    bool ReadError() const { return !m_readError.empty(); }
    const std::string& ReadErrorText() const { return m_readError; }

private:
    // Moves the unfinished word from `start` to `end` (and a kept word before it) to the front,
    // reads more and scans on.
    bool Refill(const char* start, const char* end, std::string_view* word);
    // Reads once into the buffer after `kept` bytes; false at the end of the input.
    bool ReadMore(std::size_t kept);

    int m_fd = -1;
    bool m_ownsFd = false;           // the descriptor is ours to close (not standard input)
    std::vector<char> m_buffer;      // the data, then kPadding bytes
    const char* m_next = nullptr;    // the first byte not yet consumed
    const char* m_end = nullptr;     // the end of the data in the buffer
    const char* m_keep = nullptr;    // a word to keep across a refill (NextWordKeeping)
    bool m_atEnd = true;             // nothing more to read
    std::uint64_t m_offset = 0;      // input offset of m_buffer[0]
    std::uint64_t m_size = 0;        // file size, 0 when unknown
    std::uint64_t m_lines = 0;       // line feeds before m_next
    std::string m_readError;         // why a read failed; empty when none did
};

}  // namespace TarvelTool

#endif  // TARVEL_TOOLS_TARVEL_VCD_INPUT_H
