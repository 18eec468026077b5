// The value stores of an events store (one kind per value size: 1, 4 and 8 bytes) and its
// source store, each a KStore over a KPacker. Store layer; not thread-safe: a value store
// belongs to one store body, changed only by the handle that owns that body alone.
//
// The kinds made for sizes 1 and 4 both take and give back 4-byte values; the kind made for
// size 1 searches longer runs and packs larger literal blocks, which suits enumeration codes
// (one-byte values) best, and still keeps every 4-byte value exactly.
#ifndef TARVEL_STORE_VALUE_STORE_H
#define TARVEL_STORE_VALUE_STORE_H

#include <cassert>
#include <cstdint>

#include "store/packer.h"
#include "tarvel/events_store.h"

namespace Tarvel {

// Which concrete value store a body holds, for static dispatch on the append path.
enum class ValueKind : std::uint8_t { kNone = 0, kSize1 = 1, kSize4 = 2, kSize8 = 3 };

// The value-store interface. Its sixteen virtual members keep this slot order.
class IValueStore {
public:
    virtual IValueStore* Clone() const = 0;                                 // 0: deep copy
    virtual int GetSize() const = 0;                                        // 1: bytes per value
    virtual int GetSecondSize() const = 0;                                  // 2: stored width
    virtual std::int64_t Count() const = 0;                                 // 3: values held
    virtual void PrepareAppend() = 0;                                       // 4: make room (may throw)
    virtual void AppendValue(const unsigned char* value) = 0;               // 5: REQUIRES room
    virtual void FinishValues() = 0;                                        // 6: at push_end
    virtual void ReopenValues() = 0;                                        // 7: at restart
    virtual bool AppendRepeatedValues(int length, int64 count, const unsigned char* const* values) = 0;  // 8
    virtual bool ReadyToAppend() const = 0;                                 // 9
    virtual void ExpectCount(int count) = 0;                                // 10: hint from a reader
    virtual std::uint64_t MemoryBytes() const = 0;                          // 11
    virtual void ClearValues() = 0;                                         // 12
    virtual bool ReadValue(int index, unsigned char* buffer, unsigned size, PackCursor* cursor) const = 0;  // 13
    virtual bool WriteValues(IValueWriter* writer) const = 0;               // 14
    virtual ~IValueStore() = default;                                       // 15
};

// Most items one repeated call may add to a store: event indexes are 32-bit.
inline constexpr std::int64_t kMaxStoreItems = 0x7FFFFFFF;

// A packed sequence of T held as Word, emitted through Writer.
template <class T, class Word, class Writer, unsigned MinRun = 8, unsigned Batch = 64>
class KStore {
public:
    using Packer = KPacker<Word, MinRun, Batch>;

    std::int64_t Count() const { return m_packer.Count(); }
    bool ReadyToAppend() const { return m_packer.ReadyToAppend(); }
    void PrepareAppend() { m_packer.PrepareAppend(); }
    void PrepareRunThenAppend() { m_packer.PrepareRunThenAppend(); }
    void Append(T item) { m_packer.Append(static_cast<Word>(item)); }
    // Appends `count` copies of `item` (count >= 1). Strong guarantee.
    void AppendRepeated(T item, std::int64_t count) {
        const Word word = static_cast<Word>(item);
        m_packer.AppendRun(&word, 1, static_cast<std::uint64_t>(count));
    }
    bool AppendPattern(const Word* pattern, int length, int64 count) {
        if (length < 1 || length > static_cast<int>(kMaxRunPattern) || count < 0) return false;
        if (count > (kMaxStoreItems - Count()) / length) return false;
        if (count > 0) m_packer.AppendRun(pattern, static_cast<unsigned>(length), static_cast<std::uint64_t>(count));
        return true;
    }
    void Finish() { m_packer.Finish(); }
    void Clear() { m_packer.Clear(); }
    void CopyFrom(const KStore& other) { m_packer.CopyFrom(other.m_packer); }
    std::uint64_t MemoryBytes() const { return m_packer.MemoryBytes(); }
    bool Read(std::int64_t index, Word* out, PackCursor* cursor) const { return m_packer.Read(index, out, cursor); }
    void ReadAddresses(const PackCursor& cursor, const void** slot, const void** byte) const {
        m_packer.ReadAddresses(cursor, slot, byte);
    }
    // Items index, index + 1, ... (up to `count`) to out(k, item); returns how many there were.
    template <class Out>
    std::uint32_t ReadRange(std::int64_t index, std::uint32_t count, PackCursor* cursor, Out&& out) const {
        return m_packer.ReadRange(index, count, cursor, out);
    }

    // Emits pushCount(count), then the items as single items and runs.
    bool Write(Writer* writer) const {
        const std::int64_t count = Count();
        if (!writer->pushCount(static_cast<int>(count < kMaxStoreItems ? count : kMaxStoreItems))) return false;
        Emitter emitter{writer};
        return m_packer.Visit(emitter);
    }

private:
    struct Emitter {
        Writer* writer;
        bool Literals(const Word* items, unsigned count) {
            for (unsigned i = 0; i < count; ++i) {
                if (!PushOne(writer, items[i])) return false;
            }
            return true;
        }
        bool Run(const Word* pattern, unsigned length, std::uint64_t repetitions) {
            return PushRun(writer, pattern, length, static_cast<int64>(repetitions));
        }
    };

