// A small number for each thread that the tracker meets, counted from 0 in the order of their first
// contact and never reused. Not the system's thread number. It is meant for use while tracking is on;
// the library makes the loading thread number 0 then.
#pragma once

#include <cstddef>
#include <cstdint>

#include "KXMBasMemExport.h"

class mem_ThrLock;

class KXMBASMEM_API mem_ThreadId {
public:
    /// The calling thread's instance, created at its first call. After that it costs one thread-local
    /// look-up. The very first call of a process must come before other threads call.
    static mem_ThreadId& Instance();

    /// Gives the calling thread's instance back, if it has one and tracking is on; the last one takes
    /// the class's own resources with it. A thread that returns later gets a new, higher number.
    static void Finalize();

    int GetThreadId() const { return threadId; }

    static void* operator new(std::size_t size) noexcept; ///< null when memory is short
    static void operator delete(void* ptr);

    // Around a fork, for the library: the lock of the count.
    static void LockForFork();
    static void UnlockAfterFork(bool in_child);

private:
    mem_ThreadId();
    ~mem_ThreadId() {}
    mem_ThreadId(const mem_ThreadId&);
    mem_ThreadId& operator=(const mem_ThreadId&);

    std::int32_t threadId;

    static std::int32_t m_instanceTlsIndex; // 0: no slot yet
    static std::int32_t m_refCount;         // live instances
    static mem_ThrLock* m_lock;             // guards m_refCount; null: not set up
};
