// The lock of the heap, and of the tiny block pool: a count of the threads that hold or want it,
// and an automatic-reset event that is made only when two threads first collide.
//
//     count   threads holding or waiting        acquire: ++count >= 2  ->  wait for one wake-up
//     event   null until the first collision    release: --count >= 1  ->  give one wake-up
//
// A release that finds others counted gives exactly one wake-up, and the event remembers it if the
// waiter has not come to wait yet; so each wake-up passes the lock on to one thread. Uncontended,
// the lock costs one atomic add each way, or a plain one while the process has one thread.
//
// It is neither recursive nor owned: a thread that takes it twice waits forever, and a release that
// nobody's acquire matches leaves the count one too low for good, which lets two threads in at
// once. It needs no start and no end; all zero is a free lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/os.h"

struct mem_mlock {
    std::atomic<std::int32_t> count;
    std::atomic<os::Event> event;
};
static_assert(sizeof(mem_mlock) == 16);
static_assert(offsetof(mem_mlock, count) == 0 && offsetof(mem_mlock, event) == 8);
static_assert(std::atomic<std::int32_t>::is_always_lock_free && sizeof(std::int32_t) == 4);

/// Adds `change` to the count and returns the new value. With one thread there is nobody to race.
inline std::int32_t mem_mlock_add(mem_mlock& lock, std::int32_t change) {
    if (os::single_threaded()) {
        const std::int32_t value = lock.count.load(std::memory_order_relaxed) + change;
        lock.count.store(value, std::memory_order_relaxed);
        return value;
    }
    return lock.count.fetch_add(change, std::memory_order_acq_rel) + change;
}

/// The lock's event, made if there is none yet; null when the system refuses one.
os::Event mem_mlock_event(mem_mlock& lock);

void mem_mlock_wait(mem_mlock& lock); ///< for one wake-up
void mem_mlock_wake(mem_mlock& lock); ///< gives one wake-up

/// Makes it a free lock again in a process that fork has made while this thread held it: who waited for it
/// is not here.
void mem_mlock_renew(mem_mlock& lock);

/// Lets the holder leave, for a while, before this thread counts itself in. Who is counted gets the
/// lock handed over, which costs both threads a switch or nearly; who comes to a free lock does
/// not.
void mem_mlock_let_pass(const mem_mlock& lock);

/// Takes the lock, waiting as long as it must. Always succeeds, which the true says.
inline bool mem_mlock_acquire(mem_mlock& lock) {
    if (!os::single_threaded() && lock.count.load(std::memory_order_relaxed) > 0) [[unlikely]] {
        mem_mlock_let_pass(lock);
    }
    if (mem_mlock_add(lock, 1) >= 2) [[unlikely]] {
        mem_mlock_wait(lock);
    }
    return true;
}

/// Gives the lock up. Does not ask who holds it.
inline void mem_mlock_release(mem_mlock& lock) {
    if (mem_mlock_add(lock, -1) >= 1) [[unlikely]] {
        mem_mlock_wake(lock);
    }
}
