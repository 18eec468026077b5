// Opening a file (whole or filtered by name), its signal table and reading on. Python binding
// layer.
#include "read_file.h"

#include "signal_tree.h"

#include <tarvel/diagnostics.h>
#include <tarvel/port_mode.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <unordered_map>

namespace TarvelPython {
namespace {

using SignalIterator = Tarvel::IRawTarvelRead::SignalIterator;
using Listing = std::vector<std::pair<int, std::string>>;

// The attributes that the property walk may not show (the raw reader answers them by name).
constexpr const char* kAttributes[] = {"Stimulator", "EmptyRow", "Expression"};

bool Below(const std::string& fullName, const std::string& above) {
    return fullName.size() > above.size() && fullName.compare(0, above.size(), above) == 0 &&
           (fullName[above.size()] == '.' || fullName[above.size()] == '(');
}

// The handles (with their listed names) that `names` pick: each name's declaration and those
// below it; for a name not declared (an element or field), the nearest declaration above it,
// the name then going to `unmatched`.
std::map<int, std::vector<std::string>> Pick(const Listing& listing, const std::vector<std::string>& names,
                                             std::vector<std::string>* unmatched) {
    std::map<int, std::vector<std::string>> picked;
    for (const std::string& name : names) {
        bool found = false;
        const std::pair<int, std::string>* nearest = nullptr;
        for (const auto& declaration : listing) {
            if (declaration.second == name || Below(declaration.second, name)) {
                picked[declaration.first].push_back(declaration.second);
                found = true;
            } else if (Below(name, declaration.second) && (!nearest || declaration.second.size() > nearest->second.size())) {
                nearest = &declaration;
            }
        }
        if (!found && nearest) picked[nearest->first].push_back(nearest->second);
        if (!found) unmatched->push_back(name);
    }
    return picked;
}

// A selection for CreateFilteredRawTarvelRead: the names stay in `picked`, which must outlive it.
class Selection {
public:
    explicit Selection(const std::map<int, std::vector<std::string>>& picked) {
        m_pointers.reserve(picked.size());
        for (const auto& [handle, fullNames] : picked) {
            m_pointers.emplace_back();
            for (const std::string& fullName : fullNames) m_pointers.back().push_back(const_cast<char*>(fullName.c_str()));
            m_selection[handle] = &m_pointers.back();
        }
    }
    Tarvel::IRawTarvelRead* Read(const std::string& path) { return Tarvel::CreateFilteredRawTarvelRead(path.c_str(), &m_selection); }

private:
    std::vector<std::vector<char*>> m_pointers;
    std::map<int, std::vector<char*>*> m_selection;
};

// Whether a listed declaration is one that `picked` selects (the filtered reader's test: its
// handle is a key and its full name one of the key's names, or its declared name is empty).
bool Selects(const std::map<int, std::vector<std::string>>& picked, const std::pair<int, std::string>& declaration) {
    const auto found = picked.find(declaration.first);
    if (found == picked.end()) return false;
    const std::string& full = declaration.second;
    if (full.empty() || full.back() == '.') return true;  // a declaration without a name
    return std::find(found->second.begin(), found->second.end(), full) != found->second.end();
}

bool SameChoice(const Listing& listing, const std::map<int, std::vector<std::string>>& a,
                const std::map<int, std::vector<std::string>>& b) {
    for (const auto& declaration : listing) {
        if (Selects(a, declaration) != Selects(b, declaration)) return false;
    }
    return true;
}

// Handles the guessed selection spans, and the most names it copies in all.
constexpr int kGuessedHandles = 1 << 16;
constexpr std::size_t kGuessedNames = 1 << 18;

// Every handle below a bound, each with the names asked for (and, for an element "x(7)", its
// bus "x"): the filtered reader keeps exactly the declarations so named whose handle is below
// the bound.
std::map<int, std::vector<std::string>> Guess(const std::vector<std::string>& names) {
    std::vector<std::string> wanted = names;
    for (const std::string& name : names) {
        const std::size_t index = name.rfind('(');
        if (!name.empty() && name.back() == ')' && index != std::string::npos && index > 0) wanted.push_back(name.substr(0, index));
    }
    const int handles = static_cast<int>(std::min<std::size_t>(kGuessedHandles, kGuessedNames / wanted.size()));
    std::map<int, std::vector<std::string>> guess;
    for (int handle = 0; handle < handles; ++handle) guess.emplace_hint(guess.end(), handle, wanted);
    return guess;
}

}  // namespace

FileError::FileError(std::string path, std::string reason, long long line, long long column)
    : std::runtime_error(line > 0 ? path + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " + reason
                                  : path + ": " + reason),
      m_path(std::move(path)), m_reason(std::move(reason)), m_line(line), m_column(column) {}

void ThrowUnreadable(const std::string& path) {
    Tarvel::TarvelDiagnosis d;
    Tarvel::DiagnoseTarvelFile(path.c_str(), &d);
    if (d.readable) {  // the whole file reads: what failed is the filtered read
        throw FileError(path, d.version == 4 ? "the file changed while it was read"
                                             : "reading named signals needs a file of layout 4 ($WAVE4); open it whole",
                        0, 0);
    }
    throw FileError(path, d.reason, d.line, d.column);
}

Listing ListDeclarations(const std::string& path) {
    std::unordered_map<int, std::vector<Tarvel::SIGINFO*>*> result;
    Tarvel::CreateRawTarvelPreRead(path.c_str(), &result);
    Listing listing;
    try {
        for (const auto& [handle, records] : result) {
            for (const Tarvel::SIGINFO* record : *records) listing.emplace_back(handle, record->name);
        }
    } catch (...) {
        Tarvel::DeleteRawTarvelPreRead(&result);
        throw;
    }
    Tarvel::DeleteRawTarvelPreRead(&result);
    // The listing is a hash table: by handle, a handle declared twice in file order.
    std::stable_sort(listing.begin(), listing.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    return listing;
}

// Reading named signals takes their handles, which only the listing finds, by a scan of the
// file, before the filtered read, a second scan. So the filtered read runs first on a guessed
// selection (Guess); when it holds a signal or bus of every name, it is the answer: one scan.
// Otherwise (a scope's name, which picks what is below it; a name the guess does not find) the
// listing decides: the guessed read when it keeps what the names pick, else a read of the
// listed handles.
std::unique_ptr<ReadFile> ReadFile::Open(const std::string& path, const std::vector<std::string>* names) {
    if (!names) {
        Tarvel::IRawTarvelRead* reader = Tarvel::CreateRawTarvelRead(path.c_str());
        if (!reader) ThrowUnreadable(path);
        return std::unique_ptr<ReadFile>(new ReadFile(path, reader, false));
    }
    if (names->empty()) {
        Tarvel::IRawTarvelRead* reader = Selection({}).Read(path);
        if (!reader) ThrowUnreadable(path);
        return std::unique_ptr<ReadFile>(new ReadFile(path, reader, true));
    }
    const std::map<int, std::vector<std::string>> guess = Guess(*names);
    Tarvel::IRawTarvelRead* reader = Selection(guess).Read(path);
    if (!reader) ThrowUnreadable(path);
    std::unique_ptr<ReadFile> guessed(new ReadFile(path, reader, true));
    if (guessed->HoldsSignalsNamed(*names)) return guessed;
    const Listing listing = ListDeclarations(path);
    std::vector<std::string> unmatched;
    const std::map<int, std::vector<std::string>> picked = Pick(listing, *names, &unmatched);
    if (!SameChoice(listing, guess, picked)) {
        guessed.reset();  // its memory, before the second read
        reader = Selection(picked).Read(path);
        if (!reader) ThrowUnreadable(path);
        guessed.reset(new ReadFile(path, reader, true));
    }
    guessed->m_unmatched = std::move(unmatched);
    return guessed;
}

// True when each name is the full name of a held signal with a type that is no scope or
// virtual bus: a signal, a bus, an element. (Such a name picks nothing below it but the bus's
// own parts, which come with the bus.)
bool ReadFile::HoldsSignalsNamed(const std::vector<std::string>& names) const {
    std::unordered_map<std::string_view, const SignalRecord*> byName;
    for (const SignalRecord& s : m_signals) byName.emplace(s.fullName, &s);
    for (const std::string& name : names) {
        const auto found = byName.find(name);
        if (found == byName.end() || !found->second->type) return false;
    }
    return true;
}

ReadFile::ReadFile(std::string path, Tarvel::IRawTarvelRead* reader, bool filtered)
    : m_path(std::move(path)), m_reader(reader), m_filtered(filtered) {
    try {
        Build();
    } catch (...) {
        Tarvel::DeleteRawTarvelRead(m_reader);
        throw;
    }
}

ReadFile::~ReadFile() { Tarvel::DeleteRawTarvelRead(m_reader); }

const Tarvel::KEventsStore* ReadFile::Store(int index) {
    if (index < 0 || static_cast<std::size_t>(index) >= m_signals.size()) return nullptr;
    return m_reader->GetSignalData(m_signals[static_cast<std::size_t>(index)].handle);
}

void ReadFile::Update() {
    ++m_generation;  // the stores may move even when reading on fails
    if (!m_reader->Continue()) ThrowUnreadable(m_path);
    Build();
}

void ReadFile::Build() {
    Tarvel::IRawTarvelRead& r = *m_reader;
    std::vector<SignalRecord> signals;
    for (SignalIterator it = r.BeginSignals(); it != r.EndSignals(); ++it) {
        SignalRecord s;
        s.handle = it.GetSignalHandle();
        SignalIterator parent;
        r.GetSignalPlace(it, nullptr, nullptr, nullptr, nullptr, &parent, &s.position);
        s.parent = parent == r.EndSignals() ? -1 : parent.GetSignalNr();
        s.name = Tarvel::Client::LocalName(r, it);
        if (const char* text = r.GetTypeInfo(r.GetTypeId(it))) {
            auto found = m_types.find(text);
            if (found == m_types.end()) {
                const Sorvat::KTypeInfo type(text);
                if (type.IsValid()) found = m_types.emplace(text, std::make_shared<TypeFacts>(type)).first;
            }
            if (found != m_types.end()) s.type = found->second;
        }
        s.kind = Tarvel::Client::KindOf(r, it, s.type ? &s.type->Type() : nullptr);
        Tarvel::GetSignalPortMode(&r, s.handle, &s.mode);
        signals.push_back(std::move(s));
    }
    m_signals.swap(signals);
    for (SignalRecord& s : m_signals) {
        const bool element = s.parent >= 0 && m_signals[static_cast<std::size_t>(s.parent)].kind == SignalKind::kBus;
        if (element && s.mode == 0) s.mode = m_signals[static_cast<std::size_t>(s.parent)].mode;
    }
    Tarvel::Client::LinkSignalTree(m_signals, nullptr);
    ReadProperties();
}

// Each signal's properties (the last value of a name wins) and the file's own.
void ReadFile::ReadProperties() {
    Tarvel::IRawTarvelRead& r = *m_reader;
    std::unordered_map<int, std::size_t> byHandle;
    for (std::size_t i = 0; i < m_signals.size(); ++i) byHandle.emplace(m_signals[i].handle, i);
    m_fileProperties.clear();
    for (auto p = r.BeginProperties(); p != r.EndProperties(); ++p) {
        if (p->signalNr == -1) {
            m_fileProperties[p->name] = p->value;
            continue;
        }
        const auto found = byHandle.find(p->signalNr);
        if (found != byHandle.end()) m_signals[found->second].properties[p->name] = p->value;
    }
    for (SignalRecord& s : m_signals) {
        for (const char* name : kAttributes) {
            if (const char* value = r.GetProperty(s.handle, name)) s.properties[name] = value;
        }
    }
}

}  // namespace TarvelPython
