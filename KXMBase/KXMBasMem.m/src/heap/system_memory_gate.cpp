// The gate to the system's memory; see its header.
#include "heap/system_memory_gate.h"

#include "heap/dlmalloc.h"
#include "heap/test_seam.h"
#include "platform/os.h"

namespace heap {

#if defined(KXM_TEST_SEAMS)
void* (*test_seam::supply_hook)(std::size_t size, os::Placement placement) = nullptr;
bool (*test_seam::release_hook)(void* ptr, std::size_t size) = nullptr;
#endif

namespace {

// -1 after a check that refused, 0 after one that passed. Written under the heap's lock, read
// without it.
constinit os::relaxed_word<std::int32_t> s_memoryLimitError{};

char* ask_system(std::size_t size, os::Placement placement) {
    void* const got = test_seam::allocate(size, placement);
    return got != nullptr ? static_cast<char*>(got) : all_ones();
}

} // namespace

int check_memory_limit(std::size_t size, std::size_t footprint, std::size_t limit) {
    const bool refused = limit != 0 && size + footprint >= limit; // the sum wraps, as meant
    s_memoryLimitError = refused ? -1 : 0;
    return refused ? 0 : 1;
}

char* call_check_mem_allocate(std::size_t size, malloc_state* m, int mode) {
    if (size > 0 && check_memory_limit(size, m->footprint, m->memory_limit) == 0) {
        return all_ones();
    }
    switch (mode) {
    case mode_segment:
        return win32mmap(size);
    case mode_direct:
        return win32direct_mmap(size);
    default: // core growth among them: there is no core area
        return all_ones();
    }
}

char* call_check_mem_reallocate(void*, std::size_t oldSize, std::size_t newSize, unsigned long,
                                malloc_state* m) {
    if (newSize > oldSize) {
        check_memory_limit(newSize - oldSize, m->footprint, m->memory_limit);
    }
    return all_ones();
}

char* win32mmap(std::size_t size) {
    return ask_system(size, os::Placement::segment);
}

char* win32direct_mmap(std::size_t size) {
    return ask_system(size, os::Placement::direct);
}

int win32munmap(void* ptr, std::size_t size) {
    if (!test_seam::releasable(ptr, size)) {
        return -1;
    }
    return os::vm_release_run(ptr, size) == size ? 0 : -1;
}

} // namespace heap

int error_memory_limit() {
    return heap::s_memoryLimitError;
}
