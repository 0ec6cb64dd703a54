// A command of memtrack: one file in commands/ and one line in the table of commands.cpp.
//
// A command's file defines
//     void add_report(CLI::App& parent, Run& run);
// which adds a subcommand with its options to `parent`, and sets `run` in its callback to what is to be done.
// Options live in a std::shared_ptr that both hold.
#pragma once

#include "figures.h"
#include "output.h"
#include "progress.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace memtrack {

/// What the chosen command does; returns the exit status. Set by the command's callback.
using Run = std::function<int()>;

using AddCommand = void (*)(CLI::App& parent, Run& run);
/// All commands, in the order of the help.
const std::vector<AddCommand>& commands();

/// Options that commands share, and what is done with them.
struct CommonOptions {
    std::vector<std::string> bases;
    std::string output;
    bool force = false, json = false, quiet = false;
    std::size_t rows = 10;

    void add_bases(CLI::App& command, int at_least = 1, int at_most = 0); ///< at_most 0: any number
    void add_output(CLI::App& command);                                   ///< -o, -f, -q
    void add_json(CLI::App& command);
    void add_rows(CLI::App& command, std::size_t standard = 10); ///< -n
    void add_all(CLI::App& command);                             ///< all of these
};

/// Tells problems on standard error; `damaged` if there are any, else `done`.
int tell_problems(const Problems& problems);
/// What a report ends with: all is written, problems are told. Its exit status.
int end_report(Output& output, const CommonOptions& options, const Problems& problems);

/// `take(base, problems, counter)` of each base, several at a time on a machine with several processors, under
/// one progress bar. `problems` are in the order of the bases.
template <class Take>
auto take_each(const CommonOptions& options, Problems& problems, const Take& take)
    -> std::vector<decltype(take(std::string(), problems, nullptr))>;

/// The rows that -n lets through, of so many; and the line that tells how many it held back.
std::size_t rows_shown(const CommonOptions& options, std::size_t rows);
void write_rest(Output& output, std::size_t shown, std::size_t rows);

/// Runs `work` for 0 to count - 1, on several threads if the machine has them. Rethrows what it throws.
void in_parallel(std::size_t count, const std::function<void(std::size_t)>& work);

// ---------------------------------------------------------------------------------------------

template <class Take>
auto take_each(const CommonOptions& options, Problems& problems, const Take& take)
    -> std::vector<decltype(take(std::string(), problems, nullptr))> {
    std::uint64_t bytes = 0;
    for (const std::string& base : options.bases) {
        bytes += transaction_bytes(base);
    }
    Progress progress(bytes, options.quiet);
    const std::size_t count = options.bases.size();
    std::vector<decltype(take(std::string(), problems, nullptr))> results(count);
    std::vector<Problems> found(count);
    in_parallel(count,
                [&](std::size_t i) { results[i] = take(options.bases[i], found[i], &progress); });
    for (const Problems& some : found) {
        problems.insert(problems.end(), some.begin(), some.end());
    }
    return results;
}

} // namespace memtrack
