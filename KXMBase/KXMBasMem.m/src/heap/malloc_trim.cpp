// Return of memory to the system. The system takes back whole allocations alone, so the end of the
// top can go only where whole allocations had been joined to it; a part of one never goes. When
// nothing could be released, trim_check is set beyond reach until the top is next reset, so that a
// heap whose top cannot shrink does not pay for an attempt on every release.
#include "heap/malloc_trim.h"

#include "heap/dlmalloc.h"
#include "heap/heap_walk.h"
#include "heap/malloc_bins.h"
#include "heap/malloc_chunk.h"
#include "heap/malloc_segment.h"
#include "heap/malloc_state.h"
#include "heap/system_memory_gate.h"

namespace heap {
namespace {

// Releases what the top has beyond `pad` in whole units, keeping at least one unit's worth.
std::size_t trim_top(std::size_t pad) {
    const std::size_t unit = params.granularity;
    const std::size_t extra = ((state.topsize - pad + unit - 1) / unit - 1) * unit;
    malloc_segment* const sp = segment_holding(state.top);
    // The last two do not come to pass: the top ends its segment, and each record lies in its own.
    if (!is_own_mapping(sp) || sp->size < extra || has_segment_link(sp)) {
        return 0;
    }
    // Cannot succeed, as nothing can be remapped; it stands for a system that can.
    call_check_mem_reallocate(sp->base, sp->size, sp->size - extra, 0, &state);
    if (extra == 0 || win32munmap(sp->base + sp->size - extra, extra) != 0) {
        return 0;
    }
    sp->size -= extra;
    state.footprint -= extra;
    init_top(state.top, state.topsize - extra);
    return extra;
}

bool is_empty(const malloc_segment* segment) {
    const malloc_chunk* const first = align_as_chunk(segment->base);
    return !cinuse(first) && address_of(next_chunk(first)) >= segment_end(segment) - TOP_FOOT_SIZE;
}

// Releases an empty segment, which holds its own record. Returns its size, or 0 when the system
// refuses; the free chunk is then in a tree bin, even if it was the victim before.
std::size_t release_segment(const malloc_segment* segment) {
    malloc_chunk* const p = align_as_chunk(segment->base);
    const std::size_t psize = chunk_size(p);
    const std::size_t size = segment->size;
    if (p == state.dv) {
        state.dv = nullptr;
        state.dvsize = 0;
    } else {
        unlink_large_chunk(as_tree(p));
    }
    if (win32munmap(segment->base, size) != 0) {
        insert_large_chunk(as_tree(p), psize);
        return 0;
    }
    state.footprint -= size;
    return size;
}

} // namespace

std::size_t release_unused_segments() {
    std::size_t released = 0;
    malloc_segment* before = &state.seg; // never examined itself
    while (malloc_segment* const segment = before->next) {
        malloc_segment* const next = segment->next;
        std::size_t gone = 0;
        if (is_own_mapping(segment) && is_empty(segment)) {
            gone = release_segment(segment);
        }
        if (gone != 0) {
            before->next = next;
        } else {
            before = segment;
        }
        released += gone;
    }
    return released;
}

int sys_trim(std::size_t pad) {
    if (pad >= MAX_REQUEST || !is_initialized()) {
        return 0;
    }
    pad += TOP_FOOT_SIZE;
    std::size_t released = 0;
    if (state.topsize > pad) {
        released = trim_top(pad);
    }
    released += release_unused_segments();
    check_while_small();
    if (released == 0) {
        state.trim_check = ~std::size_t{0};
    }
    return released != 0 ? 1 : 0;
}

} // namespace heap

int dlmalloc_trim(std::size_t pad) {
    const heap::Entry entry;
    return heap::sys_trim(pad);
}
