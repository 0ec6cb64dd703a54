// What memtrack asks the system for. One source file per system, chosen by CMakeLists.txt.
#pragma once

namespace memtrack::platform {

bool error_is_terminal();
int error_columns();      ///< of the terminal; 80 if it does not tell
void use_binary_output(); ///< for standard output: lines end as they are written

} // namespace memtrack::platform
