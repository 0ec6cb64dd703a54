// Release of a block. A freed chunk merges at once with free neighbours on both sides, so that two
// free chunks are never adjacent; what comes out goes to the top, to the victim, or to a bin.
#include "heap/dlmalloc.h"

#include "heap/malloc_bins.h"
#include "heap/malloc_chunk.h"
#include "heap/malloc_state.h"
#include "heap/malloc_trim.h"
#include "heap/system_memory_gate.h"
#include "platform/compiler.h"

namespace heap {
namespace {

// A mapping that the system does not take back stays mapped and counted, and nobody is told.
KXM_NEVER_INLINE void release_direct_mapping(malloc_chunk* p, std::size_t psize) {
    const std::size_t offset = p->prev_foot & ~IS_MMAPPED_BIT;
    const std::size_t size = psize + offset + MMAP_FOOT_PAD;
    if (win32munmap(chunk_before(p, offset), size) == 0) {
        state.footprint -= size;
    }
}

inline void merge_into_top(malloc_chunk* p, std::size_t psize) {
    state.topsize += psize;
    state.top = p;
    p->head = state.topsize | PINUSE_BIT;
    if (p == state.dv) {
        state.dv = nullptr;
        state.dvsize = 0;
    }
    if (state.topsize > state.trim_check) [[unlikely]] {
        sys_trim(0);
    }
}

inline void merge_into_dv(malloc_chunk* p, std::size_t psize) {
    state.dvsize += psize;
    state.dv = p;
    set_free_tags(p, state.dvsize);
}

// Merges the chunk with what follows it, and puts the result where it belongs.
inline void place_free(malloc_chunk* p, std::size_t psize, malloc_chunk* next) {
    if (cinuse(next)) {
        set_free_before(p, psize, next);
    } else if (next == state.top) {
        merge_into_top(p, psize);
        return;
    } else if (next == state.dv) {
        merge_into_dv(p, psize);
        return;
    } else {
        const std::size_t nsize = chunk_size(next);
        unlink_chunk(next, nsize);
        psize += nsize;
        set_free_tags(p, psize);
        if (p == state.dv) {
            state.dvsize = psize;
            return;
        }
    }
    insert_chunk(p, psize);
}

inline void release(malloc_chunk* p) {
    require(ok_address(p) && cinuse(p));
    std::size_t psize = chunk_size(p);
    malloc_chunk* const next = chunk_behind(p, psize);
    if (!pinuse(p)) {
        const std::size_t prevsize = p->prev_foot;
        if ((prevsize & IS_MMAPPED_BIT) != 0) {
            release_direct_mapping(p, psize);
            return;
        }
        p = chunk_before(p, prevsize);
        psize += prevsize;
        require(ok_address(p));
        if (p != state.dv) {
            unlink_chunk(p, prevsize);
        } else if ((next->head & INUSE_BITS) == INUSE_BITS) {
            state.dvsize = psize;
            set_free_before(p, psize, next);
            return;
        } // else the victim goes on to merge with what follows
    }
    require(address_of(p) < address_of(next) && pinuse(next));
    place_free(p, psize, next);
}

} // namespace
} // namespace heap

void dlfree(void* mem) {
    if (mem == nullptr) {
        return;
    }
    const heap::Entry entry;
    heap::release(heap::mem2chunk(mem));
}

// Without the lock: the block is the caller's own. A neighbour may be released meanwhile, which
// changes one bit of the head and the word before it; hence the unchecked reads.
std::size_t dlmalloc_usable_size(void* mem) {
    using namespace heap;
    if (mem == nullptr) {
        return 0;
    }
    const malloc_chunk* const p = mem2chunk(mem);
    const std::size_t head = os::read_word_unchecked(&p->head);
    if ((head & CINUSE_BIT) == 0) {
        return 0;
    }
    const bool direct =
        (head & PINUSE_BIT) == 0 && (os::read_word_unchecked(&p->prev_foot) & IS_MMAPPED_BIT) != 0;
    return (head & ~std::size_t{7}) - (direct ? MMAP_CHUNK_OVERHEAD : CHUNK_OVERHEAD);
}
