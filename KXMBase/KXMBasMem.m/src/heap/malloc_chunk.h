// Chunks: the heap's unit of memory, and the arithmetic of their sizes and places.
//
// All memory of a segment is tiled by chunks without gaps. A chunk is two words of boundary tags
// and, while it is free, links in what is the user's data otherwise:
//
//     chunk p      +----------------------------------------------+
//                  | prev_foot: size of the chunk before, if free |   (else the end of its data)
//     p + 8        | head: size of this chunk           | C  | P  |
//     mem = p + 16 +----------------------------------------------+ <- user's pointer, 64-aligned
//                  | fd (free chunk: next in its list)            |
//                  | bk (free chunk: previous in its list)        |
//                  | ... a tree node's links, or the user's data  |
//     p + size     +----------------------------------------------+ = the next chunk n
//                  | prev_foot: size of p again, if p is free     |
//                  | head of n                          | C  | P  |
//
// P is PINUSE_BIT, the chunk before is in use; C is CINUSE_BIT, this chunk is in use. Sizes are
// multiples of 32 at least, so the low bits of a head are free for them. With n = p + size(p):
//
//     P(n) == C(p)                                  a chunk's use is told twice
//     !C(p)  =>  n.prev_foot == size(p)             a free chunk is found from behind
//     !C(p)  =>  P(p) && C(n)                       two free chunks are never adjacent
//     (p + 16) % 64 == 0                            every user pointer is on a cache line
//
// Sizes asked for are multiples of 64. A range from the system is cut at its end by 176 bytes and
// at its start by 48, which leaves 32 over: the top, a direct mapping and the last chunk of a
// mapping that became a segment have sizes of 32 above a multiple of 64.
//
// A direct mapping serves one large request with one chunk. It has P clear, C set, and in prev_foot
// the distance from the mapping's start, marked with IS_MMAPPED_BIT; an ordinary chunk behind a
// free one has a size there, whose low bit is clear.
//
// A segment ends in fenceposts, heads of 8 bytes each in use, so that no walk and no merge leaves
// it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "platform/compiler.h"

