// The list of segments, and the top at the end of the newest one.
#include "heap/malloc_segment.h"

#include "heap/malloc_bins.h"

namespace heap {

malloc_segment* segment_holding(const void* place) {
    malloc_segment* segment = &state.seg;
    while (segment != nullptr && !segment_holds(segment, place)) {
        segment = segment->next;
    }
    return segment;
}

bool has_segment_link(const malloc_segment* segment) {
    const malloc_segment* record = &state.seg;
    while (record != nullptr && !segment_holds(segment, record)) {
        record = record->next;
    }
    return record != nullptr;
}

void init_top(malloc_chunk* p, std::size_t size) {
    const std::size_t offset = align_offset(address_of(p) + 16);
    state.top = chunk_behind(p, offset);
    state.topsize = size - offset;
    state.top->head = state.topsize | PINUSE_BIT;
    chunk_behind(state.top, state.topsize)->head = TOP_FOOT_SIZE; // marks the end of the top
    state.trim_check = params.trim_threshold;
}

void init_bins() {
    for (unsigned index = 0; index < numSmallbins; ++index) {
        malloc_chunk* const bin = smallbin_at(index);
        bin->fd = bin;
        bin->bk = bin;
    }
}

void write_fenceposts(std::uintptr_t from, std::uintptr_t end) {
    for (std::uintptr_t at = from; at + 8 < end; at += 8) {
        chunk_at<malloc_chunk>(at)->head = FENCEPOST_HEAD;
    }
}

void add_segment(char* base, std::size_t size, std::uint32_t mark) {
    malloc_chunk* const old_top = state.top;
    const std::uintptr_t old_end = segment_end(segment_holding(old_top));
    // Room for the record's chunk, four words of fenceposts and the alignment.
    const std::uintptr_t raw =
        old_end - (pad_request(sizeof(malloc_segment)) + 32 + CHUNK_ALIGN_MASK);
    static_assert(pad_request(sizeof(malloc_segment)) + 32 + CHUNK_ALIGN_MASK == 159);
    malloc_chunk* record = chunk_at<malloc_chunk>(raw + align_offset(raw + 16));
    // Too close to leave a chunk in front, which the room kept behind a top does not let come to pass.
    if (address_of(record) < address_of(old_top) + MIN_CHUNK_SIZE) {
        record = old_top;
    }

    init_top(chunk_at<malloc_chunk>(address_of(base)), size - TOP_FOOT_SIZE);

    set_inuse_front(record, MIN_CHUNK_SIZE);
    auto* const copy = static_cast<malloc_segment*>(chunk2mem(record));
    *copy = state.seg;
    state.seg = {base, size, copy, mark};
    write_fenceposts(address_of(record) + MIN_CHUNK_SIZE, old_end);

    if (record != old_top) {
        const std::size_t rest = address_of(record) - address_of(old_top);
        set_free_before(old_top, rest, record);
        insert_chunk(old_top, rest);
    }
}

} // namespace heap
