// Pools that account for what is allocated through them. See the header.
#include "KXMBasMemPool.h"

#include <cstring>

#include "client/pool_account.h"
#include "frame/seam_operator_pool.h"
#include "mem_Interface.h"
#include "platform/relaxed_word.h"

using os::relaxed_read;
using os::relaxed_write;

void operator_pool_seam::activate() {
    operatorNewPool.Activate();
}

KXMBasMemPool::KXMBasMemPool(int id, const char* name, KXMBasMemCacheManager* manager)
    : m_poolId(id), m_poolName{}, m_cacheManager(manager) {
    static_cast<void>(m_cacheManager); // nothing here reads it
    const char* const text = name != nullptr ? name : "unaccounted";
    // Cut where the field ends; the rest stays NUL.
    std::memcpy(m_poolName, text, ::strnlen(text, sizeof m_poolName - 1));
}

void KXMBasMemPool::Activate() {
    relaxed_write(m_active, true); // again at each start of the library, while others allocate
}

void* KXMBasMemPool::Alloc(std::size_t size) {
    void* const ptr = mem_Malloc(size);
    if (relaxed_read(m_active)) {
        UpdateMemoryInUse(increase, AllocSize(ptr));
    }
    return ptr;
}

std::size_t KXMBasMemPool::Free(void* ptr) {
    if (ptr == nullptr) {
        return 0;
    }
    if (!relaxed_read(m_active)) {
        mem_Free(ptr);
        return 0;
    }
    const std::size_t size = AllocSize(ptr); // while the block is still ours
    mem_Free(ptr);
    UpdateMemoryInUse(decrease, size);
    return size;
}

std::size_t KXMBasMemPool::AllocSize(void* ptr) const {
    return pool_account::alloc_size(ptr);
}

std::size_t KXMBasMemPool::ActualSizeForUse(void* ptr) const {
    return pool_account::actual_size_for_use(ptr);
}

void KXMBasMemPool::SetMemoryLimit(std::size_t first, std::size_t second, double real) {
    m_limitFirst = first;
    m_limitSecond = second;
    m_limitReal = real;
}

std::size_t KXMBasMemPool::MemoryCurrent() {
    return relaxed_read(m_memoryCurrent);
}

std::size_t KXMBasMemPool::MemoryPeak() {
    return relaxed_read(m_memoryPeak);
}

void KXMBasMemPool::UpdateMemoryInUse(IncreaseDecrease how, std::size_t size) {
    pool_account::update(relaxed_read(m_active), how != increase, size, m_memoryCurrent,
                         m_memoryHighWater, m_memoryPeak);
}
