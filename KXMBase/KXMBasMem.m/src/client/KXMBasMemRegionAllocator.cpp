// The pool with a table of blocks. Its odd ways are settled and meant to stay: the first block lies in
// entry 1, a table that grows keeps an eighth of its entries, and a block that could only be had on the
// second request is not used.
#include "KXMBasMemRegionAllocator.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "client/pool_account.h"
#include "mem_Interface.h"
#include "platform/compiler.h"
#include "platform/os.h"
#include "platform/relaxed_word.h"

namespace {

constexpr char source[] = "KXMBasMemRegionAllocator";
constexpr std::int32_t first_capacity = 256;

// The text names the variable that is to hold the memory.
void* calloc_or_die(std::int32_t count, std::size_t size, const char* text,
                    unsigned line = __builtin_LINE()) {
    void* const memory = mem_Calloc(static_cast<std::size_t>(count), size);
    if (memory == nullptr) {
        os::assertion_failed(text, source, line);
    }
    return memory;
}

[[noreturn]] void report_and_throw(std::size_t size, int line) {
    const auto mb = [](std::size_t footprint) {
        return static_cast<unsigned long long>(footprint / 1024 / 1024);
    };
    std::fputs("\n", stderr);
    std::fprintf(stderr, "*** Error: Cannot allocate memory; %llu bytes requested\n",
                 static_cast<unsigned long long>(size));
    std::fprintf(stderr, "*** File: %s, line %d\n", source, line);
    // Both figures are kibibytes, so what is called MB here is less by a factor of 1024.
    std::fprintf(stderr, "*** Current Memory Footprint from OS: %llu MB\n\n",
                 mb(mem_FootprintFromResources()));
    std::fprintf(stderr, "*** Current Memory Footprint from DL: %llu MB\n\n", mb(mem_Footprint()));
    std::fflush(nullptr);
    // Tells whoever reads the log whether it would succeed now. No second chance: nobody uses or
    // releases the block.
    if (mem_Calloc(size, 1) != nullptr) {
        std::fputs("+++ Repeated request succeeded! +++\n", stderr);
        std::fflush(nullptr);
    }
    throw std::bad_alloc();
}

} // namespace

KXMBasMemTruePool::KXMBasMemTruePool(int, const char*, KXMBasMemCacheManager* manager)
    : m_cacheManager(manager),
      m_tbl(static_cast<Block**>(calloc_or_die(first_capacity, sizeof *m_tbl, "m_tbl != 0"))),
      m_tblSize(first_capacity) {
    try {
        Grow();
    } catch (...) {
        mem_Free(m_tbl); // nobody else will
        throw;
    }
}

KXMBasMemTruePool::KXMBasMemTruePool(const KXMBasMemTruePool& other)
    : m_active(other.m_active), m_memoryCurrent(other.m_memoryCurrent),
      m_memoryPeak(other.m_memoryPeak), m_cacheManager(other.m_cacheManager),
      m_tbl(static_cast<Block**>(calloc_or_die(other.m_tblSize, sizeof *m_tbl, "m_tbl != 0"))),
      m_tblSize(other.m_tblSize), m_lastBlock(other.m_lastBlock),
      m_usedInBlock(other.m_usedInBlock) {
    for (std::int32_t i = 0; i <= m_lastBlock; ++i) {
        m_tbl[i] = static_cast<Block*>(calloc_or_die(sizeof(Block), 1, "m_tbl[i]"));
    }
}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): it assigns nothing and ends the process
KXMBasMemTruePool& KXMBasMemTruePool::operator=(const KXMBasMemTruePool&) {
    std::fputs("*** Error: KXMBasMemTruePool::operator= is not implemented.\n", stderr);
    std::fflush(nullptr);
    std::abort();
}

KXMBasMemTruePool::~KXMBasMemTruePool() {
    if (m_tbl != nullptr) {
        for (std::int32_t i = 0; i <= m_lastBlock; ++i) {
            mem_Free(m_tbl[i]);
        }
        mem_Free(m_tbl);
        m_tbl = nullptr;
    }
}

std::size_t KXMBasMemTruePool::MemoryCurrent() {
    return os::relaxed_read(m_memoryCurrent);
}

std::size_t KXMBasMemTruePool::MemoryPeak() {
    return os::relaxed_read(m_memoryPeak);
}

std::size_t KXMBasMemTruePool::MemoryInUse() {
    return MemoryCurrent();
}

char* KXMBasMemTruePool::PoolName() {
    static char name[] = "KXMBasMemRegionAllocator";
    return name;
}

std::size_t KXMBasMemTruePool::AllocSize(void* ptr) const {
    return pool_account::alloc_size(ptr);
}

std::size_t KXMBasMemTruePool::ActualSizeForUse(void* ptr) const {
    return pool_account::actual_size_for_use(ptr);
}

void KXMBasMemTruePool::SetMemoryLimit(std::size_t first, std::size_t second, double real) {
    m_limitFirst = first;
    m_limitSecond = second;
    m_limitReal = real;
}

void KXMBasMemTruePool::UpdateMemoryInUse(IncreaseDecrease how, std::size_t size) {
    pool_account::update(m_active, how != increase, size, m_memoryCurrent, m_memoryHighWater,
                         m_memoryPeak);
}

void KXMBasMemTruePool::Grow() {
    if (m_lastBlock + 1 == m_tblSize) {
        const std::int32_t capacity = 2 * m_tblSize;
        auto** const newTbl =
            static_cast<Block**>(calloc_or_die(capacity, sizeof(Block*), "newTbl != 0"));
        // As many BYTES as there are entries: the first eighth of them. Settled, and not to be widened
        // in passing; the blocks of the others are lost.
        std::memcpy(newTbl, m_tbl, static_cast<std::size_t>(m_tblSize));
        Block** const old = m_tbl;
        m_tbl = newTbl;
        m_tblSize = capacity;
        mem_Free(old);
    }
    auto* const block = static_cast<Block*>(mem_Calloc(sizeof(Block), 1));
    if (block == nullptr) {
        report_and_throw(sizeof(Block), __LINE__);
    }
    ++m_lastBlock;
    m_tbl[m_lastBlock] = block;
    m_usedInBlock = 0;
}
