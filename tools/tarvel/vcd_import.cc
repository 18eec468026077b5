// import-vcd: the header's declarations become scopes, signals and buses of the writer; the value
// changes become events, which a second thread hands to the writer (VcdWriterPipe). Tool layer.
#include "vcd_import.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <climits>
#include <cstring>
#include <unordered_set>
#include <vector>

#include "vcd_code_table.h"
#include "vcd_text.h"
#include "vcd_writer_pipe.h"

namespace TarvelTool {
namespace {

using Tarvel::int64;
using Vcd::VarClass;

// What an imported variable is in the file.
enum class Kind : std::uint8_t {
    kLogic,    // one std_logic signal
    kVector,   // a bus of std_logic elements, handles handle+1 ... handle+width
    kEvent,    // an event: every value is stored, also a repeated one
    kInteger,  // a 4-byte integer
    kLong,     // an 8-byte integer
    kReal,     // an 8-byte double
    kSkipped,  // reported at its declaration; its values are ignored
};

constexpr std::uint32_t kNone = VcdCodeTable::kNone;

struct Var {
    Kind kind = Kind::kSkipped;
    bool isSigned = true;       // kInteger, kLong: sign-extended from `width` bits (all but time)
    bool reported = false;      // a value that cannot be imported was reported
    std::uint32_t width = 1;    // bits
    int handle = -1;            // the signal, or the bus of a vector
    std::uint32_t alias = kNone;  // the next variable with the same identifier code
    std::uint64_t stamp = 0;    // the (time, delta) stamp of its last stored change; 0: none yet
    std::uint64_t value = 0;    // kLogic: the code; kInteger, kLong, kReal: the bits;
                                // kVector: where its bits' characters start in m_chars
    bool known = false;         // kLogic, kInteger, kLong, kReal: `value` holds a stored value
};

// `text`, at most 40 bytes of it, between single quotes.
std::string Quoted(std::string_view text) {
    std::string quoted(1, '\'');
    quoted.append(text.substr(0, 40)).push_back('\'');
    return quoted;
}

struct ScopeFrame {
    int handle;              // the scope's signal
    int children;            // children declared so far
    std::size_t pathLength;  // the length of the scope path before the scope's name
};

class Importer {
public:
    Importer(VcdInput& input, Tarvel::ITarvelWrite& writer, const VcdImportOptions& options, const VcdWarn& warn,
             Progress* progress)
        : m_in(input), m_w(writer), m_options(options), m_warn(warn), m_progress(progress) {}

    VcdImportResult Run() {
        if (ReadHeader() && Check(m_w.Commit() && m_w.Resume())) {
            ++m_result.commits;
            VcdWriterPipe pipe(m_w);
            m_pipe = &pipe;
            ReadChanges();
            Check(pipe.Finish());
            m_pipe = nullptr;
        }
        if (m_result.status != VcdImportResult::kWriteFailed && Check(m_w.Commit())) ++m_result.commits;
        if (m_progress) m_progress->Finish(m_in.Consumed());
        m_result.endTime = m_time;
        return m_result;
    }

private:
    // ---- Outcomes ----

    bool Fail(const std::string& reason) {
        if (m_result.status == VcdImportResult::kOk) {
            m_result.status = VcdImportResult::kBadInput;
            m_result.message = Where() + reason;
        }
        return false;
    }
    // A writer call's answer; false stops the import for good.
    bool Check(bool ok) {
        if (!ok) m_result.status = VcdImportResult::kWriteFailed;
        return ok;
    }
    std::string Where() const { return m_options.inputName + ":" + std::to_string(m_in.Line()) + ": "; }
    void Warn(const std::string& what) { m_warn(Where() + what); }
    void WarnValue(Var& var, std::uint32_t index, const std::string& what) {
        if (var.reported) return;
        var.reported = true;
        Warn(m_names[index] + ": " + what);
    }

    // ---- Header ----

