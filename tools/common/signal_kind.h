// What a signal of a file is to a client of the public interface (the tool and the Python
// module), and its local name, from the raw reader. Header only; one thread.
#ifndef TARVEL_TOOLS_COMMON_SIGNAL_KIND_H
#define TARVEL_TOOLS_COMMON_SIGNAL_KIND_H

#include <cstddef>
#include <cstring>
#include <string>

#include "sorvat/typeinfo.h"
#include "tarvel/raw_reader.h"

namespace Tarvel::Client {

enum class SignalKind {
    kScope,       // no type, no "VBus": a design scope
    kVirtualBus,  // no type, "VBus" = "1": a group of signals for viewers
    kBus,         // an array or record type: its elements carry the values
    kScalar,      // a type with values
    kOpaque,      // a type without values that is no bus (access, file, unknown)
};

inline const char* KindName(SignalKind kind) {
    switch (kind) {
        case SignalKind::kScope: return "scope";
        case SignalKind::kVirtualBus: return "virtual bus";
        case SignalKind::kBus: return "bus";
        case SignalKind::kScalar: return "scalar";
        case SignalKind::kOpaque: return "opaque";
    }
    return "?";
}

// The kind of `signal`, whose type is `type` (null: the signal has none).
inline SignalKind KindOf(IRawTarvelRead& r, const IRawTarvelRead::SignalIterator& signal, const Sorvat::KTypeInfo* type) {
    if (!type) {
        const char* group = r.GetProperty(signal, "VBus");
        return group && std::strcmp(group, "1") == 0 ? SignalKind::kVirtualBus : SignalKind::kScope;
    }
    if (type->IsScalar()) return SignalKind::kScalar;
    const int kind = type->GetKind();
    return kind == Sorvat::kKindArray || kind == Sorvat::kKindRecord ? SignalKind::kBus : SignalKind::kOpaque;
}

// The signal's name within its parent, as declared (an element's "(7)").
inline std::string LocalName(IRawTarvelRead& r, const IRawTarvelRead::SignalIterator& signal) {
    int size = 0;
    r.GetSignalPlace(signal, nullptr, nullptr, nullptr, &size, nullptr, nullptr);  // the length
    std::string name(static_cast<std::size_t>(size) + 1, '\0');
    size += 1;  // room for the NUL
    r.GetSignalPlace(signal, nullptr, nullptr, name.data(), &size, nullptr, nullptr);
    name.resize(static_cast<std::size_t>(size));
    return name;
}

}  // namespace Tarvel::Client

#endif  // TARVEL_TOOLS_COMMON_SIGNAL_KIND_H
