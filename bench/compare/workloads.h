// The comparison harness's workloads: deterministic event generators that every format's writer is
// fed from, in chunks, so that no workload is ever held in memory whole; and simulator traces made
// longer.
#ifndef TARVEL_BENCH_COMPARE_WORKLOADS_H
#define TARVEL_BENCH_COMPARE_WORKLOADS_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace compare {

enum class Kind { kBit, kInt32, kReal };

struct Event {
    std::int64_t time;
    std::uint32_t signal;
    std::uint64_t value;  // a bit (0/1), a 32-bit number, or a double's bits
};

enum class Synthetic { kClock, kBits, kCounters, kReals };

struct SyntheticInfo {
    const char* key;    // the name on the command line
    const char* title;  // the name in the table
    int signals;
    Kind kind;
};

inline const SyntheticInfo& Info(Synthetic w) {
    static const SyntheticInfo info[] = {
        {"clock", "one clock toggling", 1, Kind::kBit},
        {"bits", "10,000 one-bit signals, random changes", 10000, Kind::kBit},
        {"counters", "1,000 32-bit counters", 1000, Kind::kInt32},
        {"reals", "1,000 real signals, random values", 1000, Kind::kReal},
    };
    return info[static_cast<int>(w)];
}

inline std::string SignalName(std::uint32_t index) {
    std::string name(1, 's');
    name += std::to_string(index);
    return name;
}

// Generates `total` events of a workload, in time order:
//  - clock: one bit toggling every 5 time units;
//  - bits: about 100 changes per time step (steps of 1 to 10 units), each a random signal of
//    10,000 toggling;
//  - counters: counter s starts at 100000 s and counts at every cycle (10 units) where
//    (cycle + s) is a multiple of its period 1 + s % 4: about 520 changes per cycle;
//  - reals: as the bits, over 1,000 signals, each change a random multiple of 1/64 below 1563.
class Generator {
public:
    Generator(Synthetic workload, std::uint64_t total)
        : m_workload(workload), m_left(total), m_state(static_cast<std::size_t>(Info(workload).signals)) {
        if (workload == Synthetic::kCounters)
            for (std::size_t s = 0; s < m_state.size(); ++s) m_state[s] = s * 100000;
    }

    // Fills up to `max` events into `out`; 0 at the end.
    std::size_t Fill(Event* out, std::size_t max) {
        std::size_t n = 0;
        while (n < max && m_left) {
            switch (m_workload) {
                case Synthetic::kClock:
                    m_time += 5;
                    m_state[0] ^= 1;
                    out[n++] = {m_time, 0, m_state[0]};
                    break;
                case Synthetic::kBits: {
                    if (m_count++ % 100 == 0) m_time += 1 + static_cast<std::int64_t>(Next() % 10);
                    const auto s = static_cast<std::uint32_t>(Next() % 10000);
                    m_state[s] ^= 1;
                    out[n++] = {m_time, s, m_state[s]};
                    break;
                }
                case Synthetic::kCounters: {
                    // One counter per call: the one after the last, in the cycle that follows.
                    for (;;) {
                        if (m_counter == m_state.size()) {
                            m_counter = 0;
                            ++m_cycle;
                        }
                        const std::uint64_t s = m_counter++;
                        if ((m_cycle + s) % (1 + s % 4) == 0) {
                            m_state[s] = (m_state[s] + 1) & 0xFFFFFFFF;
                            out[n++] = {static_cast<std::int64_t>(m_cycle) * 10, static_cast<std::uint32_t>(s), m_state[s]};
                            break;
                        }
                    }
                    break;
                }
                case Synthetic::kReals: {
                    if (m_count++ % 100 == 0) m_time += 1 + static_cast<std::int64_t>(Next() % 10);
                    const auto s = static_cast<std::uint32_t>(Next() % 1000);
                    const double d = static_cast<double>(Next() % 100000) / 64.0;
                    std::uint64_t bits;
                    std::memcpy(&bits, &d, 8);
                    out[n++] = {m_time, s, bits};
                    break;
                }
            }
            --m_left;
        }
        return n;
    }

private:
    // xorshift64*: cheap beside every writer measured, and the same sequence on every machine.
    std::uint64_t Next() {
        m_rng ^= m_rng >> 12;
        m_rng ^= m_rng << 25;
        m_rng ^= m_rng >> 27;
        return m_rng * 0x2545F4914F6CDD1DULL;
    }

    Synthetic m_workload;
    std::uint64_t m_left;
    std::vector<std::uint64_t> m_state;
    std::int64_t m_time = 0;
    std::uint64_t m_count = 0;
    std::uint64_t m_rng = 0x9E3779B97F4A7C15ULL;
    std::uint64_t m_cycle = 0;
    std::size_t m_counter = 0;
};

// Makes a simulator's VCD longer: its value changes repeated, each copy's times shifted past the
// end of the one before, until at least `events` changes. Answers the changes written.
inline std::uint64_t LengthenTrace(const std::string& from, const std::string& to, std::uint64_t events) {
    std::ifstream in(from);
    std::string line, header;
    std::vector<std::string> body;
    bool inBody = false;
    while (std::getline(in, line)) {
        if (!inBody) {
            header += line + "\n";
            if (line.find("$enddefinitions") != std::string::npos) inBody = true;
        } else if (!line.empty() && line[0] != '$') {
            body.push_back(line);
        }
    }
    std::int64_t last = 0, step = 0;
    std::uint64_t perCopy = 0;
    for (const std::string& l : body) {
        if (l[0] == '#') {
            const std::int64_t t = std::atoll(l.c_str() + 1);
            if (t > last && step == 0) step = t;
            last = std::max(last, t);
        } else {
            ++perCopy;
        }
    }
    if (perCopy == 0) return 0;
    const std::int64_t span = last + std::max<std::int64_t>(step, 1);
    std::FILE* out = std::fopen(to.c_str(), "wb");
    if (!out) return 0;
    std::vector<char> buffer(1 << 20);
    std::setvbuf(out, buffer.data(), _IOFBF, buffer.size());
    std::fputs(header.c_str(), out);
    std::uint64_t written = 0;
    for (std::int64_t copy = 0; written < events; ++copy) {
        for (const std::string& l : body) {
            if (l[0] == '#')
                std::fprintf(out, "#%lld\n", static_cast<long long>(std::atoll(l.c_str() + 1) + copy * span));
            else
                std::fprintf(out, "%s\n", l.c_str());
        }
        written += perCopy;
    }
    std::fclose(out);
    return written;
}

}  // namespace compare

#endif  // TARVEL_BENCH_COMPARE_WORKLOADS_H
