// See mem_GetWindowsMemory.h. The newer of the system's two functions is looked up by name at run time;
// where that or the function fails, the older one answers, with its own rule of conversion.
#include "mem_GetWindowsMemory.h"

#include <cmath>

#include "diagnostics/test_seam.h"
#include "mem_GetWindowsErrorText.h"

namespace {

using diagnostics::test_seam::provider;

enum : int { error = 0, warning = 1 }; // types of messages

// A null list is one that nobody keeps.
void add(mem_Error* list, int type, char const* text) {
    if (list != nullptr) {
        list->AddError(type, text);
    }
}

void add_with_reason(mem_Error* list, int type, char const* text) {
    if (list != nullptr) {
        list->AddError(type, text + mem_GetWindowsLastErrorText());
    }
}

bool ask_newer(os::MachineMemory& figures, mem_Error* list) {
    os::Module const module = provider.module_load(os::memory_module);
    if (module == nullptr) {
        add_with_reason(list, warning, "Problems loading kernel32.dll - ");
        return false;
    }
    using Function = int (*)(os::MachineMemory*);
    const auto function =
        reinterpret_cast<Function>(provider.module_symbol(module, "GlobalMemoryStatusEx"));
    bool answered = false;
    if (function == nullptr) {
        add_with_reason(list, warning, "Calling Windows API function GetProcAddress() - ");
    } else if (function(&figures) == 0) {
        add_with_reason(list, warning, "Calling Windows API function GlobalMemoryStatusEx() - ");
    } else {
        answered = true;
    }
    provider.module_release(module);
    return answered;
}

// Three rules, which differ on purpose: each is what clients have always been given. All go through
// kibibytes as a float, which is exact up to 16 GiB and good to seven digits above.
float plain(std::uint64_t bytes) {
    // NOLINTNEXTLINE(bugprone-integer-division): whole kibibytes, as said
    return static_cast<float>(bytes / 1024) / 1024.0F;
}

float rounded_up(std::uint64_t bytes) {
    return std::floor(plain(bytes + 1047552));
}

float rounded_down_older(std::uint64_t bytes) {
    return std::floor(static_cast<float>(static_cast<std::uint32_t>(bytes / 1024)) / 1024.0F);
}

template <class Number> bool all_ones(Number value) {
    return value == static_cast<Number>(~Number{0});
}

bool is_impossible(const os::OlderMachineMemory& figures) {
    return all_ones(figures.available_physical) || all_ones(figures.total_physical) ||
           all_ones(figures.available_virtual) || all_ones(figures.total_virtual) ||
           all_ones(figures.length) || all_ones(figures.load_percent);
}

} // namespace

mem_GetWindowsMemory::mem_GetWindowsMemory() {
    seed(nullptr);
}

mem_GetWindowsMemory::mem_GetWindowsMemory(WithReports) {
    seed(&errors);
}

void mem_GetWindowsMemory::seed(mem_Error* list) {
    os::MachineMemory figures;
    if (ask_newer(figures, list)) {
        memoryLoad = figures.load_percent;
        totalPhysMbytes = rounded_up(figures.total_physical);
        availPhysMbytes = rounded_up(figures.available_physical);
        totalVirtMbytes = rounded_up(figures.total_virtual);
        availVirtMbytes = rounded_up(figures.available_virtual);
        availExtendedMbytes = plain(figures.available_extended_virtual);
        foundError = false;
        return;
    }
    add(list, warning, "Unsuccessful determining memory details using GlobalMemoryStatusEx().");
    add(list, warning, "Going to try the older function GlobalMemoryStatus().");
    os::OlderMachineMemory older;
    provider.older_machine_memory(older);
    foundError = is_impossible(older);
    if (foundError) { // the figures are kept all the same
        add_with_reason(list, error, "Calling Windows API function GlobalMemoryStatus() - ");
    }
    totalPhysMbytes = rounded_down_older(older.total_physical);
    availPhysMbytes = rounded_down_older(older.available_physical);
    totalVirtMbytes = rounded_down_older(older.total_virtual);
    availVirtMbytes = rounded_down_older(older.available_virtual);
    memoryLoad = older.load_percent;
    availExtendedMbytes = 0;
}
