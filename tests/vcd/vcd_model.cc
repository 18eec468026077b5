// The tests' plain VCD reader. Test support.
#include "vcd/vcd_model.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace TarvelTool::Testing {
namespace {

struct Declared {
    std::string key;
    VcdVariable::Category category;
    std::uint32_t width;
    bool isSigned;
};

std::int64_t UnitOf(const std::string& text) {
    std::size_t digits = 0;
    const std::int64_t number = std::stoll(text, &digits);
    const std::string units[] = {"fs", "ps", "ns", "us", "ms", "s"};
    std::int64_t unit = 1;
    for (const std::string& name : units) {
        if (text.substr(digits) == name) return number * unit;
        unit *= 1000;
    }
    throw std::runtime_error("unknown time unit " + text);
}

VcdVariable::Category CategoryOf(const std::string& keyword, std::uint32_t width) {
    if (keyword == "real" || keyword == "realtime" || keyword == "shortreal") return VcdVariable::kReal;
    if (keyword == "string") return VcdVariable::kString;
    if (keyword == "event") return VcdVariable::kEvent;
    const std::set<std::string> integers = {"integer", "int", "shortint", "longint", "byte", "time"};
    return integers.count(keyword) && width <= 64 ? VcdVariable::kInteger : VcdVariable::kBits;
}

// Digits extended to `width` the way IEEE 1364 says (0 after 0 or 1, else the leading digit).
std::string Extend(std::string digits, std::uint32_t width) {
    for (char& c : digits) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (digits.size() > width) return digits.substr(digits.size() - width);
    const char fill = digits[0] == '0' || digits[0] == '1' ? '0' : digits[0];
    return std::string(width - digits.size(), fill) + digits;
}

std::string Normalise(const Declared& var, const std::string& raw, int realDigits) {
    switch (var.category) {
        case VcdVariable::kReal: {
            char text[40];
            std::snprintf(text, sizeof text, "%.*g", realDigits, std::strtod(raw.c_str(), nullptr));
            return text;
        }
        case VcdVariable::kString: return raw;
        case VcdVariable::kEvent: return Extend(raw, 1);
        case VcdVariable::kInteger: {
            const std::string bits = Extend(raw, var.width);
            if (bits.find_first_not_of("01") != std::string::npos) return bits;
            std::uint64_t value = 0;
            for (char c : bits) value = value << 1 | static_cast<std::uint64_t>(c == '1');
            if (var.isSigned && var.width < 64 && (value >> (var.width - 1) & 1)) value |= ~std::uint64_t{0} << var.width;
            return var.isSigned ? std::to_string(static_cast<std::int64_t>(value)) : std::to_string(value);
        }
        case VcdVariable::kBits: return Extend(raw, var.width);
    }
    return raw;
}

class Parser {
public:
    Parser(const std::string& path, int realDigits) : m_realDigits(realDigits) {
        std::ifstream in(path, std::ios::binary);
        if (!in) throw std::runtime_error("cannot open " + path);
        std::string word;
        while (in >> word) m_words.push_back(word);
    }

    VcdModel Read() {
        Header();
        Changes();
        for (auto& [code, vars] : m_byCode) {
            for (const Declared& var : vars) {
                VcdVariable& out = m_model.variables[var.key];
                out.changes = Changes(var, m_raw[code], m_realDigits);
            }
        }
        return m_model;
    }

private:
    const std::string& Next() {
        if (m_at == m_words.size()) throw std::runtime_error("unexpected end of file");
        return m_words[m_at++];
    }
    std::vector<std::string> Section() {
        std::vector<std::string> words;
        for (std::string w = Next(); w != "$end"; w = Next()) words.push_back(w);
        return words;
    }

    void Header() {
        std::vector<std::string> path;
        while (true) {
            const std::string keyword = Next();
            const std::vector<std::string> words = Section();
            if (keyword == "$enddefinitions") return;
            if (keyword == "$timescale") {
                std::string text;
                for (const std::string& w : words) text += w;
                m_model.unit = UnitOf(text);
            } else if (keyword == "$scope") {
                path.push_back(words.at(1));
                m_model.scopes.insert(Join(path, ""));
            } else if (keyword == "$upscope") {
                path.pop_back();
            } else if (keyword == "$var") {
                Var(words, path);
            }
        }
    }

    static std::string Join(const std::vector<std::string>& path, const std::string& last) {
        std::string name;
        for (const std::string& p : path) name += (name.empty() ? "" : ".") + p;
        if (!last.empty()) name += (name.empty() ? "" : ".") + last;
        return name;
    }

