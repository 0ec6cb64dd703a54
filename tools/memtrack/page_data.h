// What a page of memtrack html holds: a job's figures and its runs over time, as JSON that may stand in a
// script element of a page whatever the names in it are, and whose size is bounded whatever the runs' length.
#pragma once

#include "figures.h"
#include "over_time.h"

#include <string>
#include <vector>

namespace memtrack {

struct LeftBlock { ///< that was not released
    std::uint64_t address = 0, size = 0, number = 0;
    std::int32_t thread = 0;
    std::string phase;
};

struct PageRun {
    Figures figures;
    PhaseTree tree;
    OverTime over_time;
    std::vector<LeftBlock> left; ///< the largest
};

/// How much of each run a page shows in detail. Of several ranks each has a part, so that the page stays
/// below 10 MB with some thousand of them.
struct PageLimits {
    OverTime::Limits over_time;
    std::size_t spans;   ///< of all threads
    std::size_t phases;  ///< others are summed
    std::size_t threads; ///< those with most events
    std::size_t left;    ///< blocks
};
PageLimits page_limits(std::size_t ranks);

std::string page_data(const std::vector<PageRun>& runs, const Problems& problems);

} // namespace memtrack
