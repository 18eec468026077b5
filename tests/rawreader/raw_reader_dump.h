// Renders everything a raw reader presents (signals with their place, type, properties and
// events, the property walk, types, sources) as text, one item a line, checking the invariants
// every reader keeps: a broken one adds a line starting "!!" and counts in *faults. Shared by the
// raw-reader tests and fuzz target; single-threaded.
#ifndef TARVEL_TESTS_RAWREADER_RAW_READER_DUMP_H
#define TARVEL_TESTS_RAWREADER_RAW_READER_DUMP_H

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "tarvel/raw_reader.h"

namespace Tarvel::Testing {

// " time/delta=value[@source]" of one event, from the 8 bytes at `bytes`; reals as %.17g.
inline std::string EventText(std::int64_t time, unsigned delta, const unsigned char* bytes, int size, bool real,
                             int source) {
    std::int32_t v32;
    std::int64_t v64;
    double d;
    std::memcpy(&v32, bytes, 4);
    std::memcpy(&v64, bytes, 8);
    std::memcpy(&d, bytes, 8);
    char text[96];
    int at = std::snprintf(text, sizeof text, " %" PRId64 "/%u=", time, delta);
    at += size == 4 ? std::snprintf(text + at, sizeof text - at, "%" PRId32, v32)
          : real    ? std::snprintf(text + at, sizeof text - at, "%.17g", d)
                    : std::snprintf(text + at, sizeof text - at, "%" PRId64, v64);
    if (source != 0) std::snprintf(text + at, sizeof text - at, "@%d", source);
    return text;
}

// Every event of the store (at most `limit`, then " ...").
inline std::string DumpEvents(const KEventsStore& store, bool real, unsigned limit) {
    std::string out;
    KEventData data;
    unsigned n = 0;
    for (bool ok = store.GetFirstEvent(&data); ok && n < limit; ok = store.GetNextEvent(&data), ++n) {
        unsigned char bytes[8] = {};
        data.GetValue(bytes, 8);
        out += EventText(data.GetTime(), data.GetDelta(), bytes, store.GetSize(), real, data.GetSource());
    }
    return n == limit ? out + " ..." : out;
}

inline bool SameStore(const KEventsStore* a, const KEventsStore* b) { return a == b || (a && b && *a == *b); }

inline std::string Dump(IRawTarvelRead& r, unsigned eventLimit = ~0u, int* faults = nullptr) {
    std::string o;
    auto line = [&o, faults](const std::string& text) {
        if (faults && text.rfind("!!", 0) == 0) ++*faults;
        o += text + "\n";
    };
    auto str = [](const char* text) { return text ? std::string(text) : std::string("(null)"); };
    line("file timed=" + std::to_string(r.IsTimed()) + " resolution=" + std::to_string(r.GetResolution()) +
         " end=" + std::to_string(r.GetEndTime()));
    for (const char* name : {"Project", "TopLevel"}) {
        if (const char* v = r.GetProperty(-1, name)) line(std::string("top ") + name + "=" + v);
    }
    // The listing keeps every type line; an id given twice answers its later text.
    for (const std::pair<int, const char*>* t = r.BeginTypes(); t != r.EndTypes(); ++t) {
        line("type " + std::to_string(t->first) + " " + str(t->second));
        const std::pair<int, const char*>* last = t;
        for (const std::pair<int, const char*>* u = t + 1; u != r.EndTypes(); ++u) {
            if (u->first == t->first) last = u;
        }
        if (str(r.GetTypeInfo(t->first)) != str(last->second)) line("!! type text");
    }
    std::map<int, std::set<std::string>> names;
    std::string properties;
    for (IRawTarvelRead::PropertyIterator p = r.BeginProperties(); p != r.EndProperties(); ++p) {
        properties += "property " + std::to_string(p->signalNr) + " " + std::to_string((*p).time) + " " + str(p->name) +
                      "=" + str(p->value) + "\n";
        names[p->signalNr].insert(str(p->name));
    }
    const IRawTarvelRead::SignalIterator begin = r.BeginSignals(), end = r.EndSignals();
    int nr = 0;
    for (IRawTarvelRead::SignalIterator it = begin; it != end; ++it, ++nr) {
        if (it.GetSignalNr() != nr || it - begin != nr || *it != it.GetSignalHandle() || !(begin < end)) {
            line("!! signal numbering");
        }
        int children = -7, position = -7, nameSize = 4096;
        std::int64_t endTime = -7;
        char name[4096];
        IRawTarvelRead::SignalIterator parent = it;
        if (!r.GetSignalPlace(it, &children, &endTime, name, &nameSize, &parent, &position)) line("!! no place");
        // A quoted name may hold NUL bytes: the length is the reported one, with a NUL after it.
        if (nameSize < 0 || nameSize >= 4096 || name[nameSize] != '\0') {
            line("!! name size");
            continue;
        }
        // A short buffer: the name cut to fit with its NUL, the full length reported.
        int shortSize = 3;
        std::unique_ptr<char[]> cut(new char[3]);
        r.GetSignalPlace(it, nullptr, nullptr, cut.get(), &shortSize, nullptr, nullptr);
        if (shortSize != nameSize || std::strncmp(cut.get(), name, 2) != 0 || std::strlen(cut.get()) > 2) {
            line("!! short name buffer");
        }
        const int type = r.GetTypeId(it);
        const bool unique = r.FindSignal(*it) == it;
        if (unique) {
            int c2 = -7, p2 = -7;
            std::int64_t e2 = -7;
            IRawTarvelRead::SignalIterator parent2 = it;
            if (!r.GetSignalPlace(*it, &c2, &e2, nullptr, nullptr, &parent2, &p2) || c2 != children || e2 != endTime ||
                p2 != position || parent2 != parent || r.GetTypeId(*it) != type ||
                !SameStore(r.GetSignalData(*it), r.GetSignalData(it))) {
                line("!! by number differs");
            }
        }
        const char* typeText = r.GetTypeInfo(type);
        line("signal " + std::to_string(*it) + " nr=" + std::to_string(nr) + " name=" + std::string(name, static_cast<std::size_t>(nameSize)) +
             " type=" + (typeText || type > 0 ? std::to_string(type) : "none") +
             " parent=" + (parent == end ? "-" : std::to_string(*parent)) + " pos=" + std::to_string(position) +
             " children=" + std::to_string(children) + " end=" + std::to_string(endTime));
        std::set<std::string> asked = names[*it];
        asked.insert({"CS", "Hidden", "VBus"});
        for (const std::string& n : asked) {
            const char* v = r.GetProperty(it, n.c_str());
            // By number, -1 asks for the file's own properties, so a signal numbered -1 (a damaged
            // or hand-written file) answers differently there.
            if (unique && *it != -1 && str(v) != str(r.GetProperty(*it, n.c_str()))) {
                line("!! property by number differs");
            }
            if (v) line("  prop " + n + "=" + v);
        }
        const KEventsStore* store = r.GetSignalData(it);
        if (!store) {
            line("!! no store");
        } else if (!store->empty()) {
            line("  events size=" + std::to_string(store->GetSize()) + ":" +
                 DumpEvents(*store, typeText && typeText[0] == 'f', eventLimit));
        }
    }
    o += properties;
    const KSourcer& sources = r.GetSourcer();
    for (unsigned n = 1; n <= sources.GetSourcePointsCount() && n < 100000; ++n) {
        const char* file = nullptr;
        int lineNr = 0;
        if (sources.Translate(static_cast<int>(n), &file, &lineNr)) line("source " + std::to_string(n) + " " + file + ":" + std::to_string(lineNr));
    }
    return o;
}

}  // namespace Tarvel::Testing

#endif  // TARVEL_TESTS_RAWREADER_RAW_READER_DUMP_H
