// See fault.h.
#include "fault.h"

#include <csetjmp>
#include <csignal>
#include <ucontext.h>

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
    registers[REG_RSP] = static_cast<greg_t>(stack);
}

std::uint64_t stack_position(const void* exception_pointers) {
    const auto& registers = static_cast<const ucontext_t*>(exception_pointers)->uc_mcontext.gregs;
    return static_cast<std::uint64_t>(registers[REG_RSP]);
}

} // namespace test
