// The page of memtrack html, with its style, its scripts and what they stand on. CMake makes it from the
// files of this folder; a run's data go in between.
#pragma once

#include <string_view>

namespace memtrack {

struct PageTemplate {
    std::string_view head, tail; ///< both empty where the program was built without
};
extern const PageTemplate page_template;

} // namespace memtrack
