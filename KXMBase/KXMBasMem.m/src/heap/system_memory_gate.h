// The gate through which every byte passes that the heap takes from the system. It checks the limit
// first and asks the system second, and leaves a word behind that tells a refusal by the limit (-1)
// from one by the system (0):
//
//     refused by the limit   <=>   limit != 0  and  size + footprint >= limit
//
// Equality refuses too: a footprint may approach the limit but never reach it. The sum may wrap,
// and then passes; such a size fails in the system call. A request that bins, victim or top can
// serve never comes here, so the word answers for the latest attempt to grow, not for the latest
// request.
//
// Nothing else in the heap touches the platform's memory.
#pragma once

#include <cstddef>
#include <cstdint>

#include "heap/malloc_state.h"

namespace heap {

/// The address that stands for failure.
inline char* all_ones() {
    return reinterpret_cast<char*>(~std::uintptr_t{0});
}

/// Ways to take memory, as call_check_mem_allocate numbers them. There is no core area to grow.
inline constexpr int mode_core = 1;
inline constexpr int mode_segment = 2;
inline constexpr int mode_direct = 3;

/// 1 when `size` more bytes may be taken, else 0; sets the error word either way.
int check_memory_limit(std::size_t size, std::size_t footprint, std::size_t limit);

/// Memory of `size` bytes, zeroed, or all ones.
char* call_check_mem_allocate(std::size_t size, malloc_state* m, int mode);

/// Nothing can be remapped, so the answer is always all ones. A growth is checked against the limit
/// for the sake of the error word.
char* call_check_mem_reallocate(void* old, std::size_t oldSize, std::size_t newSize,
                                unsigned long flags, malloc_state* m);

char* win32mmap(std::size_t size);        ///< for a segment; all ones when the system refuses
char* win32direct_mmap(std::size_t size); ///< for a direct mapping; likewise

/// Gives a range back, which may consist of several system allocations: 0, or -1 when it begins or
/// ends inside one. The tail of one system allocation is never released.
int win32munmap(void* ptr, std::size_t size);

} // namespace heap
