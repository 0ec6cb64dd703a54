// Allocation as classes see it: the entries that stand behind operator new, and the base class that
// gives a class larger than 128 bytes its own operators. mem_AllocationOperatorsTiny.h has the same
// for smaller ones.
//
// Every entry asks mem_Malloc. When that is refused it reports the request, the footprint and a call
// stack (unless KXA_CALLSTACK_DEPTH is 0), calls the new-handler and tries again; every failed try
// reports. Without a new-handler the throwing entries throw std::bad_alloc, and THE OTHERS TRY FOR
// EVER, so their result is never null. What a new-handler throws goes to the caller.
//
// With KXQ_DEBUG_MEMSIZE set to "ON..." the entries that are not "Builtin" hold classes to their
// sizes: one of 1 to 128 bytes that came here ends the process with a message on standard error,
// and a size of 0 counts as a failed request. Each entry reads the variable at its first call.
//
// Any thread may call them. Blocks are the caller's until mem_Free. Sizes are bytes.
#pragma once

#include <cstddef>
#include <new>

#include "KXMBasMemExport.h"

KXMBASMEM_API void* mem_OperatorNewThrow(std::size_t size);
KXMBASMEM_API void* mem_OperatorNewNoThrow(std::size_t size, const std::nothrow_t&);

/// For built-in types: any size is allowed, and 0 asks for one byte.
KXMBASMEM_API void* mem_OperatorNewThrowBuiltin(std::size_t size);
KXMBASMEM_API void* mem_OperatorNewNoThrowBuiltin(std::size_t size);

/// Selects the array form below. Its value says nothing.
enum mem_BuiltInAlloc { mem_BUILTIN };

/// new (mem_BUILTIN) double[n]: mem_OperatorNewThrowBuiltin. Given back by mem_deleteBuiltIn.
KXMBASMEM_API void* operator new[](std::size_t size, mem_BuiltInAlloc);
/// What the language calls by itself when a constructor of such an array throws.
KXMBASMEM_API void operator delete[](void* ptr, mem_BuiltInAlloc) noexcept;
KXMBASMEM_API void mem_deleteBuiltIn(char* ptr);

/// Base of a class of more than 128 bytes: its objects come from mem_OperatorNewThrow and go back
/// through mem_Free. An array or a placement form of such a class is the global one.
class KXMBASMEM_API mem_AllocationOperators {
public:
    static void* operator new(std::size_t size);
    static void operator delete(void* ptr);
};
