// Walking a stack on Linux, one caller at a time, from a set of registers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/os.h"

namespace os {

/// Registers in the order of the debug format's numbers, which the walk's entry (stack_walk.cpp)
/// counts on.
struct Registers {
    static constexpr int rbx = 3, rbp = 6, rsp = 7, rip = 16, count = 17;
    std::uint64_t word[count];
    /// The instruction that `rip` names is the next to run, as in a thread that a signal interrupted;
    /// else it is where a call will return to.
    std::uint64_t exact;
};
static_assert(sizeof(Registers) <= sizeof(Context));

Registers& registers_of(Context& context);

/// An address inside the instruction that the frame is at: that of the call, not of what follows it.
std::uint64_t code_address(const Registers& registers);

/// Goes on to the caller; false at the end of the stack or where no unwind information tells the
/// caller. Reads the stack as it is: where that is damaged, it faults.
/// `bottom` is set when the caller's frame is the runtime's start of the thread.
bool step_to_caller(Registers& registers, bool& bottom);

} // namespace os
