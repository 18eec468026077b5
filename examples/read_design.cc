// Example (docs/guide.md): reads a waveform file back with the raw reader and prints its
// design tree with full names, each signal's type and its first and last events as text (value
// through Sorvat::KTypeInfo, source through the file's source table), and its properties.
// Uses the public headers only.
//
// Usage: read_design <file>
#include <sorvat/typeinfo.h>
#include <tarvel/tarvel.h>

#include <cstdio>
#include <string>

namespace {

using Tarvel::IRawTarvelRead;
using SignalIterator = IRawTarvelRead::SignalIterator;

// The signal's local name: "clk", "(7)", "addr".
std::string LocalName(IRawTarvelRead& r, const SignalIterator& signal) {
    int size = 0;
    r.GetSignalPlace(signal, nullptr, nullptr, nullptr, &size, nullptr, nullptr);  // the length
    std::string name(static_cast<std::size_t>(size) + 1, '\0');                   // and the NUL
    size += 1;
    r.GetSignalPlace(signal, nullptr, nullptr, name.data(), &size, nullptr, nullptr);
    name.resize(static_cast<std::size_t>(size));
    return name;
}

// The full name: the local names from the top down, joined with '.', except that an element's
// index ("(7)") follows its bus directly.
std::string FullName(IRawTarvelRead& r, SignalIterator signal) {
    std::string full;
    while (signal != r.EndSignals()) {
        const bool index = !full.empty() && full[0] == '(';
        full = full.empty() ? LocalName(r, signal) : LocalName(r, signal) + (index ? "" : ".") + full;
        SignalIterator parent;
        r.GetSignalPlace(signal, nullptr, nullptr, nullptr, nullptr, &parent, nullptr);
        signal = parent;
    }
    return full;
}

// One event: time (in resolution units), "+delta" when not 0, value text and source.
std::string EventText(IRawTarvelRead& r, const Sorvat::KTypeInfo& type, const Tarvel::KEventData& e) {
    std::string text = std::to_string(e.GetTime());
    if (e.GetDelta() != 0) text.append("+").append(std::to_string(e.GetDelta()));
    unsigned char value[8] = {};
    char spelled[64];
    e.GetValue(value, sizeof value);
    text += type.GetValueString_OldFormatLen(spelled, sizeof spelled, value, 0, 0) ? std::string(" ") + spelled : " ?";
    const char* file = nullptr;
    int line = 0;
    if (e.GetSource() != 0 && r.GetSourcer().Translate(e.GetSource(), &file, &line)) {
        text += std::string(" @") + file + ":" + std::to_string(line);
    }
    return text;
}

// What the signal is, and its events: the first three and the last one.
std::string Describe(IRawTarvelRead& r, const SignalIterator& signal) {
    const int typeId = r.GetTypeId(signal);
    if (typeId < 0) {
        const char* group = r.GetProperty(signal, "VBus");
        return group && std::string(group) == "1" ? "virtual bus" : "scope";
    }
    const Sorvat::KTypeInfo type(r.GetTypeInfo(typeId));
    int children = 0;
    r.GetSignalPlace(signal, &children, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (!type.IsScalar()) return std::string("bus of ") + std::to_string(children) + " (" + type.GetTypeName() + ")";
    const Tarvel::KEventsStore* events = r.GetSignalData(signal);
    std::string text = std::string(type.GetTypeName()) + ", " + std::to_string(events->count()) +
                       (events->count() == 1 ? " event:" : " events:");
    Tarvel::KEventData e;
    for (bool more = events->GetFirstEvent(&e); more; more = events->GetNextEvent(&e)) {
        const int index = e.GetIndex();
        if (index < 3 || index == events->LastIndex()) text += (index ? ", " : " ") + EventText(r, type, e);
        if (index == 3 && events->LastIndex() > 3) text += ", ...";
    }
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: read_design <file>\n");
        return 2;
    }
    IRawTarvelRead* r = Tarvel::CreateRawTarvelRead(argv[1]);
    if (!r) {
        std::fprintf(stderr, "read_design: cannot read %s (never committed, or damaged)\n", argv[1]);
        return 1;
    }
    std::printf("%s file, time unit %lld fs, end time %lld\n", r->IsTimed() ? "timed" : "untimed",
                static_cast<long long>(r->GetResolution()), static_cast<long long>(r->GetEndTime()));
    for (const char* name : {"Project", "TopLevel"}) {
        const char* value = r->GetProperty(-1, name);
        std::printf("%s: %s\n", name, value ? value : "(none)");
    }
    for (SignalIterator signal = r->BeginSignals(); signal != r->EndSignals(); ++signal) {
        std::printf("%s: %s\n", FullName(*r, signal).c_str(), Describe(*r, signal).c_str());
    }
    // Every (property line, signal) pair; signal -1 is the file.
    for (auto p = r->BeginProperties(); p != r->EndProperties(); ++p) {
        const std::string owner = p->signalNr == -1 ? "the file" : FullName(*r, r->FindSignal(p->signalNr));
        std::printf("property %s of %s at %lld: %s\n", p->name, owner.c_str(), static_cast<long long>(p->time), p->value);
    }
    Tarvel::DeleteRawTarvelRead(r);
    return 0;
}
