// The writer's output stream: a 64 KiB buffer in front of a buffered C stream, the commit
// protocol that keeps the file readable up to a known point at every moment, and the resume
// operation that goes on over the last terminator. Writer layer (file format, lowest level).
// One stream belongs to one writer and is used from one thread at a time.
//
// Semantics. Bytes handed to Write reach the file in order: appended to the buffer, which goes
// to the C stream with one fwrite of its whole content when it is full and before every tell,
// seek and flush. Beside the buffer the stream keeps a pending replacement byte (none, or the
// commit mark ':') and the byte it displaced last. While a replacement byte is pending, the next
// byte handed to Write is not stored: the pending byte is stored in its place and the handed byte
// is kept as the displaced byte. Commit and Resume use this to turn the first byte of the last
// terminator into ':' while the writer goes on, and to put the real byte back at the next commit.
//
// Failures. Every failure is handed to the IErrorReport with its message, then the call returns
// false. The first failed write makes the stream unusable (later writes fail and report again,
// which the writer's reporter turns into silence); nothing written is rolled back.
//
// Costs. Write and Put append with one compare and a copy; they never allocate. The buffer is a
// member array, so a stream is large (about 64 KiB): allocate it with its owner on the heap.
#ifndef TARVEL_WRITER_OUTPUT_STREAM_H
#define TARVEL_WRITER_OUTPUT_STREAM_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "writer/error_report.h"

namespace Tarvel {

// The owner's flush, called by the commit protocol: writes the pending declaration lines and the
// event blocks of all changed signals, then calls KOutputStream::Flush. Returns false after the
// failure has been reported. A plain function pointer and context, so no allocation is needed.
struct FlushCallback {
    bool (*function)(void* owner);
    void* owner;
    bool operator()() const { return function(owner); }
};

class KOutputStream {
public:
    static constexpr std::size_t kBufferSize = 65536;

    // `reporter` must outlive the stream. No file is open until Open.
    explicit KOutputStream(IErrorReport& reporter) noexcept;
    // Closes the file quietly when it is still open.
    ~KOutputStream();
    KOutputStream(const KOutputStream&) = delete;
    KOutputStream& operator=(const KOutputStream&) = delete;

    // Opens `fileName` for binary writing (Platform::OpenOutputFile decides the commit mode).
    // REQUIRES: no file open. Reports "Cannot open output file" on failure.
    bool Open(const char* fileName);
    bool IsOpen() const noexcept { return m_file != nullptr; }
    // True when every flush is followed by a commit to disk (network file system).
    bool CommitsToDisk() const noexcept { return m_commitToDisk; }

    // Appends `size` bytes. Fails with "Cannot write to output file" when no file is open, the
    // stream failed before, or the buffer cannot be written out.
    bool Write(const char* data, std::size_t size) {
        if (size != 0 && size <= static_cast<std::size_t>(m_limit - m_cursor)) {
            CopySmall(m_cursor, data, size);
            m_cursor += size;
            return true;
        }
        return WriteSlow(data, size);
    }
    bool Write(std::string_view text) { return Write(text.data(), text.size()); }
    // Room for `size` bytes at the end of the buffer on the fast path, or null. The caller
    // writes there and then calls Advance with the number of bytes it keeps.
    char* Reserve(std::size_t size) noexcept {
        return size <= static_cast<std::size_t>(m_limit - m_cursor) ? m_cursor : nullptr;
    }
    void Advance(std::size_t size) noexcept { m_cursor += size; }
    bool Put(char c) {
        if (m_cursor != m_limit) {
            *m_cursor++ = c;
            return true;
        }
        return WriteSlow(&c, 1);
    }

    // Hands the buffer's content to the C stream. Fails with "Cannot write to output file".
    bool WriteOut();
    // Writes out the buffer and flushes the C stream (and commits to disk when the file lies on
    // a network file system). Any failure, or no open file, is reported as "Cannot write to disk".
    bool Flush();
    // Writes out the buffer and returns the stream position; -1 when no file is open or the
    // position cannot be taken.
    std::int64_t Tell();
    // Writes out the buffer, flushes and closes the file. Returns true when all of that
    // succeeded; false, without a report, when something failed or no file was open. A pending
    // replacement byte is dropped, so the last terminator stays intact. Safe to call from inside
    // the error reporter while another call of this stream is failing.
    bool Close();

    // The commit protocol (docs/format.md, "Commit protocol"). The caller has written the
    // end-time line when one is due. Steps: flush through `flush`; write out the buffer and record
    // the position P of the new terminator (the one recorded before is P0); take the displaced
    // byte B and clear the pending byte; write "$ENDWAVE" CR LF; on the first commit flush once
    // more and finish; on every later commit flush, then put B back at P0 (seek there, write it,
    // flush, seek back; a failure there is "Previous ftell failed") and make ':' pending.
    bool Commit(FlushCallback flush);
    // Goes on over the last terminator: writes out the buffer, seeks to P and makes ':' pending,
    // so the first byte written next turns the terminator's '$' into ':'. Returns true without
    // doing anything when no commit was made since the last resume (nothing to resume), false
    // without a report when the seek fails, false with a report when the write-out fails.
    bool Resume();

    // Position of the last terminator written by Commit; 0 before the first commit, -1 when the
    // position could not be taken.
    std::int64_t CommitPosition() const noexcept { return m_commitPosition; }
    // True when the file ends with the terminator of a commit that was not resumed since.
    bool EndsWithTerminator() const noexcept { return m_resumable && m_file != nullptr; }

private:
    // Most writes are a number, a word or a line end: fixed-size copies that overlap for the
    // lengths in between, inline, where a call to memcpy would cost more than the copy.
    static void CopySmall(char* to, const char* from, std::size_t size) noexcept {
        if (size >= 8 && size <= 16) {
            std::memcpy(to, from, 8);
            std::memcpy(to + size - 8, from + size - 8, 8);
        } else if (size >= 4 && size < 8) {
            std::memcpy(to, from, 4);
            std::memcpy(to + size - 4, from + size - 4, 4);
        } else if (size < 4) {
            to[0] = from[0];
            if (size > 1) to[1] = from[1];
            if (size > 2) to[2] = from[2];
        } else {
            std::memcpy(to, from, size);
        }
    }

    bool WriteSlow(const char* data, std::size_t size);
    bool TakePendingByte(const char*& data, std::size_t& size);
    bool FlushQuietly();
    bool RestoreDisplacedByte(std::int64_t position, char byte);
    bool Fail(const char* message);
    // Lets Write use the fast path again when nothing forces the slow one.
    void UpdateLimit() noexcept;

    IErrorReport& m_reporter;
    std::FILE* m_file = nullptr;       // the open stream; null before Open and after Close
    bool m_commitToDisk = false;       // follow each flush by Platform::CommitToDisk
    bool m_failed = false;             // a write or reposition failed: no more output
    char* m_cursor;                    // next free byte of m_buffer
    char* m_limit;                     // end of the fast path: buffer end, or m_cursor to force the slow path
    char m_pending = 0;                // replacement byte for the next byte written; 0 for none
    bool m_hasDisplaced = false;       // m_displaced holds a byte
    char m_displaced = 0;              // the byte the pending byte took the place of
    bool m_committed = false;          // at least one commit has been made
    bool m_resumable = false;          // a commit was made since the last resume
    std::int64_t m_commitPosition = 0;  // P: start of the last terminator
    char m_buffer[kBufferSize];        // bytes not yet handed to the C stream
};

}  // namespace Tarvel

#endif  // TARVEL_WRITER_OUTPUT_STREAM_H
