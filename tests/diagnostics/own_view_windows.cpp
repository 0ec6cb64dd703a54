// See own_view.h.
#include "own_view.h"

#include <windows.h>

#include <psapi.h>

namespace test {
namespace {

MEMORYSTATUSEX status() {
    MEMORYSTATUSEX figures{};
    figures.dwLength = sizeof figures;
    GlobalMemoryStatusEx(&figures);
    return figures;
}

PROCESS_MEMORY_COUNTERS counters() {
    PROCESS_MEMORY_COUNTERS figures{};
    GetProcessMemoryInfo(GetCurrentProcess(), &figures, sizeof figures);
    return figures;
}

void* at(std::uint64_t address) {
    return reinterpret_cast<void*>(address);
}

template <class See> void walk(See see) {
    MEMORY_BASIC_INFORMATION info;
    for (std::uint64_t address = 0; VirtualQuery(at(address), &info, sizeof info) != 0;
         address += info.RegionSize) {
        const std::uint32_t type = info.State == MEM_FREE ? 0 : info.Type;
        if (!see(MapRegion{address, info.RegionSize, info.State, type})) {
            break;
        }
    }
}

} // namespace

const std::string drive_root = "C:\\";
const std::string no_drive_root = "Q:\\";

std::uint64_t physical_bytes() {
    return status().ullTotalPhys;
}

std::uint64_t available_bytes() {
    return status().ullAvailPhys;
}

std::uint64_t address_space_bytes() {
    return status().ullTotalVirtual;
}

std::uint64_t private_bytes() {
    return counters().PagefileUsage;
}

std::uint64_t resident_bytes() {
    return counters().WorkingSetSize;
}

std::uint64_t drive_bytes(const std::string& root) {
    ULARGE_INTEGER total{};
    GetDiskFreeSpaceExA(root.c_str(), nullptr, &total, nullptr);
    return total.QuadPart;
}

std::uint64_t drive_free_bytes(const std::string& root) {
    ULARGE_INTEGER available{};
    GetDiskFreeSpaceExA(root.c_str(), &available, nullptr, nullptr);
    return available.QuadPart;
}

std::vector<MapRegion> low_map() {
    std::vector<MapRegion> regions;
    walk([&](const MapRegion& region) {
        regions.push_back(region);
        return region.start + region.size <= INT32_MAX;
    });
    return regions;
}

std::uint64_t reserved_bytes() {
    std::uint64_t sum = 0;
    walk([&](const MapRegion& region) {
        sum += region.state == MEM_RESERVE ? region.size : 0;
        return true;
    });
    return sum;
}

bool claim(std::uint64_t address, std::size_t size, bool committed) {
    return VirtualAlloc(at(address), size, committed ? MEM_RESERVE | MEM_COMMIT : MEM_RESERVE,
                        PAGE_READWRITE) == at(address);
}

void give_back(std::uint64_t address, std::size_t) {
    VirtualFree(at(address), 0, MEM_RELEASE);
}

bool limit_address_space(std::uint64_t) {
    return false;
}

} // namespace test
