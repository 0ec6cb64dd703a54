// The guarded call on Linux. While at least one runs, this room's handler stands for the four faults;
// a fault of a thread inside a guarded call jumps back to that call, any other one goes to the
// handler that stood there before. The handler runs on a stack of its own, so that an overflow of the
// thread's stack is caught like any other fault.
#include "platform/os.h"

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstddef>
#include <pthread.h>
#include <sys/mman.h>

namespace os {
namespace {

constexpr int faults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
constexpr std::size_t fault_count = sizeof faults / sizeof *faults;
constexpr std::size_t stack_bytes = 65536;

struct Guard {
    sigjmp_buf back;
    Guard* outer;
};

// In the static block of thread-local storage: a handler must not allocate.
thread_local Guard* innermost __attribute__((tls_model("initial-exec"))) = nullptr;

// Guarded calls that run, and the handlers that stood before the first; under `changing`, which is
// held for a few system calls with all signals blocked, so that no handler can wait for it.
std::atomic_flag changing = ATOMIC_FLAG_INIT;
std::size_t running = 0;
struct sigaction previous[fault_count];

void pass_on(int number, siginfo_t* information, void* context) {
    std::size_t i = 0;
    while (i + 1 < fault_count && faults[i] != number) {
        ++i;
    }
    const struct sigaction before = previous[i];
    if ((before.sa_flags & SA_SIGINFO) != 0) {
        before.sa_sigaction(number, information, context);
    } else if (before.sa_handler == SIG_DFL ||
               (before.sa_handler == SIG_IGN && information->si_code > 0)) {
        // The fault happens again on return and ends the process; what was sent is sent again.
        struct sigaction standard = {};
        standard.sa_handler = SIG_DFL;
        sigaction(number, &standard, nullptr);
        if (information->si_code <= 0) {
            raise(number);
        }
    } else if (before.sa_handler != SIG_IGN) {
        before.sa_handler(number);
    }
}

void on_fault(int number, siginfo_t* information, void* context) {
    if (innermost != nullptr && information->si_code > 0) { // from the kernel, not from kill()
        siglongjmp(innermost->back, 1);
    }
    pass_on(number, information, context);
}

// Counts a guarded call in or out; the first puts the handlers up, the last takes them down.
// pre: all signals are blocked.
void change(bool enter) {
    while (changing.test_and_set(std::memory_order_acquire)) {
        spin_pause();
    }
    if (enter && running++ == 0) {
        struct sigaction ours = {};
        ours.sa_sigaction = on_fault;
        ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
        for (std::size_t i = 0; i < fault_count; ++i) {
            sigaction(faults[i], &ours, &previous[i]);
        }
    } else if (!enter && --running == 0) {
        for (std::size_t i = 0; i < fault_count; ++i) {
            struct sigaction now;
            sigaction(faults[i], &previous[i], &now);
            if ((now.sa_flags & SA_SIGINFO) == 0 || now.sa_sigaction != on_fault) {
                sigaction(faults[i], &now, nullptr); // somebody's since, which stays
            }
        }
    }
    changing.clear(std::memory_order_release);
}

// One stack is the process's, so that a guarded call need not map one; whoever finds it in use does.
alignas(16) unsigned char process_stack[stack_bytes];
std::atomic_flag process_stack_used = ATOMIC_FLAG_INIT;

// A stack for the handler, unless the thread has one. Without memory there is none, and an overflow
// of the thread's stack ends the process as it would have without a guard.
class HandlerStack {
public:
    HandlerStack() {
        stack_t now;
        if (sigaltstack(nullptr, &now) != 0 || (now.ss_flags & SS_DISABLE) == 0) {
            return;
        }
        memory_ = take();
        if (memory_ != MAP_FAILED) {
            stack_t ours = {};
            ours.ss_sp = memory_;
            ours.ss_size = stack_bytes;
            sigaltstack(&ours, nullptr);
        }
    }
    ~HandlerStack() {
        if (memory_ == MAP_FAILED) {
            return;
        }
        stack_t none = {};
        none.ss_flags = SS_DISABLE;
        sigaltstack(&none, nullptr);
        if (memory_ == process_stack) {
            process_stack_used.clear(std::memory_order_release);
        } else {
            munmap(memory_, stack_bytes);
        }
    }
    HandlerStack(const HandlerStack&) = delete;
    HandlerStack& operator=(const HandlerStack&) = delete;

private:
    static void* take() {
        if (!process_stack_used.test_and_set(std::memory_order_acquire)) {
            return process_stack;
        }
        return mmap(nullptr, stack_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1,
                    0);
    }

    void* memory_ = MAP_FAILED;
};

// Apart from guarded_call, so that nothing with a destructor stands in the frame that is jumped to.
KXM_NEVER_INLINE bool run(void (*work)(void*), void* argument) {
    Guard guard;
    guard.outer = innermost;
    if (sigsetjmp(guard.back, 0) != 0) {
        innermost = guard.outer;
        return false;
    }
    innermost = &guard;
    work(argument);
    innermost = guard.outer;
    return true;
}

} // namespace

bool guarded_call(void (*work)(void*), void* argument) {
    const HandlerStack stack;
    sigset_t all, mask;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &mask);
    change(true);
    // Inside a handler of such a fault the signal is blocked, and a second one would end the process.
    sigset_t inside = mask;
    for (const int fault : faults) {
        sigdelset(&inside, fault);
    }
    pthread_sigmask(SIG_SETMASK, &inside, nullptr);
    const bool done = run(work, argument);
    pthread_sigmask(SIG_SETMASK, &all, nullptr); // also after the jump out of the handler
    change(false);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    return done;
}

} // namespace os
