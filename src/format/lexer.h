// The lexer: reads a waveform file through its own 64 KiB buffer, gives its bytes as characters,
// checks line ends, reads words, and records and returns to file positions. The field forms of
// docs/format.md are read by the functions of the other files of src/format/ on top of it.
// Format layer, lowest level of reading. One lexer belongs to one reader and is used from one
// thread at a time.
//
// The current character. The caller keeps the character read last in an int `c` (-1, kEnd, at
// the end of the file) and hands it to every operation: an operation starts at `c` and leaves in
// it the first character it did not consume. A line is read as: `c = Next()` for its first
// character, the field operations, then EndOfLine(c), which stops on the line feed without
// reading past it, so the next byte of the file is the first byte of the next line (the position
// that SavePosition records).
//
// Failures. Every operation returns false on malformed input, leaving the offending character in
// `c`; nothing is printed or thrown. The end of the file is the character -1, an error only where
// a field is incomplete. The only exception is std::bad_alloc from the allocation path while a
// caller's string or list grows.
//
// Faults. The failure paths of the lexer, the field readers and the parser record where and why
// reading failed (Fail and its kin: a reason text and a file position), so that a diagnostic
// (DiagnoseTarvelFile) can name the place of a file's first fault. Only failure paths record;
// the last fault recorded stands. Reasons are short static texts; one may hold "%s", which the
// diagnostic replaces with the word of the file at the fault.
//
// Costs. Next() is an inline compare and load; the buffer refills out of line with one block read
// of up to 64 KiB. Token operations scan the buffer directly and append to the caller's string in
// spans; nothing allocates except the caller's string or list growing to the longest token.
// SavePosition costs nothing (the position is counted, not asked of the file); RestorePosition
// is one seek and empties the buffer. The buffer is a member array: allocate the owner on the heap.
#ifndef TARVEL_FORMAT_LEXER_H
#define TARVEL_FORMAT_LEXER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "foundation/memory.h"

namespace Tarvel {

namespace LexerTables {

// The whitespace of the C locale (space, tab, LF, VT, FF, CR), independent of the host's locale:
// the file format is 8-bit text whose separators do not change with the reader's locale.
constexpr std::array<bool, 256> MakeWhitespaceTable() {
    std::array<bool, 256> table{};
    for (unsigned char c : {' ', '\t', '\n', '\v', '\f', '\r'}) table[c] = true;
    return table;
}
inline constexpr std::array<bool, 256> kWhitespace = MakeWhitespaceTable();

}  // namespace LexerTables

class KLexer {
public:
    static constexpr std::size_t kBufferSize = 65536;
    static constexpr int kEnd = -1;  // the character at the end of the file

    // True for whitespace (see LexerTables); false for kEnd.
    static bool IsSpace(int c) noexcept {
        return static_cast<unsigned>(c) < 256 && LexerTables::kWhitespace[static_cast<unsigned>(c)];
    }
    static bool IsDigit(int c) noexcept { return static_cast<unsigned>(c - '0') <= 9; }

    KLexer() noexcept;
    // Closes the file when it is still open.
    ~KLexer();
    KLexer(const KLexer&) = delete;
    KLexer& operator=(const KLexer&) = delete;

    // ---- File ----
    // Opens `fileName` for binary reading and starts at its first byte with an empty buffer, no
    // saved position and a last relative number of 0 (a file still open is closed first). False
    // when the file cannot be opened.
    bool Open(const char* fileName) noexcept;
    bool IsOpen() const noexcept { return m_file != nullptr; }
    // Closes the file and empties the buffer; reads then give kEnd. Nothing happens when closed.
    void Close() noexcept;

    // ---- Characters ----
    // The next byte of the file (0 to 255), or kEnd. At the end every call asks the file again.
    int Next() noexcept {
        if (m_next != m_end) return *m_next++;
        return NextSlow();
    }

    // ---- Direct access for hot loops ----
    // The unread bytes of the buffer are [Cursor(), BufferEnd()); a caller that parsed some of
    // them in place moves on with Consume(p) (p within that range). The current-character
    // convention does not apply across these calls: the caller holds no character.
    const unsigned char* Cursor() const noexcept { return m_next; }
    const unsigned char* BufferEnd() const noexcept { return m_end; }
    void Consume(const unsigned char* p) noexcept { m_next = p; }

    // ---- Line structure ----
    // Skips space, tab and CR from `c`. True at any other character; false at LF or kEnd.
    bool SkipBlanks(int& c) noexcept {
        while (c == ' ' || c == '\t' || c == '\r') c = Next();
        return c != '\n' && c != kEnd;
    }
    // Skips whitespace from `c` up to a line feed: true with `c` the line feed (not read past).
    // False at a non-blank character or kEnd. LF and CR LF are decided inline.
    bool EndOfLine(int& c) noexcept {
        if (c == '\r') c = Next();
        return c == '\n' || EndOfLineAfterBlanks(c);
    }
    // As EndOfLine, but kEnd is a line end as well (for the last line of a file).
    bool EndOfLineOrFile(int& c) noexcept;
    // Skips whitespace other than LF from `c`; true when `c` is then `wanted`. Does not consume
    // it: the caller moves on with Next().
    bool Expect(int& c, int wanted) noexcept;

