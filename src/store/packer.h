// KPacker: a compact, append-only sequence of integer words (values or sources of one store).
// Store layer; not thread-safe: a packer belongs to one store body.
//
// Layout: a byte stream of records in chunks of 16 KB.
//   literal record: 0x01, count (1 byte), width w (1 byte), base (sizeof(Word) bytes LE), then
//                   `count` items of w bits each (item - base), packed from bit 0 upwards;
//                   w = 64 means the items are stored whole, 8 bytes each;
//   run record:     0x02, pattern length L (1 byte), repetitions N (8 bytes LE), L words LE.
// Appends go through a RunFinder that holds back the newest items; Finish() codes what it holds.
// Reads take a four-word cursor so a forward walk decodes each record header once.
#ifndef TARVEL_STORE_PACKER_H
#define TARVEL_STORE_PACKER_H

#include <cstdint>
#include <limits>

#include "foundation/memory.h"
#include "store/chunk_buffer.h"
#include "foundation/little_endian.h"
#include "store/run_finder.h"

namespace Tarvel {

// Read position in a packer: the first item index of the current record (-1 before any read),
// the record's byte position (low and high word) and its item count.
struct PackCursor {
    std::int32_t first = -1;
    std::uint32_t positionLow = 0;
    std::uint32_t positionHigh = 0;
    std::uint32_t items = 0;

    std::uint64_t Position() const { return (std::uint64_t{positionHigh} << 32) | positionLow; }
    void SetPosition(std::uint64_t p) {
        positionLow = static_cast<std::uint32_t>(p);
        positionHigh = static_cast<std::uint32_t>(p >> 32);
    }
};

namespace PackBytes {

using LittleEndian::Load;
using LittleEndian::Store;

inline unsigned BitWidth(std::uint64_t range) {
    unsigned w = 0;
    while (range != 0) {
        ++w;
        range >>= 1;
    }
    return w;
}

}  // namespace PackBytes

template <class Word, unsigned MinRun, unsigned Batch>
class KPacker {
public:
    using Finder = RunFinder<Word, MinRun, Batch>;
    static constexpr unsigned char kLiteralTag = 1;
    static constexpr unsigned char kRunTag = 2;
    static constexpr unsigned kLiteralHeader = 3 + sizeof(Word);
    static constexpr unsigned kRunHeader = 10;
    static constexpr unsigned kMaxLiteralBytes = kLiteralHeader + Finder::kMaxLiteralBatch * 8;
    static constexpr unsigned kMaxRunBytes = kRunHeader + kMaxRunPattern * sizeof(Word);
    // What one Append can code at most: two runs (a broken run and a short one found in the
    // items it hands back) and one literal record.
    static constexpr std::uint32_t kMaxAppendBytes = 2 * kMaxRunBytes + kMaxLiteralBytes;
    static_assert(Finder::kMaxLiteralBatch <= 255, "literal count must fit one byte");

    KPacker() = default;
    KPacker(const KPacker&) = delete;
    KPacker& operator=(const KPacker&) = delete;
    ~KPacker() { DestroyObject(m_finder); }

    // Items appended so far.
    std::int64_t Count() const { return m_coded + (m_finder ? static_cast<std::int64_t>(m_finder->Held()) : 0); }
    bool empty() const { return Count() == 0; }

    bool ReadyToAppend() const { return m_finder != nullptr && m_bytes.HasRoom(kMaxAppendBytes); }
    // May throw std::bad_alloc; changes nothing observable. After it one Append cannot fail.
    void PrepareAppend() {
        if (!m_finder) m_finder = NewObject<Finder>();
        m_bytes.MakeRoom(kMaxAppendBytes);
    }
    void Append(Word item) { m_finder->Push(item, *this); }

    // Makes room for one AppendRun followed by one Append (which then cannot fail).
    void PrepareRunThenAppend() {
        if (!m_finder) m_finder = NewObject<Finder>();
        m_bytes.MakeRoom(2 * kMaxAppendBytes + kMaxRunBytes);
    }

    // Appends `length` words played `count` times as one run, after what the search holds back.
    // Strong guarantee.
    void AppendRun(const Word* pattern, unsigned length, std::uint64_t count) {
        const bool holding = m_finder && !m_finder->Idle();
        m_bytes.MakeRoom(holding ? kMaxAppendBytes + kMaxRunBytes : kMaxRunBytes);
        if (holding) m_finder->Flush(*this);
        Run(pattern, length, count);
    }

