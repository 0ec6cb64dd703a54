// How an allocator object ends a request that was refused: a note on the error stack, if that is
// active, and std::bad_alloc.
#pragma once

#include "platform/compiler.h"

namespace allocation_failure {

/// What was asked for, in a text of its own for each kind of allocator. One for all threads: two that
/// fail at once may mix their texts.
using Message = char[1024];

/// The message is made of `format` and what follows; the note is this and the call stack. It allocates
/// nothing but the text of the call stack, from the C runtime.
[[noreturn]]
#if defined(__GNUC__)
__attribute__((format(printf, 2, 3)))
#endif
KXM_NEVER_INLINE void
report_and_throw(Message& message, const char* format, ...);

} // namespace allocation_failure
