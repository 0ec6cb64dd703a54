// What is wrong with the files of a recording, in sentences for the user. A reader tells it here and reads
// on with what can still be read; a result that was made with problems is incomplete.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace memtrack {

struct Problem {
    std::string file;
    std::uint64_t offset = 0; ///< in bytes; of the first byte that is wrong
    std::string text;         ///< no capital, no full stop

    std::string sentence() const { return file + ", byte " + std::to_string(offset) + ": " + text; }
};

using Problems = std::vector<Problem>;

} // namespace memtrack