    // Codes everything held back and releases the search state. Strong guarantee.
    void Finish() {
        if (m_finder) {
            m_bytes.MakeRoom(kMaxAppendBytes);
            FlushFinder();
        }
        m_bytes.ShrinkToFit();
    }

    void Clear() {
        m_bytes.Clear();
        DestroyObject(m_finder);
        m_finder = nullptr;
        m_coded = 0;
    }

    // Makes this a deep copy of `other`. On failure this packer is left empty and throws.
    void CopyFrom(const KPacker& other) {
        Clear();
        m_bytes.CopyFrom(other.m_bytes);
        if (other.m_finder) {
            try {
                m_finder = NewObject<Finder>(*other.m_finder);
            } catch (...) {
                m_bytes.Clear();
                throw;
            }
        }
        m_coded = other.m_coded;
    }

    std::uint64_t MemoryBytes() const { return m_bytes.MemoryBytes() + (m_finder ? sizeof(Finder) : 0); }

    // The chunk table slot and the record header a read continuing from `cursor` meets first
    // (null before any read or past the records).
    void ReadAddresses(const PackCursor& cursor, const void** slot, const void** byte) const {
        *slot = *byte = nullptr;
        if (cursor.first >= 0) m_bytes.ReadAddresses(cursor.Position(), slot, byte);
    }

    // Reads item `index` into *out. Returns false when there is no such item.
    bool Read(std::int64_t index, Word* out, PackCursor* cursor) const {
        if (index >= cursor->first && index < static_cast<std::int64_t>(cursor->first) + cursor->items && cursor->first >= 0) {
            *out = ItemAt(cursor->Position(), static_cast<std::uint32_t>(index - cursor->first));
            return true;
        }
        if (index < 0) return false;
        if (index >= m_coded) {
            const std::int64_t held = index - m_coded;
            if (!m_finder || static_cast<std::uint64_t>(held) >= m_finder->Held()) return false;
            *out = m_finder->HeldItem(static_cast<std::uint64_t>(held));
            return true;
        }
        if (cursor->first < 0 || index < cursor->first) Seat(cursor, 0, 0);
        while (index >= static_cast<std::int64_t>(cursor->first) + cursor->items) {
            const std::uint64_t next = cursor->Position() + RecordBytes(cursor->Position());
            Seat(cursor, next, cursor->first + static_cast<std::int32_t>(cursor->items));
        }
        *out = ItemAt(cursor->Position(), static_cast<std::uint32_t>(index - cursor->first));
        return true;
    }

    // Reads `count` items from `index` on (fewer when the packer holds fewer), handing item
    // index + k to out(k, item); returns how many were read. A forward batch decodes each record
    // header once and unpacks a literal record's items in place where they lie in one chunk.
    template <class Out>
    std::uint32_t ReadRange(std::int64_t index, std::uint32_t count, PackCursor* cursor, Out&& out) const {
        if (index < 0) return 0;
        std::uint32_t done = 0;
        while (done < count) {
            const std::int64_t i = index + done;
            if (i >= m_coded) {  // items the search still holds back (a store not yet closed)
                const std::int64_t held = i - m_coded;
                if (!m_finder || static_cast<std::uint64_t>(held) >= m_finder->Held()) break;
                out(done++, m_finder->HeldItem(static_cast<std::uint64_t>(held)));
                continue;
            }
            if (cursor->first < 0 || i < cursor->first) Seat(cursor, 0, 0);
            while (i >= static_cast<std::int64_t>(cursor->first) + cursor->items) {
                const std::uint64_t next = cursor->Position() + RecordBytes(cursor->Position());
                Seat(cursor, next, cursor->first + static_cast<std::int32_t>(cursor->items));
            }
            const auto from = static_cast<std::uint32_t>(i - cursor->first);
            const std::uint32_t take = cursor->items - from < count - done ? cursor->items - from : count - done;
            ReadItems(cursor->Position(), from, take, [&](std::uint32_t k, Word item) { out(done + k, item); });
            done += take;
        }
        return done;
    }