    bool ReadHeader() {
        std::string_view word;
        std::vector<std::string> words;
        while (m_in.NextWord(&word)) {
            if (word == "$enddefinitions") {
                if (!m_sawTimescale) Warn("no $timescale: times are taken as picoseconds");
                return ReadSection(word, &words);
            }
            if (word.empty() || word[0] != '$') {
                return Fail(Quoted(word) + " where a $ section should start: not a VCD file");
            }
            const std::string keyword(word);
            if (!ReadSection(word, &words)) return false;
            if (!Section(keyword, words)) return false;
        }
        if (m_in.ReadError()) return Fail(m_in.ReadErrorText());
        return Fail(m_result.scopes + m_result.variables == 0 && m_in.Consumed() == 0
                        ? "empty input: not a VCD file"
                        : "no $enddefinitions: not a VCD file, or cut short in its header");
    }

    // The words of the section `keyword` up to its $end.
    bool ReadSection(std::string_view keyword, std::vector<std::string>* words) {
        const std::string name(keyword);
        words->clear();
        std::string_view word;
        while (m_in.NextWord(&word)) {
            if (word == "$end") return true;
            words->emplace_back(word);
        }
        if (m_in.ReadError()) return Fail(m_in.ReadErrorText());
        return Fail(name + " has no $end");
    }

    bool Section(const std::string& keyword, const std::vector<std::string>& words) {
        if (keyword == "$scope") return DeclareScope(words);
        if (keyword == "$upscope") {
            if (m_scopes.empty()) return Fail("$upscope without $scope");
            m_path.resize(m_scopes.back().pathLength);
            m_scopes.pop_back();
            return true;
        }
        if (keyword == "$var") return DeclareVar(words);
        if (keyword == "$timescale") return DeclareTimescale(words);
        if (keyword == "$date" || keyword == "$version" || keyword == "$comment") return true;
        Warn(keyword + " section ignored");
        return true;
    }

    bool DeclareTimescale(const std::vector<std::string>& words) {
        std::string text;
        for (const std::string& w : words) text += w;
        const std::optional<std::int64_t> resolution = Vcd::ParseTimescale(text);
        if (!resolution) return Fail("$timescale '" + text + "' is no time unit");
        m_result.resolution = *resolution;
        m_sawTimescale = true;
        if (!m_w.SetResolution(*resolution)) return Fail("a second $timescale");
        return true;
    }

    // The parent and position of the next declaration.
    std::pair<int, int> NextPlace() {
        if (m_scopes.empty()) return {-1, 0};
        return {m_scopes.back().handle, m_scopes.back().children++};
    }

    bool DeclareScope(const std::vector<std::string>& words) {
        if (words.size() < 2) return Fail("$scope needs a type and a name");
        std::string name = words[1];
        for (std::size_t i = 2; i < words.size(); ++i) name += " " + words[i];
        const auto [parent, position] = NextPlace();
        const int handle = m_nextHandle++;
        if (!Check(m_w.StoreSignal(handle, Tarvel::kPortNone, parent, position, name.c_str(), 0))) return false;
        m_scopes.push_back({handle, 0, m_path.size()});
        m_path += name + ".";
        ++m_result.scopes;
        return true;
    }

