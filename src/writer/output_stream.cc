// The writer's output buffer, commit protocol and resume operation. Writer layer (file format).
// Single-threaded: one stream per writer.
#include "writer/output_stream.h"

#include "foundation/platform_file.h"
#include "format/vocabulary.h"

namespace Tarvel {

KOutputStream::KOutputStream(IErrorReport& reporter) noexcept
    : reporter_(reporter), cursor_(buffer_), limit_(buffer_) {}

KOutputStream::~KOutputStream() {
    if (file_ != nullptr) Close();
}

bool KOutputStream::Open(const char* fileName) {
    const Platform::OutputFile opened = Platform::OpenOutputFile(fileName);
    if (opened.stream == nullptr) return reporter_.Error(Format::kMessageCannotOpen);
    file_ = opened.stream;
    commitToDisk_ = opened.commitToDisk;
    failed_ = false;
    cursor_ = buffer_;
    UpdateLimit();
    return true;
}

void KOutputStream::UpdateLimit() noexcept {
    const bool fastPath = file_ != nullptr && !failed_ && pending_ == 0;
    limit_ = fastPath ? buffer_ + kBufferSize : cursor_;
}

bool KOutputStream::Fail(const char* message) {
    // Give up the buffer before reporting: the reporter may close the stream, and what failed to
    // go out once must not be written again behind a partial write.
    failed_ = true;
    cursor_ = buffer_;
    UpdateLimit();
    return reporter_.Error(message);
}

bool KOutputStream::TakePendingByte(const char*& data, std::size_t& size) {
    // The handed byte becomes the displaced byte; the pending byte goes in its place.
    displaced_ = *data;
    hasDisplaced_ = true;
    const char mark = pending_;
    pending_ = 0;
    ++data;
    --size;
    UpdateLimit();
    return Put(mark);
}

bool KOutputStream::WriteSlow(const char* data, std::size_t size) {
    if (size == 0) return true;
    if (file_ == nullptr || failed_) return reporter_.Error(Format::kMessageCannotWrite);
    if (pending_ != 0 && !TakePendingByte(data, size)) return false;
    while (size != 0) {
        if (cursor_ == buffer_ + kBufferSize && !WriteOut()) return false;
        const std::size_t room = static_cast<std::size_t>(buffer_ + kBufferSize - cursor_);
        const std::size_t part = size < room ? size : room;
        std::memcpy(cursor_, data, part);
        cursor_ += part;
        data += part;
        size -= part;
    }
    UpdateLimit();
    return true;
}

bool KOutputStream::WriteOut() {
    if (file_ == nullptr || failed_) return reporter_.Error(Format::kMessageCannotWrite);
    const std::size_t size = static_cast<std::size_t>(cursor_ - buffer_);
    if (size != 0 && Platform::WriteFile(buffer_, size, file_) != size) {
        return Fail(Format::kMessageCannotWrite);
    }
    cursor_ = buffer_;
    UpdateLimit();
    return true;
}

bool KOutputStream::FlushQuietly() {
    if (!Platform::FlushFile(file_)) return false;
    return !commitToDisk_ || Platform::CommitToDisk(file_);
}

bool KOutputStream::Flush() {
    if (file_ == nullptr || failed_) return reporter_.Error(Format::kMessageCannotWriteDisk);
    if (!WriteOut()) return reporter_.Error(Format::kMessageCannotWriteDisk);
    if (!FlushQuietly()) return Fail(Format::kMessageCannotWriteDisk);
    return true;
}

std::int64_t KOutputStream::Tell() {
    if (file_ == nullptr || !WriteOut()) return -1;
    return Platform::TellFile(file_);
}

bool KOutputStream::Close() {
    std::FILE* file = file_;
    if (file == nullptr) return false;
    file_ = nullptr;  // from here on the stream is closed, also for a reporter called meanwhile
    const std::size_t size = static_cast<std::size_t>(cursor_ - buffer_);
    bool ok = !failed_ && (size == 0 || Platform::WriteFile(buffer_, size, file) == size);
    ok = Platform::FlushFile(file) && ok;
    if (ok && commitToDisk_) ok = Platform::CommitToDisk(file);
    ok = Platform::CloseFile(file) && ok;
    cursor_ = buffer_;
    pending_ = 0;
    hasDisplaced_ = false;
    resumable_ = false;
    UpdateLimit();
    return ok;
}

bool KOutputStream::RestoreDisplacedByte(std::int64_t position, char byte) {
    // The buffer is empty here (the flush before wrote it out), so the byte goes straight to the
    // C stream at the old terminator and the stream returns to the end.
    const std::int64_t end = Platform::TellFile(file_);
    const bool ok = Platform::SeekFile(file_, position) && Platform::WriteFile(&byte, 1, file_) == 1 &&
                    FlushQuietly() && Platform::SeekFile(file_, end);
    if (!ok) return Fail(Format::kMessagePreviousTell);
    return true;
}

bool KOutputStream::Commit(FlushCallback flush) {
    if (!flush()) return false;
    if (!WriteOut()) return false;
    const std::int64_t previous = commitPosition_;
    commitPosition_ = file_ != nullptr ? Platform::TellFile(file_) : -1;
    const bool hadDisplaced = hasDisplaced_;
    const char displaced = displaced_;
    hasDisplaced_ = false;
    pending_ = 0;
    UpdateLimit();
    if (!Write(Format::kTerminatorLine)) return false;
    resumable_ = true;
    if (!committed_) {
        committed_ = true;
        return flush();
    }
    if (!flush()) return false;
    if (hadDisplaced && !RestoreDisplacedByte(previous, displaced)) return false;
    pending_ = Format::kCommitMark;
    UpdateLimit();
    return true;
}

bool KOutputStream::Resume() {
    if (!resumable_) return true;
    if (!WriteOut()) return false;
    if (!Platform::SeekFile(file_, commitPosition_)) return false;
    resumable_ = false;
    pending_ = Format::kCommitMark;
    UpdateLimit();
    return true;
}

}  // namespace Tarvel
