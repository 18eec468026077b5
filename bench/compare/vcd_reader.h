// A plain VCD reader, the comparison harness's baseline reader: the declarations (scopes, vars and
// their identifier codes), then every value change in file order, read through a 4 MB buffer
// and handed to a callback as text. It reads what simulators and bench/vcd_writer.h write:
// one statement or value change per line. Benchmark support; one thread.
#ifndef TARVEL_BENCH_COMPARE_VCD_READER_H
#define TARVEL_BENCH_COMPARE_VCD_READER_H

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

// One $var. Vars that share an identifier code (a net seen in several scopes) share an id.
struct VcdVar {
    std::string fullName;  // scope names and the var's name joined with '.'
    std::string type;      // "wire", "reg", "integer", "real", ...
    int width = 1;
    int id = 0;            // index of the identifier code, in order of first declaration
};

class VcdReader {
public:
    // A value change: `text` is the value without its prefix ('0' for a scalar, the digits of
    // "b0101", the number of "r0.5"), `kind` is 's' (scalar), 'b' (vector) or 'r' (real).
    struct Change {
        std::int64_t time;
        int id;
        char kind;
        const char* text;
        std::size_t size;
    };

    ~VcdReader() {
        if (m_file) std::fclose(m_file);
    }

    // Opens the file and reads its declarations; false when it cannot be read or has no
    // $enddefinitions.
    bool Open(const char* path) {
        m_file = std::fopen(path, "rb");
        if (!m_file) return false;
        m_buffer.resize(kBuffer);
        std::vector<std::string> statement;
        std::vector<std::string> scopes;
        const char* line;
        std::size_t size;
        while (NextLine(&line, &size)) {
            std::size_t i = 0;
            while (i < size) {
                while (i < size && IsBlank(line[i])) ++i;
                const std::size_t start = i;
                while (i < size && !IsBlank(line[i])) ++i;
                if (i == start) break;
                std::string word(line + start, i - start);
                if (word != "$end") {
                    statement.push_back(std::move(word));
                    continue;
                }
                if (statement.empty()) continue;
                const std::string& head = statement[0];
                if (head == "$scope" && statement.size() >= 3) {
                    scopes.push_back(statement[2]);
                } else if (head == "$upscope" && !scopes.empty()) {
                    scopes.pop_back();
                } else if (head == "$var" && statement.size() >= 5) {
                    Declare(statement, scopes);
                } else if (head == "$enddefinitions") {
                    return true;
                }
                statement.clear();
            }
        }
        return false;
    }

    const std::vector<VcdVar>& Vars() const { return m_vars; }
    int Ids() const { return m_ids; }

    // Calls onChange(const Change&) for every value change after the declarations; false when
    // a change names an unknown code. Lines starting with '$' ($dumpvars, $end, ...) are passed over.
    template <class OnChange>
    bool Run(OnChange&& onChange) {
        Change change{0, 0, 's', nullptr, 0};
        const char* line;
        std::size_t size;
        while (NextLine(&line, &size)) {
            while (size && (line[size - 1] == '\r' || line[size - 1] == ' ')) --size;
            if (size == 0) continue;
            const char c = line[0];
            if (c == '#') {
                std::int64_t t = 0;
                for (std::size_t i = 1; i < size; ++i) t = t * 10 + (line[i] - '0');
                change.time = t;
                continue;
            }
            if (c == '$') continue;
            const char* code;
            std::size_t codeSize;
            if (c == 'b' || c == 'B' || c == 'r' || c == 'R') {
                const char* blank = static_cast<const char*>(std::memchr(line, ' ', size));
                if (!blank) return false;
                change.kind = (c == 'b' || c == 'B') ? 'b' : 'r';
                change.text = line + 1;
                change.size = static_cast<std::size_t>(blank - line - 1);
                code = blank + 1;
                codeSize = size - static_cast<std::size_t>(code - line);
            } else {
                change.kind = 's';
                change.text = line;
                change.size = 1;
                code = line + 1;
                codeSize = size - 1;
            }
            change.id = Lookup(code, codeSize);
            if (change.id < 0) return false;
            onChange(change);
        }
        return true;
    }

    // The id of the var whose full name is `name`, or -1.
    int FindId(const std::string& name) const {
        for (const VcdVar& v : m_vars)
            if (v.fullName == name) return v.id;
        return -1;
    }

private:
    static constexpr std::size_t kBuffer = 4 << 20;
    static constexpr std::uint64_t kDirect = 1 << 22;  // codes below this key index a table

    static bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

    // Codes are read as numbers in base 94 ('!' is 0), first character lowest: the codes of
    // bench/vcd_writer.h are then their var's index.
    static std::uint64_t Key(const char* code, std::size_t size, bool* fits) {
        std::uint64_t key = 0, scale = 1;
        *fits = size <= 9;
        for (std::size_t i = 0; i < size && *fits; ++i) {
            key += static_cast<std::uint64_t>(static_cast<unsigned char>(code[i]) - 33) * scale;
            scale *= 94;
        }
        return key;
    }

    int Lookup(const char* code, std::size_t size) const {
        bool fits;
        const std::uint64_t key = Key(code, size, &fits);
        if (fits && key < m_direct.size()) return m_direct[key];
        if (fits && key < kDirect) return -1;
        const auto found = m_other.find(std::string(code, size));
        return found == m_other.end() ? -1 : found->second;
    }

    void Declare(const std::vector<std::string>& s, const std::vector<std::string>& scopes) {
        VcdVar v;
        v.type = s[1];
        v.width = std::atoi(s[2].c_str());
        const std::string& code = s[3];
        for (const std::string& scope : scopes) v.fullName += scope + ".";
        v.fullName += s[4];
        int id = Lookup(code.data(), code.size());
        if (id < 0) {
            id = m_ids++;
            bool fits;
            const std::uint64_t key = Key(code.data(), code.size(), &fits);
            if (fits && key < kDirect) {
                if (key >= m_direct.size()) m_direct.resize(key + 1, -1);
                m_direct[key] = id;
            } else {
                m_other.emplace(code, id);
            }
        }
        v.id = id;
        m_vars.push_back(std::move(v));
    }

    // The next line without its '\n'; false at the end of the file.
    bool NextLine(const char** line, std::size_t* size) {
        for (;;) {
            const char* begin = m_buffer.data() + m_pos;
            const char* nl = static_cast<const char*>(std::memchr(begin, '\n', m_end - m_pos));
            if (nl) {
                *line = begin;
                *size = static_cast<std::size_t>(nl - begin);
                m_pos = static_cast<std::size_t>(nl - m_buffer.data()) + 1;
                return true;
            }
            if (m_eof) {
                if (m_pos == m_end) return false;
                *line = begin;
                *size = m_end - m_pos;
                m_pos = m_end;
                return true;
            }
            std::memmove(m_buffer.data(), begin, m_end - m_pos);
            m_end -= m_pos;
            m_pos = 0;
            if (m_end == m_buffer.size()) m_buffer.resize(m_buffer.size() * 2);  // a very long line
            const std::size_t got = std::fread(m_buffer.data() + m_end, 1, m_buffer.size() - m_end, m_file);
            if (got == 0) m_eof = true;
            m_end += got;
        }
    }

    std::FILE* m_file = nullptr;
    std::vector<char> m_buffer;
    std::size_t m_pos = 0, m_end = 0;
    bool m_eof = false;
    std::vector<VcdVar> m_vars;
    int m_ids = 0;
    std::vector<int> m_direct;
    std::unordered_map<std::string, int> m_other;
};

#endif  // TARVEL_BENCH_COMPARE_VCD_READER_H
