// See memory.h.
#include "memory.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/mman.h>

namespace memtrack::platform {

void* allocate_large(std::size_t bytes) {
    constexpr std::size_t large_page = std::size_t{2} << 20;
    if (bytes < 2 * large_page) {
        if (void* const memory = std::calloc(bytes, 1); memory != nullptr) {
            return memory;
        }
        throw std::bad_alloc();
    }
    void* const memory = std::aligned_alloc(large_page, bytes);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    madvise(memory, bytes, MADV_HUGEPAGE); // a refusal is no harm
    return std::memset(memory, 0, bytes);
}

void free_large(void* memory) {
    std::free(memory);
}

} // namespace memtrack::platform