    bool DeclareVar(const std::vector<std::string>& words) {
        if (words.size() < 4) return Fail("$var needs a type, a size, an identifier code and a name");
        std::uint32_t size = 0;
        const std::string& sizeText = words[1];
        auto [end, error] = std::from_chars(sizeText.data(), sizeText.data() + sizeText.size(), size);
        if (error != std::errc() || end != sizeText.data() + sizeText.size()) {
            return Fail("$var size '" + sizeText + "' is no number");
        }
        std::string reference = words[3];
        for (std::size_t i = 4; i < words.size(); ++i) reference += " " + words[i];
        const VarClass varClass = Vcd::ClassifyVarType(words[0]);
        // Integers wider than 64 bits are kept as vectors; reals have whatever size is written.
        const bool vectorLike = varClass == VarClass::kLogic || (varClass == VarClass::kInteger && size > 64);
        const Vcd::Reference ref = Vcd::SplitReference(reference, vectorLike || varClass == VarClass::kInteger ? size : 1);
        const std::uint32_t index = static_cast<std::uint32_t>(m_vars.size());
        m_vars.emplace_back();
        m_names.push_back(m_path + ref.name);
        Var& var = m_vars.back();
        var.width = size;
        const std::uint32_t first = m_codes.Insert(words[2], index);
        if (first != index) {  // an alias: changes of the code go to every variable that has it
            var.alias = m_vars[first].alias;
            m_vars[first].alias = index;
        }
        if (varClass == VarClass::kString || varClass == VarClass::kUnknown) {
            return Skip(index, varClass == VarClass::kString ? "string variable not imported (the waveform format has no strings)"
                                                             : "variable type '" + words[0] + "' not imported");
        }
        if (size == 0 && varClass != VarClass::kReal) return Skip(index, "variable of size 0 not imported");
        if (vectorLike && size > m_options.maxVectorWidth) return Skip(index, "vector of " + sizeText + " bits not imported");
        if (m_nextHandle > INT_MAX - 1 - static_cast<int>(vectorLike ? size : 0)) return Fail("too many variables");
        if (!Declare(var, varClass, words[0], ref, vectorLike)) return false;
        ++m_result.variables;
        return true;
    }

    bool Skip(std::uint32_t index, const std::string& why) {
        Warn(m_names[index] + ": " + why);
        ++m_result.skipped;
        return true;  // kSkipped: its values are ignored without a word
    }

    bool Declare(Var& var, VarClass varClass, const std::string& keyword, const Vcd::Reference& ref, bool vectorLike) {
        const auto [parent, position] = NextPlace();
        var.handle = m_nextHandle++;
        const char* name = ref.name.c_str();
        if (vectorLike && (var.width > 1 || ref.hasRange)) {
            var.kind = Kind::kVector;
            var.value = m_chars.size();
            m_chars.resize(m_chars.size() + var.width, '\0');
            if (!Check(m_w.SetTypeInfo(var.handle, Vcd::VectorType(ref.range).c_str()) &&
                       m_w.StoreBus(var.handle, Tarvel::kPortSignal, static_cast<int>(var.width), parent, position, name, 0))) {
                return false;
            }
            for (std::uint32_t bit = 0; bit < var.width; ++bit) {
                const int element = m_nextHandle++;
                if (!Check(m_w.SetTypeInfo(element, Vcd::kStdLogicType) &&
                           m_w.StoreSignal(element, Tarvel::kPortSignal, var.handle, static_cast<int>(bit), name, 0))) {
                    return false;
                }
            }
            return true;
        }
        std::string type;
        switch (varClass) {
            case VarClass::kLogic: var.kind = Kind::kLogic; type = Vcd::kStdLogicType; break;
            case VarClass::kEvent: var.kind = Kind::kEvent; type = Vcd::kEventType; break;
            case VarClass::kInteger:
                var.kind = var.width <= 32 ? Kind::kInteger : Kind::kLong;
                var.isSigned = keyword != "time";
                type = Vcd::ScalarType(varClass, keyword, var.width);
                break;
            default: var.kind = Kind::kReal; type = Vcd::ScalarType(varClass, keyword, var.width); break;
        }
        return Check(m_w.SetTypeInfo(var.handle, type.c_str()) &&
                     m_w.StoreSignal(var.handle, Tarvel::kPortSignal, parent, position, name, 0));
    }

    // ---- Value changes ----

    void ReadChanges() {
        std::string_view word;
        while (m_in.NextWord(&word)) {
            bool ok;
            switch (word[0]) {
                case '#': ok = ChangeTime(word); break;
                case 'b': case 'B': ok = ChangeVector(word.substr(1)); break;
                case 'r': case 'R': ok = ChangeReal(word.substr(1)); break;
                case 's': case 'S': ok = ChangeString(); break;
                case '$': ok = Keyword(word); break;
                default:
                    if (Vcd::LogicCode(word[0]) == Vcd::kNoCode) {
                        ok = Fail(Quoted(word) + " is no value change");
                    } else {
                        ok = ChangeScalar(word);
                    }
                    break;
            }
            if (!ok) return;
        }
        if (m_in.ReadError()) Fail(m_in.ReadErrorText());
    }

