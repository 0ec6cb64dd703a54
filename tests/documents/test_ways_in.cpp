// The programs of docs/adopting.md and docs/limits.md, run as the documents say.
#include "child.h"

#include <cstdio>
#include <gtest/gtest.h>

namespace {

using Environment = std::vector<std::pair<std::string, std::optional<std::string>>>;

test::ChildResult run(const std::string& program, Environment environment) {
    const std::size_t dot = std::string(PLATE_PROGRAM).rfind("plate");
    for (const char* const name : {"KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_CRTMALLOC",
                                   "KXQ_USE_ALIGNED_MEMORY", "KXA_MEM_TRACK"}) {
        environment.insert(environment.begin(), {name, std::nullopt});
    }
    const std::string path = std::string(PLATE_PROGRAM).replace(dot, 5, program);
    return test::run_child(
        {path, program == "limits" ? std::vector<std::string>{} : std::vector<std::string>{"60"},
         environment});
}

TEST(WaysIn, SolveTheSamePlateOnEveryBackEnd) {
    for (const char* const variable :
         {"KXM_NO_BACK_END", "KXQ_DLALLOCATOR", "KXA_DEADBEEF", "KXQ_USE_ALIGNED_MEMORY"}) {
        for (const char* const program : {"plate", "plate_global_new", "plate_c", "plate_pools"}) {
            const test::ChildResult result = run(program, {{variable, "1"}});
            EXPECT_EQ(result.exit_code, 0) << program << " with " << variable << result.err;
            EXPECT_EQ(result.out, "0.0737\n") << program << " with " << variable;
        }
    }
}

#ifdef KXMRUN_PROGRAM
TEST(WaysIn, LauncherRunsTheProgramAsItWas) {
    const test::ChildResult result = test::run_child(
        {KXMRUN_PROGRAM, {"--limit", "1G", "--summary", "--", PLATE_PROGRAM, "60"}, {}});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out, "0.0737\n") << result.err;
    EXPECT_NE(
        test::run_child({KXMRUN_PROGRAM, {"--limit", "1M", "--", PLATE_PROGRAM}, {}}).exit_code, 0)
        << "what it asks for does not fit";
}
#endif

// The pools hold what the containers have: 60 elements a side have 59 * 59 rows of 9 entries.
TEST(WaysIn, PoolsTellWhatWasHeld) {
    const test::ChildResult result = run("plate_pools", {{"KXQ_DLALLOCATOR", "1"}});
    unsigned long long matrix = 0, vectors = 0, matrix_left = 1, vectors_left = 1;
    ASSERT_EQ(std::sscanf(result.err.c_str(),
                          "matrix: %llu bytes at most, %llu now\nvectors: %llu bytes at most, %llu",
                          &matrix, &matrix_left, &vectors, &vectors_left),
              4)
        << result.err;
    constexpr unsigned long long rows = 59 * 59, slack = 8192;
    EXPECT_NEAR(static_cast<double>(matrix), (rows * 19 + 1) * 8, slack);
    EXPECT_NEAR(static_cast<double>(vectors), rows * 4 * 8, slack);
    EXPECT_EQ(matrix_left + vectors_left, 0U);
}

TEST(Limits, AreMetAsTheDocumentTells) {
    const test::ChildResult result = run("limits", {{"KXQ_DLALLOCATOR", "1"}});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_NE(result.err.find("no 41943040 bytes: the limit"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("out of memory in ASSEMBLY"), std::string::npos) << result.err;
    EXPECT_EQ(run("limits", {}).exit_code, 1) << "without the heap there is no limit";
}

} // namespace
