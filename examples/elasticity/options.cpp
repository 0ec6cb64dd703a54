// One table holds every option: its name, its value, its help and what it does.
#include "options.h"

#include "input_error.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string_view>

namespace elasticity {

namespace {

struct Option {
    std::string_view name;
    std::string_view value; // empty for a switch
    std::string_view help;
    void (*apply)(Options&, std::string_view value);
};

// The name is not known here; parse_options puts it in front.
[[noreturn]] void refuse(std::string_view value, std::string_view wanted) {
    throw InputError({"\"", value.substr(0, 100), "\" is not ", wanted});
}

template <class T> T number(std::string_view text, std::string_view wanted) {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size())
        refuse(text, wanted);
    return value;
}

double real(std::string_view text, std::string_view wanted, bool (*allowed)(double)) {
    const auto value = number<double>(text, wanted);
    if (!std::isfinite(value) || !allowed(value))
        refuse(text, wanted);
    return value;
}

constexpr auto positive = [](double value) { return value > 0; };

void set_direction(Options& options, std::string_view text) {
    constexpr std::string_view wanted = "three numbers with commas, not all zero";
    std::array<double, 3> direction{};
    std::string_view rest = text;
    for (std::size_t i = 0; i < 3; ++i) {
        const std::size_t comma = rest.find(',');
        if ((comma == std::string_view::npos) != (i == 2))
            refuse(text, wanted);
        direction[i] = real(rest.substr(0, comma), wanted, [](double) { return true; });
        rest.remove_prefix(std::min(rest.size(), comma + 1));
    }
    const double length = std::hypot(direction[0], direction[1], direction[2]);
    if (!(length > 0) || !std::isfinite(length))
        refuse(text, wanted);
    for (std::size_t i = 0; i < 3; ++i)
        options.load.direction[i] = direction[i] / length;
}

void set_preconditioner(Options& options, std::string_view text) {
    if (text == "jacobi")
        options.solver.preconditioner = Preconditioner::jacobi;
    else if (text == "two-level")
        options.solver.preconditioner = Preconditioner::two_level;
    else
        refuse(text, "jacobi or two-level");
}

void set_backend(Options& options, std::string_view text) {
    constexpr std::string_view names[] = {"crt", "guarded", "aligned", "heap"};
    if (std::find(std::begin(names), std::end(names), text) == std::end(names))
        refuse(text, "crt, guarded, aligned or heap");
    options.backend = text;
}

std::size_t mebibytes(std::string_view text) {
    constexpr double mebibyte = 1048576;
    const double value = real(text, "a number of MiB above 0 and below 1e9",
                              [](double v) { return v > 0 && v < 1e9; });
    return std::max<std::size_t>(1, static_cast<std::size_t>(value * mebibyte));
}

constexpr Option table[] = {
    {"--young", "PA", "Young's modulus in Pa (210e9)",
     [](Options& o, std::string_view v) {
         o.material.young = real(v, "a modulus above zero", positive);
     }},
    {"--poisson", "NU", "Poisson's ratio, between -1 and 0.5 (0.3)",
     [](Options& o, std::string_view v) {
         o.material.poisson = real(v, "a ratio above -1 and below 0.5",
                                   [](double nu) { return nu > -1 && nu < 0.5; });
     }},
    {"--load", "N", "total force in N on group \"load\" (1000)",
     [](Options& o, std::string_view v) {
         // Squares of it must stay numbers.
         o.load.force = real(v, "a number between 1e-30 and 1e30, or its negative",
                             [](double f) { return std::abs(f) >= 1e-30 && std::abs(f) <= 1e30; });
     }},
    {"--direction", "X,Y,Z", "direction of the force (0,0,-1)", set_direction},
    {"--output", "FILE", "write displacements and stresses as VTK (.vtu)",
     [](Options& o, std::string_view v) { o.output = v; }},
    {"--json", "FILE", "write the figures of the run, one a line",
     [](Options& o, std::string_view v) { o.json = v; }},
    {"--tracking", "NAME", "base name of the files if KXA_MEM_TRACK is set (elasticity)",
     [](Options& o, std::string_view v) { o.tracking = v; }},
    {"--backend", "NAME", "memory back end: crt, guarded, aligned or heap", set_backend},
    {"--tiny-pool", "", "serve requests of at most 128 bytes from the heap's tiny block pool",
     [](Options& o, std::string_view) { o.tiny_pool = true; }},
    {"--cache-pool", "", "hold elements and nodes as records in a cache pool, by identifiers",
     [](Options& o, std::string_view) { o.cache_pool = true; }},
    {"--leak", "", "forget an array on purpose; vectors are on an allocator that names it",
     [](Options& o, std::string_view) { o.leak = true; }},
    {"--uninitialised-read", "", "read what was never written; KXA_UMR_PRINT=COUNT tells of it",
     [](Options& o, std::string_view) { o.uninitialised_read = true; }},
    {"--memory-limit", "MIB", "refuse memory above this many MiB",
     [](Options& o, std::string_view v) { o.memory_limit = mebibytes(v); }},
    {"--raise-limit", "MIB", "when refused, raise the limit up to this many MiB",
     [](Options& o, std::string_view v) { o.raise_limit = mebibytes(v); }},
    {"--reserve", "MIB", "hold this many MiB back, to be given up when refused",
     [](Options& o, std::string_view v) { o.reserve = mebibytes(v); }},
    {"--tolerance", "REL", "relative residual at which the solver stops (1e-8)",
     [](Options& o, std::string_view v) {
         o.solver.tolerance =
             real(v, "a number above 0 and below 1", [](double t) { return t > 0 && t < 1; });
     }},
    {"--iterations", "COUNT", "iterations at which the solver gives up (10000)",
     [](Options& o, std::string_view v) {
         o.solver.iterations = number<std::int64_t>(v, "a whole number above zero");
         if (o.solver.iterations < 1)
             refuse(v, "a whole number above zero");
     }},
    {"--preconditioner", "NAME", "jacobi or two-level (two-level)", set_preconditioner},
    {"--check-tolerance", "REL", "allowed relative difference to beam theory (0.01)",
     [](Options& o, std::string_view v) {
         o.check_tolerance = real(v, "a number above zero", positive);
     }},
    {"--no-check", "", "do not compare with beam theory",
     [](Options& o, std::string_view) { o.check = false; }},
    {"--quiet", "", "no progress and no report; errors only",
     [](Options& o, std::string_view) { o.quiet = true; }},
    {"--help", "", "show this text", [](Options& o, std::string_view) { o.help = true; }},
    {"--version", "", "show the version", [](Options& o, std::string_view) { o.version = true; }},
};

const Option& find_option(std::string_view name) {
    for (const Option& option : table)
        if (option.name == name)
            return option;
    throw InputError({"unknown option ", name.substr(0, 100), "; --help lists them"});
}

void check_files(const Options& options) {
    if (options.mesh.empty())
        throw InputError({"no mesh is named; --help tells how to call this program"});
    if (!options.output.empty() && options.output == options.json)
        throw InputError({"--output and --json name the same file"});
    if (options.mesh == options.output || options.mesh == options.json)
        throw InputError({"the result would replace the mesh ", options.mesh});
}

void check_limits(const Options& options) {
    if (options.raise_limit != 0 && options.memory_limit == 0)
        throw InputError({"--raise-limit needs a --memory-limit to raise"});
    if (options.raise_limit != 0 && options.raise_limit <= options.memory_limit)
        throw InputError({"--raise-limit is not above --memory-limit"});
    if (options.leak && options.memory_limit != 0)
        throw InputError({"--leak takes no --memory-limit: its allocator faults when refused"});
}

} // namespace

