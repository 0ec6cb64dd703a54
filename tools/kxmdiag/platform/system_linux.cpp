// See system.h.
#include "system.h"

#include "mem_Interface.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <sys/utsname.h>
#include <unistd.h>

namespace kxmdiag {

std::string system_name() {
    utsname names{};
    return uname(&names) == 0 ? std::string(names.sysname) + " " + names.release : "Linux";
}

std::string library_file() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(mem_Malloc), &info) == 0 || info.dli_fname == nullptr) {
        return "";
    }
    char path[PATH_MAX];
    return realpath(info.dli_fname, path) != nullptr ? path : info.dli_fname;
}

// The least along the way up, as every group above limits too. A container that does not see its own path
// finds its limit at the top.
std::uint64_t group_memory_limit() {
    std::uint64_t least = UINT64_MAX;
    std::ifstream groups("/proc/self/cgroup");
    for (std::string line; std::getline(groups, line);) {
        // "0::/path" in the one hierarchy, "8:memory:/path" in one of the older kind.
        const std::size_t first = line.find(':'), second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos) {
            continue;
        }
        const std::string kinds = "," + line.substr(first + 1, second - first - 1) + ",";
        const bool older = kinds != ",,";
        if (older && kinds.find(",memory,") == std::string::npos) {
            continue;
        }
        const std::filesystem::path root = older ? "/sys/fs/cgroup/memory" : "/sys/fs/cgroup";
        std::filesystem::path group = line.substr(second + 1);
        for (;; group = group.parent_path()) {
            std::ifstream file(root / group.relative_path() /
                               (older ? "memory.limit_in_bytes" : "memory.max"));
            std::uint64_t bytes = 0;
            if (file >> bytes) { // "max" is no number
                least = std::min(least, bytes);
            }
            if (!group.has_relative_path()) {
                break;
            }
        }
    }
    constexpr std::uint64_t unlimited = std::uint64_t{1}
                                        << 62; // the older kind's is just below 2^63
    return least < unlimited ? least : UINT64_MAX;
}

std::string working_folder_drive() {
    return ".";
}

std::vector<std::string> environment_names() {
    std::vector<std::string> names;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        names.emplace_back(*entry, std::strcspn(*entry, "="));
    }
    return names;
}

} // namespace kxmdiag
