// What kxmrun was asked to do.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kxmrun {

struct Options {
    std::string backend = "heap"; ///< heap, c, guarded or aligned
    std::optional<std::uint64_t> limit, trim_threshold, mmap_threshold, granularity; ///< bytes
    bool tiny = false;
    bool track = false;
    std::string track_dir;  ///< empty: the working folder
    std::string track_name; ///< empty: the program's name and its number
    std::optional<bool> huge_pages;
    bool summary = false;
    std::string summary_file; ///< empty: standard error
    bool quiet = false;
    std::vector<std::string> command; ///< program and arguments
};

inline constexpr int usage_status = 2; ///< also of a program that cannot be run

/// Reads the command line. Prints help, version or what is wrong, and returns the status to end with.
std::optional<int> read_options(int argc, char** argv, Options& options);

} // namespace kxmrun
