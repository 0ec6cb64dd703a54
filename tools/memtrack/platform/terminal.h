// What memtrack asks the system about its terminal and its standard output. One source file per system, chosen by CMakeLists.txt.
#pragma once

namespace memtrack::platform {

bool error_is_terminal();
bool output_is_terminal();
int error_columns(); ///< of the terminal; 80 if it does not tell
/// What is written to standard output from now on gets there as it is, line ends too.
void make_output_binary();

} // namespace memtrack::platform
