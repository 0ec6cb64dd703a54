// Faults and what a handler of them sees, and libraries that are loaded late, on either system.
#pragma once

#include <cstdint>

namespace test {

/// Runs `work`; when it faults, lets `filter` see what the system's handlers are given (the argument of
/// KXMBasCallStack::ExceptionCallStack), and goes on after the call. False when there was no fault.
bool with_fault(void (*work)(), void (*filter)(void* exception_pointers));

/// Changes what `filter` was given: where the code was and where its stack
/// and frame.
void set_position(void* exception_pointers, std::uint64_t instruction, std::uint64_t stack);

/// A library beside the test program, loaded now; null when that fails.
void* load_library(const char* name);
void* library_function(void* library, const char* name);
void unload_library(void* library);

} // namespace test
