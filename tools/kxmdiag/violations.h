// The library's deliberate faults by their names.
#pragma once

#include <string_view>
#include <vector>

namespace kxmdiag {

struct Violation {
    const char* name; ///< the function's
    const char* what; ///< the fault, in a few words
    void (*commit)();
};

/// All of them, in the order of docs/faults.md.
const std::vector<Violation>& violations();

/// Null when there is none of that name.
const Violation* find_violation(std::string_view name);

} // namespace kxmdiag
