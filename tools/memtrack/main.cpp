// memtrack: shows what a tracked run left in its files.
#include "command.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <iostream>

namespace memtrack {
namespace {

int read_and_run(int argc, char** argv) {
    CLI::App app("Reads what a run recorded with KXA_MEM_TRACK set.", "memtrack");
    app.set_version_flag("-V,--version", "memtrack " MEMTRACK_VERSION);
    app.require_subcommand(1);
    app.footer(
        "BASE is the output name of a tracked run, with the folder; the name of one of its files\n"
        "serves as well. Several are the ranks of one job.\n"
        "Exit status: 0 done; 1 files are missing or damaged (what can be read is shown);\n"
        "2 usage; 3 a limit of diff --fail-if is passed.");
    Run run;
    for (const AddCommand add : commands()) {
        add(app, run);
    }
    try {
        app.parse(argc, argv);
        return run();
    } catch (const CLI::ParseError& error) {
        if (app.get_subcommands().empty() && argc > 1 && argv[1][0] != '-') {
            std::fprintf(stderr, "memtrack: there is no command '%s'\n", argv[1]);
        }
        const int status = app.exit(error); // prints help, version or what is wrong
        if (!std::cout.flush()) {
            std::fputs("memtrack: standard output cannot be written to its end\n", stderr);
            return damaged;
        }
        return status == 0 ? done : wrong_usage;
    } catch (const UsageError& error) {
        std::fprintf(stderr, "memtrack: %s\n", error.what());
        return wrong_usage;
    }
}

} // namespace
} // namespace memtrack

int main(int argc, char** argv) {
    try {
        return memtrack::read_and_run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "memtrack: %s\n", error.what());
        return memtrack::damaged;
    }
}