    void Var(const std::vector<std::string>& words, const std::vector<std::string>& path) {
        const std::string keyword = words.at(0);
        const std::uint32_t width = static_cast<std::uint32_t>(std::stoul(words.at(1)));
        std::string reference;
        for (std::size_t i = 3; i < words.size(); ++i) reference += words[i];
        std::string name = reference, range;
        const std::size_t open = reference.find('[');
        if (open != std::string::npos && open > 0) {
            name = reference.substr(0, open);
            range = reference.substr(open);
            const std::size_t colon = range.find(':');
            if (colon != std::string::npos && range.substr(1, colon - 1) == range.substr(colon + 1, range.size() - colon - 2)) {
                range = "[" + range.substr(colon + 1);  // [3:3] is [3]
            }
        }
        Declared var{Join(path, name), CategoryOf(keyword, width), width, keyword != "time"};
        if (var.category == VcdVariable::kBits) {
            if (range.empty() && width > 1) range = "[" + std::to_string(width - 1) + ":0]";
            if (!range.empty()) var.key += " " + range;
        }
        if (m_model.variables.count(var.key)) throw std::runtime_error("variable declared twice: " + var.key);
        VcdVariable& out = m_model.variables[var.key];
        out.category = var.category;
        out.keyword = keyword;
        out.width = width;
        m_byCode[words.at(2)].push_back(var);
    }

    void Changes() {
        std::int64_t time = 0;
        while (m_at < m_words.size()) {
            const std::string word = Next();
            const char first = word[0];
            if (first == '#') {
                time = std::stoll(word.substr(1)) * m_model.unit;
                m_model.endTime = time;
            } else if (first == '$') {
                if (word == "$comment") Section();
            } else if (first == 'b' || first == 'B' || first == 'r' || first == 'R' || first == 's' || first == 'S') {
                Record(Next(), time, word.substr(1));
            } else {
                Record(word.substr(1), time, word.substr(0, 1));
            }
        }
    }
    void Record(const std::string& code, std::int64_t time, const std::string& value) {
        if (!m_byCode.count(code)) throw std::runtime_error("undeclared code " + code);
        m_raw[code].push_back({time, value});
    }

    static std::vector<VcdChange> Changes(const Declared& var, const std::vector<VcdChange>& raw, int realDigits) {
        std::vector<VcdChange> changes;
        for (const VcdChange& change : raw) {
            VcdChange normal{change.time, Normalise(var, change.value, realDigits)};
            if (!changes.empty() && changes.back().time == normal.time) changes.pop_back();
            const bool repeat = !changes.empty() && changes.back().value == normal.value;
            if (!repeat || var.category == VcdVariable::kEvent) changes.push_back(normal);
        }
        return changes;
    }

    int m_realDigits;
    std::vector<std::string> m_words;
    std::size_t m_at = 0;
    VcdModel m_model;
    std::map<std::string, std::vector<Declared>> m_byCode;      // code -> its variables
    std::map<std::string, std::vector<VcdChange>> m_raw;        // code -> its values as written
};

}  // namespace

VcdModel ReadVcdModel(const std::string& path, int realDigits) { return Parser(path, realDigits).Read(); }

std::string CompareVcdModels(const VcdModel& expected, const VcdModel& actual, const std::set<std::string>& ignore) {
    if (expected.endTime != actual.endTime) {
        return "end time " + std::to_string(actual.endTime) + " fs, expected " + std::to_string(expected.endTime);
    }
    for (const auto& [key, want] : expected.variables) {
        if (ignore.count(key)) continue;
        const auto found = actual.variables.find(key);
        if (found == actual.variables.end()) return key + ": missing";
        const VcdVariable& got = found->second;
        if (got.category != want.category) return key + ": declared " + got.keyword + ", expected " + want.keyword;
        if (want.category == VcdVariable::kBits && got.width != want.width) {
            return key + ": " + std::to_string(got.width) + " bits, expected " + std::to_string(want.width);
        }
        for (std::size_t i = 0; i < std::max(want.changes.size(), got.changes.size()); ++i) {
            auto text = [](const std::vector<VcdChange>& changes, std::size_t at) {
                return at < changes.size() ? changes[at].value + " at " + std::to_string(changes[at].time) + " fs"
                                           : std::string("nothing");
            };
            if (i >= want.changes.size() || i >= got.changes.size() || !(want.changes[i] == got.changes[i])) {
                return key + ": change " + std::to_string(i) + " is " + text(got.changes, i) + ", expected " +
                       text(want.changes, i);
            }
        }
    }
    for (const auto& [key, got] : actual.variables) {
        if (!expected.variables.count(key)) return key + ": not expected";
    }
    return "";
}

}  // namespace TarvelTool::Testing