    static bool PushOne(IValueWriter* writer, Word item) {
        unsigned char bytes[sizeof(Word)];
        PackBytes::Store<Word>(bytes, item);
        return writer->pushValue(bytes);
    }
    static bool PushRun(IValueWriter* writer, const Word* pattern, unsigned length, int64 repetitions) {
        unsigned char bytes[kMaxRunPattern][sizeof(Word)];
        const unsigned char* pointers[kMaxRunPattern];
        for (unsigned i = 0; i < length; ++i) {
            PackBytes::Store<Word>(bytes[i], pattern[i]);
            pointers[i] = bytes[i];
        }
        return writer->pushRepeatedValue(static_cast<int>(length), repetitions, pointers);
    }
    static bool PushOne(ISourceWriter* writer, Word item) { return writer->pushSource(static_cast<int>(item)); }
    static bool PushRun(ISourceWriter* writer, const Word* pattern, unsigned length, int64 repetitions) {
        int sources[kMaxRunPattern];
        for (unsigned i = 0; i < length; ++i) sources[i] = static_cast<int>(pattern[i]);
        return writer->pushRepeatedSource(static_cast<int>(length), repetitions, sources);
    }

    Packer m_packer;
};

// The source store: one source number per event, up to the last event with a non-zero source.
using SourceStore = KStore<int, std::uint32_t, ISourceWriter>;

// Packing parameters of the value kinds: Size is the value size asked for, Hint the width the
// values are expected to need.
template <int Size, int Hint>
struct ValueStoreTraits;
template <>
struct ValueStoreTraits<4, 1> {
    using Word = std::uint32_t;
    static constexpr unsigned kMinRun = 16;
    static constexpr unsigned kBatch = 128;
    static constexpr ValueKind kKind = ValueKind::kSize1;
};
template <>
struct ValueStoreTraits<4, 4> {
    using Word = std::uint32_t;
    static constexpr unsigned kMinRun = 8;
    static constexpr unsigned kBatch = 64;
    static constexpr ValueKind kKind = ValueKind::kSize4;
};
template <>
struct ValueStoreTraits<8, 8> {
    using Word = std::uint64_t;
    static constexpr unsigned kMinRun = 8;
    static constexpr unsigned kBatch = 64;
    static constexpr ValueKind kKind = ValueKind::kSize8;
};

template <int Size, int Hint>
class KValueStore final : public IValueStore {
public:
    using Traits = ValueStoreTraits<Size, Hint>;
    using Word = typename Traits::Word;
    // The pattern search of the store's packer (see KTimeDeltaStore::Finder).
    using Finder = RunFinder<Word, Traits::kMinRun, Traits::kBatch>;
    static constexpr ValueKind kKind = Traits::kKind;
    static constexpr int kValueBytes = static_cast<int>(sizeof(Word));

    IValueStore* Clone() const override {
        KValueStore* copy = NewObject<KValueStore>();
        try {
            copy->m_store.CopyFrom(m_store);
        } catch (...) {
            DestroyObject(copy);
            throw;
        }
        return copy;
    }
    int GetSize() const override { return kValueBytes; }
    int GetSecondSize() const override { return kValueBytes; }
    std::int64_t Count() const override { return m_store.Count(); }
    void PrepareAppend() override { m_store.PrepareAppend(); }
    void AppendValue(const unsigned char* value) override {
        assert(m_store.ReadyToAppend());
        m_store.Append(PackBytes::Load<Word>(value));
    }
    void FinishValues() override { m_store.Finish(); }
    void ReopenValues() override {}
    bool AppendRepeatedValues(int length, int64 count, const unsigned char* const* values) override {
        if (length < 1 || length > static_cast<int>(kMaxRunPattern)) return false;
        Word pattern[kMaxRunPattern];
        for (int i = 0; i < length; ++i) pattern[i] = PackBytes::Load<Word>(values[i]);
        return m_store.AppendPattern(pattern, length, count);
    }
    bool ReadyToAppend() const override { return m_store.ReadyToAppend(); }
    void ExpectCount(int) override {}
    std::uint64_t MemoryBytes() const override { return sizeof(*this) + m_store.MemoryBytes(); }
    void ClearValues() override { m_store.Clear(); }
    bool ReadValue(int index, unsigned char* buffer, unsigned size, PackCursor* cursor) const override {
        Word word;
        if (!m_store.Read(index, &word, cursor)) return false;
        if (size >= sizeof(Word)) {
            PackBytes::Store<Word>(buffer, word);
            return true;
        }
        unsigned char bytes[sizeof(Word)];
        PackBytes::Store<Word>(bytes, word);
        for (unsigned i = 0; i < size; ++i) buffer[i] = bytes[i];
        return true;
    }
    bool WriteValues(IValueWriter* writer) const override { return m_store.Write(writer); }
    // The values of events index .. index + count - 1, kValueBytes each, into `buffer`; returns how
    // many the store keeps (fewer when values end before). Not virtual: callers dispatch on the
    // body's value kind once per batch.
    void ReadAddresses(const PackCursor& cursor, const void** slot, const void** byte) const {
        m_store.ReadAddresses(cursor, slot, byte);
    }
    std::uint32_t ReadValues(std::int64_t index, std::uint32_t count, unsigned char* buffer, PackCursor* cursor) const {
        return m_store.ReadRange(index, count, cursor,
                                 [buffer](std::uint32_t k, Word word) { PackBytes::Store<Word>(buffer + std::size_t{k} * sizeof(Word), word); });
    }

private:
    KStore<Word, Word, IValueWriter, Traits::kMinRun, Traits::kBatch> m_store;
};

// Makes the value store for a value size (1, 4 or 8); null for any other size.
IValueStore* MakeValueStore(int size, ValueKind* kind);

}  // namespace Tarvel

#endif  // TARVEL_STORE_VALUE_STORE_H
