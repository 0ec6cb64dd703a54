// Virtual memory on Windows, the reference system: its own calls have the wanted behaviour.
#include "platform/os.h"

#include <windows.h>

namespace os {

static_assert(state_commit == MEM_COMMIT && state_reserve == MEM_RESERVE && state_free == MEM_FREE);
static_assert(type_private == MEM_PRIVATE && type_mapped == MEM_MAPPED && type_image == MEM_IMAGE);
static_assert(sizeof(MEMORY_BASIC_INFORMATION) == 48);

const Properties& properties() {
    static const Properties found = [] {
        SYSTEM_INFO info;
        GetSystemInfo(&info);
        return Properties{info.dwPageSize, info.dwAllocationGranularity, '\\', ';', "opt\\",
                          "bsf\\"};
    }();
    return found;
}

void* vm_allocate(std::size_t size, Placement placement) {
    const DWORD from_top = placement == Placement::direct ? MEM_TOP_DOWN : 0;
    return VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT | from_top, PAGE_READWRITE);
}

bool vm_release(void* base) {
    return VirtualFree(base, 0, MEM_RELEASE) != 0;
}

std::size_t vm_release_run(void* base, std::size_t size) {
    std::size_t released = 0;
    while (released < size) {
        char* const at = static_cast<char*>(base) + released;
        MEMORY_BASIC_INFORMATION info;
        if (VirtualQuery(at, &info, sizeof info) == 0 || info.BaseAddress != at ||
            info.AllocationBase != at || info.State != MEM_COMMIT ||
            info.RegionSize > size - released || !vm_release(at)) {
            break;
        }
        released += info.RegionSize;
    }
    return released;
}

bool vm_query(const void* address, Region& region) {
    MEMORY_BASIC_INFORMATION info;
    if (VirtualQuery(address, &info, sizeof info) == 0) {
        return false;
    }
    const bool is_free = info.State == MEM_FREE; // the other fields say nothing then
    region.base = reinterpret_cast<std::uintptr_t>(info.BaseAddress);
    region.allocation_base = is_free ? 0 : reinterpret_cast<std::uintptr_t>(info.AllocationBase);
    region.size = info.RegionSize;
    region.state = info.State;
    region.type = is_free ? 0 : info.Type;
    return true;
}

// cppcheck-suppress uninitMemberVar ; the storage is for a system that lists its regions
UpwardQueries::UpwardQueries() {}

UpwardQueries::~UpwardQueries() {}

bool UpwardQueries::query(const void* address, Region& region) {
    return vm_query(address, region);
}

void* vm_reserve(std::size_t size) {
    return VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_READONLY);
}

const GranuleMap* vm_granules() {
    return nullptr; // the system answers vm_query at once
}

} // namespace os
