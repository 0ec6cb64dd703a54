// Where tests stand between the figures and the system, to give figures of their own and to refuse. In
// the library that is shipped these are the system's functions and nothing else.
#pragma once

#include "platform/os.h"

namespace diagnostics::test_seam {

struct Provider {
    os::Module (*module_load)(const char*) = os::module_load;
    void* (*module_symbol)(os::Module, const char*) = os::module_symbol;
    void (*module_release)(os::Module) = os::module_release;
    bool (*machine_memory)(os::MachineMemory&) = os::machine_memory;
    void (*older_machine_memory)(os::OlderMachineMemory&) = os::older_machine_memory;
    bool (*process_memory)(os::ProcessMemory&) = os::process_memory;
    std::uint32_t (*drive_type)(const char*) = os::drive_type;
    bool (*drive_space)(const char*, os::DriveSpace&) = os::drive_space;
    bool (*vm_query)(os::UpwardQueries&, const void*, os::Region&) =
        [](os::UpwardQueries& queries, const void* address, os::Region& region) {
            return queries.query(address, region);
        };
    void* (*vm_reserve)(std::size_t) = os::vm_reserve;
};

#if defined(KXM_TEST_SEAMS)
inline Provider provider;
#else
inline constexpr Provider provider;
#endif

} // namespace diagnostics::test_seam
