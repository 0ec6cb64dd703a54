// Allocation as an object, for the layers that are given either the general path or the heap.
//
// mem_Allocator is the C allocation interface with a second attempt and an exception: when that
// attempt fails too, it leaves the request and a call stack on the error stack, if that is active
// (KXMBasErrorStack::Activate), and throws std::bad_alloc. It never returns null. Each request
// carries a tag that names who asks, for instance "mem_Block"; nothing here looks at it.
//
// The object holds no state and may be used from any thread; the texts of two threads that fail at
// the same time may mix. Sizes and alignments are bytes.
#pragma once

#include <cstddef>

#include "KXMBasMemExport.h"
#include "mem_AllocationOperatorsTiny.h"

class KXMBASMEM_API mem_Allocator : public mem_AllocationOperatorsTiny {
public:
    mem_Allocator() = default;
    mem_Allocator(const mem_Allocator&) = default;
    mem_Allocator& operator=(const mem_Allocator&) = default;
    virtual ~mem_Allocator();

    /// `count` zeroed elements. A failure reports the size of one element: deliberately.
    virtual void* Calloc(const char* tag, std::size_t count, std::size_t size);
    virtual void* Malloc(const char* tag, std::size_t size);
    /// Size 0 releases the block and gives an empty one; on the aligned back end, which keeps the block
    /// then, it is refused.
    virtual void* Realloc(const char* tag, void* ptr, std::size_t size);
    /// Given back by mem_MalignFree, not by Free.
    virtual void* Malign(const char* tag, std::size_t size, std::size_t alignment);
    virtual void Free(const char* tag, void* ptr);

    /// A new object of this type. The caller deletes it.
    virtual mem_Allocator* Copy() const;

    /// What every second attempt is preceded by: the place for giving back what could be spared.
    /// Frees nothing and answers 0.
    std::size_t Purge(std::size_t size);
};
