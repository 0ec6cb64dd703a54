// The allocator object that goes straight to the heap, past the table of bound functions, the tiny
// block pool and the tracker. It is for use while the heap is the bound back end.
//
// Its Malloc, Realloc and Memalign try twice and THEN RETURN NULL, without a report. Calloc and
// Malign are those of mem_Allocator: they take the C interface's road and throw. So a caller tests
// for null, and gives a block of Malign to mem_MalignFree, not to Free.
#pragma once

#include "mem_Allocator.h"

class KXMBASMEM_API mem_DLAllocator : public mem_Allocator {
public:
    mem_DLAllocator() = default;
    mem_DLAllocator(const mem_DLAllocator&) = default;
    mem_DLAllocator& operator=(const mem_DLAllocator&) = default;
    ~mem_DLAllocator() override;

    void* Malloc(const char* tag, std::size_t size) override;
    void* Realloc(const char* tag, void* ptr, std::size_t size) override;
    void Free(const char* tag, void* ptr) override;
    mem_Allocator* Copy() const override;

    /// A block at a multiple of `alignment`, which is raised to a power of two and to 64 at least.
    /// Given back by Free.
    void* Memalign(const char* tag, std::size_t alignment, std::size_t bytes);
};
