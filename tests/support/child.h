// Runs a program as a child process with an environment of its own, for everything that is decided
// once per process or ends one. Spawned, not forked, so that both systems do the same.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace test {

struct ChildRequest {
    std::string program;
    std::vector<std::string> arguments;
    /// Changes to this process's environment; nullopt takes a variable away.
    std::vector<std::pair<std::string, std::optional<std::string>>> environment;
};

struct ChildResult {
    int exit_code = -1;   ///< as the program gave it; the signal's number on Linux when crashed
    bool crashed = false; ///< ended by abort or a fault rather than by an exit
    std::string out;      ///< standard output, with \r\n read as \n
    std::string err;      ///< standard error, likewise
};

/// Waits for the end, at most a minute; throws std::runtime_error when the program cannot be
/// started or does not end.
ChildResult run_child(const ChildRequest& request);

/// Address of an exported symbol of the shared library that is loaded under `library` (its base
/// name, "KXMBasMem"), found by its plain name; null when there is none.
void* find_symbol(const std::string& library, const std::string& name);

/// Folder of the running test program, with a separator at its end.
std::string program_folder();

/// "name" as an executable beside the running test program.
std::string sibling_program(const std::string& name);

/// A fresh empty folder below the build folder, with a separator at its end.
std::string scratch_folder(const std::string& name);

} // namespace test
