// A mutual-exclusion lock with a remembered status. Recursive for its owner, but the status is one
// flag and no count: after a nested Lock and one Unlock it says free although the thread still holds
// the lock. Do not nest where the flag matters.
//
// Objects on the heap come from the bound allocation function directly and go back the same way, so
// that the tracker, which stands on this class, never records them.
#pragma once

#include <cstddef>

#include "KXMBasMemExport.h"

enum mem_ThrLockStatus {
    mem_ThrUnlocked = 0, ///< nobody has the lock; as an argument: create it free
    mem_ThrLocked = 1    ///< the lock is held; as an argument: create it and take it at once
};

class KXMBASMEM_API mem_ThrLock {
public:
    explicit mem_ThrLock(mem_ThrLockStatus initial);
    ~mem_ThrLock(); ///< pre: no thread holds it or waits for it

    void Lock();
    void Unlock(); ///< pre: the calling thread holds the lock

    /// 1 when the lock was taken, 0 when not. 0 also for the thread that holds it already.
    int TryLock();

    /// Makes it free again in a process that fork has made while the calling thread held it.
    void RenewAfterFork();

    static void* operator new(std::size_t size) noexcept; ///< null when memory is short
    static void operator delete(void* ptr);

private:
    mem_ThrLock(const mem_ThrLock&);
    mem_ThrLock& operator=(const mem_ThrLock&);

    alignas(8) unsigned char m_section[64]; // the system's critical section
    mem_ThrLockStatus status;               // written only by a thread that holds the lock
};
