// A progress bar on stderr for long runs of the tool (import, export, dump of large files),
// drawn only when stderr is a terminal, at most a few times a second. Tool layer; one thread.
#ifndef TARVEL_TOOLS_TARVEL_PROGRESS_H
#define TARVEL_TOOLS_TARVEL_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace TarvelTool {

class Progress {
public:
    // `what` names the work ("import", "export"); `total` is the amount to reach (bytes of the
    // input, say), 0 when unknown (then only the amount done is shown). Amounts are shown in
    // millions, followed by `unit` ("MB" for bytes, "M events").
    Progress(std::string what, std::uint64_t total, const char* unit = "MB");
    // Clears the bar.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // The amount done so far; cheap enough to call for every line or block.
    void Update(std::uint64_t done) {
        if (m_active && ++m_calls % kCallsPerLook == 0) Draw(done, false);
    }
    // Draws the final state once more and ends the line.
    void Finish(std::uint64_t done);

private:
    static constexpr unsigned kCallsPerLook = 4096;  // calls between looks at the clock
    void Draw(std::uint64_t done, bool force);

    std::string m_what;
    std::uint64_t m_total;
    const char* m_unit;    // after the amount in millions
    bool m_active;         // stderr is a terminal
    bool m_drawn = false;  // a bar is on the screen
    unsigned m_calls = 0;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_last;
};

}  // namespace TarvelTool

#endif  // TARVEL_TOOLS_TARVEL_PROGRESS_H