namespace heap {

static_assert(sizeof(std::size_t) == 8 && sizeof(void*) == 8, "the layouts are those of 64 bits");

inline constexpr std::size_t MALLOC_ALIGNMENT = 64;
inline constexpr std::size_t CHUNK_ALIGN_MASK = MALLOC_ALIGNMENT - 1;
inline constexpr std::size_t CHUNK_OVERHEAD = 8;
inline constexpr std::size_t MMAP_CHUNK_OVERHEAD = 16;
inline constexpr std::size_t MIN_CHUNK_SIZE = 64;
inline constexpr std::size_t MIN_REQUEST = 55;
inline constexpr std::size_t maxSmallRequest = 184;
inline constexpr std::size_t MAX_REQUEST = 0xFFFFFFFFFFFFFF00;
inline constexpr unsigned smallbinShift = 3;
inline constexpr unsigned treebinShift = 8;
inline constexpr unsigned numSmallbins = 32;
inline constexpr unsigned numTreebins = 32;
inline constexpr std::size_t MIN_LARGE_SIZE = std::size_t{1} << treebinShift;
inline constexpr std::size_t TOP_FOOT_SIZE = 176;
inline constexpr std::size_t MMAP_FOOT_PAD = 176;
inline constexpr std::size_t PINUSE_BIT = 1;
inline constexpr std::size_t CINUSE_BIT = 2;
inline constexpr std::size_t INUSE_BITS = PINUSE_BIT | CINUSE_BIT;
inline constexpr std::size_t FENCEPOST_HEAD = 8 | INUSE_BITS;
inline constexpr std::size_t IS_MMAPPED_BIT = 1; // in prev_foot, and in a segment's flags
inline constexpr std::uint32_t EXTERN_BIT = 8;   // segment's flags: never set here, always honoured

static_assert(FENCEPOST_HEAD == 11 && MIN_LARGE_SIZE == 256);

// ---------------------------------------------------------------------------------------------
// Records

struct KXM_MAY_ALIAS malloc_chunk {
    std::size_t prev_foot;
    std::size_t head;
    malloc_chunk* fd; // free chunk only
    malloc_chunk* bk; // free chunk only
};
static_assert(sizeof(malloc_chunk) == 32);
static_assert(offsetof(malloc_chunk, prev_foot) == 0 && offsetof(malloc_chunk, head) == 8);
static_assert(offsetof(malloc_chunk, fd) == 16 && offsetof(malloc_chunk, bk) == 24);

/// A free chunk of MIN_LARGE_SIZE and more. The first four fields are those of malloc_chunk.
struct KXM_MAY_ALIAS malloc_tree_chunk {
    std::size_t prev_foot;
    std::size_t head;
    malloc_tree_chunk* fd; // circular list of nodes of one size; itself when alone
    malloc_tree_chunk* bk;
    malloc_tree_chunk* child[2]; // left and right
    malloc_tree_chunk* parent;   // a root's is the bin's slot; null on a list but not in the tree
    std::uint32_t index;         // of its tree bin
};
static_assert(offsetof(malloc_tree_chunk, fd) == offsetof(malloc_chunk, fd));
static_assert(offsetof(malloc_tree_chunk, bk) == offsetof(malloc_chunk, bk));
static_assert(offsetof(malloc_tree_chunk, child) == 32);
static_assert(offsetof(malloc_tree_chunk, parent) == 48);
static_assert(offsetof(malloc_tree_chunk, index) == 56);
static_assert(sizeof(malloc_tree_chunk) <= MIN_LARGE_SIZE);

/// One contiguous range held from the system.
struct KXM_MAY_ALIAS malloc_segment {
    char* base;
    std::size_t size;
    malloc_segment* next;
    std::uint32_t sflags;
};
static_assert(sizeof(malloc_segment) == 32);
static_assert(offsetof(malloc_segment, base) == 0 && offsetof(malloc_segment, size) == 8);
static_assert(offsetof(malloc_segment, next) == 16 && offsetof(malloc_segment, sflags) == 24);

// ---------------------------------------------------------------------------------------------
// Sizes

constexpr std::size_t pad_request(std::size_t bytes) {
    return (bytes + CHUNK_OVERHEAD + CHUNK_ALIGN_MASK) & ~CHUNK_ALIGN_MASK;
}

constexpr std::size_t request2size(std::size_t bytes) {
    return bytes < MIN_REQUEST ? MIN_CHUNK_SIZE : pad_request(bytes);
}

/// Bytes from `address` up to the next multiple of the alignment.
constexpr std::size_t align_offset(std::size_t address) {
    return (MALLOC_ALIGNMENT - (address & CHUNK_ALIGN_MASK)) & CHUNK_ALIGN_MASK;
}

/// Adds a whole unit before it rounds down, so that a size which is a multiple already gains one
/// more. Meant: every size of a system request is computed with it, and footprints show it.
constexpr std::size_t granularity_align(std::size_t size, std::size_t granularity) {
    return (size + granularity) & ~(granularity - 1);
}

static_assert(request2size(maxSmallRequest) < MIN_LARGE_SIZE);
static_assert(request2size(maxSmallRequest + 1) == MIN_LARGE_SIZE);
static_assert(TOP_FOOT_SIZE ==
              align_offset(16) + pad_request(sizeof(malloc_segment)) + MIN_CHUNK_SIZE);
static_assert(MMAP_FOOT_PAD == TOP_FOOT_SIZE, "a direct mapping has room for a segment's record");
static_assert(pad_request(sizeof(malloc_segment)) == MIN_CHUNK_SIZE);

// ---------------------------------------------------------------------------------------------
// Places. Chunks are found by arithmetic on addresses, which is done on integers.

inline std::uintptr_t address_of(const void* place) {
    return reinterpret_cast<std::uintptr_t>(place);
}

template <typename Chunk> inline Chunk* chunk_at(std::uintptr_t address) {
    return reinterpret_cast<Chunk*>(address);
}

inline malloc_chunk* chunk_behind(const void* chunk, std::size_t distance) {
    return chunk_at<malloc_chunk>(address_of(chunk) + distance);
}

inline malloc_chunk* chunk_before(const void* chunk, std::size_t distance) {
    return chunk_at<malloc_chunk>(address_of(chunk) - distance);
}

inline void* chunk2mem(const void* chunk) {
    return reinterpret_cast<void*>(address_of(chunk) + 16);
}

inline malloc_chunk* mem2chunk(const void* mem) {
    return chunk_before(mem, 16);
}

/// The first chunk of a memory range that starts at `base`.
inline malloc_chunk* align_as_chunk(const void* base) {
    return chunk_behind(base, align_offset(address_of(base) + 16));
}

inline malloc_tree_chunk* as_tree(malloc_chunk* chunk) {
    return reinterpret_cast<malloc_tree_chunk*>(chunk);
}

inline malloc_chunk* as_chunk(malloc_tree_chunk* node) {
    return reinterpret_cast<malloc_chunk*>(node);
}

// ---------------------------------------------------------------------------------------------
// Tags

template <typename Chunk> inline std::size_t chunk_size(const Chunk* chunk) {
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): of a chunk that there is
    return chunk->head & ~std::size_t{7};
}

