// The tracker: decides once per process whether memory tracking is on, and then records every
// allocation event that passes the C interface as a transaction of 40 bytes, in a buffer of its own
// and from there in <base>.memT<n> files. docs/tracking-files.md describes them.
//
// Client code calls mem_Tracker_Interface (or the plain entries of mem_TrackerC.h), which do nothing
// while tracking is off. Two things only a client can do: register a converter with mem_ToOs, and
// call mem_Tracker::Finalize at the end. Without that the last buffer and the table of phases are
// not written.
//
// Hooks may be called by any thread. Whatever cannot be written ends the process through
// KXTFatalError. The tracker's own memory comes from the bound functions directly and is not recorded.
#pragma once

#include <cstddef>
#include <cstdint>

#include "KXMBasMemExport.h"
#include "mem_PhaseStack.h"
#include "mem_PtrHash.h"
#include "mem_StackHash.h"
#include "mem_ThrLock.h"

#ifndef MEM_TRACKER_PHASE_MAXSTRLEN
#define MEM_TRACKER_PHASE_MAXSTRLEN 120
#endif
#define MEM_MAX_THREADS 64

namespace kxm {
struct TrackerRevival; // the library's own checks
} // namespace kxm

/// One event, in memory and on disk: 40 bytes, little-endian.
struct KXMBASMEM_API mem_Transaction {
    enum TypeEnm {
        e_malloc,
        e_free,
        e_new,
        e_delete,
        e_realloc,
        e_calloc,
        e_valloc,
        e_release,
        e_acquire
    };

    mem_Transaction(); ///< all ones, but for a null pointer; the old pointer is left to the hooks

    std::uint64_t pointer;      ///< the block; for realloc the new address
    std::uint64_t oldPointer;   ///< the old address for realloc, else 0
    std::int32_t type;          ///< a TypeEnm
    std::int32_t transactionId; ///< from 0, without a gap
    std::uint64_t size;         ///< bytes asked for; all ones where none applies
    std::int32_t threadId;      ///< of mem_ThreadId
    std::int32_t stackId;       ///< of the thread's phase path; without meaning on a free
};

class KXMBASMEM_API mem_Tracker {
public:
    enum UseEnm : std::int32_t {
        e_useUnknown, ///< not decided yet
        e_useOff,     ///< off for the rest of the process
        e_useOn,      ///< hooks are called
        e_useFinished ///< the tracker is gone; no hook may run any more
    };
    enum { BufferSize = 131072 };

    // The gate.

    /// Takes the decision, if it is not taken: on when KXA_MEM_TRACK is set, whatever its value.
    static UseEnm CheckForTracking();
    /// The decision as it stands.
    static UseEnm CheckUseFlag();

    /// The one tracker, created at the first call: over twenty megabytes.
    static mem_Tracker& Instance();

    /// Ends tracking for good: writes the table of phases and the last buffer, and deletes the
    /// tracker. pre: no other thread allocates; a converter is registered with mem_ToOs. Call
    /// mem_ThreadId::Finalize first.
    static void Finalize();

    // The hooks. A caller outside the library does its own gating. A null pointer is recorded as any
    // other.
    void MallocCall(void* p, std::size_t size);
    void NewCall(void* p, std::size_t size);
    void VallocCall(void* p, std::size_t size);
    void CallocCall(void* p, std::size_t count, std::size_t size);
    void FreeCall(void* p);
    void DeleteCall(void* p);
    void ReleaseCall(void* p);
    void AcquireCall(void* p);
    void ReallocCall(void* newP, void* oldP, std::size_t size);

    /// Base of all file names, from the next file on. With KXA_MEM_OUTPUTDIR that folder goes in
    /// before the last element. Too long a name switches tracking off and is a fatal error.
    void SetOutputName(const char* name);
    const char* OutputName() const { return m_baseOutputName; } ///< with its folder
    void SetRank(int rank);                                     ///< for messages; -1 until then

