// The heap's state: one record for the process, zero at load, and what each entry does around it.
//
// Where free memory is, for sizes s:
//
//     s < 256     smallbins[s / 8]: doubly linked lists, one size each. Sizes being multiples of
//                 32, few of the 32 are ever used; map tests and layout are those of the general
//                 design.
//     s >= 256    treebins[compute_tree_index(s)]: bitwise tries, two per power of two, whose nodes
//                 carry a circular list of chunks of their own size.
//     dv          the designated victim: the remainder of the most recent split for a small
//                 request, kept out of the bins so that small requests in a row lie side by side.
//     top         the free end of the newest segment, which is always the first record `seg`. Null
//                 is how the heap tells that it has no segment yet.
//
//     smallmap bit i set  <=>  small bin i not empty         treemap likewise
//     dv == null          <=>  dvsize == 0
//     footprint           ==   sum of segment sizes + sum of direct mappings  <=  max_footprint
//     least_addr          <=   every address ever obtained
//
// One lock guards all of it; words that are read or written outside the lock are relaxed_words.
#pragma once

#include <cstddef>
#include <cstdint>

#include "heap/malloc_chunk.h"
#include "heap/malloc_params.h"
#include "heap/mem_mlock.h"
#include "platform/relaxed_word.h"

namespace heap {

struct malloc_state {
    std::uint32_t smallmap;
    std::uint32_t treemap;
    std::size_t dvsize;
    std::size_t topsize;
    char* least_addr;
    malloc_chunk* dv;
    malloc_chunk* top;
    std::size_t trim_check;
    std::size_t magic; // a copy of the parameter; written and never checked
    // Heads of the bins, as pseudo-chunks that overlap: bin i is at word 2i and uses the words of
    // its fd and bk, 2i + 2 and 2i + 3. Its first two words belong to the bin before, and the last
    // bin ends with the array.
    malloc_chunk* smallbins[66];
    malloc_tree_chunk* treebins[numTreebins];
    os::relaxed_word<std::size_t> footprint;     // bytes held from the system
    os::relaxed_word<std::size_t> max_footprint; // highest footprint so far
    std::uint32_t mflags;
    os::relaxed_word<std::uint32_t> use_lock;   // not zero when entries take the lock
    os::relaxed_word<std::size_t> memory_limit; // in force, bytes; zero for none
    mem_mlock mutex;
    malloc_segment seg;
};
static_assert(offsetof(malloc_state, smallmap) == 0 && offsetof(malloc_state, treemap) == 4);
static_assert(offsetof(malloc_state, dvsize) == 8 && offsetof(malloc_state, topsize) == 16);
static_assert(offsetof(malloc_state, least_addr) == 24 && offsetof(malloc_state, dv) == 32);
static_assert(offsetof(malloc_state, top) == 40 && offsetof(malloc_state, trim_check) == 48);
static_assert(offsetof(malloc_state, magic) == 56 && offsetof(malloc_state, smallbins) == 64);
static_assert(offsetof(malloc_state, treebins) == 64 + 66 * 8);
static_assert(offsetof(malloc_state, footprint) == 848);
static_assert(offsetof(malloc_state, max_footprint) == 856);
static_assert(offsetof(malloc_state, mflags) == 864 && offsetof(malloc_state, use_lock) == 868);
static_assert(offsetof(malloc_state, memory_limit) == 872 && offsetof(malloc_state, mutex) == 880);
static_assert(offsetof(malloc_state, seg) == 896 && sizeof(malloc_state) == 928);
static_assert(std::size_t{2} * (numSmallbins - 1) * 8 + sizeof(malloc_chunk) ==
              sizeof(malloc_state::smallbins));

inline constexpr std::uint32_t use_mmap_bit = 1; // the one bit of mflags that is read

/// The one heap. Its hot words fill exactly its first cache line.
alignas(64) KXM_HIDDEN extern constinit malloc_state state;

/// Not below the lowest address ever obtained.
inline bool ok_address(const void* place) {
    return address_of(place) >= address_of(state.least_addr);
}

inline bool is_initialized() {
    return state.top != nullptr;
}

/// What every entry that touches the heap does around its work. Whether to lock is read again at
/// the end, not remembered: when a refresh in between switches locking off, the lock stays counted
/// for good, and when it switches it on, a lock is released that was not taken. Both are meant.
class Entry {
public:
    KXM_ALWAYS_INLINE Entry() {
        // The word is zero before the parameters are set up, too, so one test serves both.
        if (state.use_lock.seen() != 0 || wants_lock_after_set_up()) [[likely]] {
            mem_mlock_acquire(state.mutex);
        }
    }
    KXM_ALWAYS_INLINE ~Entry() {
        if (state.use_lock != 0) [[likely]] {
            mem_mlock_release(state.mutex);
        }
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

private:
    static bool wants_lock_after_set_up() {
        if (params.page_size.seen() == 0) {
            init_mparams();
        }
        return state.use_lock != 0;
    }
};

} // namespace heap
