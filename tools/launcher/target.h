// The program that is to be run: where it is, and whether a preloaded library can serve it.
#pragma once

#include <string>

namespace kxmrun {

struct Target {
    std::string path; ///< as the system is to be given it; empty when there is a reason against it
    std::string reason; ///< why it cannot be run on the library, for people
};

/// Looks `command` up as a shell does and reads what the system would read of it: the file, and behind a
/// script its interpreter.
Target find_target(const std::string& command);

} // namespace kxmrun
