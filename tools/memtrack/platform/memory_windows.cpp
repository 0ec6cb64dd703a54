// See memory.h. Large pages would take a privilege here.
#include "memory.h"

#include <cstdlib>
#include <new>

namespace memtrack::platform {

void* allocate_large(std::size_t bytes) {
    if (void* const memory = std::calloc(bytes, 1); memory != nullptr) {
        return memory;
    }
    throw std::bad_alloc();
}

void free_large(void* memory) {
    std::free(memory);
}

} // namespace memtrack::platform
