// The walker; see its header. It trusts nothing: lists are followed no longer than there are free
// chunks, trees no deeper than a size has bits, and a place is read only inside a segment.
//
// That the bins hold exactly the free chunks is shown by two sums: the number of both, and a sum of
// their scrambled addresses, which differs as soon as one is missing, foreign or there twice.
#include "heap/heap_walk.h"

#include <algorithm>

#include "heap/malloc_bins.h"
#include "heap/malloc_segment.h"

namespace heap {
namespace {

struct Tally {
    std::size_t count = 0;
    std::size_t sum = 0;

    void add(const void* chunk) {
        ++count;
        std::size_t x = address_of(chunk) * 0x9E3779B97F4A7C15;
        x ^= x >> 29;
        sum += x * 0xBF58476D1CE4E5B9;
    }
    bool operator==(const Tally&) const = default;
};

struct HiddenStart {
    const malloc_chunk* stale;
    const malloc_chunk* real;
};
constexpr std::size_t most_hidden_starts = 64;
constinit HiddenStart hidden_starts[most_hidden_starts]{};
constinit std::size_t hidden_count = 0; // may be above what there is room for

const malloc_chunk* behind_stale_head(const malloc_chunk* p) {
    for (std::size_t i = 0; i < hidden_count; ++i) {
        if (hidden_starts[i].stale == p) {
            return hidden_starts[i].real;
        }
    }
    return nullptr;
}

class Walker {
public:
    Census run() {
        if (hidden_count > most_hidden_starts) {
            return census_; // no telling what is a chunk
        }
        if (!is_initialized()) {
            expect(state.dv == nullptr && state.smallmap == 0 && state.treemap == 0,
                   "an empty heap holds something", &state);
            return census_;
        }
        walk_segments();
        if (sound()) {
            visit_small_bins();
            visit_tree_bins();
            visit_dv();
            expect(free_ == binned_, "bins and free chunks differ", &state);
            check_footprint();
        }
        return census_;
    }

private:
    bool sound() const { return census_.fault == nullptr; }

    bool expect(bool holds, const char* fault, const void* where) {
        if (!holds && sound()) {
            census_.fault = fault;
            census_.where = where;
        }
        return holds;
    }

    // ------------------------------------------------------------------------------------------
    // Segments and chunks

    void walk_segments() {
        for (const malloc_segment* s = &state.seg; s != nullptr && sound(); s = s->next) {
            ++census_.segments;
            census_.segment_bytes += s->size;
            expect(address_of(s->base) >= address_of(state.least_addr), "below least_addr", s);
            expect(s == &state.seg || segment_holds(s, s), "record outside its segment", s);
            expect(census_.segment_bytes <= state.footprint, "segments exceed the footprint", s);
            check_disjoint(s);
            walk_chunks(s);
        }
    }

    void check_disjoint(const malloc_segment* s) {
        for (const malloc_segment* t = s->next; t != nullptr && census_.segments < 64;
             t = t->next) {
            expect(segment_end(s) <= address_of(t->base) || segment_end(t) <= address_of(s->base),
                   "segments overlap", t);
        }
    }

    void walk_chunks(const malloc_segment* s) {
        const malloc_chunk* before = nullptr;
        const malloc_chunk* p = align_as_chunk(s->base);
        while (sound() && p != state.top && p->head != FENCEPOST_HEAD) {
            if (const malloc_chunk* const real = behind_stale_head(p)) {
                ++census_.hidden_starts;
                before = nullptr; // the real chunk's tags tell nothing of what is in front
                p = real;
            }
            check_chunk(s, before, p);
            before = p;
            p = next_chunk(p);
            expect(segment_holds(s, &p->fd), "a walk leaves its segment", before);
        }
        if (!sound()) {
            return;
        }
        expect(before == nullptr || cinuse(before), "a free chunk before the end", before);
        if (p == state.top) {
            check_top(s);
        } else {
            check_end(s, before, p);
        }
    }

    void check_chunk(const malloc_segment* s, const malloc_chunk* before, const malloc_chunk* p) {
        const std::size_t size = chunk_size(p);
        ++census_.chunks;
        expect(size >= MIN_CHUNK_SIZE && size % 32 == 0, "impossible size", p);
        expect(address_of(p) % MALLOC_ALIGNMENT == MALLOC_ALIGNMENT - 16 ||
                   segment_end(s) - address_of(p) == MMAP_FOOT_PAD,
               "misplaced chunk", p);
        const bool before_in_use = before == nullptr || cinuse(before);
        expect(pinuse(p) == before_in_use, "PINUSE_BIT does not tell the truth", p);
        expect(before_in_use || p->prev_foot == chunk_size(before), "wrong footer", p);
        if (!cinuse(p)) {
            expect(before_in_use, "two free chunks are adjacent", p);
            free_.add(p);
            ++census_.free_chunks;
            census_.free_bytes += size;
            census_.largest_free = std::max(census_.largest_free, size);
        }
    }

