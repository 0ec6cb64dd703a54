// See command.h.
#include "command.h"

#include "input_files.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

namespace memtrack {

namespace {

bool is_there(const std::string& base) {
    const std::vector<std::string> endings = input_files().endings(base);
    return std::any_of(endings.begin(), endings.end(), [](const std::string& ending) {
        return ending.starts_with(".memT") || ending.starts_with(".phase");
    });
}

} // namespace

const Option& Option::required() const {
    option_->required();
    return *this;
}

const Option& Option::shows_default() const {
    option_->capture_default_str();
    return *this;
}

const Option& Option::one_of(const std::vector<std::string>& words) const {
    option_->check(CLI::IsMember(words));
    return *this;
}

const Option& Option::between(unsigned low, unsigned high) const {
    option_->check(CLI::Range(low, high));
    return *this;
}

const Option& Option::repeated() const {
    // Or what stands behind it, the runs, would be further values.
    option_->take_all()->expected(1)->allow_extra_args(false);
    return *this;
}

const Option& Option::takes(int at_least, int at_most) const {
    option_->expected(at_least, at_most == 0 ? CLI::detail::expected_max_vector_size : at_most);
    return *this;
}

const Option& Option::separated_by(char character) const {
    option_->delimiter(character);
    return *this;
}

const Option& Option::of(const char* type) const {
    option_->type_name(type);
    return *this;
}

Command::Command(CLI::App& parent, const char* name, const char* help)
    : app_(parent.add_subcommand(name, help)) {}

Option Command::option(const char* names, std::string& to, const std::string& help) {
    return Option(app_->add_option(names, to, help));
}

Option Command::option(const char* names, std::vector<std::string>& to, const std::string& help) {
    return Option(app_->add_option(names, to, help));
}

Option Command::option(const char* names, std::vector<std::int32_t>& to, const std::string& help) {
    return Option(app_->add_option(names, to, help));
}

Option Command::option(const char* names, std::size_t& to, const std::string& help) {
    // Or -1 would be the highest there is.
    const auto digits = [](const std::string& text) {
        return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos
                   ? std::string()
                   : "'" + text + "' is no whole number from 0 on";
    };
    return Option(app_->add_option(names, to, help)->check(digits));
}

Option Command::option(const char* names, unsigned& to, const std::string& help) {
    return Option(app_->add_option(names, to, help));
}

Option Command::option(const char* names,
                       const std::function<void(const std::vector<std::string>&)>& take,
                       const std::string& help) {
    return Option(app_->add_option_function<std::vector<std::string>>(names, take, help));
}

void Command::flag(const char* names, bool& to, const char* help) {
    app_->add_flag(names, to, help);
}

void Command::footer(const char* text) {
    app_->footer(text);
}

void Command::runs(Run& run, Run work) {
    app_->callback([&run, work = std::move(work)] { run = work; });
}

std::vector<std::string> bases_of(const std::vector<std::string>& names) {
    std::vector<std::string> bases;
    for (const std::string& name : names) {
        std::string base = base_name(name);
        if (base == name || std::find(bases.begin(), bases.end(), base) == bases.end()) {
            bases.push_back(std::move(base));
        }
    }
    return bases;
}

void CommonOptions::add_bases(Command& command, int at_least, int at_most) {
    const auto take = [this](const std::vector<std::string>& names) {
        bases = bases_of(names);
        // A rank that is missing is told beside the others' figures; a page of zeros would say nothing.
        if (std::none_of(bases.begin(), bases.end(), is_there)) {
            throw std::runtime_error("there is no recording " + bases[0] + " (no " + bases[0] +
                                     ".memT0 and no " + bases[0] + ".phaseStack)");
        }
    };
    command
        .option("BASE", take, "Output name of a run, or one of its files; several: ranks of a job")
        .required()
        .takes(at_least, at_most);
}

void CommonOptions::add_output(Command& command) {
    command.option("-o,--output", output, "Write into this file, not to standard output");
    command.flag("-f,--force", force, "Write over an existing file");
    command.flag("-q,--quiet", quiet, "No progress bar, no word of the file written");
}

void CommonOptions::add_json(Command& command) {
    command.flag("--json", json, "Write JSON");
}

void CommonOptions::add_rows(Command& command, std::size_t standard) {
    rows = standard;
    command.option("-n,--rows", rows, "Rows of each list; 0: all").shows_default();
}

void CommonOptions::add_all(Command& command) {
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
    try {
        for (std::size_t i = 1; i < std::min(count, most); ++i) {
            helpers.emplace_back(take_turns);
        }
    } catch (const std::system_error&) { // those that there are take all turns
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
