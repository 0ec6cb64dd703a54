// See stack_walk.h. The walk is the language's own unwinder: it reads the call-frame information that
// every object carries for exceptions, so frames need no frame pointer, and it allocates nothing and
// takes no lock. A frame pointer chain would end in the first library that is built without one, the
// C library among them.
//
// The unwinder begins where it is called. So that it can begin at any registers, it is called from
// walk_from, whose call-frame information says that its caller's registers are the words of a
// Registers record: to the unwinder, the frame of the record has called walk_from.
#include "platform/linux/stack_walk.h"

#include <cstring>
#include <dlfcn.h>
#include <initializer_list>
#include <link.h>
#include <new>
#include <ucontext.h>
#include <unwind.h>

// walk_from(record, callback, argument). The rules: stack pointer = word 7, each register at its
// word, expressed from rbx, which holds the record.
//   0x0f: the frame address is an expression; 0x10: a register's place is one. 0x73: rbx plus ...,
//   0x06: what stands there. Offsets from 64 on take two bytes.
__asm__(R"(
    .text
    .type kxm_os_walk_from, @function
kxm_os_walk_from:
    .cfi_startproc
    pushq %rbx
    .cfi_adjust_cfa_offset 8
    .cfi_rel_offset %rbx, 0
    movq %rdi, %rbx
    movq %rsi, %rdi
    movq %rdx, %rsi
    .cfi_remember_state
    .cfi_escape 0x0f, 3, 0x73, 56, 0x06
    .cfi_escape 0x10, 0, 2, 0x73, 0
    .cfi_escape 0x10, 1, 2, 0x73, 8
    .cfi_escape 0x10, 2, 2, 0x73, 16
    .cfi_escape 0x10, 3, 2, 0x73, 24
    .cfi_escape 0x10, 4, 2, 0x73, 32
    .cfi_escape 0x10, 5, 2, 0x73, 40
    .cfi_escape 0x10, 6, 2, 0x73, 48
    .cfi_escape 0x10, 8, 3, 0x73, 0xc0, 0
    .cfi_escape 0x10, 9, 3, 0x73, 0xc8, 0
    .cfi_escape 0x10, 10, 3, 0x73, 0xd0, 0
    .cfi_escape 0x10, 11, 3, 0x73, 0xd8, 0
    .cfi_escape 0x10, 12, 3, 0x73, 0xe0, 0
    .cfi_escape 0x10, 13, 3, 0x73, 0xe8, 0
    .cfi_escape 0x10, 14, 3, 0x73, 0xf0, 0
    .cfi_escape 0x10, 15, 3, 0x73, 0xf8, 0
    .cfi_escape 0x10, 16, 3, 0x73, 0x80, 1
    call _Unwind_Backtrace@PLT
    .cfi_restore_state
    popq %rbx
    .cfi_adjust_cfa_offset -8
    .cfi_restore %rbx
    ret
    .cfi_endproc
    .size kxm_os_walk_from, . - kxm_os_walk_from

    .globl os_context_capture
    .hidden os_context_capture
    .type os_context_capture, @function
os_context_capture:
    .cfi_startproc
    movq %rax, 0(%rdi)
    movq %rdx, 8(%rdi)
    movq %rcx, 16(%rdi)
    movq %rbx, 24(%rdi)
    movq %rsi, 32(%rdi)
    movq %rdi, 40(%rdi)
    movq %rbp, 48(%rdi)
    leaq 8(%rsp), %rax
    movq %rax, 56(%rdi)
    movq %r8, 64(%rdi)
    movq %r9, 72(%rdi)
    movq %r10, 80(%rdi)
    movq %r11, 88(%rdi)
    movq %r12, 96(%rdi)
    movq %r13, 104(%rdi)
    movq %r14, 112(%rdi)
    movq %r15, 120(%rdi)
    movq (%rsp), %rax
    movq %rax, 128(%rdi)
    movq $0, 136(%rdi)
    ret
    .cfi_endproc
    .size os_context_capture, . - os_context_capture
)");

extern "C" int kxm_os_walk_from(const os::Registers* record, _Unwind_Trace_Fn callback,
                                void* argument) __asm__("kxm_os_walk_from");

