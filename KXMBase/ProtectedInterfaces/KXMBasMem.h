/* Everything the library offers. A C program gets the C allocation interface, a C++ program all. */
#ifndef KXMBasMem_h
#define KXMBasMem_h

#include "mem_Interface.h"

#ifdef __cplusplus
#include "KXMBasAlloc.h"
#include "KXMBasCallStack.h"
#include "KXMBasErrorStack.h"
#include "KXMBasMemPool.h"
#include "KXMBasMemoryCheck.h"
#include "KXMBasOmiTableAllocator.h"
#include "KXMBasPhaseTracker.h"
#include "mem_BoundFunctions.h"
#include "mem_Mallinfo.h"
#endif

#endif
