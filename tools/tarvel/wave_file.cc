// The file and its signal table. Tool layer; one thread.
#include "wave_file.h"

#include "signal_tree.h"

#include <tarvel/diagnostics.h>
#include <tarvel/port_mode.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>

namespace TarvelTool {
namespace {

using SignalIterator = Tarvel::IRawTarvelRead::SignalIterator;

}  // namespace

std::unique_ptr<WaveFile> WaveFile::Open(const char* command, const std::string& path) {
    Tarvel::IRawTarvelRead* reader = Tarvel::CreateRawTarvelRead(path.c_str());
    if (!reader) {
        if (command) ReportUnreadable(command, path);
        return nullptr;
    }
    return std::unique_ptr<WaveFile>(new WaveFile(path, reader));
}

void ReportUnreadable(const char* command, const std::string& path) {
    Tarvel::TarvelDiagnosis diagnosis;
    Tarvel::DiagnoseTarvelFile(path.c_str(), &diagnosis);
    std::fprintf(stderr, "tarvel %s: %s\n", command, FaultText(path, diagnosis).c_str());
}

WaveFile::WaveFile(std::string path, Tarvel::IRawTarvelRead* reader) : m_path(std::move(path)), m_reader(reader) {
    Build();
}

WaveFile::~WaveFile() { Tarvel::DeleteRawTarvelRead(m_reader); }

bool WaveFile::Continue() {
    if (!m_reader->Continue()) return false;
    Build();
    return true;
}

int WaveFile::Find(std::string_view fullName) const {
    for (std::size_t i = 0; i < m_signals.size(); ++i) {
        if (m_signals[i].fullName == fullName) return static_cast<int>(i);
    }
    return -1;
}

void WaveFile::ChooseWithDescendants(int index, std::vector<bool>& chosen) const {
    std::vector<int> pending{index};
    while (!pending.empty()) {
        const int at = pending.back();
        pending.pop_back();
        if (chosen[static_cast<std::size_t>(at)]) continue;  // a damaged file may loop
        chosen[static_cast<std::size_t>(at)] = true;
        for (int child : m_signals[static_cast<std::size_t>(at)].children) pending.push_back(child);
    }
}

void WaveFile::Build() {
    Tarvel::IRawTarvelRead& r = *m_reader;
    m_signals.clear();
    m_top.clear();
    std::map<int, Sorvat::KTypeInfo> types;  // parsed once per type id
    for (SignalIterator it = r.BeginSignals(); it != r.EndSignals(); ++it) {
        SignalInfo s;
        s.handle = it.GetSignalHandle();
        SignalIterator parent;
        r.GetSignalPlace(it, nullptr, nullptr, nullptr, nullptr, &parent, &s.position);
        s.parent = parent == r.EndSignals() ? -1 : parent.GetSignalNr();
        s.name = Tarvel::Client::LocalName(r, it);
        const int typeId = r.GetTypeId(it);
        if (typeId >= 0) {
            auto found = types.find(typeId);
            if (found == types.end()) found = types.emplace(typeId, Sorvat::KTypeInfo(r.GetTypeInfo(typeId))).first;
            s.type = found->second;
        }
        s.kind = Tarvel::Client::KindOf(r, it, typeId >= 0 ? &s.type : nullptr);
        Tarvel::GetSignalPortMode(&r, s.handle, &s.mode);
        m_signals.push_back(std::move(s));
    }
    for (std::size_t i = 0; i < m_signals.size(); ++i) {
        SignalInfo& s = m_signals[i];
        if (s.parent >= 0 && m_signals[static_cast<std::size_t>(s.parent)].kind == SignalKind::kBus && s.mode == 0) {
            s.mode = m_signals[static_cast<std::size_t>(s.parent)].mode;  // elements have no mode of their own
        }
    }
    Tarvel::Client::LinkSignalTree(m_signals, &m_top);
}

// "PATH:LINE:COLUMN: reason", or "PATH: reason" without a place.
std::string FaultText(const std::string& path, const Tarvel::TarvelDiagnosis& d) {
    if (d.line == 0) return path + ": " + d.reason;
    return path + ":" + std::to_string(d.line) + ":" + std::to_string(d.column) + ": " + d.reason;
}

}  // namespace TarvelTool
