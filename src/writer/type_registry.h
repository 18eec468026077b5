// The writer's type registry: one type index (from 1) per distinct type-information string, the
// std_logic type, and the value text of stored values. Writer layer; owned by one writer, used
// from one thread at a time. It talks back to the writer only through ITypesWriter.
#ifndef TARVEL_WRITER_TYPE_REGISTRY_H
#define TARVEL_WRITER_TYPE_REGISTRY_H

#include <cstdint>

#include "foundation/memory.h"
#include "typeinfo/type_service.h"
#include "writer/error_report.h"
#include "writer/line_writer.h"

namespace Tarvel {

// The writer as the registry sees it: operation 1 reports an error (IErrorReport::Error,
// printf-style, answers false), operation 2 writes a type line.
class ITypesWriter : public IErrorReport {
public:
    virtual bool WriteTypeLine(std::int32_t typeIndex, const char* typeInfo) = 0;

protected:
    ~ITypesWriter() = default;
};

class TypeRegistry {
public:
    explicit TypeRegistry(ITypesWriter& writer) : m_writer(writer) {}

    // Gives `typeInfo` its index, registering it (and writing its type line) when new.
    // Refuses a malformed string with "Invalid typeinfo '%s'". May throw std::bad_alloc.
    bool Register(const char* typeInfo, std::int32_t* typeIndex);

    // The type of an index, or null for an index that names no registered type.
    const TypeHandle* Find(std::int32_t typeIndex) const {
        return typeIndex >= 1 && static_cast<std::size_t>(typeIndex) <= m_types.size() ? &m_types[typeIndex - 1] : nullptr;
    }
    std::int32_t StdLogicIndex() const { return m_stdLogic; }

    // Writes the text of the value `bytes` of type `typeIndex` through `lines`. Refusals:
    // "Unknown typeindex %d", "Cannot convert data %x %x %x %x to string", "Impossible error".
    bool PutValueText(KLineWriter& lines, std::int32_t typeIndex, const unsigned char* bytes);

private:
    ITypesWriter& m_writer;
    Vector<TypeHandle> m_types;            // type index - 1 -> type
    Map<String, std::int32_t> m_indexes;   // type-information string -> type index
    std::int32_t m_stdLogic = 0;           // index of the std_logic type, 0 until registered
};

}  // namespace Tarvel

#endif  // TARVEL_WRITER_TYPE_REGISTRY_H
