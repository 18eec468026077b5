// The three writers that turn a store's emission into the records of an event block: time
// points, values (as value text) and sources. Writer layer; they live while one block is
// written, on the writer's thread.
#ifndef TARVEL_WRITER_BLOCK_WRITERS_H
#define TARVEL_WRITER_BLOCK_WRITERS_H

#include <cstring>

#include "tarvel/events_store.h"
#include "writer/line_writer.h"
#include "writer/type_registry.h"

namespace Tarvel {

class KTimeDeltaWriter final : public ITimeDeltaWriter {
public:
    explicit KTimeDeltaWriter(KLineWriter& lines) : m_lines(lines) {}
    bool pushTimeDelta(const int64& difference, int delta) override { return m_lines.WriteTimePointLine(difference, delta); }
    bool pushRepeat(int length, const int64& count, const std::pair<int64, int>* steps) override {
        return m_lines.WriteTimeRun(length, count, steps);
    }
    bool pushEnd(const int64&) override { return true; }

private:
    KLineWriter& m_lines;
};

class KValueWriter final : public IValueWriter {
public:
    // storeSize: bytes of the values the store hands over; typeSize: bytes the type's text reads.
    KValueWriter(KLineWriter& lines, TypeRegistry& types, std::int32_t typeIndex, int storeSize, int typeSize)
        : m_lines(lines), m_types(types), m_typeIndex(typeIndex), m_storeSize(storeSize), m_typeSize(typeSize) {}

    bool pushCount(int count) override { return m_lines.WriteCountLine(count); }
    bool pushValue(const unsigned char* value) override { return PutValue(value) && m_lines.EndLine(); }
    bool pushRepeatedValue(int length, const int64& count, const unsigned char* const* values) override {
        if (!m_lines.BeginRun(length, count)) return false;
        for (int i = 0; i < length; ++i) {
            if (!m_lines.PutSpace() || !PutValue(values[i])) return false;
        }
        return m_lines.EndLine();
    }

private:
    // The text reads the type's size: a store of narrower values is widened with zeros first.
    bool PutValue(const unsigned char* value) {
        if (m_storeSize >= m_typeSize) return m_types.PutValueText(m_lines, m_typeIndex, value);
        unsigned char wide[8] = {};
        std::memcpy(wide, value, static_cast<std::size_t>(m_storeSize));
        return m_types.PutValueText(m_lines, m_typeIndex, wide);
    }

    KLineWriter& m_lines;
    TypeRegistry& m_types;
    std::int32_t m_typeIndex;
    int m_storeSize;
    int m_typeSize;
};

class KSourceWriter final : public ISourceWriter {
public:
    explicit KSourceWriter(KLineWriter& lines) : m_lines(lines) {}
    bool pushCount(int count) override { return m_lines.WriteCountLine(count); }
    bool pushSource(int source) override { return m_lines.WriteSourceItemLine(source); }
    bool pushRepeatedSource(int length, const int64& count, const int* sources) override {
        return m_lines.WriteSourceRun(length, count, sources);
    }

private:
    KLineWriter& m_lines;
};

}  // namespace Tarvel

#endif  // TARVEL_WRITER_BLOCK_WRITERS_H
