// Fortran programs as children: what the array checks report, and the heat solver plainly, under limits, and
// recorded, with its files read back.
#include "child.h"
#include "figures.h"

#include <gtest/gtest.h>

#include <set>

namespace {

test::ChildResult run(const std::string& program, std::vector<std::string> arguments,
                      const std::string& set = "", const std::string& too = "") {
    test::ChildRequest request{program, std::move(arguments), {}};
    for (const char* name : {"KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_CRTMALLOC", "KXA_MEM_TRACK",
                             "KXA_MEM_OUTPUTDIR", "MC_RESULT"})
        request.environment.emplace_back(
            name, name == set || name == too ? std::optional<std::string>("1") : std::nullopt);
    return test::run_child(request);
}

bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

TEST(Fortran, ArraysHoldAndChecksReport) {
    const std::string program = test::sibling_program("test_arrays");
    for (const char* variable : {"", "KXQ_DLALLOCATOR", "MC_RESULT"}) {
        const test::ChildResult child = run(program, {}, variable);
        ASSERT_EQ(child.exit_code, 0) << variable << child.err;
        EXPECT_TRUE(contains(child.out, "all array checks passed"));
        EXPECT_TRUE(contains(child.out, "*** NAN found at residual[2]: ")) << child.out;
        EXPECT_TRUE(contains(child.out, " at solver.f90, line 12\n")) << child.out;
        const std::string found = "*** PATTERN FOUND at mem[1]: 4d\n"; // a checker may say more
        EXPECT_TRUE(contains(child.err, found.c_str())) << child.err;
        EXPECT_EQ(child.err.find("PATTERN"), child.err.rfind("PATTERN")) << child.err;
        const bool fills = variable == std::string("MC_RESULT");
        EXPECT_TRUE(contains(child.out, fills ? "words 5 5 5 5\n" : "words 1 77 1 77\n"));
    }
}

TEST(Fortran, ASolverLivesWithALimit) {
    const test::ChildResult plain = run(FORTRAN_HEAT, {"--cells", "24"});
    EXPECT_EQ(plain.exit_code, 0) << plain.err;
    EXPECT_TRUE(contains(plain.out, "snapshots  24, 0 refusals")) << plain.out;

    // Half as many snapshots, and a quarter; the solution is the same.
    const test::ChildResult thinned = run(FORTRAN_HEAT, {"--limit", "5"}, "KXQ_DLALLOCATOR");
    EXPECT_EQ(thinned.exit_code, 0) << thinned.err;
    EXPECT_FALSE(contains(thinned.out, ", 0 refusals")) << thinned.out;
    EXPECT_TRUE(contains(thinned.err, "it was the limit that refused")) << thinned.err;

    const test::ChildResult ended = run(FORTRAN_HEAT, {"--limit", "1"}, "KXQ_DLALLOCATOR");
    EXPECT_EQ(ended.exit_code, 4) << ended.err;
    EXPECT_TRUE(contains(ended.err, "no memory for the work arrays")) << ended.err;
    EXPECT_EQ(run(FORTRAN_HEAT, {"--limit", "5"}).exit_code, 2);
    EXPECT_EQ(run(FORTRAN_HEAT, {"--cells"}).exit_code, 2);
}

// A record begun and ended by Fortran alone holds every array, by phases, and none is left.
TEST(Fortran, ARecordedRunIsReadBack) {
    const std::string base = test::scratch_folder("fortran_heat") + "run";
    const test::ChildResult child =
        run(FORTRAN_HEAT, {"--cells", "10", "--record", base}, "KXA_MEM_TRACK", "KXQ_DLALLOCATOR");
    ASSERT_EQ(child.exit_code, 0) << child.err;
    memtrack::Problems problems;
    const memtrack::Figures figures = memtrack::take_figures(base, problems);
    ASSERT_TRUE(problems.empty()) << problems[0].sentence();
    EXPECT_EQ(figures.left.blocks, 0U);
    EXPECT_EQ(figures.peak.bytes, 4U * 12 * 12 * 12 * 8 + 24U * 10 * 10 * 10 * 4);
    std::set<std::string> seen;
    for (const memtrack::PhaseFigures& phase : figures.phases)
        seen.insert(phase.path);
    EXPECT_TRUE(seen.contains("ROOT->work arrays"));
    EXPECT_TRUE(seen.contains("ROOT->snapshots"));
}

} // namespace
