/* Everything the library offers. A C program gets the entries with plain names, a C++ program all.
 */
#ifndef KXMBasMem_h
#define KXMBasMem_h

#include "KXMBasAlloc.h"
#include "KXMBasErrorStack.h"
#include "KXMBasMemStackSweep.h"
#include "KXMBasMemoryCheck.h"
#include "KXMBasWriteMsg.h"
#include "mem_BoundFunctions.h"
#include "mem_Interface.h"
#include "mem_Mallinfo.h"
#include "mem_ScanMemory.h"
#include "mem_TinyBlocks.h"
#include "mem_TrackerC.h"
#include "mem_violations.h"

#ifdef __cplusplus
#include "KXMBasCallStack.h"
#include "KXMBasMemDebug.h"
#include "KXMBasMemInfo.h"
#include "KXMBasMemPool.h"
#include "KXMBasOmiTableAllocator.h"
#include "KXMBasPhaseTracker.h"
#include "mem_AllocationOperators.h"
#include "mem_AllocationOperatorsTiny.h"
#include "mem_Allocator.h"
#include "mem_CachePool.h"
#include "mem_DLAllocator.h"
#include "mem_Debugger.h"
#include "mem_Error.h"
#include "mem_ErrorBase.h"
#include "mem_GetWindowsDriveInfo.h"
#include "mem_GetWindowsErrorText.h"
#include "mem_GetWindowsMemory.h"
#include "mem_PhaseBuffer.h"
#include "mem_PhaseStack.h"
#include "mem_ProtectionPage.h"
#include "mem_PtrHash.h"
#include "mem_Stack.h"
#include "mem_StackHash.h"
#include "mem_String.h"
#include "mem_ThrLock.h"
#include "mem_ThreadId.h"
#include "mem_ToOs.h"
#include "mem_Tracker.h"
#include "mem_Tracker_Interface.h"
#include "omi_FloatingPoint.h"
#include "omi_SingletonBase.h"
#endif

#endif
