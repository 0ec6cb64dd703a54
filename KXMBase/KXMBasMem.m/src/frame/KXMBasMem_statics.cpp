// The library's static initialisers, all in this one file because C++ fixes their order only within
// a file. They run when the library is loaded, before it is started, and none of them allocates: an
// allocation here would reach the bootstrap of the table and abort a normal load on the heap.
// This file is the one place where the frame knows objects of the rooms above it.
// Destructors run in reverse, after the library was stopped.
#include <cstdint>
#include <cstdlib>

#include "KXMBasAlloc.h"
#include "KXMBasCallStack.h"
#include "KXMBasErrorStack.h"
#include "KXMBasMemPool.h"
#include "KXMBasMemoryCheck.h"
#include "KXMBasOmiTableAllocator.h"
#include "KXMBasPhaseTracker.h"
#include "diagnostics/callstack_depth.h"
#include "diagnostics/memcheck_printf.h"
#include "objects/heap_allocator_object.h"
#include "platform/os.h"

// NOLINTBEGIN(cert-err58-cpp): none of these throws

KXMBasMemPool operatorNewPool(1000, "operator_new", nullptr);

std::int32_t s_callStackDepth = GetCallStackDepth();

KXMBasErrorContext KXMBasErrorStack::s_context;

const char* KXA_PARALLEL_DEBUG = std::getenv("KXA_PARALLEL_DEBUG");

KXMBasOmiTableAllocator AAA;

MemCheckPrintf memCheckPrintf = locateMemCheckPrintf();

const char* const MC_RESULT = std::getenv("MC_RESULT");

std::int32_t KXMBasPhaseTracker::s_thread0 = static_cast<std::int32_t>(os::thread_id());

mem_DLAllocator allocator_objects::heap;

const char* m_registEnv = std::getenv("KXM_SINGLETON_REGISTRY");

namespace {

// After all the others: on systems that do not call DllMain by themselves this starts the library.
os::LibraryLifetime lifetime;

// NOLINTEND(cert-err58-cpp)

} // namespace
