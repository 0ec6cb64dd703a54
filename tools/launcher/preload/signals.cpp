// A signal that ends the process would take the unsaved end of its recording with it. So while a process is
// recorded, handlers of ours stand where the program has left such a signal to the system: they save and let
// the signal do what it would have done. The program does not see them: it is told that the system's handling
// stands, and setting that brings ours back.
#include <csignal>
#include <cstdlib>
#include <dlfcn.h>
#include <unistd.h>

#include "process.h"

namespace kxmrun {
namespace {

constexpr int fatal_signals[] = {SIGSEGV, SIGBUS, SIGFPE,  SIGILL,  SIGABRT, SIGTERM,
                                 SIGINT,  SIGHUP, SIGQUIT, SIGPIPE, SIGALRM, SIGXCPU};

using Signal = sighandler_t (*)(int, sighandler_t);
using Sigaction = int (*)(int, const struct sigaction*, struct sigaction*);
Sigaction real_sigaction = nullptr;
bool watching = false; // also where the recording has stopped meanwhile

bool is_fatal(int signal) {
    for (const int known : fatal_signals) {
        if (known == signal) {
            return true;
        }
    }
    return false;
}

bool is_fault(int signal) {
    return signal == SIGSEGV || signal == SIGBUS || signal == SIGFPE || signal == SIGILL;
}

void save_and_die(int signal, siginfo_t* what, void*) {
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    real_sigaction(signal, &standard, nullptr);
    if (getpid() == process.pid) { // what the child of a vfork writes is its parent's
        own.inside = true;
        save_recording(false);
        note_end(Event{});
    }
    // A fault comes again by itself, with what it has to tell. What was sent does not, whether by a process or
    // by the system: keys at a terminal, timers, limits.
    if (what->si_code <= 0 || !is_fault(signal)) {
        raise(signal);
    }
}

struct sigaction ours() {
    struct sigaction action {};
    action.sa_sigaction = save_and_die;
    action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
    return action;
}

bool is_ours(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == save_and_die;
}

} // namespace

void watch_signals() {
    real_sigaction = reinterpret_cast<Sigaction>(dlsym(RTLD_NEXT, "sigaction"));
    if (real_sigaction == nullptr || !process.tracking) {
        return;
    }
    watching = true;
    for (const int signal : fatal_signals) {
        struct sigaction now {};
        if (real_sigaction(signal, nullptr, &now) == 0 && now.sa_handler == SIG_DFL) {
            const struct sigaction action = ours();
            real_sigaction(signal, &action, nullptr);
        }
    }
}

} // namespace kxmrun

using namespace kxmrun;

KXMRUN_ENTRY int sigaction(int signal, const struct sigaction* action,
                           struct sigaction* before) noexcept {
    if (real_sigaction == nullptr) {
        real_sigaction = reinterpret_cast<Sigaction>(dlsym(RTLD_NEXT, "sigaction"));
    }
    const struct sigaction replacement = ours();
    if (watching && action != nullptr && action->sa_handler == SIG_DFL && is_fatal(signal)) {
        action = &replacement;
    }
    const int result = real_sigaction(signal, action, before);
    if (result == 0 && before != nullptr && is_ours(*before)) {
        *before = {};
        before->sa_handler = SIG_DFL;
    }
    return result;
}

// While recorded, as the system's: the handler stays, and calls that it interrupts go on.
KXMRUN_ENTRY sighandler_t signal(int signal, sighandler_t handler) noexcept {
    if (!watching) {
        static Signal real = nullptr;
        if (real == nullptr) {
            real = reinterpret_cast<Signal>(dlsym(RTLD_NEXT, "signal"));
        }
        return real(signal, handler);
    }
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, signal);
    struct sigaction before {};
    return handler == SIG_ERR || sigaction(signal, &action, &before) != 0 ? SIG_ERR
                                                                          : before.sa_handler;
}