    void check_top(const malloc_segment* s) {
        expect(s == &state.seg, "the top is not in the newest segment", s);
        expect(state.top->head == (state.topsize | PINUSE_BIT), "wrong head of the top", state.top);
        expect(address_of(state.top) + state.topsize + TOP_FOOT_SIZE == segment_end(s),
               "the top does not end with its segment", state.top);
        expect(chunk_behind(state.top, state.topsize)->head == TOP_FOOT_SIZE,
               "the top's end is not marked", state.top);
    }

    // The last chunk is the one that holds the segment's own record; fenceposts follow.
    void check_end(const malloc_segment* s, const malloc_chunk* last, const malloc_chunk* post) {
        expect(s != &state.seg, "the newest segment has no top", s);
        expect(last == mem2chunk(s) && chunk_size(last) == MIN_CHUNK_SIZE,
               "the record is not the last chunk", s);
        for (std::uintptr_t at = address_of(post); at + 8 < segment_end(s); at += 8) {
            expect(chunk_at<malloc_chunk>(at)->head == FENCEPOST_HEAD, "a fencepost is damaged",
                   chunk_at<malloc_chunk>(at));
        }
    }

    // ------------------------------------------------------------------------------------------
    // Bins

    // Every chunk of a bin lies in a segment and is free, before anything else of it is read.
    bool visit_binned(const malloc_chunk* p) {
        if (!expect(segment_holding(p) != nullptr && !cinuse(p), "a bin holds what is not free",
                    p)) {
            return false;
        }
        binned_.add(p);
        return expect(binned_.count <= free_.count, "bins hold too many chunks", p);
    }

    void visit_small_bins() {
        for (unsigned index = 0; index < numSmallbins; ++index) {
            if ((state.smallmap & (1U << index)) == 0) {
                continue; // its links may be stale
            }
            const malloc_chunk* const bin = smallbin_at(index);
            const malloc_chunk* before = bin;
            expect(bin->fd != bin, "an empty bin is marked", bin);
            for (const malloc_chunk* p = bin->fd; p != bin && visit_binned(p); p = p->fd) {
                expect(p->bk == before, "a small bin's links differ", p);
                expect(chunk_size(p) == small_index2size(index), "wrong small bin", p);
                before = p;
            }
            expect(!sound() || bin->bk == before, "a small bin's end differs", bin);
        }
    }

    void visit_tree_bins() {
        for (unsigned index = 0; index < numTreebins && sound(); ++index) {
            const malloc_tree_chunk* const root = state.treebins[index];
            const bool marked = (state.treemap & (1U << index)) != 0;
            if (expect(marked == (root != nullptr), "treemap and roots differ", &state.treemap) &&
                root != nullptr) {
                expect(static_cast<const void*>(root->parent) == &state.treebins[index],
                       "a root's parent is not its slot", root);
                visit_node(root, index, 0, 0);
            }
        }
    }

    // `path` holds the turns taken on the way down as its `depth` highest bits.
    void visit_node(const malloc_tree_chunk* node, unsigned index, unsigned depth,
                    std::size_t path) {
        const std::size_t size = chunk_size(node);
        if (!visit_binned(as_chunk(const_cast<malloc_tree_chunk*>(node))) ||
            !expect(depth < 64, "a tree is too deep", node)) {
            return;
        }
        expect(node->index == index && compute_tree_index(size) == index, "wrong tree bin", node);
        const std::size_t bits = size << leftshift_for_tree_index(index);
        expect(depth == 0 || (bits ^ path) >> (64 - depth) == 0, "a node is off its path", node);
        visit_list(node, size);
        for (std::size_t side = 0; side < 2 && sound(); ++side) {
            if (const malloc_tree_chunk* const child = node->child[side]) {
                expect(child->parent == node, "a child does not know its parent", child);
                visit_node(child, index, depth + 1, path | side << (63 - depth));
            }
        }
    }

    void visit_list(const malloc_tree_chunk* node, std::size_t size) {
        const malloc_tree_chunk* before = node;
        for (const malloc_tree_chunk* p = node->fd; p != node; p = p->fd) {
            if (!visit_binned(as_chunk(const_cast<malloc_tree_chunk*>(p)))) {
                return;
            }
            expect(p->bk == before && p->parent == nullptr, "a list's links differ", p);
            expect(chunk_size(p) == size, "sizes differ on one list", p);
            before = p;
        }
        expect(node->bk == before, "a list's end differs", node);
    }

    void visit_dv() {
        expect((state.dv == nullptr) == (state.dvsize == 0), "half a victim", state.dv);
        if (state.dv != nullptr && visit_binned(state.dv)) {
            expect(chunk_size(state.dv) == state.dvsize, "the victim's size differs", state.dv);
        }
    }

    void check_footprint() {
        expect(state.footprint <= state.max_footprint, "footprint above its maximum", &state);
        expect(state.footprint % params.page_size == 0, "footprint in part pages", &state);
    }

    Census census_;
    Tally free_, binned_;
};

} // namespace

void note_hidden_start(const malloc_chunk* stale, const malloc_chunk* real) {
    if (hidden_count < most_hidden_starts) {
        hidden_starts[hidden_count] = {stale, real};
    }
    hidden_count += hidden_count <= most_hidden_starts;
}

void forget_hidden_starts() {
    hidden_count = 0;
}

Census take_census() {
    return Walker{}.run();
}

} // namespace heap
