// How much memory the process may still take before the kernel kills something for it.
#pragma once

#include <cstdint>

namespace os {

/// Bytes: what the machine has available, or what the tightest of the process's control groups (of either version)
/// leaves, the caches that it could give up counted in. All ones where nothing tells.
/// `list` names the process's groups, `root` is where they are mounted.
std::uint64_t memory_left(const char* list = "/proc/self/cgroup",
                          const char* root = "/sys/fs/cgroup");

} // namespace os