    bool Keyword(std::string_view word) {
        if (word == "$dumpvars" || word == "$dumpall" || word == "$dumpon" || word == "$dumpoff" || word == "$end") {
            return true;
        }
        if (word == "$comment") {
            std::vector<std::string> words;
            return ReadSection(word, &words);
        }
        return Fail(std::string(word.substr(0, 40)) + " after $enddefinitions");
    }

    bool ChangeTime(std::string_view word) {
        std::uint64_t time = 0;
        const char* end = word.data() + word.size();
        auto [last, error] = std::from_chars(word.data() + 1, end, time);
        if (error != std::errc() || last != end || time > static_cast<std::uint64_t>(INT64_MAX)) {
            return Fail(Quoted(word) + " is no time");
        }
        const int64 t = static_cast<int64>(time);
        if (t == m_time) return true;
        if (t < m_time) return Fail("time goes back from #" + std::to_string(m_time) + " to #" + std::to_string(t));
        if (m_sinceCommit >= m_options.commitEvents) {
            m_pipe->CommitAndResume();
            ++m_result.commits;
            m_sinceCommit = m_sinceFlush = 0;
        } else if (m_sinceFlush >= m_options.flushEvents) {
            m_pipe->Flush();
            m_sinceFlush = 0;
        }
        if (!Check(!m_pipe->Failed())) return false;
        m_pipe->SetTime(t);
        m_time = t;
        m_delta = 0;
        ++m_stamp;
        if (m_progress) m_progress->Update(m_in.Consumed());
        return true;
    }

    // The variable of the code after a value; kNone (reported once per code) when undeclared.
    std::uint32_t Lookup(std::string_view code) {
        const std::uint32_t index = m_codes.Find(code);
        if (index == kNone && m_unknownCodes.insert(std::string(code)).second) {
            Warn("value change for the undeclared identifier code '" + std::string(code) + "' ignored");
        }
        return index;
    }

    // Makes the var's change the next one of its (time, delta): a second change of a variable at
    // one time goes to the next delta cycle.
    bool BeginChange(Var& var) {
        if (var.stamp == m_stamp) {
            m_pipe->SetDelta(++m_delta);
            ++m_stamp;
        }
        var.stamp = m_stamp;
        return true;
    }

    // Stores `value` (the writer reads 4 or 8 of its bytes, by the handle's type). A failure of
    // the writer shows at the next time change.
    bool Store(int handle, std::uint64_t value, bool wide = false) {
        ++m_result.events;
        ++m_sinceFlush;
        ++m_sinceCommit;
        if (wide) {
            m_pipe->StoreWideValue(handle, value);
        } else {
            m_pipe->StoreValue(handle, static_cast<std::uint32_t>(value));
        }
        return true;
    }

    // Stores a scalar value or a changed one.
    bool StoreIfChanged(Var& var, std::uint64_t value) {
        if (var.known && var.value == value && var.kind != Kind::kEvent) return true;
        if (!BeginChange(var)) return false;
        var.value = value;
        var.known = true;
        return Store(var.handle, value, var.kind == Kind::kLong || var.kind == Kind::kReal);
    }

    bool ChangeScalar(std::string_view word) {
        const std::string_view code = word.substr(1);
        if (code.empty()) return Fail("scalar value '" + std::string(word) + "' without identifier code");
        for (std::uint32_t index = Lookup(code); index != kNone; index = m_vars[index].alias) {
            if (!SetDigits(index, word.substr(0, 1))) return false;
        }
        return true;
    }

    bool ChangeVector(std::string_view digits) {
        std::string_view code;
        if (!m_in.NextWordKeeping(&digits, &code)) return Fail("vector value without identifier code");
        if (digits.empty()) return Fail("vector value without digits");
        for (std::uint32_t index = Lookup(code); index != kNone; index = m_vars[index].alias) {
            if (!SetDigits(index, digits)) return false;
        }
        return true;
    }