inline bool cinuse(const malloc_chunk* chunk) {
    return (chunk->head & CINUSE_BIT) != 0;
}

inline bool pinuse(const malloc_chunk* chunk) {
    return (chunk->head & PINUSE_BIT) != 0;
}

inline bool is_mmapped(const malloc_chunk* chunk) {
    return !pinuse(chunk) && (chunk->prev_foot & IS_MMAPPED_BIT) != 0;
}

inline std::size_t overhead_of(const malloc_chunk* chunk) {
    return is_mmapped(chunk) ? MMAP_CHUNK_OVERHEAD : CHUNK_OVERHEAD;
}

inline malloc_chunk* next_chunk(const malloc_chunk* chunk) {
    return chunk_behind(chunk, chunk_size(chunk));
}

/// Head and footer of a free chunk whose successor knows already that it is free.
inline void set_free_tags(malloc_chunk* chunk, std::size_t size) {
    chunk->head = size | PINUSE_BIT;
    chunk_behind(chunk, size)->prev_foot = size;
}

/// The same, and tells the successor.
inline void set_free_before(malloc_chunk* chunk, std::size_t size, malloc_chunk* next) {
    next->head &= ~PINUSE_BIT;
    set_free_tags(chunk, size);
}

/// A chunk of `size` in use; its bit for the chunk before stays, and the successor is told.
inline void set_inuse(malloc_chunk* chunk, std::size_t size) {
    chunk->head = (chunk->head & PINUSE_BIT) | size | CINUSE_BIT;
    chunk_behind(chunk, size)->head |= PINUSE_BIT;
}

/// The whole chunk, whose predecessor is in use.
inline void set_inuse_and_pinuse(malloc_chunk* chunk, std::size_t size) {
    chunk->head = size | INUSE_BITS;
    chunk_behind(chunk, size)->head |= PINUSE_BIT;
}

/// The front part of a chunk that is being split: the rest writes its own head.
inline void set_inuse_front(malloc_chunk* chunk, std::size_t size) {
    chunk->head = size | INUSE_BITS;
}

/// Ends the process when a tag or an address cannot be right: a block was released twice, never
/// came from here, or was written beyond its bounds. Nothing is printed and the lock stays held,
/// because no further step could be trusted.
inline void require(bool sound) {
    if (!sound) [[unlikely]] {
        std::abort();
    }
}

} // namespace heap
