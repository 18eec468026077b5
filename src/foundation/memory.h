// The library's allocation path and its out-of-memory discipline, with allocator aliases for the
// standard containers. Foundation layer. The out-of-memory state is process-wide and unlocked:
// it is a one-way latch between re-arms, and a racing reader at worst fails one allocation early.
//
// Rule: every allocation of the library goes through Allocate/Reallocate. The first failure of
// the heap sets the out-of-memory flag, gives the reserve back to the heap and throws
// std::bad_alloc; every later allocation fails at once (without asking the heap) until the host
// calls PrepareOutOfMemoryBuffer(). The host's global operator new is never replaced.
#ifndef TARVEL_FOUNDATION_MEMORY_H
#define TARVEL_FOUNDATION_MEMORY_H

#include <cstddef>
#include <functional>
#include <map>
#include <new>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Tarvel {

// Size of the reserve that is given back to the heap at the first failure.
inline constexpr std::size_t kOutOfMemoryReserveSize = 0x40000;

// The allocation failure the library throws: a std::bad_alloc whose what() is "bad allocation"
// on every platform and runtime, so hosts that show or log it see one text.
class AllocationFailure : public std::bad_alloc {
public:
    const char* what() const noexcept override { return "bad allocation"; }
};

// Throws AllocationFailure.
[[noreturn]] void ThrowAllocationFailure();

// Returns a block of at least `size` bytes (size 0 gives a valid unique block), or throws
// std::bad_alloc by the rule above. The block is aligned for any fundamental type.
void* Allocate(std::size_t size);
// Resizes `block` (null allowed) to `size` bytes, keeping its content; on failure the old
// block stays valid and owned by the caller, and std::bad_alloc is thrown.
void* Reallocate(void* block, std::size_t size);
// Gives back a block of Allocate/Reallocate (null allowed).
void Free(void* block) noexcept;

// True after a failed allocation, until PrepareOutOfMemoryBuffer().
bool IsOutOfMemory() noexcept;
// True while a reserve block is held (for tests).
bool HoldsOutOfMemoryReserve() noexcept;

// Makes `T` from the library's allocation path; DestroyObject gives it back.
template <class T, class... Args>
T* NewObject(Args&&... args) {
    void* place = Allocate(sizeof(T));
    try {
        return new (place) T(std::forward<Args>(args)...);
    } catch (...) {
        Free(place);
        throw;
    }
}

template <class T>
void DestroyObject(T* object) noexcept {
    if (object) {
        object->~T();
        Free(object);
    }
}

// Standard allocator over the library's allocation path.
template <class T>
struct Allocator {
    using value_type = T;
    Allocator() noexcept = default;
    template <class U>
    Allocator(const Allocator<U>&) noexcept {}
    T* allocate(std::size_t n) {
        if (n > static_cast<std::size_t>(-1) / sizeof(T)) ThrowAllocationFailure();
        return static_cast<T*>(Allocate(n * sizeof(T)));
    }
    void deallocate(T* p, std::size_t) noexcept { Free(p); }
    template <class U>
    bool operator==(const Allocator<U>&) const noexcept { return true; }
    template <class U>
    bool operator!=(const Allocator<U>&) const noexcept { return false; }
};

template <class T>
using Vector = std::vector<T, Allocator<T>>;
using String = std::basic_string<char, std::char_traits<char>, Allocator<char>>;
template <class K, class V, class Less = std::less<K>>
using Map = std::map<K, V, Less, Allocator<std::pair<const K, V>>>;
template <class K, class Less = std::less<K>>
using Set = std::set<K, Less, Allocator<K>>;
template <class K, class V, class Hash = std::hash<K>, class Eq = std::equal_to<K>>
using HashMap = std::unordered_map<K, V, Hash, Eq, Allocator<std::pair<const K, V>>>;

}  // namespace Tarvel

#endif  // TARVEL_FOUNDATION_MEMORY_H
