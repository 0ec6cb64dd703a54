// An allocator over a buffer of a fixed size, as an interface alone: it takes its place among the
// allocators and keeps what it was constructed with. EVERY OPERATION ENDS THE PROCESS with the C
// runtime's assertion.
#pragma once

#include <cstddef>

#include "KXMBasAllocator.h"
#include "KXMBasMemExport.h"

class KXMBASMEM_API KXMBasMemFixedPoolAllocator : public KXMBasAllocatorBase {
public:
    explicit KXMBasMemFixedPoolAllocator(std::size_t size);
    /// `buffer` stays the caller's, and is neither read nor written.
    KXMBasMemFixedPoolAllocator(std::size_t size, void* buffer);
    ~KXMBasMemFixedPoolAllocator() override;

    void* Alloc(std::size_t size, std::size_t& actualSize) override;
    void* Alloc(std::size_t size) override;
    void Free(void* ptr) override;
    const KXMBasAllocator& LargeBlockAllocator(const KXMBasAllocator& self) const override;
    void* allocate(std::size_t size, const void* hint) override;
    void deallocate(void* ptr, std::size_t size) override;

private:
    std::size_t m_poolSize;
    void* m_poolBuffer;
    std::size_t m_poolUsed; // 0; nothing changes it
};
