// The machine's memory as one reading, taken when the object is built. Mebibytes.
//
// Physical memory is what the kernel manages; the limit of a container or control group is not taken
// into account. Virtual memory is the process's address space: on Linux as far as the process's limit
// (RLIMIT_AS) lets it grow.
#pragma once

#include <cstdint>

#include "KXMBasMemExport.h"
#include "mem_Error.h"

class mem_GetWindowsMemory {
public:
    KXMBASMEM_API mem_GetWindowsMemory(); ///< leaves the list of errors empty, whatever happens

    /// As above, and keeps a message in the list for each step that failed. Not exported: for use
    /// inside the library.
    struct WithReports {};
    explicit mem_GetWindowsMemory(WithReports);

    /// The figures are useless: the older of the system's two functions answered, and with nonsense.
    bool FoundError() const { return foundError; }
    mem_Error GetErrors() const { return errors; }

    // Rounded up to whole mebibytes, or down where the older function answered.
    float GetTotalPhysMemoryMbytes() const { return totalPhysMbytes; }
    float GetTotalVirtMemoryMbytes() const { return totalVirtMbytes; }
    float GetAvailPhysMemoryMbytes() const { return availPhysMbytes; }
    float GetAvailVirtMemoryMbytes() const { return availVirtMbytes; }

    /// Not rounded. 0 on both systems, which keep nothing there.
    float GetAvailExtendedMemoryMbytes() const { return availExtendedMbytes; }
    std::uint32_t GetMemoryLoad() const { return memoryLoad; } ///< physical memory in use, per cent

private:
    void seed(mem_Error* list); // messages go to the list, unless it is null

    float totalPhysMbytes;
    float availPhysMbytes;
    float totalVirtMbytes;
    float availVirtMbytes;
    std::uint32_t memoryLoad;
    float availExtendedMbytes;
    bool foundError;
    mem_Error errors;
};
