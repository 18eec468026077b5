// DiagnoseTarvelFile: runs the raw reader's parse and turns the fault its failure paths recorded
// (format/lexer.h, "Faults") into a line, a column and a reason. Raw reader layer; each call has
// its own reader, so distinct calls may run on distinct threads.
#include "tarvel/diagnostics.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "foundation/memory.h"
#include "foundation/platform_file.h"
#include "rawreader/raw_reader.h"

namespace Tarvel {
namespace {

constexpr int64 kQuotedWord = 40;   // bytes of a word quoted in a reason
constexpr int64 kLookBehind = 512;  // bytes before a fault searched for the start of its token

bool IsBlank(unsigned char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// A place in a file: its line, the start of that line, and the bytes around it.
class FilePlace {
public:
    // Counts the lines before `offset` and reads the bytes from up to kLookBehind before it (not
    // before its line's start) to kQuotedWord + 1 after it. False when the file cannot be read.
    bool Load(const char* fileName, int64 offset) {
        std::FILE* file = Platform::OpenInputFile(fileName);
        if (!file) return false;
        const bool loaded = CountLines(file, offset) && ReadAround(file, offset);
        Platform::CloseInput(file);
        return loaded;
    }
    int64 Line() const { return m_line; }
    int64 Column(int64 offset) const { return offset - m_lineStart + 1; }
    // The start of the token that ends just before `end` (blanks end tokens; the search stops at
    // the start of the bytes read).
    int64 TokenStart(int64 end) const {
        while (end > m_start && !IsBlank(At(end - 1))) --end;
        return end;
    }
    // A line feed after a carriage return is shown at the carriage return, where the line's
    // text ends for the eye.
    int64 AtLineEnd(int64 offset) const {
        return Has(offset) && Has(offset - 1) && At(offset) == '\n' && At(offset - 1) == '\r' ? offset - 1 : offset;
    }
    // Appends the word at `offset` (up to a blank) to the NUL-terminated `out` of `room` bytes:
    // cut after kQuotedWord bytes, bytes outside printable ASCII as \xNN.
    void AppendWord(int64 offset, char* out, std::size_t room) const {
        std::size_t used = std::strlen(out);
        for (int64 n = 0; Has(offset + n) && !IsBlank(At(offset + n)); ++n) {
            char piece[8];
            const unsigned char c = At(offset + n);
            if (n == kQuotedWord) {
                std::snprintf(piece, sizeof piece, "...");
            } else if (c >= 0x20 && c < 0x7F) {
                std::snprintf(piece, sizeof piece, "%c", c);
            } else {
                std::snprintf(piece, sizeof piece, "\\x%02X", c);
            }
            const std::size_t length = std::strlen(piece);
            if (used + length >= room || n == kQuotedWord) {
                if (used + length < room) std::memcpy(out + used, piece, length + 1);
                return;
            }
            std::memcpy(out + used, piece, length + 1);
            used += length;
        }
    }

private:
    bool CountLines(std::FILE* file, int64 offset) {
        unsigned char block[4096];
        for (int64 at = 0; at < offset;) {
            const int64 left = offset - at;
            const std::size_t wanted = left < static_cast<int64>(sizeof block) ? static_cast<std::size_t>(left) : sizeof block;
            const std::size_t got = Platform::ReadInput(block, wanted, file);
            if (got == 0) return false;
            for (const unsigned char* p = block; (p = static_cast<const unsigned char*>(std::memchr(p, '\n', got - static_cast<std::size_t>(p - block))));) {
                ++m_line;
                m_lineStart = at + (++p - block);
            }
            at += static_cast<int64>(got);
        }
        return true;
    }
    bool ReadAround(std::FILE* file, int64 offset) {
        m_start = offset - m_lineStart > kLookBehind ? offset - kLookBehind : m_lineStart;
        if (!Platform::SeekInput(file, m_start)) return false;
        m_size = Platform::ReadInput(m_bytes, static_cast<std::size_t>(offset - m_start + kQuotedWord + 1), file);
        return true;
    }
    bool Has(int64 offset) const { return offset >= m_start && offset < m_start + static_cast<int64>(m_size); }
    unsigned char At(int64 offset) const { return m_bytes[offset - m_start]; }

    int64 m_line = 1;       // the line of the place
    int64 m_lineStart = 0;  // file position of that line's first byte
    int64 m_start = 0;      // file position of m_bytes[0]
    std::size_t m_size = 0;
    unsigned char m_bytes[kLookBehind + kQuotedWord + 1];
};

// Copies `reason` into the diagnosis, with the word of the file at `at` in place of a "%s".
void SetReason(TarvelDiagnosis* d, const char* reason, const FilePlace* place, int64 at) {
    const char* hole = std::strstr(reason, "%s");
    const std::size_t head = hole ? static_cast<std::size_t>(hole - reason) : std::strlen(reason);
    std::snprintf(d->reason, sizeof d->reason, "%.*s", static_cast<int>(head), reason);
    if (!hole) return;
    if (place) place->AppendWord(at, d->reason, sizeof d->reason);
    const std::size_t used = std::strlen(d->reason);
    std::snprintf(d->reason + used, sizeof d->reason - used, "%s", hole + 2);
}

void Diagnose(const char* fileName, KRawTarvelRead& reader, bool readable, TarvelDiagnosis* d) {
    d->readable = readable;
    d->version = reader.Version() > 0 ? reader.Version() : 0;
    d->timed = d->version > 0 && reader.IsTimed();
    d->atTerminator = readable && reader.EndedAtTerminator();
    const KLexer::Fault& fault = reader.LastFault();
    if (!readable && !fault.reason && d->version == 0) {
        SetReason(d, "cannot open the file", nullptr, 0);
        return;
    }
    // The place: where the read ended, or the fault, moved to its token's start. (Every failure
    // path records a fault; "malformed line" at the last line begun stands in for one that would not.)
    const char* reason = fault.reason ? fault.reason : "malformed line";
    int64 at = readable || !fault.reason ? reader.EndOfRead() : fault.position;
    FilePlace place;
    const bool located = place.Load(fileName, at);
    if (located && !readable && fault.reason) at = fault.afterToken ? place.TokenStart(at) : place.AtLineEnd(at);
    d->offset = at;
    d->line = located ? place.Line() : 0;
    d->column = located ? place.Column(at) : 0;
    if (!readable) SetReason(d, reason, located ? &place : nullptr, at);
}

}  // namespace

bool DiagnoseTarvelFile(const char* fileName, TarvelDiagnosis* diagnosis) {
    *diagnosis = TarvelDiagnosis{};
    KRawTarvelRead* reader = nullptr;
    try {
        reader = NewObject<KRawTarvelRead>();
        const bool readable = reader->Open(fileName);
        Diagnose(fileName, *reader, readable, diagnosis);
    } catch (const std::bad_alloc&) {
        *diagnosis = TarvelDiagnosis{};
        SetReason(diagnosis, "out of memory", nullptr, 0);
    }
    DeleteRawTarvelRead(reader);
    return diagnosis->readable;
}

}  // namespace Tarvel
