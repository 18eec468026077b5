// Little-endian loads and stores of byte streams and value bytes, as single unaligned accesses
// where the host allows. Foundation layer; pure functions, any thread.
#ifndef TARVEL_FOUNDATION_LITTLE_ENDIAN_H
#define TARVEL_FOUNDATION_LITTLE_ENDIAN_H

#include <cstdint>
#include <cstring>

namespace Tarvel::LittleEndian {

template <class Word>
inline Word Load(const unsigned char* p) {
    Word w;
    std::memcpy(&w, p, sizeof(Word));
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    if constexpr (sizeof(Word) == 8) w = __builtin_bswap64(w);
    if constexpr (sizeof(Word) == 4) w = __builtin_bswap32(w);
    if constexpr (sizeof(Word) == 2) w = __builtin_bswap16(w);
#endif
    return w;
}

template <class Word>
inline void Store(unsigned char* p, Word w) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    if constexpr (sizeof(Word) == 8) w = __builtin_bswap64(w);
    if constexpr (sizeof(Word) == 4) w = __builtin_bswap32(w);
    if constexpr (sizeof(Word) == 2) w = __builtin_bswap16(w);
#endif
    std::memcpy(p, &w, sizeof(Word));
}

// The low `bytes` (0-8) bytes at `p` as a number. REQUIRES: 8 bytes readable at p.
inline std::uint64_t LoadPart(const unsigned char* p, unsigned bytes) {
    const std::uint64_t all = Load<std::uint64_t>(p);
    return bytes >= 8 ? all : all & ((std::uint64_t{1} << (8 * bytes)) - 1);
}

}  // namespace Tarvel::LittleEndian

#endif  // TARVEL_FOUNDATION_LITTLE_ENDIAN_H
