// The contended half of mem_mlock: the event, made once by whoever first needs it.
#include "heap/mem_mlock.h"

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

// A few times as long as the heap's lock is usually held.
constexpr int looks_before_counting = 128;

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

void mem_mlock_let_pass(const mem_mlock& lock) {
    for (int look = 0; look < looks_before_counting; ++look) {
        if (lock.count.load(std::memory_order_relaxed) <= 0) {
            return;
        }
        os::spin_pause();
    }
}

void mem_mlock_wait(mem_mlock& lock) {
    os::event_wait(ensure_event(lock));
}

void mem_mlock_wake(mem_mlock& lock) {
    os::event_set(ensure_event(lock));
}
