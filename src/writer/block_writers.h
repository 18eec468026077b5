// The three writers that turn a store's emission into the records of an event block: time
// points, values (as value text) and sources. Writer layer; they live while one block is
// written, on the writer's thread.
#ifndef TARVEL_WRITER_BLOCK_WRITERS_H
#define TARVEL_WRITER_BLOCK_WRITERS_H

#include <cstring>
#include <utility>

#include "store/event_append.h"
#include "store/value_store.h"
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

// Writing one handle's events straight from a log, without filling its store: the same pattern
// searches as the store's coders run over the time steps and the values and hand their literals
// and runs to the block writers, so the records are the ones the store would emit after taking
// the same events. Events provides Time(i), Delta(i) and Bits(i) as for AppendEvents.
template <class Events>
bool EmitLoggedSteps(KLineWriter& lines, const Events& events, std::size_t count) {
    struct Sink {
        KTimeDeltaWriter writer;
        bool ok = true;
        void Literals(const TimeDelta* steps, unsigned n) {
            for (unsigned i = 0; i < n && ok; ++i) ok = writer.pushTimeDelta(steps[i].difference, static_cast<int>(steps[i].delta));
        }
        void Run(const TimeDelta* pattern, unsigned length, std::uint64_t repetitions) {
            if (!ok) return;
            std::pair<int64, int> steps[kMaxPatternLength];
            for (unsigned i = 0; i < length; ++i) steps[i] = {pattern[i].difference, static_cast<int>(pattern[i].delta)};
            ok = writer.pushRepeat(static_cast<int>(length), static_cast<int64>(repetitions), steps);
        }
    } sink{KTimeDeltaWriter(lines)};
    KTimeDeltaStore::Finder finder;
    int64 last = 0;
    for (std::size_t i = 0; i < count && sink.ok; ++i) {
        const int64 time = events.Time(i);
        finder.Push(TimeDelta{WrapSub(time, last), events.Delta(i) & 0xFFFFu}, sink);
        last = time;
    }
    finder.Flush(sink);
    return sink.ok;
}

// The values of a log as a value store of type Store would emit them (count first).
template <class Store, class Events>
bool EmitLoggedValues(KValueWriter& writer, const Events& events, std::size_t count) {
    using Word = typename Store::Word;
    struct Sink {
        KValueWriter& writer;
        bool ok = true;
        void Literals(const Word* items, unsigned n) {
            for (unsigned i = 0; i < n && ok; ++i) {
                unsigned char bytes[sizeof(Word)];
                PackBytes::Store<Word>(bytes, items[i]);
                ok = writer.pushValue(bytes);
            }
        }
        void Run(const Word* pattern, unsigned length, std::uint64_t repetitions) {
            if (!ok) return;
            unsigned char bytes[kMaxRunPattern][sizeof(Word)];
            const unsigned char* pointers[kMaxRunPattern];
            for (unsigned i = 0; i < length; ++i) {
                PackBytes::Store<Word>(bytes[i], pattern[i]);
                pointers[i] = bytes[i];
            }
            ok = writer.pushRepeatedValue(static_cast<int>(length), static_cast<int64>(repetitions), pointers);
        }
    } sink{writer};
    const std::size_t shown = count < static_cast<std::size_t>(kMaxStoreItems) ? count : static_cast<std::size_t>(kMaxStoreItems);
    if (!writer.pushCount(static_cast<int>(shown))) return false;
    typename Store::Finder finder;
    for (std::size_t i = 0; i < count && sink.ok; ++i) finder.Push(static_cast<Word>(events.Bits(i)), sink);
    finder.Flush(sink);
    return sink.ok;
}

}  // namespace Tarvel

#endif  // TARVEL_WRITER_BLOCK_WRITERS_H
