// The contended half of mem_mlock: the event, made once by whoever first needs it.
#include "heap/mem_mlock.h"

#include <algorithm>
#include <thread>

namespace {

os::Event ensure_event(mem_mlock& lock) {
    for (;;) {
        if (const os::Event event = mem_mlock_event(lock)) {
            return event;
        }
        std::this_thread::yield(); // the system is out of them; without one nobody may go on
    }
}

// Each look takes the lock's cache line from the thread that works with it, so looks grow rare fast:
// the holder, which usually comes back at once, goes on at full speed meanwhile.
constexpr int first_pauses = 64;
constexpr int most_pauses = 512;
constexpr int pauses_before_counting =
    2048; // some microseconds: many times as long as one holds it

} // namespace

// Several threads may make one; the first to publish wins, and the others close theirs.
os::Event mem_mlock_event(mem_mlock& lock) {
    os::Event published = lock.event.load(std::memory_order_acquire);
    if (published != nullptr) {
        return published;
    }
    const os::Event made = os::event_create();
    if (made == nullptr ||
        lock.event.compare_exchange_strong(published, made, std::memory_order_acq_rel)) {
        return made;
    }
    os::event_close(made);
    return published;
}

void mem_mlock_renew(mem_mlock& lock) {
    if (const os::Event event = lock.event.exchange(nullptr)) {
        os::event_close(event); // it may count waiters, too
    }
    lock.count.store(0);
}

void mem_mlock_let_pass(const mem_mlock& lock) {
    int pauses = first_pauses;
    for (int paused = 0; paused < pauses_before_counting; paused += pauses) {
        for (int i = 0; i < pauses; ++i) {
            os::spin_pause();
        }
        if (lock.count.load(std::memory_order_relaxed) <= 0) {
            return;
        }
        pauses = std::min(2 * pauses, most_pauses);
    }
}

void mem_mlock_wait(mem_mlock& lock) {
    os::event_wait(ensure_event(lock));
}

void mem_mlock_wake(mem_mlock& lock) {
    os::event_set(ensure_event(lock));
}
