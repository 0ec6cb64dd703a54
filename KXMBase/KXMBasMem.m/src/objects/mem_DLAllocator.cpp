// The allocator object of the heap itself.
#include "mem_DLAllocator.h"

#include "heap/dlmalloc.h"
#include "platform/compiler.h"

namespace {

// The second attempt can succeed: another thread may have released memory, or raised the limit.
template <typename Request>
KXM_ALWAYS_INLINE void* twice(mem_Allocator& allocator, std::size_t size, Request request) {
    if (void* const ptr = request()) [[likely]] {
        return ptr;
    }
    allocator.Purge(size);
    return request();
}

} // namespace

mem_DLAllocator::~mem_DLAllocator() {}

void* mem_DLAllocator::Malloc(const char*, std::size_t size) {
    return twice(*this, size, [=] { return dlmalloc(size); });
}

void* mem_DLAllocator::Realloc(const char*, void* ptr, std::size_t size) {
    // A release, whose null is no refusal: again it would be of a block that is gone.
    if (size == 0 && ptr != nullptr) {
        return dlrealloc(ptr, 0);
    }
    return twice(*this, size, [=] { return dlrealloc(ptr, size); });
}

void* mem_DLAllocator::Memalign(const char*, std::size_t alignment, std::size_t bytes) {
    return twice(*this, bytes, [=] { return dlmemalign(alignment, bytes); });
}

void mem_DLAllocator::Free(const char*, void* ptr) {
    dlfree(ptr);
}

mem_Allocator* mem_DLAllocator::Copy() const {
    return new mem_DLAllocator(*this);
}
