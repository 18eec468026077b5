// A byte stream kept in chunks of 2^ChunkBits bytes: byte position p lies in chunk p >> ChunkBits
// at offset p & (chunk size - 1). Only the last chunk is allocated short and grows, so a small
// stream costs little and a large one never moves. Store layer; not thread-safe (owned by one
// store body).
//
// Exception safety: MakeRoom(n) may throw std::bad_alloc and then leaves the stream as it was;
// after it, appending n bytes cannot fail. HasRoom(n) tells cheaply whether it is needed.
#ifndef TARVEL_STORE_CHUNK_BUFFER_H
#define TARVEL_STORE_CHUNK_BUFFER_H

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "foundation/memory.h"
#include "foundation/platform.h"

namespace Tarvel {

template <unsigned ChunkBits>
class ChunkBuffer {
public:
    static constexpr std::uint32_t kChunkSize = 1u << ChunkBits;
    static constexpr std::uint32_t kChunkMask = kChunkSize - 1;
    // Bytes that Span() makes readable at once.
    static constexpr std::uint32_t kSpanBytes = 32;

    ChunkBuffer() = default;
    ChunkBuffer(const ChunkBuffer&) = delete;
    ChunkBuffer& operator=(const ChunkBuffer&) = delete;
    ~ChunkBuffer() { Clear(); }

    std::uint64_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }

    bool HasRoom(std::uint32_t n) const { return m_capacity - m_size >= n; }

    // Makes sure that `n` more bytes (n <= chunk size) can be appended without allocating.
    void MakeRoom(std::uint32_t n) {
        while (m_capacity - m_size < n) Grow(n);
    }

    // REQUIRES: HasRoom(n).
    void Append(const unsigned char* bytes, std::uint32_t n) {
        assert(HasRoom(n));
        while (n > 0) {
            const std::uint32_t offset = static_cast<std::uint32_t>(m_size & kChunkMask);
            const std::uint32_t take = n < kChunkSize - offset ? n : kChunkSize - offset;
            std::memcpy(m_chunks[m_size >> ChunkBits] + offset, bytes, take);
            m_size += take;
            bytes += take;
            n -= take;
        }
    }

    // REQUIRES: HasRoom(1).
    void PushByte(unsigned char byte) {
        assert(HasRoom(1));
        m_chunks[m_size >> ChunkBits][m_size & kChunkMask] = byte;
        ++m_size;
    }

    // A pointer at the end of the stream when `n` bytes fit there in the current allocation, or
    // null. The caller writes up to `n` bytes there and then calls Advance with the count.
    unsigned char* WritePointer(std::uint32_t n) {
        if (m_count == 0) return nullptr;
        const std::uint64_t last = std::uint64_t{m_count - 1} << ChunkBits;
        if (m_size < last || m_size - last + n > m_lastCapacity) return nullptr;
        return m_chunks[m_count - 1] + (m_size - last);
    }
    void Advance(std::uint32_t n) { m_size += n; }

    // Drops the last byte. REQUIRES: !empty().
    void PopByte() {
        assert(m_size > 0);
        --m_size;
    }

    unsigned char Byte(std::uint64_t pos) const { return m_chunks[pos >> ChunkBits][pos & kChunkMask]; }

    // Copies `n` bytes from `pos` (which must lie inside the stream) to `out`.
    void Read(std::uint64_t pos, unsigned char* out, std::uint32_t n) const {
        while (n > 0) {
            const std::uint32_t offset = static_cast<std::uint32_t>(pos & kChunkMask);
            const std::uint32_t take = n < kChunkSize - offset ? n : kChunkSize - offset;
            std::memcpy(out, m_chunks[pos >> ChunkBits] + offset, take);
            pos += take;
            out += take;
            n -= take;
        }
    }

    // A pointer to kSpanBytes bytes at `pos` inside one allocation, or null when they straddle.
    const unsigned char* Direct(std::uint64_t pos) const {
        const std::uint64_t chunk = pos >> ChunkBits;
        const std::uint32_t offset = static_cast<std::uint32_t>(pos & kChunkMask);
        const std::uint32_t allocated = chunk + 1 < m_count ? kChunkSize : m_lastCapacity;
        return offset + kSpanBytes <= allocated ? m_chunks[chunk] + offset : nullptr;
    }

    // A pointer to the byte at `pos` (pos < size()) and, in *readable, the bytes from there to the
    // end of its allocation (bytes past size() among them are unspecified). Batched readers decode
    // in place as far as that reaches.
    const unsigned char* Window(std::uint64_t pos, std::uint32_t* readable) const {
        const std::uint64_t chunk = pos >> ChunkBits;
        const std::uint32_t offset = static_cast<std::uint32_t>(pos & kChunkMask);
        *readable = (chunk + 1 < m_count ? kChunkSize : m_lastCapacity) - offset;
        return m_chunks[chunk] + offset;
    }

    // What a read from `pos` meets first: the chunk table's slot and the byte itself (both null
    // at or past size()). For callers that prefetch a read long before they make it.
    void ReadAddresses(std::uint64_t pos, const void** slot, const void** byte) const {
        *slot = *byte = nullptr;
        if (pos >= m_size) return;
        *slot = &m_chunks[pos >> ChunkBits];
        *byte = m_chunks[pos >> ChunkBits] + (pos & kChunkMask);
    }

