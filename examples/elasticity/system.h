// What the job needs of the operating system and the C++ library does not have.
//
// One implementation file per system (system_linux.cpp, system_windows.cpp), chosen by the build.
#pragma once

#include "memory.h"

#include <optional>

namespace elasticity::system {

bool environment_has(const char* name);

/// Sets `name` to "1", or takes it out of the environment. False when the system refuses.
bool set_environment(const char* name, bool present);

/// Starts this program again from its beginning with the same arguments and the present
/// environment. On Linux it takes this process's place; on Windows it is a child, and the answer is
/// its exit status. No answer means that it could not be started.
std::optional<int> start_again(char** argv);

/// Whether standard error is a terminal.
bool error_stream_is_terminal();

/// Whether `file` can be replaced by a rename: it does not exist or is an ordinary file, not a
/// device, a pipe or a folder.
bool is_replaceable(const char* file);

/// The file that `file` stands for, with symbolic links followed; `file` itself when it is no link.
String without_links(const String& file);

bool is_folder(const char* file);

/// Renames `from` to `to`, over what stands there, in one step. False on failure.
bool replace_file(const char* from, const char* to);

} // namespace elasticity::system
