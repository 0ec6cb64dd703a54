// The job as a whole: its answer on meshes of both formats, and its behaviour when memory is
// refused.
#include "input_error.h"
#include "job.h"
#include "text_scanner.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>

using namespace elasticity;

namespace {

const String meshes = EXAMPLE_MESHES;

Options options_for(const char* mesh) {
    Options options;
    options.mesh = meshes + "/" + mesh;
    options.quiet = true;
    return options;
}

bool exists(const String& file) {
    std::FILE* stream = std::fopen(file.c_str(), "rb");
    if (stream != nullptr)
        std::fclose(stream);
    return stream != nullptr;
}

TEST(Job, BendsABeamAsTheoryTells) {
    for (const char* mesh : {"cantilever-22.msh", "cantilever-41.msh"}) {
        JobReport report;
        run_job(options_for(mesh), report);
        EXPECT_TRUE(report.succeeded()) << mesh;
        ASSERT_TRUE(report.known.applies) << report.known.reason;
        // Euler and Bernoulli's F L^3 / (3 E I) for 1 x 0.1 x 0.12 m, to which shear adds 1 %.
        const double bending = 1000.0 / (3 * 210e9 * 0.1 * 0.12 * 0.12 * 0.12 / 12);
        EXPECT_NEAR(report.known.deflection, bending * 1.0112, bending * 0.001);
        EXPECT_NEAR(report.deflection, report.known.deflection, report.known.deflection * 0.01);
    }
}

TEST(Job, StretchesABeamAlongItsAxis) {
    Options options = options_for("cantilever-41.msh");
    options.load.direction = {1, 0, 0};
    JobReport report;
    run_job(options, report);
    EXPECT_TRUE(report.succeeded());
    EXPECT_NEAR(report.known.deflection, 1000.0 / (210e9 * 0.012), 1e-15);
}

// A faulty coarse correction would still converge, only slowly.
TEST(Job, CoarseCorrectionSavesMostIterations) {
    Options options = options_for("cantilever-41.msh");
    JobReport two_level, jacobi;
    run_job(options, two_level);
    options.solver.preconditioner = Preconditioner::jacobi;
    run_job(options, jacobi);
    EXPECT_TRUE(jacobi.succeeded());
    EXPECT_NEAR(two_level.deflection, jacobi.deflection, 1e-6 * jacobi.deflection);
    EXPECT_LT(7 * two_level.solver.iterations, jacobi.solver.iterations);
}

TEST(Job, FirstOrderLocksAndFailsTheCheck) {
    JobReport report;
    run_job(options_for("cantilever-first-order.msh"), report);
    EXPECT_TRUE(report.solver.converged);
    EXPECT_FALSE(report.within_tolerance);
    EXPECT_LT(report.difference, 0);
}

TEST(Job, ComparesOnlyWhereTheoryApplies) {
    JobReport report;
    run_job(options_for("bracket.msh"), report);
    EXPECT_TRUE(report.succeeded());
    EXPECT_FALSE(report.known.applies);
    EXPECT_GT(report.stress, 0);
}

TEST(Job, SurvivesRefusalAtAnyPointWithNothingLeft) {
    Options options = options_for("cantilever-first-order.msh");
    options.output = "refused.vtu";
    const std::uint64_t before = memory_figures().live_bytes;
    std::uint64_t refusals = 0;
    for (std::size_t budget = 512;; budget += budget / 16) {
        set_memory_budget(static_cast<std::size_t>(before) + budget);
        JobReport report;
        try {
            run_job(options, report);
            break;
        } catch (const std::bad_alloc&) {
            ++refusals;
        }
        EXPECT_TRUE(last_refusal().by_budget);
        EXPECT_GT(last_refusal().bytes, 0U);
        ASSERT_EQ(memory_figures().live_bytes, before) << budget;
        ASSERT_FALSE(exists("refused.vtu") || exists("refused.vtu.part")) << budget;
    }
    set_memory_budget(0);
    EXPECT_GT(refusals, 20U);
    EXPECT_TRUE(exists("refused.vtu"));
    std::remove("refused.vtu");
}

// What a damaged file leaves readable must be computed or refused like any other input.
TEST(Job, DamagedFilesAreComputedOrRefused) {
    Options options = options_for("cantilever-first-order.msh");
    const Vector<char> good = read_whole_file(options.mesh);
    options.mesh = "damaged job.msh";
    options.solver.iterations = 100;
    std::mt19937 random(7);
    std::uint32_t refused = 0;
    set_memory_budget(std::size_t{1} << 28);
    for (int round = 0; round < 200; ++round) {
        Vector<char> text = good;
        text[random() % text.size()] = "0123456789.-e \n"[random() % 15];
        std::FILE* file = std::fopen(options.mesh.c_str(), "wb");
        ASSERT_NE(file, nullptr);
        ASSERT_EQ(std::fwrite(text.data(), 1, text.size(), file), text.size());
        ASSERT_EQ(std::fclose(file), 0);
        JobReport report;
        try {
            run_job(options, report);
        } catch (const InputError& error) {
            ++refused;
            EXPECT_NE(std::strstr(error.what(), "damaged job.msh:"), nullptr) << error.what();
        }
    }
    set_memory_budget(0);
    std::remove("damaged job.msh");
    EXPECT_GT(refused, 20U);
}

} // namespace
