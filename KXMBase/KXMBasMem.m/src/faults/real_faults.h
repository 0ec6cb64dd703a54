// How a fault stays a fault: what keeps the compiler from seeing it coming, dropping it, or replacing it.
//
// A compiler may assume that a fault does not happen, and uses that at every level of optimisation. So
// each pointer that a fault is committed with goes through hidden(), after which the compiler knows
// nothing of it, and each access is volatile. KXM_NO_SANITIZE on every function here keeps a checked
// build of the library from ending it at the fault; tools that watch the process from outside see it.
#pragma once

#include <cstdint>

#include "platform/compiler.h"

namespace faults {

/// The same pointer, of which the compiler knows nothing any more.
template <typename T> KXM_ALWAYS_INLINE T* hidden(T* pointer) {
    T* volatile seen = pointer;
    return seen;
}

/// The access to a 32-bit word that really happens.
KXM_ALWAYS_INLINE volatile std::int32_t* words(void* block) {
    return static_cast<volatile std::int32_t*>(hidden(block));
}

inline volatile std::int32_t s_outcome = 0;

/// Something left to do behind a call, which keeps the caller's frame on the stack during it: a report
/// then names the function.
KXM_ALWAYS_INLINE void stay() {
    s_outcome = 1;
}

/// Decides something by the value. A checker that follows undefined values speaks up only then.
KXM_ALWAYS_INLINE void decide_by(std::int32_t value) {
    if (value != 0) {
        stay();
    }
}

/// A call that keeps the caller's frame on the stack and its own: no tail call, no inlining.
KXM_ALWAYS_INLINE void call_from_here(void (*function)()) {
    void (*volatile target)() = function;
    target();
    stay();
}

/// Prints a text and flushes, so that it is seen though the process dies next.
void say(const char* text);

/// The low 32 bits of an address, as the texts show addresses.
template <typename T> std::uint32_t shown(const volatile T* address) {
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(address));
}

} // namespace faults
