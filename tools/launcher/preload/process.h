// What this process is served by, and who is inside. Everything here is either settled before the program
// runs and only read from then on, or belongs to one thread.
//
// One rule answers re-entry of every kind. A thread that is inside the library says so in a word of its own;
// whatever it asks for meanwhile comes from the C runtime, and a block of ours that it gives back waits until
// somebody comes from outside. So neither the recorder, nor the library's own use of the C runtime, nor a
// signal handler that interrupts an allocation, nor handlers around a fork, can meet a lock that their own
// thread holds. Whose a block is, its address tells: in the heap's granules, or signed (guarded.h), or else
// the C runtime's.
#pragma once

#include <atomic>
#include <cstddef>
#include <malloc.h>

#include "../figures.h"
#include "address_set.h"
#include "platform/granule_map.h"

// The C runtime's own, which no preloaded library takes the place of.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

#define KXMRUN_HIDDEN __attribute__((visibility("hidden")))
#define KXMRUN_ENTRY extern "C" __attribute__((visibility("default")))

namespace kxmrun {

enum class Backend : unsigned char { none, heap, runtime, guarded, aligned }; ///< none: not started

struct alignas(64) Process {
    bool plain_heap; ///< the heap, with neither pool nor recording: the road that is made short
    Backend backend;
    bool tiny, tracking;
    int pid; ///< of the process whose figures these are; another one in the child of a vfork
    const os::GranuleMap* granules;
    std::atomic<void*>
        waiting; ///< blocks given back by threads inside, linked through their first word
    ProcessFigures* figures; ///< never null
    struct {
        std::size_t (*usable_size)(void*);
        int (*trim)(std::size_t);
        struct mallinfo2 (*info)();
    } runtime; ///< what the C runtime has no second name for; null before the start
};
KXMRUN_HIDDEN extern constinit Process process;

struct Thread {
    bool inside;
    bool forks_inside; ///< it forks from a signal handler that has interrupted it inside
    void* handed; ///< what the guarded back end's request to the C runtime is to get (guarded.h)
};
KXMRUN_HIDDEN extern constinit thread_local Thread own __attribute__((tls_model("initial-exec")));

/// Which blocks a recording knows. Elsewhere than on the heap the C runtime also gave those of before the start
/// and those of threads inside: `unrecorded` has them, until it turns out that nothing is recorded. A child of a
/// fork has its parent's blocks, which its own recording never saw: there `recorded` has those that it did.
struct Known {
    AddressSet unrecorded, recorded;
    bool only_recorded;
};
KXMRUN_HIDDEN extern constinit Known known;

/// A thread's stay inside. A signal handler of the thread sees it whole.
class Inside {
public:
    __attribute__((always_inline)) Inside() {
        own.inside = true;
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    __attribute__((always_inline)) ~Inside() {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        own.inside = false;
    }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
};

// recording.cpp
KXMRUN_HIDDEN void begin_recording(); ///< names the record; pre: tracking is on in the library
/// Without `wait` for a thread that dies, perhaps in the midst of an event. pre: inside
KXMRUN_HIDDEN void save_recording(bool wait);
KXMRUN_HIDDEN void
note_end(Event how); ///< figures of a process that ends or goes on as another program

// signals.cpp
KXMRUN_HIDDEN void watch_signals(); ///< pre: process.tracking is settled

// figures.cpp
KXMRUN_HIDDEN void open_figures();
KXMRUN_HIDDEN void take_figures(); ///< a record for this process
KXMRUN_HIDDEN bool plain_name_is_mine();
KXMRUN_HIDDEN const char* setting(const char* name); ///< its value, which ends at a comma, or null

} // namespace kxmrun
