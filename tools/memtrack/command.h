// A command of memtrack: one file in commands/ and one line in the table of commands.cpp.
//
// A command's file defines
//     void add_report(CLI::App& parent, Run& run);
// which adds a Command with its options to `parent`, and sets `run` to what is to be done when it is chosen.
// Options live in a std::shared_ptr that both hold.
#pragma once

#include "figures.h"
#include "output.h"
#include "progress.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace memtrack {

/// What the chosen command does; returns the exit status. Set by the command's callback.
using Run = std::function<int()>;

using AddCommand = void (*)(CLI::App& parent, Run& run);
/// All commands, in the order of the help.
const std::vector<AddCommand>& commands();

/// An option or argument that was added to a command.
class Option {
public:
    explicit Option(CLI::Option* option) : option_(option) {}
    const Option& required() const;
    const Option& shows_default() const;
    const Option& one_of(const std::vector<std::string>& words) const;
    const Option& between(unsigned low, unsigned high) const;
    const Option& repeated() const; ///< a value each time that it is given
    const Option& takes(int at_least,
                        int at_most) const; ///< values at a time; at_most 0: any number
    const Option& separated_by(char character) const;
    const Option& of(const char* type) const; ///< what the help calls its value

private:
    CLI::Option* option_;
};

/// A subcommand as it is told to the parser. Only command.cpp and main.cpp read the parser's header, which takes
/// several times as long to compile as what a command does.
class Command {
public:
    Command(CLI::App& parent, const char* name, const char* help);

    /// `names` are like "-n,--rows", or a word for an argument. `to` is written while the command line is read and
    /// must live until then.
    Option option(const char* names, std::string& to, const std::string& help);
    Option option(const char* names, std::vector<std::string>& to, const std::string& help);
    Option option(const char* names, std::vector<std::int32_t>& to, const std::string& help);
    Option option(const char* names, std::size_t& to, const std::string& help);
    Option option(const char* names, unsigned& to, const std::string& help);
    Option option(const char* names,
                  const std::function<void(const std::vector<std::string>&)>& take,
                  const std::string& help);
    void flag(const char* names, bool& to, const char* help);
    void footer(const char* text);
    void runs(Run& run, Run work); ///< where the command is chosen, `run` becomes `work`

private:
    CLI::App* app_;
};

/// The runs that arguments name. Several files of one run, as a shell's pattern gives them, are that run, once. A base is
/// taken as often as it is named: diff may compare a run with itself.
std::vector<std::string> bases_of(const std::vector<std::string>& names);

/// Options that commands share, and what is done with them.
struct CommonOptions {
    std::vector<std::string> bases;
    std::string output;
    bool force = false, json = false, quiet = false;
    std::size_t rows = 10;

    void add_bases(Command& command, int at_least = 1, int at_most = 0); ///< at_most 0: any number
    void add_output(Command& command);                                   ///< -o, -f, -q
    void add_json(Command& command);
    void add_rows(Command& command, std::size_t standard = 10); ///< -n
    void add_all(Command& command);                             ///< all of these
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
