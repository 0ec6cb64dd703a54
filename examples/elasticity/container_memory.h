// The memory of vectors and maps: a handle for each of the two families, and behind it an allocator over
// one of the library's named pools, which account for what the family holds. A family is moved to
// another allocator by giving its handle another one, with no change to a container.
#pragma once

#include "memory.h"

#include <KXMBasMem.h>

#include <array>

namespace elasticity {

/// The handle of Family::vector or Family::map.
const KXMBasAllocator& container_memory(Family family);

/// Has the pools count from here on, where they can: on the heap, for blocks that are not the tiny
/// block pool's. With `track_vectors` the vectors are moved to an allocator that remembers who asked for
/// each block; it faults when memory is refused. No vector or map may exist yet.
void start_container_memory(bool tiny_pool, bool track_vectors);

/// Gives the handles up and ends the pools; an allocator that tracks tells what it still holds. No map,
/// and no vector that is ever to be released, may exist any more.
void end_container_memory() noexcept;

/// Whether the pools' figures mean anything.
bool pools_count();

struct PoolFigures {
    const char* name;
    int number;
    std::size_t present; // bytes, with the heap's own overhead
    std::size_t peak;    // bytes
};
/// Of the process-wide pool of tracking operators, the vectors' and the maps'.
std::array<PoolFigures, 3> pool_figures();

} // namespace elasticity
