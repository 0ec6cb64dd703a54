// For a host: what puts this library in the place of a program's allocator without the program's doing.
// Its malloc is then what the C runtime's name stands for, so the library must be told how to reach the
// real one; and it must know its own blocks from those of others. Exported, but no part of the public
// interface: the launcher is built from the same sources. Sizes are bytes.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "KXMBasMemExport.h"

namespace os {
struct GranuleMap;
}

namespace host {

/// The C runtime's allocator.
struct Runtime {
    void* (*malloc)(std::size_t size);
    void* (*calloc)(std::size_t count, std::size_t size);
    void* (*realloc)(void* ptr, std::size_t size);
    void (*free)(void* ptr);
    int (*posix_memalign)(void** ptr, std::size_t alignment, std::size_t size);
};

/// What the back ends call from now on where they call the C runtime's allocator, the table of bound
/// functions included. Blocks of before go to the new functions. pre: no other thread allocates.
KXMBASMEM_API void set_runtime(const Runtime& runtime);

/// What is asked around each fork: whether a signal handler makes it that has interrupted its thread in this
/// library. Such a fork does not wait for locks which that thread may hold.
KXMBASMEM_API void set_fork_question(bool (*interrupted)());

/// Of what the heap holds of the address space. Makes the heap's first segment, so that a limit set later
/// meets a heap that stands; null when that cannot be had. pre: the heap is the bound back end.
KXMBASMEM_API const os::GranuleMap* heap_granules();

/// Where the heap's highest footprint is also written as it rises, for a reader that may outlive this
/// process; null for nowhere. pre: no other thread allocates.
KXMBASMEM_API void watch_peak(std::atomic<std::uint64_t>* peak);

// The tiny block pool without the C interface's tracking, on and locked from the first on. The block of
// `size` bytes, 0 to 128, is the slot itself: 8 off a multiple of 16 from 9 bytes on.
KXMBASMEM_API void start_tiny();
KXMBASMEM_API void* tiny_alloc(std::size_t size); ///< null when memory is short
KXMBASMEM_API void tiny_free(void* block);

} // namespace host
