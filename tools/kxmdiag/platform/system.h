// What kxmdiag asks the system by itself; one implementation per system.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kxmdiag {

std::string system_name();  ///< name and release
std::string library_file(); ///< the file of the loaded library; empty when the system does not tell
std::uint64_t
group_memory_limit(); ///< of the process's container or job, in bytes; all ones for none
std::string working_folder_drive();           ///< as mem_GetWindowsDriveInfo takes it
std::vector<std::string> environment_names(); ///< of all variables, in no order

} // namespace kxmdiag
