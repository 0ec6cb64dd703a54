// Growth of the heap: the slow end of every request that bins, victim and top cannot serve.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "heap/malloc_bins.h"
#include "heap/malloc_chunk.h"
#include "heap/malloc_state.h"

namespace heap {

/// Where the highest footprint is also written, in bytes, as it rises; null for nowhere. Set before other
/// threads allocate.
extern std::atomic<std::uint64_t>* peak_watch;

/// The chunk size that stands for a request that cannot be served: every step fails on it.
inline constexpr std::size_t impossible_size = ~std::size_t{0};

/// Serves a chunk of `nb` bytes from new memory: a direct mapping for a large one, else a segment
/// that joins the present ones or is added to them. Null when limit or system refuse, or when `nb`
/// cannot be. Begins with a refresh of limit and locking word. pre: the heap has been entered.
void* sys_alloc(std::size_t nb);

/// A chunk of `nb` bytes in a mapping of its own, or null.
void* mmap_alloc(std::size_t nb);

/// Cuts a chunk from the start of the top. pre: nb < topsize, so that the top keeps a head.
inline void* split_top(std::size_t nb) {
    malloc_chunk* const p = state.top;
    state.topsize -= nb;
    state.top = chunk_behind(p, nb);
    state.top->head = state.topsize | PINUSE_BIT;
    set_inuse_front(p, nb);
    return chunk2mem(p);
}

} // namespace heap