    // ---- Tokens ----
    // Clears `word` and appends characters from `c` up to whitespace or kEnd (no blanks are
    // skipped first). True when the word is not empty.
    bool ReadWord(int& c, String& word);
    // Appends the bytes after `c` to `out` up to the first byte for which `stop` is true, and
    // returns that byte (consumed), or kEnd. The scan runs over the buffer and appends in spans.
    // May throw std::bad_alloc while `out` grows; the buffer is then still where it was.
    template <class Stop>
    int AppendUntil(String& out, Stop stop);
    // The field forms themselves (numbers, strings, names, index lists, value text) are read by
    // the functions of the other files of src/format/, each beside the code that writes it.

    // What a "+" difference of a relative integer is added to (format/numbers.h).
    std::int32_t LastRelative() const noexcept { return m_lastRelative; }
    void SetLastRelative(std::int32_t value) noexcept { m_lastRelative = value; }

    // ---- Faults ----
    // The reason recorded when the file ends where a line goes on.
    static constexpr const char* kEndsInsideLine = "file ends inside a line";
    static constexpr const char* kNumberExpected = "number expected";

    // The fault recorded last.
    struct Fault {
        const char* reason = nullptr;  // null: none recorded
        std::int64_t position = 0;     // file position of the fault
        bool afterToken = false;       // the fault is the token that ends at `position`
        bool atEnd = false;            // the fault is the end of the file
    };
    // Records a fault at the character `c` (see above), which does not fit; when `c` is kEnd the
    // fault is the end of the file, with the reason kEndsInsideLine. Returns false, so that a
    // failure path reads `return lexer.Fail(c, "...")`.
    [[gnu::cold]] bool Fail(int c, const char* reason) noexcept;
    // Records a fault in the token read last, which ends just before `c` (a number out of range,
    // an unknown word); when `c` is kEnd the token may be cut, and the fault is the end of the
    // file, as for Fail. Returns false.
    [[gnu::cold]] bool FailAfterToken(int c, const char* reason) noexcept;
    // Records a fault at a file position given by the caller. Returns false.
    [[gnu::cold]] bool FailAt(std::int64_t position, const char* reason) noexcept;
    // Records a fault at the end of the file with its own reason ("file ends inside a quoted
    // string"). Returns false.
    [[gnu::cold]] bool FailAtEnd(const char* reason) noexcept;
    // When the fault recorded last is the end of the file with the reason kEndsInsideLine, says
    // where the file ended instead ("file ends inside a block"). Returns false.
    [[gnu::cold]] bool RefineEndFault(const char* reason) noexcept;
    const Fault& LastFault() const noexcept { return m_fault; }

    // ---- Positions ----
    // File position of the next unread byte (the byte after `c`): bytes read from the file
    // minus those still unread in the buffer.
    std::int64_t Position() const noexcept { return m_endPosition - (m_end - m_next); }
    // Records Position() as the saved position. The buffer stays; nothing is asked of the file.
    void SavePosition() noexcept {
        m_savedPosition = Position();
        m_hasSaved = true;
    }
    bool HasSavedPosition() const noexcept { return m_hasSaved; }
    std::int64_t SavedPosition() const noexcept { return m_savedPosition; }
    // Without a saved position: true, nothing moves. Otherwise seeks the file to the saved
    // position and empties the buffer, so the next read gets the file's bytes as they are now
    // (a growing file shows what was appended meanwhile), and forgets the saved position. A
    // failing seek returns false and keeps the saved position for a later attempt; reads are
    // then undefined until a restore succeeds.
    bool RestorePosition() noexcept;

private:
    int NextSlow() noexcept;
    bool EndOfLineAfterBlanks(int& c) noexcept;
    // Reads the next block into the buffer. False when nothing arrived (end of file or no file).
    bool Refill() noexcept;

    std::FILE* m_file = nullptr;          // the input file; null when closed
    std::int64_t m_savedPosition = 0;     // valid while m_hasSaved
    bool m_hasSaved = false;              // a position is saved
    std::int32_t m_lastRelative = 0;      // what a "+" difference is added to
    const unsigned char* m_next;          // next unread byte of the buffer
    const unsigned char* m_end;           // end of the bytes read into the buffer
    std::int64_t m_endPosition = 0;       // file position of the byte at m_end
    Fault m_fault;                        // recorded by failure paths only
    unsigned char m_buffer[kBufferSize];  // the block read last
};

template <class Stop>
int KLexer::AppendUntil(String& out, Stop stop) {
    for (;;) {
        const unsigned char* at = m_next;
        while (at != m_end && !stop(*at)) ++at;
        out.append(reinterpret_cast<const char*>(m_next), static_cast<std::size_t>(at - m_next));
        if (at != m_end) {
            m_next = at + 1;
            return *at;
        }
        m_next = at;
        if (!Refill()) return kEnd;
    }
}

}  // namespace Tarvel

#endif  // TARVEL_FORMAT_LEXER_H
