// Figures of the process, the machine and its drives on Windows.
#include "platform/os.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <windows.h>

#include <psapi.h>

namespace os {

static_assert(sizeof(PROCESS_MEMORY_COUNTERS_EX) == 80);
static_assert(sizeof(MachineMemory) == sizeof(MEMORYSTATUSEX));
static_assert(offsetof(MachineMemory, total_virtual) == offsetof(MEMORYSTATUSEX, ullTotalVirtual));
static_assert(sizeof(OlderMachineMemory) == sizeof(MEMORYSTATUS));
static_assert(offsetof(OlderMachineMemory, total_virtual) ==
              offsetof(MEMORYSTATUS, dwTotalVirtual));

namespace {

// The highest commit charge that any call saw. Wine 8 reports a peak that falls again.
std::atomic<std::uint64_t> highest_seen = 0;

std::uint64_t raise_highest(std::uint64_t value) {
    std::uint64_t known = highest_seen.load();
    while (known < value && !highest_seen.compare_exchange_weak(known, value)) {
    }
    return known < value ? value : known;
}

} // namespace

bool process_memory(ProcessMemory& figures) {
    // A real handle with rights to query and to read, as a restricted process may be denied it.
    const HANDLE process =
        OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, GetCurrentProcessId());
    if (process == nullptr) {
        return false;
    }
    PROCESS_MEMORY_COUNTERS_EX counters{};
    counters.cb = sizeof counters;
    const bool answered =
        K32GetProcessMemoryInfo(process, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                                sizeof counters) != 0;
    CloseHandle(process);
    if (answered) {
        // Both are the process's commit charge; Wine 8 leaves the first at 0.
        figures.private_bytes =
            counters.PrivateUsage != 0 ? counters.PrivateUsage : counters.PagefileUsage;
        figures.peak_private_bytes = raise_highest(
            std::max<std::uint64_t>(counters.PeakPagefileUsage, figures.private_bytes));
        figures.resident_bytes = counters.WorkingSetSize;
    }
    return answered;
}

bool machine_memory(MachineMemory& figures) {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    if (GlobalMemoryStatusEx(&status) == 0) {
        return false;
    }
    figures = std::bit_cast<MachineMemory>(status);
    return true;
}

void older_machine_memory(OlderMachineMemory& figures) {
    MEMORYSTATUS status{};
    status.dwLength = sizeof status;
    GlobalMemoryStatus(&status);
    figures = std::bit_cast<OlderMachineMemory>(status);
}

std::uint32_t process_id() {
    return GetCurrentProcessId();
}

std::uint32_t drive_type(const char* root) {
    return GetDriveTypeA(root);
}

bool drive_space(const char* root, DriveSpace& space) {
    DWORD sectors = 0, bytes = 0, free_clusters = 0, total_clusters = 0;
    if (GetDiskFreeSpaceA(root, &sectors, &bytes, &free_clusters, &total_clusters) == 0) {
        return false;
    }
    space = {sectors, bytes, free_clusters, total_clusters};
    return true;
}

std::uint32_t last_error() {
    return GetLastError();
}

KeptError::KeptError() : errno_(errno), last_(GetLastError()) {}

KeptError::~KeptError() {
    errno = errno_;
    SetLastError(last_);
}

std::size_t error_text(std::uint32_t code, char* buffer, std::size_t capacity) {
    char* text = nullptr;
    constexpr DWORD user_default_language = 1024;
    // With the flag to allocate, the call takes the address of the pointer it sets.
    const DWORD length = FormatMessageA(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, code, user_default_language, reinterpret_cast<char*>(&text), 0, nullptr);
    if (length == 0 || text == nullptr) {
        return 0;
    }
    if (capacity == 0) {
        LocalFree(text);
        return 0;
    }
    const std::size_t kept = length < capacity ? length : capacity - 1;
    for (std::size_t i = 0; i < kept; ++i) {
        buffer[i] = text[i];
    }
    buffer[kept] = '\0';
    LocalFree(text);
    return kept;
}

} // namespace os
