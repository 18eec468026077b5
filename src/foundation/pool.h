// Fixed-size object pools: large blocks of slots with free lists, for objects that are made and
// destroyed in great numbers. Foundation layer. A pool has no lock of its own: its owner
// serialises every call (the store-body pool is used only under the store lock).
//
// Each slot is a header word followed by the object. The header of an allocated slot names its
// block, so a release finds the block without search; the first word of a free slot's object
// holds the next free slot. A block whose every slot is free again is given back to the heap.
#ifndef TARVEL_FOUNDATION_POOL_H
#define TARVEL_FOUNDATION_POOL_H

#include <cstddef>
#include <cstdint>

#include "foundation/memory.h"

namespace Tarvel {

// Slot area of the blocks of pools other than the store-body pool.
inline constexpr std::size_t kSmallPoolSlotArea = 10240;

template <std::size_t ObjectSize, std::size_t SlotCount>
class FixedPool {
public:
    static constexpr std::size_t kObjectOffset = sizeof(void*);
    static constexpr std::size_t kSlotSize = (kObjectOffset + ObjectSize + 7) / 8 * 8;
    static constexpr std::size_t kSlotCount = SlotCount;

    FixedPool() = default;
    FixedPool(const FixedPool&) = delete;
    FixedPool& operator=(const FixedPool&) = delete;

    // Returns storage for one object (uninitialised), or throws std::bad_alloc.
    void* allocate() {
        if (!m_current || m_current->freeCount == 0) {
            m_current = m_firstFree ? m_firstFree : MakeBlock();
        }
        Block* block = m_current;
        unsigned char* slot = block->freeHead;
        block->freeHead = NextFree(slot);
        --block->freeCount;
        *reinterpret_cast<Block**>(slot) = block;
        if (block->freeCount == 0) {
            UnlinkFree(block);
            m_current = nullptr;
        }
        return slot + kObjectOffset;
    }

    // Takes back storage returned by allocate() (the object already destroyed).
    void release(void* object) noexcept {
        unsigned char* slot = static_cast<unsigned char*>(object) - kObjectOffset;
        Block* block = *reinterpret_cast<Block**>(slot);
        SetNextFree(slot, block->freeHead);
        block->freeHead = slot;
        if (block->freeCount++ == 0) LinkFree(block);
        if (block->freeCount == static_cast<std::int32_t>(SlotCount)) DropBlock(block);
    }

    std::size_t BlocksMade() const { return m_blocksMade; }
    std::size_t BlocksInFreeList() const { return m_blocksInFreeList; }

private:
    struct Block {
        alignas(8) unsigned char slots[SlotCount * kSlotSize];
        Block* freePrev;   // list of blocks that have free slots
        Block* freeNext;
        Block* allPrev;    // list of all blocks
        Block* allNext;
        unsigned char* freeHead;  // first free slot of this block
        std::int32_t freeCount;
    };

    static unsigned char* NextFree(unsigned char* slot) {
        return *reinterpret_cast<unsigned char**>(slot + kObjectOffset);
    }
    static void SetNextFree(unsigned char* slot, unsigned char* next) {
        *reinterpret_cast<unsigned char**>(slot + kObjectOffset) = next;
    }

    Block* MakeBlock() {
        Block* block = static_cast<Block*>(Allocate(sizeof(Block)));
        unsigned char* next = nullptr;
        for (std::size_t i = SlotCount; i-- > 0;) {
            unsigned char* slot = block->slots + i * kSlotSize;
            SetNextFree(slot, next);
            next = slot;
        }
        block->freeHead = next;
        block->freeCount = static_cast<std::int32_t>(SlotCount);
        block->allPrev = nullptr;
        block->allNext = m_newest;
        if (m_newest) m_newest->allPrev = block;
        m_newest = block;
        ++m_blocksMade;
        block->freePrev = block->freeNext = nullptr;
        LinkFree(block);
        return block;
    }

    void LinkFree(Block* block) noexcept {
        block->freePrev = nullptr;
        block->freeNext = m_firstFree;
        if (m_firstFree) m_firstFree->freePrev = block;
        m_firstFree = block;
        ++m_blocksInFreeList;
    }

    void UnlinkFree(Block* block) noexcept {
        if (block->freePrev) block->freePrev->freeNext = block->freeNext;
        else m_firstFree = block->freeNext;
        if (block->freeNext) block->freeNext->freePrev = block->freePrev;
        block->freePrev = block->freeNext = nullptr;
        --m_blocksInFreeList;
    }

    void DropBlock(Block* block) noexcept {
        UnlinkFree(block);
        if (block->allPrev) block->allPrev->allNext = block->allNext;
        else m_newest = block->allNext;
        if (block->allNext) block->allNext->allPrev = block->allPrev;
        if (m_current == block) m_current = nullptr;
        --m_blocksMade;
        Free(block);
    }

    Block* m_firstFree = nullptr;  // first block of the list of blocks with free slots
    Block* m_newest = nullptr;     // newest block (head of the list of all blocks)
    Block* m_current = nullptr;    // block allocations are taken from, or null
    std::size_t m_blocksMade = 0;  // blocks currently held
    std::size_t m_blocksInFreeList = 0;
};

// A pool whose blocks hold as many slots as fit in the small-pool slot area.
template <class T>
using SmallObjectPool = FixedPool<sizeof(T), kSmallPoolSlotArea / FixedPool<sizeof(T), 1>::kSlotSize>;

}  // namespace Tarvel

#endif  // TARVEL_FOUNDATION_POOL_H
