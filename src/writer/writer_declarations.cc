// The writer's declarations: types, signals, buses and their elements, properties and the
// hierarchy, resolution and end time, and the source tables. Writer layer; one thread at a time.
#include <algorithm>
#include <cstring>

#include "format/vocabulary.h"
#include "writer/tarvel_write.h"

namespace Tarvel {
namespace {

String LowerCase(const char* text) {
    String lower(text ? text : "");
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

}  // namespace

// ---- Declarations -----------------------------------------------------------------------------

bool KTarvelWrite::SetTypeInfo(int handle, const char* typeInfo) {
    return Guard([&] {
        if (handle < 0) return Error("Internal error in StoreSignal(%d)", handle);
        std::int32_t index = 0;
        if (!m_types.Register(typeInfo, &index)) return false;
        HandleEntry& entry = m_handles.Make(handle);
        if (entry.typeIndex != 0 && entry.typeIndex != index) {
            return Error("Two different typeinfos specified for signal %d", handle);
        }
        entry.typeIndex = index;
        return true;
    });
}

bool KTarvelWrite::StoreSignal(int handle, int mode, int parentBus, int position, const char* name, const int64& time) {
    return Guard([&] {
        if (handle < 0) return Error("Internal error in StoreSignal(%d)", handle);
        if (parentBus >= 0 && m_buses.count(parentBus)) return DeclareElement(handle, parentBus, position, time);
        if (!WritePendingElements()) return false;
        HandleEntry& entry = m_handles.Make(handle);
        DeclarationFields fields;
        fields.mode = mode;
        fields.handle = handle;
        fields.typeIndex = entry.typeIndex;
        fields.name = name ? name : "";
        fields.trailing[0] = parentBus;
        fields.trailing[1] = position;
        fields.time = time;
        fields.shortForm = parentBus < 0 && (m_timed || time == m_lines.LastDeclarationTime());
        return m_lines.WriteSignalDeclaration(fields);
    });
}

bool KTarvelWrite::StoreBus(int handle, int mode, int width, int parentBus, int position, const char* name,
                            const int64& time) {
    return Guard([&] {
        if (handle < 0) return Error("Internal error in StoreBus(%d)", handle);
        if (!WritePendingElements()) return false;
        HandleEntry& entry = m_handles.Make(handle);
        if (width <= 0) {
            const TypeHandle* type = m_types.Find(entry.typeIndex);
            width = type ? static_cast<int>(std::min<std::int64_t>(type->ChildCount(), 0x7FFFFFFF)) : 0;
        }
        BusInfo& bus = m_buses[handle];
        bus.width = width;
        bus.time = time;
        bus.taken.assign(static_cast<std::size_t>(width), 0);
        bus.children = 0;
        if (mode == Format::kModeVirtualBus) m_lastVirtualBus = handle;
        DeclarationFields fields;
        fields.mode = mode;
        fields.handle = handle;
        fields.typeIndex = entry.typeIndex;
        fields.hasExtra = true;
        fields.extra = width;
        fields.name = name ? name : "";
        fields.trailing[0] = parentBus;
        fields.trailing[1] = position;
        fields.time = time;
        fields.shortForm = parentBus < 0 && (m_timed || time == m_lines.LastDeclarationTime());
        return m_lines.WriteBusDeclaration(fields);
    });
}

// Makes `handle` element `position` of the declared bus `parentBus`: no line of its own, but an
// "S" line, a place in the bus's element list and, when declared at another time, an "$ENDSC".
bool KTarvelWrite::DeclareElement(int handle, int parentBus, int position, const int64& time) {
    BusInfo& bus = m_buses[parentBus];
    if (position < 0 || position >= bus.width) return Error("Scalar out of range: %d for signal %d", position, handle);
    if (bus.taken[static_cast<std::size_t>(position)]) return Error("Scalar %d redefined for handle %d", position, handle);
    if (m_pendingBus != parentBus && !WritePendingElements()) return false;
    m_handles.Make(handle);
    m_pendingElements.emplace_back(handle, position);
    if (time != bus.time) m_pendingEnds.emplace_back(handle, time);
    bus.taken[static_cast<std::size_t>(position)] = 1;
    m_pendingBus = parentBus;
    return true;
}

bool KTarvelWrite::WritePendingElements() {
    if (m_pendingBus < 0) return true;
    for (const auto& element : m_pendingElements) {
        if (!m_lines.WriteScalarElement(element.first, element.second)) return false;
    }
    Vector<std::int32_t> handles;
    handles.reserve(m_pendingElements.size());
    for (const auto& element : m_pendingElements) handles.push_back(element.first);
    if (!m_lines.WriteElementList(m_pendingBus, handles.data(), handles.size())) return false;
    for (const auto& end : m_pendingEnds) {
        if (!m_lines.WriteElementEnd(end.first, end.second)) return false;
    }
    m_lines.ForgetLastBus();
    m_pendingElements.clear();
    m_pendingEnds.clear();
    m_pendingBus = -1;
    return true;
}

bool KTarvelWrite::FlushDeclarations() {
    return Guard([&] { return WritePendingElements(); });
}

bool KTarvelWrite::StoreProperty(const int64& time, int handle, const char* name, const char* value) {
    return Guard([&] {
        const char* n = name ? name : "";
        const char* v = value ? value : "";
        if (std::strcmp(n, "VBus") == 0 && std::strcmp(v, "1") == 0) return AttachToVirtualBus(handle);
        if (time == 0) return AddPendingProperty(handle, n, v);
        if (!WritePendingElements()) return false;
        const std::int32_t handles[1] = {handle};
        return m_lines.WriteProperty(time, handles, 1, n, v);
    });
}

bool KTarvelWrite::StoreProperty(int handle, const char* name, const char* value) {
    return StoreProperty(m_time, handle, name, value);
}

bool KTarvelWrite::AttachToVirtualBus(int handle) {
    auto bus = m_buses.find(m_lastVirtualBus);
    if (bus == m_buses.end() || handle < 0) return Error("Internal error in StoreProperty(%d)", handle);
    if (!WritePendingElements()) return false;
    return m_lines.WriteChild(m_lastVirtualBus, handle, bus->second.children++);
}

bool KTarvelWrite::AddPendingProperty(int handle, const char* name, const char* value) {
    String key(name);
    key.push_back('\0');
    key.append(value);
    auto found = m_pendingPropertyIndex.find(key);
    if (found == m_pendingPropertyIndex.end()) {
        m_pendingProperties.push_back(PendingProperty{String(name), String(value), {}});
        try {
            found = m_pendingPropertyIndex.emplace(key, m_pendingProperties.size() - 1).first;
        } catch (...) {
            m_pendingProperties.pop_back();
            throw;
        }
    }
    m_pendingProperties[found->second].handles.push_back(handle);
    return true;
}

bool KTarvelWrite::WritePendingProperties() {
    for (PendingProperty& property : m_pendingProperties) {
        Vector<std::int32_t>& handles = property.handles;
        std::sort(handles.begin(), handles.end());
        handles.erase(std::unique(handles.begin(), handles.end()), handles.end());
        if (!m_lines.WriteProperty(0, handles.data(), handles.size(), property.name, property.value)) return false;
    }
    m_pendingProperties.clear();
    m_pendingPropertyIndex.clear();
    return true;
}

bool KTarvelWrite::SetResolution(const int64& resolution) {
    return Guard([&] { return resolution > 0 && m_lines.WriteResolution(resolution); });
}

// ---- Sources ----------------------------------------------------------------------------------

bool KTarvelWrite::NumberSource(int source, int* number) {
    *number = 0;
    if (source == 0 || !m_callback) return true;
    const auto known = m_sourceNumbers.find(source);
    if (known != m_sourceNumbers.end()) {
        *number = known->second;
        return true;
    }
    const char* fileName = nullptr;
    int line = 0;
    if (!m_callback->GetSourceLocation(source, &fileName, &line)) return true;
    const String key = LowerCase(fileName);
    auto file = m_fileNumbers.find(key);
    if (file == m_fileNumbers.end()) {
        const int fileNumber = static_cast<int>(m_fileNumbers.size()) + 1;
        file = m_fileNumbers.emplace(key, fileNumber).first;
        if (!m_lines.WriteSourceFile(fileNumber, fileName ? fileName : "")) return false;
    }
    const int sourceNumber = static_cast<int>(m_sourceNumbers.size()) + 1;
    m_sourceNumbers.emplace(source, sourceNumber);
    *number = sourceNumber;
    return m_lines.WriteSourceLine(sourceNumber, file->second, line);
}

bool KTarvelWrite::StoreSource(int source) {
    return Guard([&] {
        if (source == 0) return true;  // no source: nothing to enter
        int number = 0;
        if (!NumberSource(source, &number)) return false;
        return number != 0 || Error("StoreSource called for unknown source %d", source);
    });
}
bool KTarvelWrite::SetDefaultEndTime(const int64& time) {
    return Guard([&] {
        if (m_timed) return Error("SetDefaultEndTime used for timed tarvel");
        return m_lines.WriteEndTime(time);
    });
}

}  // namespace Tarvel
