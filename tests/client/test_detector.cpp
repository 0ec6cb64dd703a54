// The detector of uninitialised reads, which is decided once per process: in children.
#include "client_probe.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace {

using test::ChildResult;
using Variables = std::vector<std::pair<std::string, std::string>>;

std::string read_report(const std::string& folder) {
    std::ifstream file(folder + "KXMBas_UMR_Print.txt"); // as text
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string line(int id, int size, int first, int next, const std::string& tag = " ") {
    return " Allocation  " + std::to_string(id) + " : Size= " + std::to_string(size) +
           ", First_uninitializeded=  " + std::to_string(first) +
           "  , Next_initialized=  " + std::to_string(next) +
           "  , Diff= " + std::to_string(next - first) + " " + tag + "\n";
}

std::string line_after(int first, int next) {
    return "                           Next_uninitializeded=  " + std::to_string(first) +
           "  , Follow_initialized=  " + std::to_string(next) +
           "  , Diff= " + std::to_string(next - first) + " \n";
}

// What the probe's blocks give when nothing limits them: a run of 4, one of 4 with a neutral word in
// it, one of 1, and a tail that is not told. The block with a neutral word in front has one of 1.
std::string all_lines(int id, int size, const std::string& tag = " ") {
    return line(id, size, 12, 16, tag) + line_after(17, 21) + line_after(22, 23);
}

TEST(Detector, TellsRunsUpToTheLimitAndWatchesTheFirstBlockUnlessToldOtherwise) {
    const std::string folder = test::scratch_folder("detector");
    const ChildResult one = test::run_probe({"detector", folder}, {{"KXA_UMR_PRINT", "1"}});
    EXPECT_EQ(one.out, "first numbered\nsmall filled 8 of 44\n");
    const std::string told = all_lines(0, 120, "(watched)") + line(1, 120, 12, 16) +
                             line(2, 124, 12, 16) + line(6, 120, 13, 14);
    EXPECT_EQ(one.err, told);
    EXPECT_EQ(read_report(folder), told);

    const ChildResult two =
        test::run_probe({"detector", folder}, {{"KXA_UMR_PRINT", "2"},
                                               {"KXA_UMR_WATCH_ALLOC_ID", "1"},
                                               {"KXA_UMR_PRINT_ALLOC_SIZE", "120"}});
    const std::string told_too = line(0, 120, 12, 16) + line_after(17, 21) +
                                 all_lines(1, 120, "(watched)") + line(6, 120, 13, 14);
    EXPECT_EQ(two.err, told_too);
    EXPECT_EQ(read_report(folder), told + told_too) << "appended to";
}

TEST(Detector, IsOffUnlessTheNumberIsPositive) {
    for (const Variables& set :
         {Variables{}, Variables{{"KXA_UMR_PRINT", "-1"}}, Variables{{"KXA_UMR_PRINT", "on"}}}) {
        const std::string folder = test::scratch_folder("detector_off");
        const ChildResult result = test::run_probe({"detector", folder}, set);
        EXPECT_EQ(result.out, "first plain\nsmall plain 0 of 16\n");
        EXPECT_EQ(result.err, "");
        EXPECT_FALSE(std::filesystem::exists(folder + "KXMBas_UMR_Print.txt"));
    }
}

TEST(Detector, LosesItsLinesInAFileThatCannotBeOpenedAndNothingElse) {
    const std::string folder = test::scratch_folder("detector_unwritable");
    std::filesystem::create_directory(folder + "KXMBas_UMR_Print.txt");
    const ChildResult result = test::run_probe(
        {"detector", folder}, {{"KXA_UMR_PRINT", "5"}, {"KXA_UMR_PRINT_ALLOC_SIZE", "124"}});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err, all_lines(2, 124));
}

TEST(Detector, SurvivesWhatABlockSaysOfItself) {
    const std::string folder = test::scratch_folder("detector_lying");
    // Watched, so that no number of lines ends the scan: the end of memory does.
    const ChildResult result = test::run_probe({"lying", folder}, {{"KXA_UMR_PRINT", "1"}});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "survived\n");
    const std::string told = line(0, 0x7ffffffc, 12, 16, "(watched)");
    EXPECT_EQ(result.err.substr(0, told.size()), told);
}

} // namespace
