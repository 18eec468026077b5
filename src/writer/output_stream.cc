// The writer's output buffer, commit protocol and resume operation. Writer layer (file format).
// Single-threaded: one stream per writer.
#include "writer/output_stream.h"

#include <cassert>

#include "foundation/platform_file.h"
#include "format/vocabulary.h"

namespace Tarvel {

KOutputStream::KOutputStream(IErrorReport& reporter) noexcept
    : m_reporter(reporter), m_cursor(m_buffer), m_limit(m_buffer) {}

KOutputStream::~KOutputStream() {
    if (m_file != nullptr) Close();
}

bool KOutputStream::Open(const char* fileName) {
    assert(m_file == nullptr);
    const Platform::OutputFile opened = Platform::OpenOutputFile(fileName);
    if (opened.stream == nullptr) return m_reporter.Error(Format::kMessageCannotOpen);
    m_file = opened.stream;
    m_commitToDisk = opened.commitToDisk;
    m_failed = false;
    m_cursor = m_buffer;
    UpdateLimit();
    return true;
}

void KOutputStream::UpdateLimit() noexcept {
    const bool fastPath = m_file != nullptr && !m_failed && m_pending == 0;
    m_limit = fastPath ? m_buffer + kBufferSize : m_cursor;
}

bool KOutputStream::Fail(const char* message) {
    // Give up the buffer before reporting: the reporter may close the stream, and what failed to
    // go out once must not be written again behind a partial write.
    m_failed = true;
    m_cursor = m_buffer;
    UpdateLimit();
    return m_reporter.Error(message);
}

bool KOutputStream::TakePendingByte(const char*& data, std::size_t& size) {
    // The handed byte becomes the displaced byte; the pending byte goes in its place.
    m_displaced = *data;
    m_hasDisplaced = true;
    const char mark = m_pending;
    m_pending = 0;
    ++data;
    --size;
    UpdateLimit();
    return Put(mark);
}

bool KOutputStream::WriteSlow(const char* data, std::size_t size) {
    if (size == 0) return true;
    if (m_file == nullptr || m_failed) return m_reporter.Error(Format::kMessageCannotWrite);
    if (m_pending != 0 && !TakePendingByte(data, size)) return false;
    while (size != 0) {
        if (m_cursor == m_buffer + kBufferSize && !WriteOut()) return false;
        const std::size_t room = static_cast<std::size_t>(m_buffer + kBufferSize - m_cursor);
        const std::size_t part = size < room ? size : room;
        std::memcpy(m_cursor, data, part);
        m_cursor += part;
        data += part;
        size -= part;
    }
    UpdateLimit();
    return true;
}

bool KOutputStream::WriteOut() {
    if (m_file == nullptr || m_failed) return m_reporter.Error(Format::kMessageCannotWrite);
    const std::size_t size = static_cast<std::size_t>(m_cursor - m_buffer);
    if (size != 0 && Platform::WriteFile(m_buffer, size, m_file) != size) {
        return Fail(Format::kMessageCannotWrite);
    }
    m_cursor = m_buffer;
    UpdateLimit();
    return true;
}

bool KOutputStream::FlushQuietly() {
    if (!Platform::FlushFile(m_file)) return false;
    return !m_commitToDisk || Platform::CommitToDisk(m_file);
}

bool KOutputStream::Flush() {
    if (m_file == nullptr || m_failed) return m_reporter.Error(Format::kMessageCannotWriteDisk);
    if (!WriteOut()) return m_reporter.Error(Format::kMessageCannotWriteDisk);
    if (!FlushQuietly()) return Fail(Format::kMessageCannotWriteDisk);
    return true;
}

std::int64_t KOutputStream::Tell() {
    if (m_file == nullptr || !WriteOut()) return -1;
    return Platform::TellFile(m_file);
}

bool KOutputStream::Close() {
    std::FILE* file = m_file;
    if (file == nullptr) return false;
    m_file = nullptr;  // from here on the stream is closed, also for a reporter called meanwhile
    const std::size_t size = static_cast<std::size_t>(m_cursor - m_buffer);
    bool ok = !m_failed && (size == 0 || Platform::WriteFile(m_buffer, size, file) == size);
    ok = Platform::FlushFile(file) && ok;
    if (ok && m_commitToDisk) ok = Platform::CommitToDisk(file);
    ok = Platform::CloseFile(file) && ok;
    m_cursor = m_buffer;
    m_pending = 0;
    m_hasDisplaced = false;
    m_resumable = false;
    UpdateLimit();
    return ok;
}

bool KOutputStream::RestoreDisplacedByte(std::int64_t position, char byte) {
    // The buffer is empty here (the flush before wrote it out), so the byte goes straight to the
    // C stream at the old terminator and the stream returns to the end.
    const std::int64_t end = Platform::TellFile(m_file);
    const bool ok = Platform::SeekFile(m_file, position) && Platform::WriteFile(&byte, 1, m_file) == 1 &&
                    FlushQuietly() && Platform::SeekFile(m_file, end);
    if (!ok) return Fail(Format::kMessagePreviousTell);
    return true;
}

bool KOutputStream::Commit(FlushCallback flush) {
    if (!flush()) return false;
    if (!WriteOut()) return false;
    const std::int64_t previous = m_commitPosition;
    m_commitPosition = m_file != nullptr ? Platform::TellFile(m_file) : -1;
    const bool hadDisplaced = m_hasDisplaced;
    const char displaced = m_displaced;
    m_hasDisplaced = false;
    m_pending = 0;
    UpdateLimit();
    if (!Write(Format::kTerminatorLine)) return false;
    m_resumable = true;
    if (!m_committed) {
        m_committed = true;
        return flush();
    }
    if (!flush()) return false;
    if (hadDisplaced && !RestoreDisplacedByte(previous, displaced)) return false;
    m_pending = Format::kCommitMark;
    UpdateLimit();
    return true;
}

bool KOutputStream::Resume() {
    if (!m_resumable) return true;
    if (!WriteOut()) return false;
    if (!Platform::SeekFile(m_file, m_commitPosition)) return false;
    m_resumable = false;
    m_pending = Format::kCommitMark;
    UpdateLimit();
    return true;
}

}  // namespace Tarvel
