// The progress bar. Tool layer.
#include "progress.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

namespace TarvelTool {

Progress::Progress(std::string what, std::uint64_t total, const char* unit)
    : m_what(std::move(what)), m_total(total), m_unit(unit), m_active(isatty(STDERR_FILENO) != 0),
      m_start(std::chrono::steady_clock::now()), m_last(m_start) {}

Progress::~Progress() {
    if (m_drawn) std::fprintf(stderr, "\r\033[K");
}

void Progress::Finish(std::uint64_t done) {
    if (!m_active) return;
    Draw(done, true);
    std::fputc('\n', stderr);
    m_drawn = false;
}

void Progress::Draw(std::uint64_t done, bool force) {
    const auto now = std::chrono::steady_clock::now();
    if (!force && now - m_last < std::chrono::milliseconds(200)) return;
    m_last = now;
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    const double millions = static_cast<double>(done) / 1e6;
    if (m_total == 0) {
        std::fprintf(stderr, "\r%s: %.1f %s, %.1f s\033[K", m_what.c_str(), millions, m_unit, seconds);
    } else {
        constexpr int kWidth = 30;
        const double part = done >= m_total ? 1.0 : static_cast<double>(done) / static_cast<double>(m_total);
        const int filled = static_cast<int>(part * kWidth);
        char bar[kWidth + 1];
        for (int i = 0; i < kWidth; ++i) bar[i] = i < filled ? '#' : '.';
        bar[kWidth] = '\0';
        std::fprintf(stderr, "\r%s [%s] %3d%% %.1f %s, %.1f s\033[K", m_what.c_str(), bar, static_cast<int>(part * 100),
                     millions, m_unit, seconds);
    }
    std::fflush(stderr);
    m_drawn = true;
}

}  // namespace TarvelTool