    // Hands every item to `visitor` in order, as Literals(const Word*, unsigned) and
    // Run(const Word*, unsigned, std::uint64_t) calls; stops when one returns false.
    template <class Visitor>
    bool Visit(Visitor& visitor) const {
        std::uint64_t position = 0;
        Word items[Finder::kMaxLiteralBatch];
        while (position < m_bytes.size()) {
            unsigned char header[ChunkBuffer<14>::kSpanBytes];
            const unsigned char* h = m_bytes.Span(position, header);
            if (h[0] == kRunTag) {
                Word pattern[kMaxRunPattern];
                const unsigned length = h[1];
                unsigned char words[kMaxRunPattern * sizeof(Word)];
                m_bytes.Read(position + kRunHeader, words, length * sizeof(Word));
                for (unsigned i = 0; i < length; ++i) pattern[i] = PackBytes::Load<Word>(words + i * sizeof(Word));
                if (!visitor.Run(pattern, length, PackBytes::Load<std::uint64_t>(h + 2))) return false;
            } else {
                const unsigned count = h[1];
                for (unsigned i = 0; i < count; ++i) items[i] = ItemAt(position, i);
                if (!visitor.Literals(items, count)) return false;
            }
            position += RecordBytes(position);
        }
        if (!m_finder) return true;
        PeekAdapter<Visitor> adapter{visitor, true};
        m_finder->Peek(adapter);
        return adapter.ok;
    }

    // RunFinder sink.
    void Literals(const Word* items, unsigned count) {
        Word low = items[0];
        Word high = items[0];
        for (unsigned i = 1; i < count; ++i) {
            if (items[i] < low) low = items[i];
            if (items[i] > high) high = items[i];
        }
        unsigned width = PackBytes::BitWidth(static_cast<std::uint64_t>(high - low));
        if (width > 56) width = 64;
        unsigned char record[kMaxLiteralBytes + 8] = {};
        record[0] = kLiteralTag;
        record[1] = static_cast<unsigned char>(count);
        record[2] = static_cast<unsigned char>(width);
        PackBytes::Store<Word>(record + 3, low);
        unsigned n = kLiteralHeader;
        if (width == 64) {
            for (unsigned i = 0; i < count; ++i, n += 8) PackBytes::Store<std::uint64_t>(record + n, items[i]);
        } else {
            n += PackBits(record + n, items, count, low, width);
        }
        m_bytes.Append(record, n);
        m_coded += count;
    }

    void Run(const Word* pattern, unsigned length, std::uint64_t repetitions) {
        if (length > kMaxRunPattern) length = kMaxRunPattern;  // patterns never exceed it
        unsigned char record[kMaxRunBytes];
        record[0] = kRunTag;
        record[1] = static_cast<unsigned char>(length);
        PackBytes::Store<std::uint64_t>(record + 2, repetitions);
        for (unsigned i = 0; i < length; ++i) PackBytes::Store<Word>(record + kRunHeader + i * sizeof(Word), pattern[i]);
        m_bytes.Append(record, kRunHeader + length * static_cast<unsigned>(sizeof(Word)));
        m_coded += static_cast<std::int64_t>(repetitions * length);
    }

private:
    template <class Visitor>
    struct PeekAdapter {
        Visitor& visitor;
        bool ok;
        void Literals(const Word* items, unsigned count) {
            if (ok) ok = visitor.Literals(items, count);
        }
        void Run(const Word* pattern, unsigned length, std::uint64_t repetitions) {
            if (ok) ok = visitor.Run(pattern, length, repetitions);
        }
    };

    void FlushFinder() {
        if (!m_finder) return;
        m_finder->Flush(*this);
        DestroyObject(m_finder);
        m_finder = nullptr;
    }

    static unsigned PackBits(unsigned char* out, const Word* items, unsigned count, Word base, unsigned width) {
        if (width == 0) return 0;
        std::uint64_t acc = 0;
        unsigned bits = 0;
        unsigned n = 0;
        for (unsigned i = 0; i < count; ++i) {
            acc |= static_cast<std::uint64_t>(items[i] - base) << bits;
            bits += width;
            while (bits >= 8) {
                out[n++] = static_cast<unsigned char>(acc);
                acc >>= 8;
                bits -= 8;
            }
        }
        if (bits > 0) out[n++] = static_cast<unsigned char>(acc);
        return n;
    }

    std::uint64_t RecordBytes(std::uint64_t position) const {
        unsigned char scratch[ChunkBuffer<14>::kSpanBytes];
        const unsigned char* h = m_bytes.Span(position, scratch);
        if (h[0] == kRunTag) return kRunHeader + h[1] * sizeof(Word);
        const unsigned width = h[2];
        return kLiteralHeader + (width == 64 ? h[1] * 8u : (h[1] * width + 7u) / 8u);
    }

    void Seat(PackCursor* cursor, std::uint64_t position, std::int32_t first) const {
        unsigned char scratch[ChunkBuffer<14>::kSpanBytes];
        const unsigned char* h = m_bytes.Span(position, scratch);
        cursor->SetPosition(position);
        cursor->first = first;
        cursor->items = h[0] == kRunTag ? static_cast<std::uint32_t>(PackBytes::Load<std::uint64_t>(h + 2) * h[1]) : h[1];
    }