namespace os {
namespace {

static_assert(offsetof(Registers, word) == 0 && offsetof(Registers, exact) == 136);

// What one step learns. The callback sees walk_from's own frame, the record's, the caller's and, where
// the caller lies in the runtime, what follows it.
struct Step {
    Registers* registers;
    int seen = 0;
    bool found = false;
    bool bottom = false;
    bool left_runtime = false; // once, among what follows the caller
};

// The most frames below the start of a thread's own code: the language's, the C library's, the kernel's
// entry.
constexpr int most_below = 3;

// The objects that a thread starts in.
bool in_runtime(std::uint64_t address) {
    dl_find_object object;
    if (_dl_find_object(reinterpret_cast<void*>(address), &object) != 0) {
        return false;
    }
    const char* const path = object.dlfo_link_map->l_name;
    const char* const slash = std::strrchr(path, '/');
    const char* const name = slash != nullptr ? slash + 1 : path;
    for (const char* const runtime :
         {"libc.so.", "ld-linux", "libstdc++.so.", "libgomp.so.", "libasan.so.", "libtsan.so."}) {
        if (std::strncmp(name, runtime, std::strlen(runtime)) == 0) {
            return true;
        }
    }
    return false;
}

// A frame in the runtime is where the thread starts if the stack ends soon below it, with frames in the
// runtime alone; but the last one, before main, is the program's.
_Unwind_Reason_Code look_below(Step& step, int below, std::uint64_t instruction) {
    step.bottom = instruction == 0;
    if (step.bottom || step.left_runtime || below > most_below) {
        return _URC_END_OF_STACK;
    }
    step.left_runtime = !in_runtime(instruction - 1);
    return _URC_NO_REASON;
}

_Unwind_Reason_Code on_frame(_Unwind_Context* context, void* argument) {
    Step& step = *static_cast<Step*>(argument);
    const int index = step.seen++;
    if (index < 2) {
        return _URC_NO_REASON;
    }
    int exact = 0;
    const std::uint64_t instruction = _Unwind_GetIPInfo(context, &exact);
    if (index > 2) {
        return look_below(step, index - 2, instruction);
    }
    if (instruction == 0) {
        return _URC_END_OF_STACK;
    }
    step.found = true;
    Registers& registers = *step.registers;
    Registers caller = registers;
    for (int i = 0; i < Registers::rip; ++i) {
        if (i != Registers::rsp) {
            caller.word[i] = _Unwind_GetGR(context, i);
        }
    }
    caller.word[Registers::rsp] = _Unwind_GetCFA(context);
    caller.word[Registers::rip] = instruction;
    caller.exact = exact != 0;
    registers = caller;
    return in_runtime(code_address(caller)) ? _URC_NO_REASON : _URC_END_OF_STACK;
}

} // namespace

Registers& registers_of(Context& context) {
    return *std::launder(reinterpret_cast<Registers*>(context.storage));
}

std::uint64_t code_address(const Registers& registers) {
    return registers.word[Registers::rip] - (registers.exact != 0 ? 0 : 1);
}

bool step_to_caller(Registers& registers, bool& bottom) {
    Registers record = registers;
    dl_find_object object;
    if (record.exact != 0) {
        auto* const here = reinterpret_cast<void*>(record.word[Registers::rip]);
        if (_dl_find_object(here, &object) != 0) {
            // A call through a pointer to nowhere has pushed its return address and nothing else.
            std::memcpy(&registers.word[Registers::rip],
                        reinterpret_cast<const void*>(record.word[Registers::rsp]), 8);
            registers.word[Registers::rsp] += 8;
            registers.exact = 0;
            bottom = false;
            return registers.word[Registers::rip] != 0;
        }
        ++record.word[Registers::rip]; // the unwinder takes one off what a caller's frame says
    }
    Step step{&registers};
    kxm_os_walk_from(&record, on_frame, &step);
    bottom = step.bottom;
    return step.found;
}

bool context_of_exception(const void* exception_pointers, Context& context) {
    const auto& machine = static_cast<const ucontext_t*>(exception_pointers)->uc_mcontext;
    constexpr int order[] = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI,
                             REG_RBP, REG_RSP, REG_R8,  REG_R9,  REG_R10, REG_R11,
                             REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
    auto& registers = *new (context.storage) Registers;
    for (int i = 0; i < Registers::count; ++i) {
        registers.word[i] = static_cast<std::uint64_t>(machine.gregs[order[i]]);
    }
    registers.exact = 1;
    return true;
}

ContextPosition context_position(const Context& context) {
    Registers registers;
    std::memcpy(&registers, context.storage, sizeof registers);
    return {code_address(registers), registers.word[Registers::rsp],
            registers.word[Registers::rbp]};
}

} // namespace os
