// How the frame's tests start their programs: with all variables that choose a back end taken out,
// and then those set that the test names.
#pragma once

#include "child.h"

namespace test {

inline ChildRequest clean_request(const std::string& program, std::vector<std::string> arguments,
                                  const std::vector<std::string>& set = {}) {
    ChildRequest request{sibling_program(program), std::move(arguments), {}};
    for (const char* const name :
         {"KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_CRTMALLOC", "KXQ_USE_ALIGNED_MEMORY"}) {
        request.environment.emplace_back(name, std::nullopt);
    }
    for (const std::string& name : set) {
        request.environment.emplace_back(name, "0"); // presence counts, whatever the value
    }
    return request;
}

} // namespace test
