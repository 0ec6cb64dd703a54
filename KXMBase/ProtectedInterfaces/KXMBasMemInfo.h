// What a solver asks about the machine and about itself: physical memory, address space, and how much
// of them this process uses. Mebibytes unless a name says otherwise. The figures of the machine are the
// kernel's: a container's or control group's limit is not in them.
//
// Any thread may call. Nothing here allocates through this library.
#pragma once

#include <cstdint>

#include "KXMBasMemExport.h"

class KXMBASMEM_API KXMBasMemInfo {
public:
    static std::uint64_t const UNLIMITED; ///< all bits set, for the client's use

    /// Reads the machine's figures if no object has succeeded yet. The static operations answer 0
    /// before that.
    KXMBasMemInfo();

    /// Reads them anew. False, and 0 stored, when the system gave none.
    bool Initialize();

    static std::uint64_t Physical();
    std::uint64_t Virtual();           ///< address space, the limit on it included
    static std::uint64_t Accessible(); ///< the smaller of the two

    // Kept for the client, and never filled in: 0, and an empty text.
    std::uint64_t StackSize();
    std::uint64_t CoreSize();
    static std::uint64_t CoreSize(std::uint64_t unused);
    static int PageSize();
    static char const* HugePagesSetting();

    // This process, rounded down, asked at each call; 0 when the system refuses.
    std::uint64_t Current();  ///< private bytes: committed for this process alone
    std::uint64_t Resident(); ///< in physical memory, shared pages included

private:
    static std::uint64_t m_physical;
    static std::uint64_t m_virtual;
    static std::uint64_t m_accessible;
    static std::uint64_t m_stacksize;
    static std::uint64_t m_coresize;
    static std::int32_t m_pagesize;
    static bool m_initialized;
    static std::uint64_t m_swaptotal;
    static std::uint64_t m_swapused;
    static std::uint64_t m_swapfree;
    static char s_hugepages[64];
};

/// Physical memory in bytes plus 1,047,552, so that a shift right by 20 rounds up: deliberately not
/// the exact size. 0, or -1 with `*out` untouched when the system gives no figure.
KXMBASMEM_API int mem_getPhysicalMemoryInBytes(std::uint64_t* out);

// Rounded up; 0 when the system gives no figure.
KXMBASMEM_API std::uint64_t mem_getPhysicalMemorySizeMB();
KXMBASMEM_API std::uint64_t mem_getVirtualMemorySizeMB();

// The same as a text, "16384 MB", or the empty text. The buffer has room for 1024 bytes and is returned.
KXMBASMEM_API char* mem_getPhysicalMemoryBase(char* buffer);
KXMBASMEM_API char* mem_getVirtualMemoryBase(char* buffer);

/// Uses address space up, in steps of 100 mebibytes and for the life of the process, until about
/// `keepKbytes` kibibytes and a margin of 200 mebibytes are left. Where less is available already, it
/// reserves until the system refuses. Nothing is committed, so no memory is used.
///
/// Address space is a process's own (128 TiB as a rule), so this can be over a million reservations.
/// On Linux the kernel joins them; a limit on the address space (RLIMIT_AS) counts as what there is.
KXMBASMEM_API void mem_RestrictMemory(std::uint64_t keepKbytes);
