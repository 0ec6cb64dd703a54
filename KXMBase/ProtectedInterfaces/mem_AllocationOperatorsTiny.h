// As mem_AllocationOperators.h, for classes of at most 128 bytes, which the tiny block pool serves
// whenever it is on.
//
// With KXQ_DEBUG_MEMSIZE set to "ON..." a class of more than 128 bytes ends the process here. The
// message names mem_AllocationOperatorsTiny there as well, the class that is in use: kept so.
#pragma once

#include <cstddef>
#include <new>

#include "KXMBasMemExport.h"

KXMBASMEM_API void* mem_OperatorNewTinyThrow(std::size_t size);
KXMBASMEM_API void* mem_OperatorNewTinyNoThrow(std::size_t size, const std::nothrow_t&);

/// Base of a class of at most 128 bytes: its objects come from mem_OperatorNewTinyThrow and go back
/// through mem_Free.
class KXMBASMEM_API mem_AllocationOperatorsTiny {
public:
    static void* operator new(std::size_t size);
    static void operator delete(void* ptr);
};
