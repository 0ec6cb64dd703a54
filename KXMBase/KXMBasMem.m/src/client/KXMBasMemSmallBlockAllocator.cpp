// A plain forward to the tiny block pool.
#include "KXMBasMemSmallBlockAllocator.h"

#include "tiny/mem_TBPool.h"

KXMBasMemSmallBlockAllocator::KXMBasMemSmallBlockAllocator()
    : m_pool(mem_TBPool::InstanceOrNull()) {
    static_cast<void>(m_pool); // kept, and nothing here reads it
}

KXMBasMemSmallBlockAllocator::~KXMBasMemSmallBlockAllocator() {}

void* KXMBasMemSmallBlockAllocator::allocate(int size) {
    mem_TBPool* const pool = mem_TBPool::InstanceOrNull();
    // A negative size becomes a huge one, which the pool refuses like any that is too large.
    return pool != nullptr ? pool->Alloc(static_cast<std::size_t>(size), false) : nullptr;
}

void KXMBasMemSmallBlockAllocator::deallocate(void* p) {
    mem_TBPool::Instance().Free(p);
}
