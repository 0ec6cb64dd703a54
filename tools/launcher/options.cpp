// See options.h.
#include "options.h"

#include <CLI/CLI.hpp>

#include <cctype>
#include <cstdio>
#include <iostream>
#include <limits>
#include <memory>

namespace kxmrun {
namespace {

// "512M" and the like; binary units. Throws what CLI11 prints.
std::uint64_t size_of(const std::string& text) {
    const auto wrong = [&text](const char* why) {
        return CLI::ValidationError("\"" + text + "\" " + why);
    };
    std::size_t digits = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits])) != 0) {
        ++digits;
    }
    const std::string unit = text.substr(digits);
    const std::size_t power = unit.empty() ? 0 : std::string("KMGT").find(unit[0]) + 1;
    const bool known = unit.empty() || (power != 0 && (unit.size() == 1 || unit.substr(1) == "iB"));
    if (digits == 0 || digits > 19 || !known) {
        throw wrong("is no size: a number of bytes, with K, M, G or T for powers of 1024");
    }
    const std::uint64_t value = std::stoull(text.substr(0, digits));
    const unsigned shift = static_cast<unsigned>(10 * power);
    if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) >> shift) {
        throw wrong("is more than there can be");
    }
    return value << shift;
}

void add_size(CLI::App& app, const char* name, std::optional<std::uint64_t>& value,
              const char* help) {
    app.add_option_function<std::string>(
           name, [&value](const std::string& text) { value = size_of(text); }, help)
        ->type_name("SIZE");
}

// What cannot be meant, as one text; empty when all is well.
std::string contradiction(const Options& options) {
    const bool heap = options.backend == "heap";
    if (!heap && (options.limit || options.tiny || options.granularity)) {
        return "--limit, --tiny and --granularity are the heap's: not with --backend " +
               options.backend;
    }
    if (options.limit && *options.limit < 1 << 20) {
        return "--limit: below 1M a program does not even start";
    }
    if (options.granularity && (*options.granularity < 65536 ||
                                (*options.granularity & (*options.granularity - 1)) != 0)) {
        return "--granularity: a power of two from 64K on";
    }
    if (options.track_name.find('/') != std::string::npos) {
        return "--track-name is a name without a folder, which --track-dir gives";
    }
    for (std::size_t i = 0; (i = options.track_name.find('%', i)) != std::string::npos; i += 2) {
        if (i + 1 == options.track_name.size() ||
            std::string("pr%").find(options.track_name[i + 1]) == std::string::npos) {
            return "--track-name: behind % stands p (process), r (rank) or %";
        }
    }
    return {};
}

std::string emptiness(const std::string& text) {
    return text.empty() ? "a name is missing" : std::string();
}

// CLI11 would leave out the dashes.
class Words : public CLI::Formatter {
    std::string make_usage(const CLI::App*, std::string) const override {
        return "Usage: kxmrun [OPTIONS] -- PROGRAM [ARGUMENT...]\n";
    }
};

} // namespace

std::optional<int> read_options(int argc, char** argv, Options& options) {
    CLI::App app("Runs a program on the memory library KXMBasMem.", "kxmrun");
    app.formatter(std::make_shared<Words>());
    app.set_version_flag("--version", "kxmrun " KXMRUN_VERSION);
    app.add_option("--backend", options.backend, "What serves its memory")
        ->check(CLI::IsMember({"heap", "c", "guarded", "aligned"}))
        ->capture_default_str();
    add_size(app, "--limit", options.limit,
             "Refuse what would bring a process's heap to this footprint; heap only");
    app.add_flag("--tiny", options.tiny,
                 "Serve small requests from the tiny block pool; heap only");
    app.add_flag("--track", options.track, "Record every allocation, for memtrack");
    app.add_option("--track-dir", options.track_dir, "Folder of the recordings, made if missing")
        ->check(emptiness)
        ->type_name("DIR");
    app.add_option("--track-name", options.track_name,
                   "Their name; %p is the process, %r its rank, %% a percent sign")
        ->check(emptiness)
        ->type_name("NAME");
    app.add_option_function<std::string>(
           "--huge-pages",
           [&options](const std::string& text) { options.huge_pages = text == "on"; },
           "Whether large blocks may lie on huge pages")
        ->check(CLI::IsMember({"on", "off"}));
    add_size(app, "--trim-threshold", options.trim_threshold,
             "Free memory at the top above which it goes back to the system");
    add_size(app, "--mmap-threshold", options.mmap_threshold,
             "Requests from this size on are mapped alone");
    add_size(app, "--granularity", options.granularity,
             "Unit of what the heap asks the system for");
    app.add_option_function<std::string>(
           "--summary",
           [&options](const std::string& file) {
               options.summary = true;
               options.summary_file = file;
           },
           "Figures at the end, on standard error or in a file: --summary=FILE")
        ->expected(0, 1)
        ->default_str("")
        ->type_name("[FILE]");
    app.add_flag("-q,--quiet", options.quiet, "No words at the end but the summary");
    app.add_option("PROGRAM", options.command, "The program, and behind it its own arguments")
        ->type_name("");
    app.prefix_command(false);
    app.positionals_at_end();
    app.footer(
        "Exit status: the program's own; 128 and the signal's number when a signal ended it;\n"
        "2 when the command line is wrong or the program cannot be run in this way.");

    // What stands behind "--" is the program's, whatever it looks like.
    int own_arguments = argc;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--") {
            own_arguments = i;
            break;
        }
    }
    try {
        app.parse(own_arguments, argv);
        if (!options.command.empty()) {
            throw CLI::ValidationError("\"" + options.command[0] +
                                       "\" is not expected: the program stands behind --");
        }
        if (argc - own_arguments < 2) {
            throw CLI::ValidationError("a program is missing: kxmrun [options] -- program ...");
        }
        options.command.assign(argv + own_arguments + 1, argv + argc);
        if (const std::string why = contradiction(options); !why.empty()) {
            throw CLI::ValidationError(why);
        }
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        if (!std::cout.flush()) {
            std::fputs("kxmrun: cannot write the output\n", stderr);
            return usage_status;
        }
        return status == 0 ? 0 : usage_status;
    }
    options.track = options.track || !options.track_dir.empty() || !options.track_name.empty();
    return {};
}

} // namespace kxmrun
