// See memory_left.h. Reads small files into the stack and allocates nothing.
#include "platform/linux/memory_left.h"

#include "platform/linux/read_file.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace os {
namespace {

constexpr std::uint64_t unknown = ~std::uint64_t{0};
constexpr std::size_t longest_path = 1024; // a thread's stack may be small

// What one version calls its files, and the file caches in memory.stat, its children's included.
struct Version {
    const char* folder; ///< below the root
    const char* limit;
    const char* usage;
    const char* caches[2];
};
constexpr Version first{"/memory",
                        "memory.limit_in_bytes",
                        "memory.usage_in_bytes",
                        {"\ntotal_inactive_file ", "\ntotal_active_file "}};
constexpr Version second{
    "", "memory.max", "memory.current", {"\ninactive_file ", "\nactive_file "}};

std::uint64_t number_in_file(const char* folder, const char* name) {
    char path[longest_path + 32], text[32];
    std::snprintf(path, sizeof path, "%s/%s", folder, name);
    // A group without a limit says "max".
    return read_file(path, text) && text[0] >= '0' && text[0] <= '9'
               ? std::strtoull(text, nullptr, 10)
               : unknown;
}

std::uint64_t left_in_group(const char* folder, const Version& version) {
    const std::uint64_t limit = number_in_file(folder, version.limit);
    const std::uint64_t usage = number_in_file(folder, version.usage);
    if (limit == unknown || usage == unknown) {
        return unknown;
    }
    char path[longest_path + 32], text[4096];
    std::snprintf(path, sizeof path, "%s/memory.stat", folder);
    std::uint64_t caches = 0;
    if (read_file(path, text)) {
        for (const char* const name : version.caches) {
            caches += number_behind(text, name);
        }
    }
    const std::uint64_t held = usage - std::min(usage, caches);
    return limit > held ? limit - held : 0;
}

// Of the group and of all that it lies in. Where another place in the tree is mounted than the list tells of, as in a
// container, the outer folders are the ones that exist.
std::uint64_t left_in_groups(const char* root, const char* group, const Version& version) {
    char folder[longest_path];
    const int length = std::snprintf(folder, sizeof folder, "%s%s%s", root, version.folder, group);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof folder) {
        return unknown;
    }
    std::uint64_t left = unknown;
    const std::size_t shortest = std::strlen(root) + std::strlen(version.folder);
    for (char* end = folder + length; end >= folder + shortest; --end) {
        if (*end == '\0' || *end == '/') {
            *end = '\0';
            left = std::min(left, left_in_group(folder, version));
        }
    }
    return left;
}

} // namespace

// A line of the list is "number:controllers:group"; the second version has no controllers there.
std::uint64_t memory_left(const char* list, const char* root) {
    std::uint64_t left = unknown;
    char text[4096];
    if (read_file("/proc/meminfo", text)) {
        const std::uint64_t kilobytes = number_behind(text, "\nMemAvailable:", unknown);
        left = kilobytes != unknown ? kilobytes * 1024 : unknown;
    }
    if (!read_file(list, text)) {
        return left;
    }
    for (char* line = text; *line != '\0';) {
        char* const next = line + std::strcspn(line, "\n");
        char* const after = *next != '\0' ? next + 1 : next;
        *next = '\0';
        char* const controllers = std::strchr(line, ':');
        char* const group = controllers != nullptr ? std::strchr(controllers + 1, ':') : nullptr;
        if (group != nullptr) {
            *group = '\0';
            if (std::strcmp(line, "0:") == 0) {
                left = std::min(left, left_in_groups(root, group + 1, second));
            } else if (std::strstr(controllers, "memory") != nullptr) {
                left = std::min(left, left_in_groups(root, group + 1, first));
            }
        }
        line = after;
    }
    return left;
}

} // namespace os
