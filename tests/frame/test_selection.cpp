// The choice of the back end from the environment at load, the counting start and stop, and what
// else is read from the environment when the library is loaded.
#include "probe.h"

#include <gtest/gtest.h>

namespace {

using test::clean_request;
using test::run_child;

// All sixteen combinations of the four variables.
TEST(Selection, FollowsTheEnvironment) {
    for (unsigned mask = 0; mask < 16; ++mask) {
        const bool guarded = mask & 1, heap = mask & 2, crt = mask & 4, aligned = mask & 8;
        std::vector<std::string> set;
        const auto add = [&](bool wanted, const char* name) {
            if (wanted) {
                set.emplace_back(name);
            }
        };
        add(guarded, "KXA_DEADBEEF");
        add(heap, "KXQ_DLALLOCATOR");
        add(crt, "KXQ_CRTMALLOC");
        add(aligned, "KXQ_USE_ALIGNED_MEMORY");
        const std::string expected = guarded        ? "guarded"
                                     : heap && !crt ? "heap"
                                     : aligned      ? "aligned"
                                                    : "crt";
        const auto result = run_child(clean_request("frame_probe", {"backend"}, set));
        EXPECT_EQ(result.exit_code, 0) << mask << result.err;
        EXPECT_EQ(result.out, "backend=" + expected +
                                  " usingDL=" + (expected == "heap" ? "1" : "0") +
                                  "\nmalloc=1 calloc=1 realloc=1 free=1 others=1\n")
            << mask;
    }
}

// Only the first start and the last stop work, three layers deep; a stop too many takes the counter
// below zero, from where the next start does nothing.
TEST(StartAndStop, CountOnTheCallersStatus) {
    const auto result = run_child(clean_request("frame_probe", {"counting"}));
    EXPECT_EQ(result.out, "second start 10\n"
                          "its stop 10\n"
                          "last stop 7\n"
                          "still bound 1\n"
                          "new start 10\n"
                          "memory layer again 10\n"
                          "and its stop 10\n"
                          "full stop 7\n"
                          "stop too many 7\n"
                          "start after it 7\n"
                          "start once more 10\n");
    EXPECT_EQ(result.exit_code, 0) << result.err;
}

TEST(Environment, IsReadWhenTheLibraryIsLoaded) {
    auto request = clean_request("frame_probe", {"variables"});
    request.environment.insert(request.environment.end(), {{"KXA_PARALLEL_DEBUG", "par"},
                                                           {"MC_RESULT", std::nullopt},
                                                           {"KXM_SINGLETON_REGISTRY", "2"}});
    EXPECT_EQ(run_child(request).out, "par (null) 2\n");
}

} // namespace
