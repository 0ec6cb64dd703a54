// Writes one thread's phase entries and exits, each with the transaction number of its moment, to
// <base>.phase_thr<thread>_<n> files (docs/tracking-files.md). The tracker does not drive it: a client
// that wants such files keeps one buffer for each thread. A buffer with events needs a converter
// registered with mem_ToOs when it writes: every 50 events and at its end. Failures are fatal errors.
#pragma once

#include <cstdint>

#include "KXMBasMemExport.h"

#ifndef MEM_TRACKER_PHASE_MAXSTRLEN
#define MEM_TRACKER_PHASE_MAXSTRLEN 120
#endif

/// One event, in memory and on disk: 128 bytes, little-endian.
struct KXMBASMEM_API mem_PhaseDescription {
    mem_PhaseDescription();

    char name[MEM_TRACKER_PHASE_MAXSTRLEN]; ///< of an entry; without meaning on an exit
    std::int32_t transactionId;
    unsigned char entering; ///< 1 for an entry, 0 for an exit
    char padding[3];
};

class KXMBASMEM_API mem_PhaseBuffer {
public:
    mem_PhaseBuffer();
    ~mem_PhaseBuffer(); ///< writes what is left

    // The first event binds the buffer to its thread number; another number later is a fatal error.
    // Both return 0.
    int EnterPhase(const char* name, int threadId, int transactionId); ///< at most 119 characters
    int ExitPhase(int threadId, int transactionId);

    /// At most 1004 characters; "unknownMemTrack" until then.
    void SetOutputName(const char* name);

private:
    enum {
        PHASE_FILENAMESIZE = 1024,
        MAX_BUFF_ID_DIGITS = 8,
        PhaseExtensionSize = 11,
        e_capacity = 50
    };

    mem_PhaseBuffer(const mem_PhaseBuffer&);
    mem_PhaseBuffer& operator=(const mem_PhaseBuffer&);
    mem_PhaseDescription* NextEntry(int threadId);
    void Flush();

    char m_baseOutputName[PHASE_FILENAMESIZE];
    bool m_baseOutputNameSet;
    mem_PhaseDescription m_entries[e_capacity];
    std::int32_t m_currEntry;
    std::int32_t m_fileNumber;
    std::int32_t m_threadId;
};
