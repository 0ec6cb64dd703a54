// The library's memory back ends, which it chooses from the environment when it is loaded.
#pragma once

#include <optional>
#include <string_view>

namespace elasticity {

/// Name of the back end that this process runs on.
const char* present_backend();

/// Makes the process run on back end `name` (empty: as it is). When the environment asks for
/// another, it is changed and the program started again, for the choice is made only at loading.
/// An answer is the exit status of that second run; no answer means to go on. Throws InputError
/// when the back end cannot be had.
std::optional<int> use_backend(std::string_view name, char** argv);

} // namespace elasticity
