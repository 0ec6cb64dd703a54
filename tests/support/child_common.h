// Inside of the child harness: what child_linux.cpp and child_windows.cpp give and take.
#pragma once

#include "child.h"

namespace test {

std::string program_path();
const char* program_suffix();
std::string read_text(const std::string& name);

} // namespace test
