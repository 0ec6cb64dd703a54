// Stands for the heap until it is built: choosing it binds the heap column, as it will then, and
// the first request ends the process with a clear message instead of being served by something
// else.
#include "heap/dlmalloc.h"

#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void absent() {
    std::fputs("ERROR: KXQ_DLALLOCATOR asks for the heap, which this version of the library does "
               "not have. Unset it, or set KXQ_CRTMALLOC beside it.\n",
               stderr);
    std::fflush(stderr);
    std::abort();
}

} // namespace

void* dlmalloc(std::size_t) {
    absent();
}

void* dlcalloc(std::size_t, std::size_t) {
    absent();
}

void* dlrealloc(void*, std::size_t) {
    absent();
}

void dlfree(void*) {
    absent();
}

int dlmalloc_trim(std::size_t) {
    absent();
}

int dlmallopt(int, std::size_t) {
    absent();
}

std::size_t dlmalloc_footprint() {
    absent();
}

std::size_t dlmalloc_max_footprint() {
    absent();
}

std::size_t dlmalloc_memory_limit() {
    absent();
}

int error_memory_limit() {
    absent();
}

std::size_t dlfragmentationinfo() {
    absent();
}

kxm::mallinfo dlmallinfo() {
    absent();
}

void dlmalloc_ReleaseLock() {
    absent();
}
