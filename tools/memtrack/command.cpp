// See command.h.
#include "command.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <thread>

namespace memtrack {

void CommonOptions::add_bases(CLI::App& command, int at_least, int at_most) {
    // Several files of one run, as a shell's pattern gives them, are that run, once. A base is taken as often
    // as it is named: diff may compare a run with itself.
    const auto take = [this](const std::vector<std::string>& names) {
        for (const std::string& name : names) {
            std::string base = base_name(name);
            if (base == name || std::find(bases.begin(), bases.end(), base) == bases.end()) {
                bases.push_back(std::move(base));
            }
        }
    };
    command
        .add_option_function<std::vector<std::string>>(
            "BASE", take, "Output name of a run, or one of its files; several: ranks of a job")
        ->required()
        ->expected(at_least, at_most == 0 ? CLI::detail::expected_max_vector_size : at_most);
}

void CommonOptions::add_output(CLI::App& command) {
    command.add_option("-o,--output", output, "Write into this file, not to standard output");
    command.add_flag("-f,--force", force, "Write over an existing file");
    command.add_flag("-q,--quiet", quiet, "No progress bar, no word of the file written");
}

void CommonOptions::add_json(CLI::App& command) {
    command.add_flag("--json", json, "Write JSON");
}

void CommonOptions::add_rows(CLI::App& command, std::size_t standard) {
    rows = standard;
    command.add_option("-n,--rows", rows, "Rows of each list; 0: all")
        ->check(CLI::NonNegativeNumber) // or -1 would be the highest there is
        ->capture_default_str();
}

void CommonOptions::add_all(CLI::App& command) {
    add_bases(command);
    add_rows(command);
    add_json(command);
    add_output(command);
}

int tell_problems(const Problems& problems) {
    for (const Problem& problem : problems) {
        std::fprintf(stderr, "memtrack: %s\n", problem.sentence().c_str());
    }
    return problems.empty() ? done : damaged;
}

int end_report(Output& output, const CommonOptions& options, const Problems& problems) {
    output.finish(options.quiet);
    return tell_problems(problems);
}

std::size_t rows_shown(const CommonOptions& options, std::size_t rows) {
    return options.rows == 0 ? rows : std::min(rows, options.rows);
}

void write_rest(Output& output, std::size_t shown, std::size_t rows) {
    if (shown < rows) {
        output.print("  ... and %zu more (-n 0 shows all)\n", rows - shown);
    }
}

void in_parallel(std::size_t count, const std::function<void(std::size_t)>& work) {
    std::atomic<std::size_t> next = 0;
    std::vector<std::exception_ptr> failures(count);
    const auto take_turns = [&] {
        for (std::size_t i = next++; i < count; i = next++) {
            try {
                work(i);
            } catch (...) {
                failures[i] = std::current_exception();
            }
        }
    };
    const std::size_t most = std::max(1U, std::thread::hardware_concurrency());
    std::vector<std::thread> helpers;
    for (std::size_t i = 1; i < std::min(count, most); ++i) {
        helpers.emplace_back(take_turns);
    }
    take_turns();
    for (std::thread& helper : helpers) {
        helper.join();
    }
    for (const std::exception_ptr& failure : failures) {
        if (failure) {
            std::rethrow_exception(failure);
        }
    }
}

} // namespace memtrack