    /// The calling thread's phase, nested in those it is in. `name` has at most 127 characters. `print`
    /// not 0: told on standard error. A longer name, or a thread numbered 64 or above, is a fatal error.
    void EnterPhase(const char* name, int print);
    void ExitPhase(int print);

    /// Tells the id of the next transaction on standard error.
    void PrintTransaction(const char* text);

    // Blocks allocated while recording is stopped are left out, and so is everything that happens
    // to them later. The release of a recorded block is always recorded.
    void StartTracking();
    void StopTracking();

    /// Writes the table of phases and what the last file lacks, and changes nothing else: what follows is
    /// recorded as if nothing had been written, and overwrites it. Without events, nothing. For a process that may end at any
    /// moment. `wait` for other threads to leave the tracker; without it, in a handler of a fatal signal,
    /// a tenth of a second at most, and the calling thread may be in it itself. False when a file cannot
    /// be written. pre: as for Finalize, a converter.
    bool Save(bool wait);

    // Around a fork, for the library: the tracker's lock. The child begins a record of its own, whose
    // name is the parent's, a point and the child's process number; it has the parent's phases.
    static void LockForFork();
    static void UnlockAfterFork(bool in_child);

    int AddThread(); ///< hands out the next thread number
    int CurrTransactionId() const;

private:
    enum { e_maxDebugTrans = 50, e_outputDirSize = 1024, e_baseNameSize = 2048 };
    class Guard;

    mem_Tracker();
    ~mem_Tracker();
    mem_Tracker(const mem_Tracker&);
    mem_Tracker& operator=(const mem_Tracker&);
    static void* operator new(std::size_t size) noexcept;
    static void operator delete(void* ptr);

    static void SetUseFlag(UseEnm use);
    static mem_Tracker* Create();
    void ReadOutputDir();
    void CreateBaseOutputName(const char* name);
    void ProcessDBTransStr(char* text);
    void AllocationCall(mem_Transaction::TypeEnm type, void* p, std::size_t size);
    void ReleasingCall(mem_Transaction::TypeEnm type, void* p);
    void Record(mem_Transaction::TypeEnm type, void* p, void* oldP, std::size_t size);
    void Announce(mem_Transaction::TypeEnm type);
    bool IsUntracked(const void* p) const;
    void AddUntracked(const void* p);
    void DeleteUntracked(const void* p);
    bool ThreadWithPhases(int& thread) const;
    bool EnterPath(int thread, const char* path);
    void Tell(const char* text, int line);
    void FlushBuffer();
    void NameFile(char* name, std::size_t capacity) const;
    int WriteRecords(int file) const;
    bool WriteBuffer(int file);
    void BeginAnewInChild();

    std::int32_t m_rank;
    char m_baseOutputName[e_baseNameSize];
    bool m_baseOutputNameSet;
    bool m_outputDirSet;
    char m_outputDir[e_outputDirSize];
    mem_PhaseStack m_phaseStacks[MEM_MAX_THREADS];
    std::int32_t m_nextStackId;
    std::int32_t m_currStackId[MEM_MAX_THREADS + 1]; // the last is every further thread's: none
    mem_StackHash m_stackHash;
    mem_ThrLock m_lock;
    mem_Transaction m_buffer[BufferSize];
    std::int32_t m_fileNumber;
    std::int32_t m_itemsInCurrBuffer;
    std::int32_t m_debugTrans[e_maxDebugTrans];
    std::int32_t m_numDebugTrans;
    std::int32_t m_nextDebugTrans;
    std::int32_t m_currTransactionId;
    std::int32_t m_numThreads;
    bool m_recording;
    bool m_wasStopped;
    std::int32_t m_numUntracked;
    mem_PtrHash m_untracked;
    bool m_tellingFatal;

    friend struct kxm::TrackerRevival;

    static UseEnm m_useFlag;
    static mem_Tracker* m_instance;
    static mem_Tracker* m_lockedForFork;
};

/// What an entry that keeps `cached` keeps next: on while the tracker is on; once off, always off.
KXMBASMEM_API mem_Tracker::UseEnm mem_CheckTracker(mem_Tracker::UseEnm cached);
