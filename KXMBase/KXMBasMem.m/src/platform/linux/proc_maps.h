// Reads the kernel's own list of the process's mappings, without allocating, for addresses that
// the platform did not hand out itself.
#pragma once

#include "platform/os.h"

namespace os {

/// The region of `/proc/self/maps` (or the gap between two) that holds `address`; false when the
/// map cannot be read or the address lies above the user's address space.
bool query_process_map(std::uintptr_t address, Region& region);

} // namespace os
