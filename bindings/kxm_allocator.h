// Standard allocators over the library's own: containers of the standard library that draw from an
// allocator handle or from a pool, and show up in its figures. C++11, header only.
//
//   KXMBasMemPool pool(2000, "mesh", nullptr);
//   pool.Activate();
//   std::vector<Node, kxm::PoolAllocator<Node>> nodes(pool);
//   std::list<int, kxm::PoolAllocator<int>> numbers;             // operatorNewPool
//
//   KXMBasAllocator memory(new KXMBasMemAllocator);
//   std::map<int, double, std::less<int>, kxm::HandleAllocator<std::pair<const int, double>>>
//       values(memory);
//
// Failure: std::bad_alloc when memory is short, std::bad_array_new_length when the number of bytes
// cannot be told; whatever the allocator behind a handle throws. No new-handler is called.
//
// Alignment: any. What wants more than the 8 bytes that every block has comes from a larger block,
// whose address is kept in front of it: one alignment more for each, which the pool counts too. So it
// is on every back end, in the tiny block pool too.
//
// Equality: two allocators are equal when they have the same pool, or share one allocator object.
// Containers behave as with std::allocator where they are equal. Where they are not, a container that
// is copied to keeps its own, a container that is moved to or swapped takes the other's, and a new copy
// has the one of what it was copied from.
//
// Threads: a PoolAllocator may be copied and used by any thread, as the pool itself: its figures are
// then approximate. A HANDLE COUNTS WITHOUT A LOCK, and containers copy their allocators at will, so all
// containers that share an allocator object belong to one thread at a time; give each thread an object
// of its own, or let them share a HandleResource (kxm_memory_resource.h), which containers do not copy.
//
// Life: a pool must outlive its containers; an allocator object lives as long as they. But GCC's library
// up to 12 forgets an allocator with each node handle that is inserted, so that an object used so is
// never deleted: there, merge or splice instead.
#ifndef kxm_allocator_h
#define kxm_allocator_h

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>

#include "KXMBasAllocator.h"
#include "KXMBasMemPool.h"

namespace kxm {

/// A pool as a value to copy and compare. Without an argument, operatorNewPool.
class PoolReference {
public:
    PoolReference() noexcept : pool_(&operatorNewPool) {}
    PoolReference(KXMBasMemPool& pool) noexcept : pool_(&pool) {}

    void* Alloc(std::size_t size) const { return pool_->Alloc(size); }
    void Free(void* ptr) const { pool_->Free(ptr); }
    KXMBasMemPool& pool() const noexcept { return *pool_; }

private:
    KXMBasMemPool* pool_;
};

namespace aligned_blocks {

enum : std::size_t { block_alignment = 8 };

inline bool same(const PoolReference& a, const PoolReference& b) noexcept {
    return &a.pool() == &b.pool();
}
inline bool same(const KXMBasAllocator& a, const KXMBasAllocator& b) noexcept {
    return AllocatorAccess::base(a) == AllocatorAccess::base(b);
}

/// `size` bytes at a multiple of `alignment`, a power of two.
template <class Source> void* take(const Source& source, std::size_t size, std::size_t alignment) {
    const bool shifts = alignment > block_alignment;
    if (shifts && size > std::numeric_limits<std::size_t>::max() - alignment) {
        throw std::bad_alloc();
    }
    // The smallest blocks of all have an alignment as small.
    void* const block =
        source.Alloc(shifts ? size + alignment : (size < alignment ? alignment : size));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    if (!shifts) {
        return block;
    }
    // The first multiple that leaves room for the block's address in front.
    const std::size_t address = reinterpret_cast<std::uintptr_t>(block) % alignment;
    const std::size_t shift =
        ((address + sizeof block + alignment - 1) & ~(alignment - 1)) - address;
    char* const ptr = static_cast<char*>(block) + shift;
    std::memcpy(ptr - sizeof block, &block, sizeof block);
    return ptr;
}

template <class Source> void give(const Source& source, void* ptr, std::size_t alignment) {
    if (alignment > block_alignment) {
        std::memcpy(&ptr, static_cast<char*>(ptr) - sizeof ptr, sizeof ptr);
    }
    source.Free(ptr);
}

} // namespace aligned_blocks

/// A standard allocator over a Source: HandleAllocator and PoolAllocator below.
template <class T, class Source> class Allocator {
public:
    using value_type = T;
    using propagate_on_container_move_assignment = std::true_type;
    using propagate_on_container_swap = std::true_type;
    using is_always_equal = std::false_type;

    Allocator() = default; ///< of pools alone: operatorNewPool
    Allocator(const Allocator& other) = default;
    Allocator& operator=(const Allocator& other) = default;
    /// From a handle, which is copied, or a pool, which is not.
    template <class From,
              class = typename std::enable_if<std::is_convertible<From&, Source>::value>::type>
    Allocator(From& from) noexcept : source_(from) {}
    Allocator(const Source& source) noexcept : source_(source) {}
    template <class U>
    Allocator(const Allocator<U, Source>& other) noexcept : source_(other.source()) {}

    T* allocate(std::size_t count) {
        if (count > std::numeric_limits<std::size_t>::max() / sizeof(T)) {
            throw std::bad_array_new_length();
        }
        return static_cast<T*>(aligned_blocks::take(source_, count * sizeof(T), alignof(T)));
    }
    void deallocate(T* ptr, std::size_t) { aligned_blocks::give(source_, ptr, alignof(T)); }

    /// The handle, or the reference to the pool.
    const Source& source() const noexcept { return source_; }

private:
    Source source_;
};

template <class T, class U, class Source>
bool operator==(const Allocator<T, Source>& a, const Allocator<U, Source>& b) noexcept {
    return aligned_blocks::same(a.source(), b.source());
}
template <class T, class U, class Source>
bool operator!=(const Allocator<T, Source>& a, const Allocator<U, Source>& b) noexcept {
    return !(a == b);
}

template <class T> using HandleAllocator = Allocator<T, KXMBasAllocator>;
template <class T> using PoolAllocator = Allocator<T, PoolReference>;

} // namespace kxm

#endif
