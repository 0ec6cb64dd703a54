// What the library needs of the C runtime on Linux beyond the standard: aligned blocks, the
// assertion's report, the working folder and the runtime heap's own figures.
#include "platform/os.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <unistd.h>

namespace os {

constinit RuntimeAllocator runtime_allocator{std::malloc, std::calloc, std::realloc, std::free,
                                             posix_memalign};

void* aligned_alloc(std::size_t size, std::size_t alignment) {
    if (alignment == 0 || (alignment & (alignment - 1)) != 0) {
        errno = EINVAL;
        return nullptr;
    }
    // The system refuses alignments below a pointer's; a larger one serves them as well.
    void* block = nullptr;
    const int error = runtime_allocator.posix_memalign(
        &block, alignment < sizeof(void*) ? sizeof(void*) : alignment, size);
    if (error != 0) {
        errno = error;
        return nullptr;
    }
    return block;
}

void aligned_free(void* block) {
    runtime_allocator.free(block);
}

void assertion_failed(const char* expression, const char* source, unsigned line) {
    std::fprintf(stderr, "Assertion failed: %s, file %s, line %u\n", expression, source, line);
    std::fflush(stderr);
    std::abort();
}

bool current_directory(char* buffer, std::size_t capacity) {
    char path[4096];
    if (getcwd(path, sizeof path) == nullptr) {
        return false;
    }
    const std::size_t bytes = std::strlen(path) + 1;
    if (bytes > capacity) {
        errno = ERANGE;
        return false;
    }
    std::memcpy(buffer, path, bytes);
    return true;
}

bool runtime_heap(RuntimeHeap& figures) {
    const struct mallinfo2 info = mallinfo2();
    figures.committed = info.arena + info.hblkhd;
    figures.reserved = 0;
    figures.used = info.uordblks + info.hblkhd;
    figures.free = info.fordblks;
    return true;
}

} // namespace os
