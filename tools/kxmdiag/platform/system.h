// What kxmdiag asks the system by itself; one implementation per system.
#pragma once

#include <string>
#include <vector>

namespace kxmdiag {

std::string system_name();  ///< name and release
std::string library_file(); ///< the file of the loaded library; empty when the system does not tell
std::string working_folder_drive();           ///< as mem_GetWindowsDriveInfo takes it
std::vector<std::string> environment_names(); ///< of all variables, in no order

} // namespace kxmdiag
