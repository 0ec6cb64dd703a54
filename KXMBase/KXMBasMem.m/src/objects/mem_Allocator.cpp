// The C allocation interface as an object: a second attempt, a note on the error stack, an exception.
#include "mem_Allocator.h"

#include "mem_Interface.h"
#include "objects/allocation_failure.h"

namespace {

enum class Asked { allocation, reallocation };

allocation_failure::Message s_report;

[[noreturn]] void report_and_throw(Asked asked, std::size_t size) {
    const unsigned long long bytes = size;
    if (asked == Asked::reallocation) {
        allocation_failure::report_and_throw(s_report, "Requested Reallocation: %llu bytes", bytes);
    }
    allocation_failure::report_and_throw(s_report, "Requested Allocation: %llu bytes", bytes);
}

template <typename Request>
KXM_ALWAYS_INLINE void* allocate(mem_Allocator& allocator, Asked asked, std::size_t size,
                                 Request request) {
    if (void* const ptr = request()) [[likely]] {
        return ptr;
    }
    allocator.Purge(size);
    if (void* const ptr = request()) {
        return ptr;
    }
    report_and_throw(asked, size);
}

} // namespace

mem_Allocator::~mem_Allocator() {}

void* mem_Allocator::Calloc(const char*, std::size_t count, std::size_t size) {
    return allocate(*this, Asked::allocation, size, [=] { return mem_Calloc(count, size); });
}

void* mem_Allocator::Malloc(const char*, std::size_t size) {
    return allocate(*this, Asked::allocation, size, [=] { return mem_Malloc(size); });
}

void* mem_Allocator::Realloc(const char*, void* ptr, std::size_t size) {
    return allocate(*this, Asked::reallocation, size, [block = ptr, size]() mutable {
        void* const result = mem_Realloc(block, size);
        block = size != 0 ? block : nullptr; // which released it: not to be released again
        return result;
    });
}

void* mem_Allocator::Malign(const char*, std::size_t size, std::size_t alignment) {
    return allocate(*this, Asked::allocation, size, [=] { return mem_Malign(size, alignment); });
}

void mem_Allocator::Free(const char*, void* ptr) {
    mem_Free(ptr);
}

mem_Allocator* mem_Allocator::Copy() const {
    return new mem_Allocator(*this);
}

std::size_t mem_Allocator::Purge(std::size_t) {
    return 0;
}