    // A value given as digits (scalar or vector) to variable `index`.
    bool SetDigits(std::uint32_t index, std::string_view digits) {
        Var& var = m_vars[index];
        switch (var.kind) {
            case Kind::kLogic:
            case Kind::kEvent: {
                const std::uint8_t code = Vcd::LogicCode(Vcd::ExtendedDigit(digits, 1, 0));
                if (code == Vcd::kNoCode) return BadDigits(var, index, digits);
                return StoreIfChanged(var, code);
            }
            case Kind::kVector: return SetVector(var, index, digits);
            case Kind::kInteger:
            case Kind::kLong: return SetInteger(var, index, digits);
            case Kind::kReal: WarnValue(var, index, "bit value '" + std::string(digits.substr(0, 40)) + "' for a real variable ignored"); return true;
            case Kind::kSkipped: return true;
        }
        return true;
    }

    bool BadDigits(Var& var, std::uint32_t index, std::string_view digits) {
        WarnValue(var, index, "value '" + std::string(digits.substr(0, 40)) + "' has a character that is no VCD value; ignored");
        return true;
    }

    // Stores the bits whose character changed. The bits' current characters are kept as given
    // (not as codes), so that unchanged bits are found eight at a time.
    bool SetVector(Var& var, std::uint32_t index, std::string_view digits) {
        const std::uint32_t width = var.width;
        const char* given = digits.data();
        if (digits.size() > width) {
            WarnValue(var, index, "value of " + std::to_string(digits.size()) + " digits for " + std::to_string(width) +
                                      " bits: the leftmost digits dropped");
            given += digits.size() - width;
        } else if (digits.size() < width) {
            m_scratch.assign(width - digits.size(), Vcd::ExtendedDigit(digits, width, 0));
            m_scratch.append(digits);
            given = m_scratch.data();
        }
        char* current = m_chars.data() + var.value;
        // The differing bits, eight at a time, with their codes; a character that is no value
        // makes the whole value ignored before anything is stored.
        m_changed.clear();
        bool bad = false;
        auto note = [&](std::uint32_t at) {
            bad |= Vcd::LogicCode(given[at]) == Vcd::kNoCode;
            m_changed.push_back(at);
        };
        std::uint32_t bit = 0;
        for (; bit + 8 <= width; bit += 8) {
            std::uint64_t now, before;
            std::memcpy(&now, given + bit, 8);
            std::memcpy(&before, current + bit, 8);
            for (std::uint64_t diff = now ^ before; diff != 0;) {
                const unsigned byte = static_cast<unsigned>(__builtin_ctzll(diff)) / 8;
                note(bit + byte);
                diff &= ~(std::uint64_t{0xFF} << (8 * byte));
            }
        }
        for (; bit < width; ++bit) {
            if (given[bit] != current[bit]) note(bit);
        }
        if (bad) return BadDigits(var, index, digits);
        bool begun = false;
        for (std::uint32_t at : m_changed) {
            const std::uint8_t code = Vcd::LogicCode(given[at]);
            const bool same = code == Vcd::LogicCode(current[at]);  // 'x' after 'X'
            current[at] = given[at];
            if (same) continue;
            if (!begun && !BeginChange(var)) return false;
            begun = true;
            if (!Store(var.handle + 1 + static_cast<int>(at), code)) return false;
        }
        return true;
    }

    bool SetInteger(Var& var, std::uint32_t index, std::string_view digits) {
        std::uint64_t value = 0;
        const std::uint32_t width = var.width;
        for (std::uint32_t bit = 0; bit < width; ++bit) {
            const char c = Vcd::ExtendedDigit(digits, width, bit);
            if (c != '0' && c != '1') {
                WarnValue(var, index, "integer value '" + std::string(digits.substr(0, 70)) +
                                          "' with bits other than 0 and 1 ignored (and every later one)");
                return true;
            }
            value = value << 1 | static_cast<std::uint64_t>(c == '1');
        }
        if (var.isSigned && width < 64 && (value >> (width - 1) & 1)) value |= ~std::uint64_t{0} << width;
        if (var.kind == Kind::kInteger) value &= 0xFFFFFFFFu;
        return StoreIfChanged(var, value);
    }

