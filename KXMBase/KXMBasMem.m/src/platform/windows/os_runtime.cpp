// What the library needs of the C runtime on Windows beyond the standard.
#include "platform/os.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <direct.h>
#include <malloc.h>
#include <windows.h>

namespace os {

constinit RuntimeAllocator runtime_allocator{std::malloc, std::calloc, std::realloc, std::free,
                                             nullptr};

void* aligned_alloc(std::size_t size, std::size_t alignment) {
    if (alignment == 0 || (alignment & (alignment - 1)) != 0) {
        return nullptr; // the runtime would treat it as a program error
    }
    // What the runtime adds for its own use may wrap there without being noticed.
    constexpr std::size_t most = static_cast<std::size_t>(-1);
    if (alignment > most / 2 || size > most - alignment - 64) {
        return nullptr;
    }
    return _aligned_malloc(size, alignment);
}

void aligned_free(void* block) {
    _aligned_free(block);
}

void assertion_failed(const char* expression, const char* source, unsigned line) {
    std::fprintf(stderr, "Assertion failed: %s, file %s, line %u\n", expression, source, line);
    std::fflush(stderr);
    std::abort();
}

bool current_directory(char* buffer, std::size_t capacity) {
    char path[MAX_PATH + 1];
    if (_getcwd(path, sizeof path) == nullptr) {
        return false;
    }
    const std::size_t bytes = std::strlen(path) + 1;
    if (bytes > capacity) {
        return false;
    }
    std::memcpy(buffer, path, bytes);
    return true;
}

namespace {

// Between two steps of a walk another thread may give back to the system what the next one reads.
class RuntimeHeapStandsStill {
public:
    RuntimeHeapStandsStill() : heap_(reinterpret_cast<HANDLE>(_get_heap_handle())) {
        HeapLock(heap_);
    }
    ~RuntimeHeapStandsStill() { HeapUnlock(heap_); }
    RuntimeHeapStandsStill(const RuntimeHeapStandsStill&) = delete;
    RuntimeHeapStandsStill& operator=(const RuntimeHeapStandsStill&) = delete;

private:
    HANDLE heap_;
};

} // namespace

// Walks the runtime's heap. Each system allocation is counted once, when the walk first enters it.
bool runtime_heap(RuntimeHeap& figures) {
    figures = {};
    const RuntimeHeapStandsStill still;
    std::uintptr_t low = 0, high = 0;
    _HEAPINFO entry{};
    while (_heapwalk(&entry) == _HEAPOK) {
        const auto address = reinterpret_cast<std::uintptr_t>(entry._pentry);
        if (address < low || address >= high) {
            Region region{};
            if (!vm_query(entry._pentry, region)) {
                return true;
            }
            low = region.allocation_base;
            for (high = low;; high = region.base + region.size) {
                if (!vm_query(reinterpret_cast<const void*>(high), region)) {
                    return true; // a failing query ends the whole walk
                }
                if (region.allocation_base != low || region.state == state_free) {
                    break;
                }
                (region.state == state_reserve ? figures.reserved : figures.committed) +=
                    region.size;
            }
        }
        (entry._useflag == _USEDENTRY ? figures.used : figures.free) += entry._size;
    }
    return true;
}

} // namespace os
