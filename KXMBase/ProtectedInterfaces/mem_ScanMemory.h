/* Reports of how the process uses the first 2 GiB of its address space, on standard output. What lies
   above is not looked at, whatever limit is asked for; a region that reaches across is counted whole.

   On Linux the regions are those of the process's own map (/proc/self/maps): mappings without any
   access are reserved, all others committed; private mappings of files are images, shared ones mapped.
   A Linux program that is loaded as usual has nothing in the first 2 GiB, so that one free region is
   all there is.

   Any thread may call; the address space may change while it is looked at. */
#ifndef mem_ScanMemory_h
#define mem_ScanMemory_h

#include "KXMBasMemExport.h"

#ifdef __cplusplus
#include <cstdint>
#include <cstdio>

extern "C" {
#endif

/** The detailed report, for callers in other languages. */
KXMBASMEM_API void mem_scanmemory_ifc(void);

#ifdef __cplusplus
}

enum MEM_SCAN_LEVEL_ENM : int {
    MEM_SCAN_DETAILED = 0,
    MEM_SCAN_FREE_ONLY = 1,
    MEM_SCAN_SUMMARY_ONLY = 2
};

/// The report of `level`; any value but the first two is the summary. `scanLimit` is an address: no
/// region is looked at from there on.
KXMBASMEM_API void mem_ScanMemory(MEM_SCAN_LEVEL_ENM level, std::uint64_t scanLimit);

/// A line for each region, and a summary in mebibytes.
KXMBASMEM_API void mem_Scan_Detailed(std::uint64_t scanLimit);
/// A line for each free region, and a summary in which committed and reserved memory are kibibytes,
/// although the label says MB: kept so.
KXMBASMEM_API void mem_Scan_FreeOnly(std::uint64_t scanLimit);
/// A summary alone, in bytes.
KXMBASMEM_API void mem_Scan_SummaryOnly(std::uint64_t scanLimit);

/// State of a region: 4096 committed, 8192 reserved, 65536 free.
class KXMBASMEM_API mem_MemState {
public:
    explicit mem_MemState(int value) : state(value) {}
    int getState() const { return state; }

private:
    std::int32_t state;
};

/// Type of a region: 131072 private, 262144 mapped, 16777216 image; 0 for a free one.
class KXMBASMEM_API mem_MemType {
public:
    explicit mem_MemType(int value) : type(value) {}
    int getType() const { return type; }

private:
    std::int32_t type;
};

// Print the name, padded to 12 and 11 characters.
KXMBASMEM_API void writemem_MemState(FILE* file, mem_MemState& state);
KXMBASMEM_API void writemem_MemType(FILE* file, mem_MemType& type);
#endif

#endif
