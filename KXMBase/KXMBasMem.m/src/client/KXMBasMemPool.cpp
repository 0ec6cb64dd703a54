// Pools that account for what is allocated through them. See the header.
#include "KXMBasMemPool.h"

#include <cstring>

#include "frame/seam_operator_pool.h"
#include "mem_Interface.h"
#include "platform/compiler.h"
#include "platform/relaxed_word.h"

namespace {

// No pool takes a lock: its figures are read and written whole, but a sum of two threads may lose
// one of them.
using os::relaxed_read;
using os::relaxed_write;

void raise(std::uint64_t& figure, std::uint64_t value) {
    if (value > relaxed_read(figure)) {
        relaxed_write(figure, value);
    }
}

} // namespace

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
    // The head of a heap chunk, with its two flag bits cleared. Nothing tests that the block is
    // one; but a block of another back end that begins a page may have nothing in front of it to
    // read.
    constexpr std::uint64_t flag_bits = 3;
    constexpr std::uintptr_t page_mask = 4095;
    const bool begins_page = (reinterpret_cast<std::uintptr_t>(ptr) & page_mask) == 0;
    if (ptr == nullptr || (begins_page && mem_usingDL() == 0)) {
        return 0;
    }
    return os::read_word_unchecked(static_cast<std::uint64_t*>(ptr) - 1) & ~flag_bits;
}

std::size_t KXMBasMemPool::ActualSizeForUse(void* ptr) const {
    constexpr std::size_t chunk_header = 16;
    const std::size_t size = AllocSize(ptr);
    return size != 0 ? size - chunk_header : 0;
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
    if (!m_active) {
        return;
    }
    const std::uint64_t before = relaxed_read(m_memoryCurrent);
    if (how != increase) {
        relaxed_write(m_memoryCurrent,
                      before - size); // may wrap: blocks from before Activate, meant
        return;
    }
    const std::uint64_t current = before + size;
    relaxed_write(m_memoryCurrent, current);
    raise(m_memoryHighWater, current);
    raise(m_memoryPeak, relaxed_read(m_memoryHighWater));
}
