// Starts another program and talks with it over its standard input and output. Its standard error is ours.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace memtrack::platform {

struct ProcessRequest {
    std::string program;
    std::vector<std::string> arguments; ///< without blanks, quotes and backslashes
    /// Changes to this process's environment; nullopt takes a variable away.
    std::vector<std::pair<std::string, std::optional<std::string>>> environment;

    /// Whether one of the changes is to the variable of this "NAME=value".
    bool changes(std::string_view entry) const {
        return std::any_of(environment.begin(), environment.end(), [&](const auto& change) {
            return entry.starts_with(change.first) && entry.substr(change.first.size(), 1) == "=";
        });
    }
    void add_to(std::vector<std::string>& entries) const {
        for (const auto& [name, value] : environment) {
            if (value) {
                entries.push_back(name + "=" + *value);
            }
        }
    }
};

struct ProcessEnd {
    bool crashed = false; ///< ended by a fault or a signal, `status` is its number
    int status = 0;
};

class Process {
public:
    /// Throws std::runtime_error when the program cannot be started.
    explicit Process(const ProcessRequest& request);
    ~Process(); ///< ends the program if it still runs
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// False when the program reads no more.
    bool write(const void* data, std::size_t size);
    /// What there is to read, at most `size` bytes; 0 at the end.
    std::size_t read(void* data, std::size_t size);
    /// Gives nothing more to read, and waits for the end.
    ProcessEnd wait();

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Folder of the running program, with a separator at its end, and how the name of a program ends.
std::string program_folder();
extern const char* const program_suffix;
/// Whether a library can be put before the C runtime's allocator (LD_PRELOAD).
extern const bool can_preload;

} // namespace memtrack::platform
