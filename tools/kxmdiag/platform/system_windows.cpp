// See system.h.
#include "system.h"

#include "mem_Interface.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <windows.h>

namespace kxmdiag {

// By way of ntdll, since the plain functions answer what the program's manifest allows.
std::string system_name() {
    RTL_OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    const HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    const auto get = reinterpret_cast<LONG(WINAPI*)(RTL_OSVERSIONINFOW*)>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlGetVersion")));
    if (get == nullptr || get(&version) != 0) {
        return "Windows";
    }
    const auto wine = reinterpret_cast<const char* (*)()>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "wine_get_version")));
    const std::string name = "Windows " + std::to_string(version.dwMajorVersion) + "." +
                             std::to_string(version.dwMinorVersion) + "." +
                             std::to_string(version.dwBuildNumber);
    return wine != nullptr ? name + " (Wine " + wine() + ")" : name;
}

std::string library_file() {
    HMODULE module = nullptr;
    char path[MAX_PATH];
    if (GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                               GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<const char*>(mem_Malloc), &module) == 0) {
        return "";
    }
    return {path, GetModuleFileNameA(module, path, sizeof path)};
}

std::uint64_t group_memory_limit() {
    std::uint64_t least = UINT64_MAX;
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION job{};
    if (QueryInformationJobObject(nullptr, JobObjectExtendedLimitInformation, &job, sizeof job,
                                  nullptr) == 0) {
        return least;
    }
    const DWORD limits = job.BasicLimitInformation.LimitFlags;
    if ((limits & JOB_OBJECT_LIMIT_PROCESS_MEMORY) != 0) {
        least = job.ProcessMemoryLimit;
    }
    if ((limits & JOB_OBJECT_LIMIT_JOB_MEMORY) != 0) {
        least = std::min<std::uint64_t>(least, job.JobMemoryLimit);
    }
    return least;
}

std::string working_folder_drive() {
    char path[MAX_PATH];
    const DWORD length = GetCurrentDirectoryA(sizeof path, path);
    return length >= 3 && path[1] == ':' ? std::string(path, 3) : std::string(path, length);
}

std::vector<std::string> environment_names() {
    std::vector<std::string> names;
    char* const block = GetEnvironmentStringsA();
    for (const char* entry = block; *entry != '\0'; entry += std::strlen(entry) + 1) {
        names.emplace_back(entry, std::strcspn(entry, "="));
    }
    FreeEnvironmentStringsA(block);
    return names;
}

} // namespace kxmdiag