Options parse_options(int argc, const char* const* argv) {
    Options options;
    bool only_files = false;
    for (int i = 1; i < argc; ++i) {
        std::string_view argument = argv[i];
        if (!only_files && argument == "--") {
            only_files = true;
        } else if (only_files || !argument.starts_with('-')) {
            if (!options.mesh.empty())
                throw InputError({"more than one mesh: ", options.mesh, " and ", argument});
            options.mesh = argument;
        } else {
            const std::size_t equals = argument.find('=');
            const Option& option = find_option(argument.substr(0, equals));
            std::string_view value;
            if (equals != std::string_view::npos)
                value = argument.substr(equals + 1);
            else if (!option.value.empty() && i + 1 < argc)
                value = argv[++i];
            if (!option.value.empty() && value.empty())
                throw InputError({option.name, " needs a value"});
            if (option.value.empty() && equals != std::string_view::npos)
                throw InputError({option.name, " takes no value"});
            try {
                option.apply(options, value);
            } catch (const InputError& error) {
                throw InputError({option.name, ": ", error.what()});
            }
        }
    }
    if (!options.help && !options.version) {
        check_files(options);
        check_limits(options);
    }
    return options;
}

void print_help() {
    std::fputs("Usage: elasticity [options] MESH\n\n"
               "Computes a linear elastic body from a Gmsh file (MSH 2.2 or 4.1, ASCII,\n"
               "tetrahedra of first or second order). It is held at the physical surface\n"
               "\"fixed\" and loaded at the physical surface \"load\". Lengths are in metres.\n\n",
               stdout);
    for (const Option& option : table) {
        char left[40];
        std::snprintf(left, sizeof left, "%s %s", option.name.data(), option.value.data());
        std::printf("  %-24s %s\n", left, option.help.data());
    }
    std::fputs("\nExit status: 0 done; 1 not converged, or too far from beam theory;\n"
               "2 wrong input; 4 out of memory.\n",
               stdout);
}

} // namespace elasticity
