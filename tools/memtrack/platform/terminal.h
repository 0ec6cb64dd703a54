// What memtrack asks the system about its terminal. One source file per system, chosen by CMakeLists.txt.
#pragma once

namespace memtrack::platform {

bool error_is_terminal();
bool output_is_terminal();
int error_columns(); ///< of the terminal; 80 if it does not tell

} // namespace memtrack::platform
