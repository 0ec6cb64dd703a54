// The parameters' first setting and their refresh, and the storage of the heap's two records.
#include "heap/malloc_params.h"

#include <bit>

#include "heap/malloc_state.h"
#include "platform/os.h"

namespace heap {

alignas(64) constinit malloc_state state{};
alignas(64) constinit malloc_params params{};
constinit mem_mlock magic_mutex{};

namespace {

void refresh_state() {
    state.memory_limit = params.memory_limit;
    state.use_lock.publish(params.use_lock); // lets entries in that did not see the set-up
}

void set_defaults() {
    params.mmap_threshold = default_mmap_threshold;
    params.trim_threshold = default_trim_threshold;
    params.use_lock = default_use_lock;
    params.memory_limit = 0;
    params.default_mflags = default_flags;
}

void set_up_state() {
    if (params.magic != 0) {
        return;
    }
    params.magic = default_magic;
    state.mutex.count.store(0, std::memory_order_relaxed);
    state.mutex.event.store(nullptr, std::memory_order_relaxed);
    state.mflags = params.default_mflags;
}

// All of it under the lock, so that a second first caller can neither undo an option nor clear a
// lock that is held already. page_size, which tells everyone else that all is set, comes last.
void set_up() {
    mem_mlock_acquire(magic_mutex);
    if (params.page_size == 0) {
        set_defaults();
        set_up_state();
        refresh_state();
        const os::Properties& system = os::properties();
        require(std::has_single_bit(system.page_size) &&
                std::has_single_bit(system.allocation_granularity));
        params.granularity = system.allocation_granularity;
        params.page_size.publish(system.page_size);
    }
    mem_mlock_release(magic_mutex);
}

} // namespace

namespace {

bool locked_for_fork = false;

} // namespace

void lock_for_fork() {
    mem_mlock_acquire(magic_mutex);
    locked_for_fork = state.use_lock != 0;
    if (locked_for_fork) {
        mem_mlock_acquire(state.mutex);
    }
}

void unlock_in_parent() {
    if (locked_for_fork) {
        mem_mlock_release(state.mutex);
    }
    mem_mlock_release(magic_mutex);
}

void renew_in_child() {
    if (locked_for_fork) {
        mem_mlock_renew(state.mutex);
    }
    mem_mlock_renew(magic_mutex);
}

int init_mparams() {
    if (params.page_size.seen() == 0) {
        set_up();
    } else {
        refresh_state(); // how a changed option arrives
    }
    return 0;
}

} // namespace heap