    // Returns a pointer to kSpanBytes bytes starting at `pos` (pos < size()): into the chunk when
    // they lie in one allocation, else assembled into `scratch`. Bytes past size() are
    // unspecified; callers check code lengths against size().
    const unsigned char* Span(std::uint64_t pos, unsigned char* scratch) const {
        const std::uint64_t chunk = pos >> ChunkBits;
        const std::uint32_t offset = static_cast<std::uint32_t>(pos & kChunkMask);
        const std::uint32_t allocated = chunk + 1 < m_count ? kChunkSize : m_lastCapacity;
        if (offset + kSpanBytes <= allocated) return m_chunks[chunk] + offset;
        const std::uint64_t left = m_size - pos;
        std::memset(scratch, 0, kSpanBytes);
        Read(pos, scratch, static_cast<std::uint32_t>(left < kSpanBytes ? left : kSpanBytes));
        return scratch;
    }

    void Clear() {
        for (std::uint32_t i = 0; i < m_count; ++i) Free(m_chunks[i]);
        Free(m_chunks);
        m_chunks = nullptr;
        m_count = m_slots = m_lastCapacity = 0;
        m_size = m_capacity = 0;
    }

    // Makes this a copy of `other` (allocating only what `other` uses). On failure this stream
    // is left empty and std::bad_alloc is thrown.
    void CopyFrom(const ChunkBuffer& other) {
        Clear();
        if (other.m_size == 0) return;
        try {
            const std::uint32_t chunks = static_cast<std::uint32_t>((other.m_size + kChunkMask) >> ChunkBits);
            m_chunks = static_cast<unsigned char**>(Allocate(chunks * sizeof(unsigned char*)));
            m_slots = chunks;
            for (std::uint32_t i = 0; i < chunks; ++i) {
                const std::uint64_t left = other.m_size - (std::uint64_t{i} << ChunkBits);
                const std::uint32_t bytes = left < kChunkSize ? static_cast<std::uint32_t>(left) : kChunkSize;
                m_chunks[i] = static_cast<unsigned char*>(Allocate(bytes));
                ++m_count;
                std::memcpy(m_chunks[i], other.m_chunks[i], bytes);
                m_lastCapacity = bytes;
            }
            m_size = other.m_size;
            m_capacity = (std::uint64_t{m_count - 1} << ChunkBits) + m_lastCapacity;
        } catch (...) {
            Clear();
            throw;
        }
    }

    // Gives back the unused tail of the last chunk (when the heap agrees; never fails).
    void ShrinkToFit() {
        if (m_count == 0) return;
        if (m_size == 0) {
            Clear();
            return;
        }
        const std::uint64_t usedInLast = m_size - (std::uint64_t{m_count - 1} << ChunkBits);
        // Keep one span of slack so that reads near the end still see their bytes in place.
        std::uint64_t keep = usedInLast + kSpanBytes;
        if (keep > kChunkSize) keep = kChunkSize;
        if (keep + kShrinkThreshold > m_lastCapacity) return;  // not worth a reallocation
        if (usedInLast == 0) {
            Free(m_chunks[--m_count]);
            m_lastCapacity = kChunkSize;
        } else if (void* shrunk = Platform::HeapReallocate(m_chunks[m_count - 1], keep)) {
            m_chunks[m_count - 1] = static_cast<unsigned char*>(shrunk);
            m_lastCapacity = static_cast<std::uint32_t>(keep);
        }
        m_capacity = (std::uint64_t{m_count - 1} << ChunkBits) + m_lastCapacity;
    }

    // Bytes held on the heap (chunks and chunk table).
    std::uint64_t MemoryBytes() const {
        return m_count == 0 ? 0 : (std::uint64_t{m_count - 1} << ChunkBits) + m_lastCapacity + m_slots * sizeof(void*);
    }

private:
    void Grow(std::uint32_t n) {
        if (m_count > 0 && m_lastCapacity < kChunkSize) {
            const std::uint64_t usedInLast = m_size - (std::uint64_t{m_count - 1} << ChunkBits);
            std::uint64_t want = m_lastCapacity * 2;
            if (want < usedInLast + n) want = usedInLast + n;
            if (want > kChunkSize) want = kChunkSize;
            m_chunks[m_count - 1] = static_cast<unsigned char*>(Reallocate(m_chunks[m_count - 1], want));
            m_capacity += want - m_lastCapacity;
            m_lastCapacity = static_cast<std::uint32_t>(want);
            return;
        }
        if (m_count == m_slots) {
            const std::uint32_t slots = m_slots == 0 ? 1 : m_slots * 2;
            m_chunks = static_cast<unsigned char**>(Reallocate(m_chunks, slots * sizeof(unsigned char*)));
            m_slots = slots;
        }
        // The first chunk starts short and grows (most streams are small); a stream that filled
        // a chunk is likely to fill the next one too, which is then made whole at once (owners
        // trim the last chunk with ShrinkToFit when the stream is final).
        std::uint32_t first = m_count == 0 ? kFirstChunkBytes : kChunkSize;
        if (first < n) first = n;
        m_chunks[m_count] = static_cast<unsigned char*>(Allocate(first));
        ++m_count;
        m_lastCapacity = first;
        m_capacity = (std::uint64_t{m_count - 1} << ChunkBits) + first;
    }

    static constexpr std::uint32_t kFirstChunkBytes = kChunkSize < 64 ? kChunkSize : 64;
    // Unused bytes below which ShrinkToFit leaves the last chunk as it is.
    static constexpr std::uint32_t kShrinkThreshold = 256;

    // Appends read the first three: size and capacity for the room, the table for the chunk.
    std::uint64_t m_size = 0;            // bytes used
    std::uint64_t m_capacity = 0;        // bytes allocated in all
    unsigned char** m_chunks = nullptr;  // chunk table
    std::uint32_t m_count = 0;           // chunks allocated
    std::uint32_t m_slots = 0;           // capacity of the chunk table
    std::uint32_t m_lastCapacity = 0;    // bytes allocated for the last chunk
};

}  // namespace Tarvel

#endif  // TARVEL_STORE_CHUNK_BUFFER_H
