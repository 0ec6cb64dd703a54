// Runs the program as a child and waits for its end.
#pragma once

#include <string>

#include "figures.h"
#include "options.h"

namespace kxmrun {

struct Outcome {
    std::string error; ///< why nothing was run; empty when it was
    int status = 0;    ///< as kxmrun is to end with
    int signal = 0;    ///< that ended the program, or 0
    double seconds = 0, user = 0, system = 0;
    std::uint64_t resident = 0; ///< highest of the program and its waited-for children, bytes
};

/// The memory that the processes tell their figures in, and the path by which they find it. Null, and no
/// path, when the system refuses it.
Figures* make_figures(std::string& path);

Outcome run(const Options& options, const std::string& program, const std::string& figures_path,
            const std::string& record);

} // namespace kxmrun
