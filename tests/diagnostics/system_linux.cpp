// See system.h.
#include "system.h"

#include "child.h"

#include <csetjmp>
#include <csignal>
#include <dlfcn.h>
#include <ucontext.h>

#if defined(__SANITIZE_THREAD__)
// A capture in a handler allocates its text there, which is right for a fault: the thread that failed was
// not inside the runtime's allocator.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}
#endif

namespace test {
namespace {

sigjmp_buf back;
void (*seen_by)(void*) = nullptr;

void on_signal(int, siginfo_t*, void* context) {
    seen_by(context);
    siglongjmp(back, 1);
}

} // namespace

bool with_fault(void (*work)(), void (*filter)(void*)) {
    struct sigaction ours = {}, before;
    ours.sa_sigaction = on_signal;
    ours.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &ours, &before);
    seen_by = filter;
    const bool faulted = sigsetjmp(back, 1) != 0;
    if (!faulted) {
        work();
    }
    sigaction(SIGSEGV, &before, nullptr);
    return faulted;
}

void set_position(void* exception_pointers, std::uint64_t instruction, std::uint64_t stack) {
    auto& registers = static_cast<ucontext_t*>(exception_pointers)->uc_mcontext.gregs;
    registers[REG_RIP] = static_cast<greg_t>(instruction);
    registers[REG_RSP] = registers[REG_RBP] = static_cast<greg_t>(stack);
}

void* load_library(const char* name) {
    return dlopen((program_folder() + name + ".so").c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* library_function(void* library, const char* name) {
    return dlsym(library, name);
}

void unload_library(void* library) {
    dlclose(library);
}

} // namespace test
