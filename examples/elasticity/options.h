// What the user asked for on the command line.
#pragma once

#include "assembly.h"
#include "solver.h"

namespace elasticity {

struct Options {
    String mesh;
    String output;  // .vtu, none when empty
    String json;    // figures of the run, none when empty
    String backend; // as the environment has it when empty
    Material material{210e9, 0.3};
    Load load{1000, {0, 0, -1}};
    SolverSettings solver;
    bool check = true;
    double check_tolerance = 0.01;
    std::size_t memory_limit = 0;    // bytes, none when 0
    std::size_t raise_limit = 0;     // bytes up to which a refusal raises it; never when 0
    std::size_t reserve = 0;         // bytes held back until a refusal
    bool tiny_pool = false;          // for requests of at most 128 bytes
    bool cache_pool = false;         // for records of elements and nodes
    bool leak = false;               // on purpose, with vectors on an allocator that names it
    bool uninitialised_read = false; // on purpose
    String tracking = "elasticity";  // base name of the files of memory tracking
    bool quiet = false;
    bool help = false;
    bool version = false;
};

/// Throws InputError for an unknown option, a missing or impossible value, or no mesh.
Options parse_options(int argc, const char* const* argv);

/// The text of --help.
void print_help();

} // namespace elasticity
