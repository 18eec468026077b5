// A plain VCD text writer, the yardstick of the writer benchmarks: the same events written as a
// waveform viewer's usual text format, through a 64 KB buffer. Benchmark support; one thread.
#ifndef TARVEL_BENCH_VCD_WRITER_H
#define TARVEL_BENCH_VCD_WRITER_H

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

class VcdWriter {
public:
    enum class Kind { kBit, kInteger, kReal };

    explicit VcdWriter(const char* path) : m_file(std::fopen(path, "wb")) {}
    ~VcdWriter() { Close(); }

    // Declares signal `index` (0, 1, 2, ... in order) and returns false when the file is not open.
    bool Declare(const std::string& name, Kind kind) {
        m_kinds.push_back(kind);
        m_codes.push_back(Code(m_codes.size()));
        Put("$var ");
        Put(kind == Kind::kReal ? "real 64 " : kind == Kind::kInteger ? "integer 32 " : "wire 1 ");
        Put(m_codes.back());
        Put(" ");
        Put(name);
        Put(" $end\n");
        return m_file != nullptr;
    }
    void EndDeclarations() { Put("$enddefinitions $end\n"); }

    void SetTime(std::int64_t time) {
        if (time == m_time) return;
        m_time = time;
        char text[32];
        text[0] = '#';
        char* end = std::to_chars(text + 1, text + sizeof text - 1, time).ptr;
        *end++ = '\n';
        Put(text, static_cast<std::size_t>(end - text));
    }

    // A bit value 0/1, an integer, or a real (given as its bits).
    void Change(std::size_t index, std::uint64_t value) {
        char text[80];
        std::size_t n = 0;
        switch (m_kinds[index]) {
            case Kind::kBit: text[n++] = static_cast<char>('0' + (value & 1)); break;
            case Kind::kInteger: {
                text[n++] = 'b';
                const std::uint32_t v = static_cast<std::uint32_t>(value);
                int top = 31;
                while (top > 0 && !(v >> top & 1)) --top;
                for (int bit = top; bit >= 0; --bit) text[n++] = static_cast<char>('0' + (v >> bit & 1));
                text[n++] = ' ';
                break;
            }
            case Kind::kReal: {
                double d;
                std::memcpy(&d, &value, 8);
                n = static_cast<std::size_t>(std::snprintf(text, sizeof text, "r%.16g ", d));
                break;
            }
        }
        Put(text, n);
        Put(m_codes[index]);
        Put("\n");
    }

    void Close() {
        if (!m_file) return;
        std::fwrite(m_buffer, 1, m_used, m_file);
        std::fclose(m_file);
        m_file = nullptr;
    }

private:
    static std::string Code(std::size_t index) {
        std::string code;
        do {
            code += static_cast<char>('!' + index % 94);
            index /= 94;
        } while (index);
        return code;
    }
    void Put(const std::string& text) { Put(text.data(), text.size()); }
    void Put(const char* text) { Put(text, std::strlen(text)); }
    void Put(const char* text, std::size_t n) {
        if (m_used + n > sizeof m_buffer) {
            std::fwrite(m_buffer, 1, m_used, m_file);
            m_used = 0;
        }
        std::memcpy(m_buffer + m_used, text, n);
        m_used += n;
    }

    std::FILE* m_file;
    std::vector<Kind> m_kinds;
    std::vector<std::string> m_codes;
    std::int64_t m_time = -1;
    std::size_t m_used = 0;
    char m_buffer[65536];
};

#endif  // TARVEL_BENCH_VCD_WRITER_H
