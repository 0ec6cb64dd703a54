// The job's tracking files, replayed, against the job's own count of what it asked for and held.
#include "child.h"
#include "figures.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <set>

namespace {

test::ChildResult tracked(const std::string& program, std::vector<std::string> arguments,
                          const std::string& variable) {
    test::ChildRequest request{program, std::move(arguments), {}};
    request.environment = {{"KXA_MEM_TRACK", "1"}, {"KXA_MEM_OUTPUTDIR", std::nullopt}};
    for (const char* name : {"KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_CRTMALLOC"})
        request.environment.emplace_back(name, variable == name ? std::optional<std::string>("1")
                                                                : std::nullopt);
    return test::run_child(request);
}

TEST(Tracking, FilesTellWhatTheJobHolds) {
    for (const char* variable : {"KXQ_CRTMALLOC", "KXQ_DLALLOCATOR", "KXA_DEADBEEF"}) {
        const std::string base = test::scratch_folder("tracked_job") + "job";
        const test::ChildResult run =
            tracked(test::sibling_program("tracked_job"),
                    {std::string(EXAMPLE_MESHES) + "/cantilever-first-order.msh", base}, variable);
        std::uint64_t live = 0, peak = 0, requests = 0, kept = 0;
        ASSERT_EQ(std::sscanf(run.out.c_str(),
                              "live %" SCNu64 " peak %" SCNu64 " requests %" SCNu64
                              " kept %" SCNu64,
                              &live, &peak, &requests, &kept),
                  4)
            << run.out << run.err;

        memtrack::Problems problems;
        const memtrack::Figures figures = memtrack::take_figures(base, problems);
        EXPECT_TRUE(problems.empty()) << problems[0].sentence();
        EXPECT_EQ(figures.left.bytes, live);
        EXPECT_EQ(figures.peak.bytes, peak);
        EXPECT_EQ(figures.events - figures.by_type[std::size_t(memtrack::Type::free_)], requests);
        std::set<std::string> seen;
        std::uint64_t blocks = 0;
        for (const memtrack::PhaseFigures& phase : figures.phases) {
            seen.insert(phase.path);
            blocks += phase.path == "ROOT->kept" ? phase.left.blocks : 0U;
        }
        EXPECT_GE(blocks, kept); // their contents, and the list of them
        for (const char* step : {"read", "assemble", "solve", "stress"})
            EXPECT_TRUE(seen.contains(std::string("ROOT->") + step)) << step;
    }
}

TEST(Tracking, OutlivesARefusalOfMemory) {
    const std::string base = test::scratch_folder("tracked_refusal") + "job";
    const test::ChildResult run = tracked(EXAMPLE_PROGRAM,
                                          {"--tracking", base, "--memory-limit", "1",
                                           std::string(EXAMPLE_MESHES) + "/cantilever-41.msh"},
                                          "KXQ_DLALLOCATOR");
    EXPECT_EQ(run.exit_code, 4) << run.err;
    memtrack::Problems problems;
    EXPECT_GT(memtrack::take_figures(base, problems).failed, 0U);
    EXPECT_TRUE(problems.empty());
}

} // namespace
