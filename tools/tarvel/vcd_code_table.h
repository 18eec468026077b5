// Identifier codes of a VCD to variable numbers: an open-addressed hash table over the code's
// bytes packed into one 64-bit word (codes of up to 8 bytes, which is every code of any VCD
// shorter than 94^8 variables), and a map for longer ones. Tool layer; one thread.
#ifndef TARVEL_TOOLS_TARVEL_VCD_CODE_TABLE_H
#define TARVEL_TOOLS_TARVEL_VCD_CODE_TABLE_H

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace TarvelTool {

class VcdCodeTable {
public:
    static constexpr std::uint32_t kNone = UINT32_MAX;

    // The number stored for `code`, kNone when there is none. REQUIRES: the 8 bytes at
    // code.data() may be read (VcdInput's words guarantee it); codes hold no NUL.
    std::uint32_t Find(std::string_view code) const {
        if (code.size() > 8) return FindLong(code);
        std::uint64_t key;
        std::memcpy(&key, code.data(), 8);
        if (code.size() < 8) key &= (std::uint64_t{1} << (8 * code.size())) - 1;
        for (std::size_t slot = Hash(key);; slot = (slot + 1) & m_mask) {
            const Slot& s = m_slots[slot];
            if (s.key == key) return s.value;
            if (s.key == 0) return kNone;
        }
    }

    // Stores `value` for `code` when the code has none yet; answers the code's number (the one
    // stored before, or `value`). REQUIRES: code is not empty.
    std::uint32_t Insert(std::string_view code, std::uint32_t value) {
        if (code.size() > 8) return m_long.emplace(std::string(code), value).first->second;
        std::uint64_t key = 0;
        std::memcpy(&key, code.data(), code.size());
        if (2 * (m_count + 1) > m_slots.size()) Grow();
        std::size_t slot = Hash(key);
        while (m_slots[slot].key != 0 && m_slots[slot].key != key) slot = (slot + 1) & m_mask;
        if (m_slots[slot].key == key) return m_slots[slot].value;
        m_slots[slot] = {key, value};
        ++m_count;
        return value;
    }

private:
    struct Slot {
        std::uint64_t key;    // the code's bytes, 0 for an empty slot
        std::uint32_t value;  // the code's number
    };

    std::size_t Hash(std::uint64_t key) const {
        return static_cast<std::size_t>((key * 0x9E3779B97F4A7C15ull) >> m_shift) & m_mask;
    }
    std::uint32_t FindLong(std::string_view code) const {
        const auto found = m_long.find(std::string(code));
        return found == m_long.end() ? kNone : found->second;
    }
    void Grow() {
        std::vector<Slot> old = std::move(m_slots);
        m_slots.assign(old.empty() ? 64 : old.size() * 2, Slot{0, 0});
        m_mask = m_slots.size() - 1;
        m_shift = 64;
        for (std::size_t size = m_slots.size(); size > 1; size >>= 1) --m_shift;
        for (const Slot& s : old) {
            if (s.key == 0) continue;
            std::size_t slot = Hash(s.key);
            while (m_slots[slot].key != 0) slot = (slot + 1) & m_mask;
            m_slots[slot] = s;
        }
    }

    std::vector<Slot> m_slots = std::vector<Slot>(1, Slot{0, 0});  // a power of two, at most half full
    std::size_t m_mask = 0;      // m_slots.size() - 1
    unsigned m_shift = 63;       // 64 - log2(m_slots.size()), for the multiplicative hash
    std::size_t m_count = 0;     // slots in use
    std::unordered_map<std::string, std::uint32_t> m_long;  // codes longer than 8 bytes
};

}  // namespace TarvelTool

#endif  // TARVEL_TOOLS_TARVEL_VCD_CODE_TABLE_H