    bool ChangeReal(std::string_view text) {
        std::string_view code;
        if (!m_in.NextWordKeeping(&text, &code)) return Fail("real value without identifier code");
        if (!text.empty() && text[0] == '+') text.remove_prefix(1);
        double number = 0;
        auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        const bool parsed = error == std::errc() && end == text.data() + text.size() && !text.empty();
        for (std::uint32_t index = Lookup(code); index != kNone; index = m_vars[index].alias) {
            Var& var = m_vars[index];
            if (var.kind == Kind::kSkipped) continue;
            if (var.kind != Kind::kReal) {
                WarnValue(var, index, "real value for a variable of bits ignored");
            } else if (!parsed) {
                WarnValue(var, index, "real value '" + std::string(text.substr(0, 40)) + "' is no number; ignored");
            } else {
                if (!var.reported) CheckPrecision(var, index, number);
                std::uint64_t bits;
                std::memcpy(&bits, &number, 8);
                if (!StoreIfChanged(var, bits)) return false;
            }
        }
        return true;
    }

    // The file keeps a real as printf's "%g": six significant digits. Reported once per variable,
    // at the first value that loses digits.
    void CheckPrecision(Var& var, std::uint32_t index, double number) {
        char kept[40];
        std::snprintf(kept, sizeof kept, "%g", number);
        const double back = std::strtod(kept, nullptr);
        if (back == number || std::isnan(number)) return;
        char given[40];
        std::snprintf(given, sizeof given, "%.17g", number);
        WarnValue(var, index, std::string("real values keep 6 significant digits in the waveform format (") + given +
                                  " becomes " + kept + ")");
    }

    bool ChangeString() {
        std::string_view code;
        if (!m_in.NextWord(&code)) return Fail("string value without identifier code");
        for (std::uint32_t index = Lookup(code); index != kNone; index = m_vars[index].alias) {
            Var& var = m_vars[index];
            if (var.kind != Kind::kSkipped) WarnValue(var, index, "string value for a variable of bits ignored");
        }
        return true;
    }

    VcdInput& m_in;
    Tarvel::ITarvelWrite& m_w;
    const VcdImportOptions& m_options;
    const VcdWarn& m_warn;
    Progress* m_progress;
    VcdWriterPipe* m_pipe = nullptr;      // the writer's calls while the values are read
    VcdImportResult m_result;

    std::vector<Var> m_vars;              // every $var, in declaration order
    std::vector<std::string> m_names;     // their full names, for reports
    std::vector<char> m_chars;            // the current character of every vector bit ('\0': none yet)
    std::string m_scratch;                // a short vector value extended to its width
    std::vector<std::uint32_t> m_changed; // the bits of a vector value that differ
    VcdCodeTable m_codes;                 // identifier code -> the first var that has it
    std::unordered_set<std::string> m_unknownCodes;  // undeclared codes reported so far
    std::vector<ScopeFrame> m_scopes;     // the open scopes, outermost first
    std::string m_path;                   // the open scopes' names, each followed by '.'
    int m_nextHandle = 0;                 // the next free handle
    bool m_sawTimescale = false;          // the header had a $timescale

    int64 m_time = 0;                     // the current time
    unsigned m_delta = 0;                 // the current delta cycle
    std::uint64_t m_stamp = 1;            // changes with every (time, delta)
    std::uint64_t m_sinceFlush = 0;       // events stored since the last flush
    std::uint64_t m_sinceCommit = 0;      // events stored since the last commit
};

}  // namespace

VcdImportResult ImportVcd(VcdInput& input, Tarvel::ITarvelWrite& writer, const VcdImportOptions& options,
                          const VcdWarn& warn, Progress* progress) {
    return Importer(input, writer, options, warn, progress).Run();
}

}  // namespace TarvelTool
