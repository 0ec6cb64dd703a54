// The general allocator objects. What is behind allocate and deallocate of the first stands in
// uninitialised_reads.cpp.
#include "KXMBasMemAllocator.h"

#include <cstring>

#include "client/uninitialised_reads.h"
#include "mem_Interface.h"
#include "objects/allocation_failure.h"
#include "platform/compiler.h"

namespace {

enum class Contents { cleared, as_they_come };

template <Contents contents> allocation_failure::Message allocFailureMessage; // one for each class

template <Contents contents> [[noreturn]] KXM_NEVER_INLINE void fail(std::size_t size) {
    allocation_failure::report_and_throw(allocFailureMessage<contents>,
                                         "Requested Allocation: %llu bytes",
                                         static_cast<unsigned long long>(size));
}
template <Contents contents> [[noreturn]] KXM_NEVER_INLINE void fail_doubles(int count) {
    allocation_failure::report_and_throw(allocFailureMessage<contents>,
                                         "Requested Allocation: %d doubles", count);
}
template <Contents contents> [[noreturn]] KXM_NEVER_INLINE void fail_ints(int count) {
    allocation_failure::report_and_throw(allocFailureMessage<contents>,
                                         "Requested Allocation: %d ints", count);
}

template <Contents contents, typename Asked>
KXM_ALWAYS_INLINE void* take(std::size_t size, void (*refused)(Asked), Asked asked) {
    void* const ptr = mem_Malloc(size);
    if (ptr == nullptr) [[unlikely]] {
        refused(asked);
    }
    if constexpr (contents == Contents::cleared) {
        std::memset(ptr, 0, size);
    }
    return ptr;
}

template <Contents contents> KXM_ALWAYS_INLINE void* take(std::size_t size) {
    return take<contents>(size, fail<contents>, size);
}

template <Contents contents, typename T> T* take_array(int count, void (*refused)(int)) {
    const auto elements = static_cast<std::size_t>(std::int64_t{count}); // with its sign
    return static_cast<T*>(take<contents>(elements * sizeof(T), refused, count));
}

template <Contents contents>
void* take_with_size(KXMBasMemAllocator& allocator, std::size_t size, std::size_t& actualSize) {
    void* const ptr = allocator.Alloc(size);
    if (ptr == nullptr) [[unlikely]] { // from a client's own class
        fail<contents>(size);
    }
    actualSize = size;
    return ptr;
}

} // namespace

void* KXMBasMemAllocator::Alloc(std::size_t size, std::size_t& actualSize) {
    return take_with_size<Contents::cleared>(*this, size, actualSize);
}

void* KXMBasMemAllocator::Alloc(std::size_t size) {
    return take<Contents::cleared>(size);
}

void KXMBasMemAllocator::Free(void* ptr) {
    mem_Free(ptr);
}

const KXMBasAllocator& KXMBasMemAllocator::LargeBlockAllocator(const KXMBasAllocator& self) const {
    return self;
}

void* KXMBasMemAllocator::allocate(std::size_t size, const void*) {
    if (!uninitialised_reads::may_prepare()) [[likely]] {
        return take<Contents::as_they_come>(size, fail<Contents::cleared>, size);
    }
    void* const ptr = take<Contents::as_they_come>(uninitialised_reads::room_for_number(size),
                                                   fail<Contents::cleared>, size);
    uninitialised_reads::prepare(ptr, size);
    return ptr;
}

void KXMBasMemAllocator::deallocate(void* ptr, std::size_t) {
    if (uninitialised_reads::may_scan()) [[unlikely]] {
        uninitialised_reads::scan(ptr);
    }
    mem_Free(ptr);
}

double* KXMBasMemAllocator::AllocDouble(int count) {
    return take_array<Contents::cleared, double>(count, fail_doubles<Contents::cleared>);
}

int* KXMBasMemAllocator::AllocInt(int count) {
    return take_array<Contents::cleared, int>(count, fail_ints<Contents::cleared>);
}

void* KXMBasMemAllocatorNoInit::Alloc(std::size_t size, std::size_t& actualSize) {
    return take_with_size<Contents::as_they_come>(*this, size, actualSize);
}

void* KXMBasMemAllocatorNoInit::Alloc(std::size_t size) {
    return take<Contents::as_they_come>(size);
}

double* KXMBasMemAllocatorNoInit::AllocDouble(int count) {
    return take_array<Contents::as_they_come, double>(count, fail_doubles<Contents::as_they_come>);
}

int* KXMBasMemAllocatorNoInit::AllocInt(int count) {
    return take_array<Contents::as_they_come, int>(count, fail_ints<Contents::as_they_come>);
}

void* KXMBasMemAllocatorNoInit::allocate(std::size_t size, const void*) {
    return take<Contents::as_they_come>(size);
}
