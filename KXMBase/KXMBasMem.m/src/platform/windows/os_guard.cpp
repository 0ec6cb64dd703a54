// The guarded call on Windows: the frame carries the handler that a compiler makes of a guarded block
// whose filter takes every exception. GCC has no word for such a block, so the frame is written out.
#include "platform/os.h"

#include <malloc.h>

// The table of one scope: from, to, "take all", where to go on. The handler is the runtime's own; it
// unwinds to this frame, so the stack pointer and the preserved registers are as they were.
__asm__(R"(
    .text
    .globl kxm_os_guarded
    .def kxm_os_guarded; .scl 2; .type 32; .endef
    .seh_proc kxm_os_guarded
kxm_os_guarded:
    subq $40, %rsp
    .seh_stackalloc 40
    .seh_endprologue
    .seh_handler __C_specific_handler, @except
    .seh_handlerdata
    .long 1
    .rva .Lkxm_guard_begin, .Lkxm_guard_end
    .long 1
    .rva .Lkxm_guard_fault
    .text
    movq %rcx, %rax
    movq %rdx, %rcx
.Lkxm_guard_begin:
    call *%rax
    nop
.Lkxm_guard_end:
    movl $1, %eax
    addq $40, %rsp
    ret
.Lkxm_guard_fault:
    xorl %eax, %eax
    addq $40, %rsp
    ret
    .seh_endproc
)");

extern "C" int kxm_os_guarded(void (*work)(void*), void* argument);

namespace os {

bool guarded_call(void (*work)(void*), void* argument) {
    if (kxm_os_guarded(work, argument) != 0) {
        return true;
    }
    _resetstkoflw(); // after an overflow, the page that tells of the next one
    return false;
}

} // namespace os
