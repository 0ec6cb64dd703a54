// Growth of the heap. Two ways lead to the system: a request of at least mmap_threshold gets a
// mapping of its own, any other one gets a segment; and a refused mapping is not a refused request,
// which goes on to a segment. A new segment is joined to one that it happens to touch:
//
//     ... segment with top ][ new range           the top grows into it
//               [ new range ][ segment ...        the request is cut from its start, the rest
//                                                 merges with the segment's first chunk
//     neither                                     it becomes the newest segment, with a new top
#include "heap/malloc_grow.h"

#include "heap/heap_walk.h"
#include "heap/malloc_segment.h"
#include "heap/system_memory_gate.h"

namespace heap {

std::atomic<std::uint64_t>* peak_watch = nullptr;

namespace {

void note_obtained(std::size_t size) {
    state.footprint += size;
    if (state.footprint > state.max_footprint) {
        state.max_footprint = state.footprint;
        if (peak_watch != nullptr) {
            peak_watch->store(state.footprint, std::memory_order_relaxed);
        }
    }
}

void lower_least_address(char* base) {
    if (address_of(base) < address_of(state.least_addr)) {
        state.least_addr = base;
    }
}

void first_segment(char* base, std::size_t size) {
    state.least_addr = base;
    state.seg.base = base;
    state.seg.size = size;
    state.seg.sflags = IS_MMAPPED_BIT;
    state.magic = params.magic;
    init_bins();
    init_top(chunk_at<malloc_chunk>(address_of(base)), size - TOP_FOOT_SIZE);
}

// A new range has landed directly below a segment: the request is cut from its start, and the rest
// merges with the segment's first chunk.
void* prepend_alloc(char* newbase, char* oldbase, std::size_t nb) {
    malloc_chunk* const p = align_as_chunk(newbase);
    malloc_chunk* oldfirst = align_as_chunk(oldbase);
    malloc_chunk* const q = chunk_behind(p, nb);
    std::size_t qsize = address_of(oldfirst) - address_of(q);
    set_inuse_front(p, nb);
    if (oldfirst == state.top) {
        state.topsize += qsize;
        state.top = q;
        q->head = state.topsize | PINUSE_BIT;
    } else if (oldfirst == state.dv) {
        state.dvsize += qsize;
        state.dv = q;
        set_free_tags(q, state.dvsize);
    } else {
        if (!cinuse(oldfirst)) {
            const std::size_t size = chunk_size(oldfirst);
            unlink_chunk(oldfirst, size);
            oldfirst = chunk_behind(oldfirst, size);
            qsize += size;
        }
        set_free_before(q, qsize, oldfirst);
        insert_chunk(q, qsize);
    }
    return chunk2mem(p);
}

bool joinable(const malloc_segment* segment) {
    return segment != nullptr && is_own_mapping(segment);
}

malloc_segment* segment_ending_at(const char* place) {
    malloc_segment* segment = &state.seg;
    while (segment != nullptr && segment_end(segment) != address_of(place)) {
        segment = segment->next;
    }
    return segment;
}

malloc_segment* segment_starting_at(const char* place) {
    malloc_segment* segment = &state.seg;
    while (segment != nullptr && segment->base != place) {
        segment = segment->next;
    }
    return segment;
}

// Makes a new range part of the heap. Returns the request if it was served on the way, else null.
void* take_in(char* base, std::size_t size, std::size_t nb) {
    malloc_segment* const before = segment_ending_at(base);
    if (joinable(before) && segment_holds(before, state.top)) {
        before->size += size;
        init_top(state.top, state.topsize + size);
        return nullptr;
    }
    lower_least_address(base);
    malloc_segment* const behind = segment_starting_at(base + size);
    if (joinable(behind)) {
        char* const oldbase = behind->base;
        behind->base = base;
        behind->size += size;
        return prepend_alloc(base, oldbase, nb);
    }
    add_segment(base, size, IS_MMAPPED_BIT);
    return nullptr;
}

void* grow(std::size_t nb) {
    const std::size_t asize =
        granularity_align(nb + TOP_FOOT_SIZE + align_offset(16) + 1, params.granularity);
    static_assert(TOP_FOOT_SIZE + align_offset(16) + 1 == 225);
    char* base = all_ones();
    if (asize > nb) { // else the sum wrapped
        base = call_check_mem_allocate(asize, &state, mode_segment);
    }
    if (base == all_ones()) {
        return nullptr;
    }
    note_obtained(asize);
    if (!is_initialized()) {
        first_segment(base, asize);
    } else if (void* const mem = take_in(base, asize, nb)) {
        return mem;
    }
    check_while_small();
    return nb < state.topsize ? split_top(nb) : nullptr;
}

// A direct mapping may become a segment later, which goes behind the first record in the list, so
// the heap must have a first segment before it. The smallest request makes one and is given back to
// the top. That it is not tested for null is meant: a first large request that is refused its
// first segment ends in an access fault.
void make_first_segment() {
    malloc_chunk* const p = mem2chunk(grow(MIN_CHUNK_SIZE));
    state.topsize += chunk_size(p);
    state.top = p;
    p->head = state.topsize | PINUSE_BIT;
}

} // namespace

void* mmap_alloc(std::size_t nb) {
    const std::size_t mmsize = granularity_align(
        nb + MMAP_FOOT_PAD + MMAP_CHUNK_OVERHEAD + CHUNK_ALIGN_MASK, params.granularity);
    static_assert(MMAP_FOOT_PAD + MMAP_CHUNK_OVERHEAD + CHUNK_ALIGN_MASK == 255);
    if (mmsize <= nb) {
        return nullptr;
    }
    char* const mapping = call_check_mem_allocate(mmsize, &state, mode_direct);
    if (mapping == all_ones()) {
        return nullptr;
    }
    const std::size_t offset = align_offset(address_of(mapping) + 16);
    const std::size_t psize = mmsize - offset - MMAP_FOOT_PAD;
    malloc_chunk* const p = chunk_behind(mapping, offset);
    p->prev_foot = offset | IS_MMAPPED_BIT;
    p->head = psize | CINUSE_BIT;
    chunk_behind(p, psize)->head = FENCEPOST_HEAD;
    chunk_behind(p, psize + 8)->head = 0;
    lower_least_address(mapping);
    note_obtained(mmsize);
    return chunk2mem(p);
}

void* sys_alloc(std::size_t nb) {
    init_mparams(); // here a changed limit and a changed locking word take effect
    // A request that cannot be served must leave even an empty heap untouched.
    if ((state.mflags & use_mmap_bit) != 0 && nb >= params.mmap_threshold &&
        nb != impossible_size) {
        if (!is_initialized()) {
            make_first_segment();
        }
        if (void* const mem = mmap_alloc(nb)) {
            return mem;
        }
    }
    return grow(nb);
}

} // namespace heap
