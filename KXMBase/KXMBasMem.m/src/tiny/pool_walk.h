// The walker: goes over every index, page, list and chain of the tiny block pool and proves what
// mem_TBPool.h and mem_Region.h state. Tests run it after each operation; the checked build runs it
// whenever a page comes or goes.
#pragma once

#include <array>
#include <cstddef>

#include "blocks/mem_Region.h"

namespace tiny {

/// What the walker met.
struct Census {
    const char* fault = nullptr; ///< the first broken statement, or null
    int index = -1;              ///< of the page in question
    std::size_t pages = 0;
    std::size_t listed = 0;       ///< pages on a list
    std::size_t free_indices = 0; ///< waiting for the next page
    std::size_t lost_indices = 0; ///< neither a page's nor free: their page could not be had
    std::array<std::size_t, blocks::class_count> slots_used{};
};

/// All zero while there is no pool. pre: nobody else is in it.
Census take_census();

/// In the checked build, ends the process when the pool is not sound, as long as it is small.
void check_while_small();

} // namespace tiny
