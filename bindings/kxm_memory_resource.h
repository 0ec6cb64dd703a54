// Memory resources over the library's own allocators, for the containers of std::pmr. C++17, header
// only.
//
//   KXMBasMemPool pool(2000, "mesh", nullptr);
//   kxm::PoolResource resource(pool);              // or kxm::PoolResource(), on operatorNewPool
//   std::pmr::vector<Node> nodes(&resource);
//
//   KXMBasAllocator memory(new KXMBasMemAllocator);
//   kxm::HandleResource cleared(memory);           // shares the allocator object
//
// A resource must outlive its containers. Failure, alignment, equality and threads are as in
// kxm_allocator.h, but that a resource itself is never copied: threads may share a HandleResource as far
// as its allocator object lets them allocate together.
#ifndef kxm_memory_resource_h
#define kxm_memory_resource_h

#include <memory_resource>

#include "kxm_allocator.h"

namespace kxm {

template <class Source> class MemoryResource final : public std::pmr::memory_resource {
public:
    MemoryResource() = default; ///< of pools alone: operatorNewPool
    explicit MemoryResource(const Source& source) noexcept : source_(source) {}
    MemoryResource(const MemoryResource&) = delete;
    MemoryResource& operator=(const MemoryResource&) = delete;

    /// The handle, or the reference to the pool.
    const Source& source() const noexcept { return source_; }

private:
    void* do_allocate(std::size_t bytes, std::size_t alignment) override {
        return aligned_blocks::take(source_, bytes, alignment);
    }
    void do_deallocate(void* ptr, std::size_t, std::size_t alignment) override {
        aligned_blocks::give(source_, ptr, alignment);
    }
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override {
        const auto* const too = dynamic_cast<const MemoryResource*>(&other);
        return too != nullptr && aligned_blocks::same(source_, too->source_);
    }

    Source source_;
};

using HandleResource = MemoryResource<KXMBasAllocator>;
using PoolResource = MemoryResource<PoolReference>;

} // namespace kxm

#endif
