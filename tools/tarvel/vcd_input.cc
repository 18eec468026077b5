// The input of import-vcd: block reads and words. Tool layer; one thread.
#include "vcd_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace TarvelTool {

VcdInput::~VcdInput() {
    if (m_ownsFd) close(m_fd);
}

bool VcdInput::Open(const std::string& path, std::string* error) {
    if (path == "-") {
        m_fd = STDIN_FILENO;
    } else {
        m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (m_fd < 0) {
            *error = std::strerror(errno);
            return false;
        }
        m_ownsFd = true;
    }
    struct stat info {};
    if (fstat(m_fd, &info) == 0 && S_ISREG(info.st_mode)) {
        m_size = static_cast<std::uint64_t>(info.st_size);
        posix_fadvise(m_fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    } else if (fstat(m_fd, &info) == 0 && S_ISDIR(info.st_mode)) {
        *error = "Is a directory";
        return false;
    }
    m_atEnd = false;
    m_buffer.assign(kBlockSize + kPadding, '\0');
    m_next = m_end = m_buffer.data();
    return true;
}

void VcdInput::OpenText(std::string_view text) {
    m_buffer.assign(text.size() + kPadding, '\0');
    std::memcpy(m_buffer.data(), text.data(), text.size());
    m_next = m_buffer.data();
    m_end = m_buffer.data() + text.size();
    m_atEnd = true;
}

bool VcdInput::ReadMore(std::size_t kept) {
    if (m_buffer.size() < kept + kBlockSize + kPadding) m_buffer.resize(kept + kBlockSize + kPadding);
    ssize_t got;
    do {
        got = read(m_fd, m_buffer.data() + kept, kBlockSize);
    } while (got < 0 && errno == EINTR);
    if (got < 0) m_readError = std::strerror(errno);
    const std::size_t added = got > 0 ? static_cast<std::size_t>(got) : 0;
    m_end = m_buffer.data() + kept + added;
    std::memset(m_buffer.data() + kept + added, 0, kPadding);
    if (added == 0) m_atEnd = true;
    return added != 0;
}

bool VcdInput::Refill(const char* start, const char* end, std::string_view* word) {
    const char* from = m_keep != nullptr && m_keep < start ? m_keep : start;
    const std::size_t kept = static_cast<std::size_t>(end - from);
    const std::size_t wordStart = static_cast<std::size_t>(start - from);
    m_offset += static_cast<std::uint64_t>(from - m_buffer.data());
    std::memmove(m_buffer.data(), from, kept);
    ReadMore(kept);  // may move the buffer
    if (m_keep != nullptr) m_keep = m_buffer.data();
    m_next = m_buffer.data() + wordStart;
    return NextWord(word);
}

}  // namespace TarvelTool
