// Events, critical sections, thread-local slots and thread numbers on Linux. An event is one futex
// word, one of some that lie ready or in a page of its own, so that making one needs no allocator.
#include "platform/os.h"

#include "platform/linux/fork_parts.h"

#include <atomic>
#include <bit>
#include <cerrno>
#include <climits>
#include <linux/futex.h>
#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/single_threaded.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace os {
namespace {

// An event's word: the number of waiters in the upper half, of permissions in the lower. A set adds
// one permission, up to as many as there are waiters, or one when there are none, so that each set
// lets one wait through and one alone is remembered.
using EventWord = std::atomic<std::uint32_t>;
static_assert(sizeof(EventWord) == 4 && EventWord::is_always_lock_free);
constexpr std::size_t event_bytes = 4096;
constexpr std::uint32_t one_waiter = 0x10000;
constexpr std::uint32_t permit_mask = 0xffff;

// Takes a permission, and `also` off the word with it; false when there is none.
bool take_permit(EventWord& word, std::uint32_t& state, std::uint32_t also) {
    while ((state & permit_mask) != 0) {
        if (word.compare_exchange_weak(state, state - 1 - also, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

// How often a waiter looks at the word before it sleeps: about a microsecond, less than a switch
// to the kernel and back costs, and longer than the heap's lock is usually held.
constexpr int spins_before_sleep = 100;

void futex(EventWord* word, int operation, std::uint32_t value) {
    const int saved_errno = errno; // a lock within an allocation is no failure of it
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), operation, value, nullptr, nullptr,
            0);
    errno = saved_errno;
}

// A lock makes its event when threads first meet in it, and can do nothing without one: the first ones are there, each
// on a cache line of its own, also where no memory is to be had.
struct alignas(64) OwnEvent {
    EventWord word;
};
OwnEvent own_events[64];
std::atomic<std::uint64_t> own_events_taken{0};

pthread_mutex_t* mutex_of(CriticalSection& section) {
    static_assert(sizeof(pthread_mutex_t) <= sizeof(CriticalSection));
    return std::launder(reinterpret_cast<pthread_mutex_t*>(section.storage));
}

} // namespace

Event event_create() {
    std::uint64_t taken = own_events_taken.load(std::memory_order_relaxed);
    while (~taken != 0) {
        const std::uint64_t free = ~taken & (taken + 1); // the lowest bit that is clear
        if (own_events_taken.compare_exchange_weak(taken, taken | free,
                                                   std::memory_order_acquire)) {
            EventWord& word = own_events[std::countr_zero(free)].word;
            word.store(0, std::memory_order_relaxed);
            return &word;
        }
    }
    const KeptError kept; // as above
    void* const place =
        mmap(nullptr, event_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return place == MAP_FAILED ? nullptr : new (place) EventWord{0};
}

bool event_wait(Event event) {
    if (event == nullptr) {
        return false;
    }
    EventWord& word = *static_cast<EventWord*>(event);
    std::uint32_t state = 0;
    for (int spin = 0; spin < spins_before_sleep; ++spin) {
        state = word.load(std::memory_order_relaxed);
        if (take_permit(word, state, 0)) {
            return true;
        }
        __builtin_ia32_pause();
    }
    state = word.fetch_add(one_waiter, std::memory_order_relaxed) + one_waiter;
    while (!take_permit(word, state, one_waiter)) {
        futex(&word, FUTEX_WAIT_PRIVATE, state);
        state = word.load(std::memory_order_relaxed);
    }
    return true;
}

bool event_set(Event event) {
    if (event == nullptr) {
        return false;
    }
    EventWord& word = *static_cast<EventWord*>(event);
    std::uint32_t state = word.load(std::memory_order_relaxed);
    std::uint32_t next = 0;
    std::uint32_t waiters = 0;
    do {
        waiters = state / one_waiter;
        const std::uint32_t most = waiters != 0 ? waiters : 1;
        next = (state & permit_mask) < most ? state + 1 : state;
    } while (!word.compare_exchange_weak(state, next, std::memory_order_release,
                                         std::memory_order_relaxed));
    if (waiters != 0) { // who still spins finds the permission by itself
        futex(&word, FUTEX_WAKE_PRIVATE, 1);
    }
    return true;
}

void event_close(Event event) {
    const auto offset = reinterpret_cast<std::uintptr_t>(event) -
                        reinterpret_cast<std::uintptr_t>(own_events); // wraps for what lies below
    if (offset < sizeof own_events) {
        own_events_taken.fetch_and(~(std::uint64_t{1} << offset / sizeof *own_events),
                                   std::memory_order_release);
        return;
    }
    munmap(event, event_bytes);
}

void critical_section_init(CriticalSection& section) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(new (section.storage) pthread_mutex_t, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void critical_section_delete(CriticalSection& section) {
    pthread_mutex_destroy(mutex_of(section));
}

void critical_section_enter(CriticalSection& section) {
    pthread_mutex_lock(mutex_of(section));
}

bool critical_section_try_enter(CriticalSection& section) {
    return pthread_mutex_trylock(mutex_of(section)) == 0;
}

void critical_section_leave(CriticalSection& section) {
    pthread_mutex_unlock(mutex_of(section));
}

namespace {

// Slots in thread-local storage of our own. The C library's keys lose their values when a thread begins to end,
// before the destructors of others' keys, which may still allocate and release. A slot's use counts up when
// it is taken and when it is given up, and is odd in between; a value of another use is none.
constexpr std::size_t most_slots = 8;
struct OwnSlot {
    std::uint32_t use;
    void* value;
};
// In the static block of thread-local storage, which needs no allocation on first use.
thread_local OwnSlot own_slots[most_slots] __attribute__((tls_model("initial-exec")));
std::atomic<std::uint32_t> slot_uses[most_slots];

// A number that is no slot's, as that of a failed tls_alloc, reads null and keeps nothing.
bool is_slot(int slot) {
    return slot > 0 && static_cast<std::size_t>(slot) <= most_slots;
}

} // namespace

int tls_alloc() {
    for (std::size_t i = 0; i < most_slots; ++i) {
        std::uint32_t use = slot_uses[i].load(std::memory_order_relaxed);
        if (use % 2 == 0 && slot_uses[i].compare_exchange_strong(use, use + 1)) {
            return static_cast<int>(i) + 1;
        }
    }
    return -1;
}

void tls_free(int slot) {
    if (is_slot(slot)) {
        ++slot_uses[slot - 1];
    }
}

void* tls_get(int slot) {
    if (!is_slot(slot)) {
        return nullptr;
    }
    const OwnSlot& own = own_slots[slot - 1];
    return own.use == slot_uses[slot - 1].load(std::memory_order_relaxed) ? own.value : nullptr;
}

void tls_set(int slot, void* value) {
    if (!is_slot(slot)) {
        return;
    }
    own_slots[slot - 1] = {slot_uses[slot - 1].load(std::memory_order_relaxed), value};
}

namespace {

thread_local std::uint32_t own_thread_id __attribute__((tls_model("initial-exec"))) = 0;

} // namespace

std::uint32_t thread_id() {
    if (own_thread_id == 0) {
        own_thread_id = static_cast<std::uint32_t>(syscall(SYS_gettid));
    }
    return own_thread_id;
}

void at_fork(void (*before)(), void (*in_parent)(), void (*in_child)()) {
    pthread_atfork(before, in_parent, in_child);
}

void lock_for_fork() {
    fork_parts::lock_table();
}

void unlock_in_parent() {
    fork_parts::unlock_table();
}

void renew_in_child() {
    fork_parts::renew_table();
    fork_parts::renew_symbols();
    own_thread_id = 0;
}

const char* const single_threaded_word = &__libc_single_threaded;

} // namespace os