    // Items from..from+take-1 of the record at `position`, to out(k, item).
    template <class Out>
    void ReadItems(std::uint64_t position, std::uint32_t from, std::uint32_t take, Out&& out) const {
        unsigned char scratch[ChunkBuffer<14>::kSpanBytes];
        const unsigned char* h = m_bytes.Span(position, scratch);
        if (h[0] == kRunTag) {
            const unsigned length = h[1] < 1 ? 1 : h[1] > kMaxRunPattern ? kMaxRunPattern : h[1];
            unsigned char words[kMaxRunPattern * sizeof(Word)];
            m_bytes.Read(position + kRunHeader, words, length * static_cast<std::uint32_t>(sizeof(Word)));
            Word pattern[kMaxRunPattern];
            for (unsigned j = 0; j < length; ++j) pattern[j] = PackBytes::Load<Word>(words + j * sizeof(Word));
            unsigned slot = from % length;
            for (std::uint32_t k = 0; k < take; ++k) {
                out(k, pattern[slot]);
                slot = slot + 1 == length ? 0 : slot + 1;
            }
            return;
        }
        const unsigned width = h[2];
        const Word base = PackBytes::Load<Word>(h + 3);
        if (width == 0) {
            for (std::uint32_t k = 0; k < take; ++k) out(k, base);
            return;
        }
        // In place when the items read and the 8 bytes a load may take past them lie in one chunk.
        std::uint32_t readable = 0;
        const unsigned char* data = m_bytes.Window(position + kLiteralHeader, &readable);
        const std::uint64_t end = width == 64 ? std::uint64_t{from + take} * 8 : (std::uint64_t{from + take} * width + 7) / 8;
        if (end + 8 > readable) {
            for (std::uint32_t k = 0; k < take; ++k) out(k, ItemAt(position, from + k));
            return;
        }
        if (width == 64) {
            for (std::uint32_t k = 0; k < take; ++k) out(k, static_cast<Word>(PackBytes::Load<std::uint64_t>(data + std::uint64_t{from + k} * 8)));
            return;
        }
        const std::uint64_t mask = (std::uint64_t{1} << width) - 1;
        std::uint64_t bit = std::uint64_t{from} * width;
        for (std::uint32_t k = 0; k < take; ++k, bit += width) {
            const std::uint64_t raw = PackBytes::Load<std::uint64_t>(data + bit / 8) >> (bit % 8);
            out(k, static_cast<Word>(base + static_cast<Word>(raw & mask)));
        }
    }

    // Item `i` of the record at `position`.
    Word ItemAt(std::uint64_t position, std::uint32_t i) const {
        unsigned char scratch[ChunkBuffer<14>::kSpanBytes];
        const unsigned char* h = m_bytes.Span(position, scratch);
        if (h[0] == kRunTag) {
            const unsigned length = h[1];
            // Pattern lengths are 1 to 4: avoid a division on this per-event path.
            const unsigned slot = length == 1 ? 0 : length == 2 ? (i & 1) : length == 4 ? (i & 3) : i % 3;
            const unsigned offset = kRunHeader + slot * static_cast<unsigned>(sizeof(Word));
            if (offset + sizeof(Word) <= ChunkBuffer<14>::kSpanBytes) return PackBytes::Load<Word>(h + offset);
            return PackBytes::Load<Word>(m_bytes.Span(position + offset, scratch));
        }
        const unsigned width = h[2];
        const Word base = PackBytes::Load<Word>(h + 3);
        const std::uint64_t data = position + kLiteralHeader;
        if (width == 64) return static_cast<Word>(PackBytes::Load<std::uint64_t>(m_bytes.Span(data + std::uint64_t{i} * 8, scratch)));
        if (width == 0) return base;
        const std::uint64_t bit = std::uint64_t{i} * width;
        const unsigned char* p = m_bytes.Span(data + bit / 8, scratch);
        const std::uint64_t raw = PackBytes::Load<std::uint64_t>(p) >> (bit % 8);
        const std::uint64_t mask = width == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << width) - 1;
        return static_cast<Word>(base + static_cast<Word>(raw & mask));
    }

    ChunkBuffer<14> m_bytes;      // the records
    Finder* m_finder = nullptr;   // pattern search while appending; null when finished
    std::int64_t m_coded = 0;     // items coded into records
};

}  // namespace Tarvel

#endif  // TARVEL_STORE_PACKER_H
