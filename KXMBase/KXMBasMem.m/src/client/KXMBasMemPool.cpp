// Pools that account for what is allocated through them. See the header.
#include "KXMBasMemPool.h"

#include <cstring>

#include "mem_Interface.h"
#include "platform/compiler.h"

KXMBasMemPool::KXMBasMemPool(int id, const char* name, KXMBasMemCacheManager* manager)
    : m_poolId(id), m_poolName{}, m_cacheManager(manager) {
    const char* const text = name != nullptr ? name : "unaccounted";
    // Cut where the field ends; the rest stays NUL.
    std::memcpy(m_poolName, text, ::strnlen(text, sizeof m_poolName - 1));
}

void KXMBasMemPool::Activate() {
    m_active = true;
}

void* KXMBasMemPool::Alloc(std::size_t size) {
    void* const ptr = mem_Malloc(size);
    UpdateMemoryInUse(increase, AllocSize(ptr));
    return ptr;
}

std::size_t KXMBasMemPool::Free(void* ptr) {
    if (ptr == nullptr) {
        return 0;
    }
    if (!m_active) {
        mem_Free(ptr);
        return 0;
    }
    const std::size_t size = AllocSize(ptr); // while the block is still ours
    mem_Free(ptr);
    UpdateMemoryInUse(decrease, size);
    return size;
}

std::size_t KXMBasMemPool::AllocSize(void* ptr) const {
    // The head of a heap chunk, with its two flag bits cleared. Nothing tests that the block is one;
    // but a block of another back end that begins a page may have nothing in front of it to read.
    constexpr std::uint64_t flag_bits = 3;
    constexpr std::uintptr_t page_mask = 4095;
    const bool begins_page = (reinterpret_cast<std::uintptr_t>(ptr) & page_mask) == 0;
    if (ptr == nullptr || (begins_page && mem_usingDL() == 0)) {
        return 0;
    }
    return os::read_word_unchecked(static_cast<std::uint64_t*>(ptr) - 1) & ~flag_bits;
}

std::size_t KXMBasMemPool::ActualSizeForUse(void* ptr) const {
    return ptr != nullptr ? AllocSize(ptr) - 16 : 0;
}

void KXMBasMemPool::SetMemoryLimit(std::size_t first, std::size_t second, double real) {
    m_limitFirst = first;
    m_limitSecond = second;
    m_limitReal = real;
}

void KXMBasMemPool::UpdateMemoryInUse(IncreaseDecrease how, std::size_t size) {
    if (!m_active) {
        return;
    }
    if (how != increase) {
        m_memoryCurrent -= size; // may wrap: blocks from before Activate are not guarded against
        return;
    }
    m_memoryCurrent += size;
    if (m_memoryCurrent > m_memoryHighWater) {
        m_memoryHighWater = m_memoryCurrent;
    }
    if (m_memoryHighWater > m_memoryPeak) {
        m_memoryPeak = m_memoryHighWater;
    }
}
