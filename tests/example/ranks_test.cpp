// The job on two and three ranks: the results of one process, whole and in pieces; each rank's record; and
// an end in good order where a rank is refused memory, alone or with the others.
#include "child.h"
#include "figures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

namespace {

const std::string mesh = std::string(EXAMPLE_MESHES) + "/cantilever-41.msh";

test::ChildResult start(std::string program, std::vector<std::string> arguments, bool track) {
    test::ChildRequest request{std::move(program), std::move(arguments), {}};
    for (const char* name :
         {"KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_CRTMALLOC", "KXA_MEM_OUTPUTDIR", "KXA_MEM_TRACK"})
        request.environment.emplace_back(name, std::nullopt);
    if (track)
        request.environment.back().second = "1";
    // Containers: root, fewer cores than ranks, and no reads of another process's memory.
    for (const char* name : {"OMPI_ALLOW_RUN_AS_ROOT", "OMPI_ALLOW_RUN_AS_ROOT_CONFIRM",
                             "OMPI_MCA_rmaps_base_oversubscribe"})
        request.environment.emplace_back(name, "1");
    request.environment.emplace_back("OMPI_MCA_btl_vader_single_copy_mechanism", "none");
    request.environment.emplace_back("OMPI_MCA_mpi_yield_when_idle", "1");
    return test::run_child(request);
}

test::ChildResult run(int ranks, std::vector<std::string> arguments, bool track = false) {
    arguments.insert(arguments.end(), {"--backend", "heap", mesh});
    if (ranks == 1)
        return start(EXAMPLE_PROGRAM, arguments, track);
    arguments.insert(arguments.begin(), {"-n", std::to_string(ranks), EXAMPLE_MPI_PROGRAM});
    return start(EXAMPLE_MPIRUN, arguments, track);
}

std::string contents(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return stream ? text.str() : "";
}

double member(const std::string& json, const std::string& name) {
    const std::size_t at = json.find("\"" + name + "\": ");
    return at == std::string::npos ? std::nan("")
                                   : std::strtod(json.c_str() + at + name.size() + 4, nullptr);
}

// Of each point, by its coordinates as they are written: displacement and stress.
using Points = std::map<std::string, std::vector<double>>;

std::vector<std::string> lines_of(const std::string& text, const std::string& array) {
    std::istringstream stream(text.substr(text.find("Name=\"" + array + "\"")));
    std::vector<std::string> lines;
    std::string line;
    std::getline(stream, line);
    while (std::getline(stream, line) && line != "</DataArray>")
        lines.push_back(line);
    return lines;
}

// Adds the points of a file, and returns the number of its cells.
int read_piece(const std::string& file,
               std::vector<std::pair<std::string, std::vector<double>>>& points) {
    const std::string text = contents(file);
    if (text.empty())
        return 0;
    const auto places = lines_of(text, "points"), displacements = lines_of(text, "displacement"),
               stresses = lines_of(text, "stress");
    for (std::size_t i = 0; i < places.size(); ++i) {
        std::istringstream numbers(displacements.at(i) + " " + stresses.at(i));
        std::vector<double> values(9);
        for (double& value : values)
            numbers >> value;
        points.emplace_back(places[i], values);
    }
    const std::string cells = "NumberOfCells=\"";
    return std::atoi(text.c_str() + text.find(cells) + cells.size());
}

TEST(Ranks, GiveTheResultsOfOneProcess) {
    const std::string folder = test::scratch_folder("ranks");
    const auto options = [&](const std::string& name) {
        return std::vector<std::string>{"--tolerance",          "1e-9",   "--output",
                                        folder + name + ".vtu", "--json", folder + name + ".json"};
    };
    ASSERT_EQ(run(1, options("one")).exit_code, 0);
    const std::string one = contents(folder + "one.json");
    std::vector<std::pair<std::string, std::vector<double>>> points;
    ASSERT_EQ(read_piece(folder + "one.vtu", points), 653);
    const Points known(points.begin(), points.end());
    for (const int ranks : {2, 3}) {
        const std::string name = std::to_string(ranks);
        const test::ChildResult child = run(ranks, options(name));
        ASSERT_EQ(child.exit_code, 0) << child.out << child.err;
        const std::string several = contents(folder + name + ".json");
        EXPECT_EQ(member(several, "ranks"), ranks);
        for (const char* figure : {"nodes", "elements", "unknowns", "nonzeros"})
            EXPECT_EQ(member(several, figure), member(one, figure)) << figure;
        for (const char* figure : {"deflection_m", "displacement_max_m", "von_mises_max_pa"})
            EXPECT_NEAR(member(several, figure) / member(one, figure), 1, 1e-6) << figure;
        // A coarse correction that does not join the ranks' boxes would take far more.
        EXPECT_LE(member(several, "iterations"), member(one, "iterations") + 3);

        const std::string list = contents(folder + name + ".pvtu");
        int cells = 0;
        points.clear();
        for (int rank = 0; rank < ranks; ++rank) {
            const std::string piece = name + "." + std::to_string(rank) + ".vtu";
            EXPECT_NE(list.find("<Piece Source=\"" + piece + "\"/>"), std::string::npos) << list;
            cells += read_piece(folder + piece, points);
        }
        EXPECT_EQ(cells, 653);
        EXPECT_GT(points.size(), known.size()); // those on borders are in both pieces
        for (const auto& [place, values] : points) {
            const auto at = known.find(place);
            ASSERT_NE(at, known.end()) << place;
            for (std::size_t i = 0; i < 9; ++i)
                ASSERT_NEAR(values[i], at->second[i], i < 3 ? 1e-10 : 40) << place << " " << i;
        }
    }
}

TEST(Ranks, RecordEachItsOwn) {
    const std::string base = test::scratch_folder("ranks_recorded") + "job";
    const test::ChildResult child = run(3, {"--tracking", base}, true);
    ASSERT_EQ(child.exit_code, 0) << child.err;
    std::vector<std::string> report{"report"};
    for (int rank = 0; rank < 3; ++rank) {
        report.push_back(base + "." + std::to_string(rank));
        memtrack::Problems problems;
        const memtrack::Figures figures = memtrack::take_figures(report.back(), problems);
        EXPECT_TRUE(problems.empty());
        EXPECT_EQ(figures.left.blocks, 0U);
        EXPECT_GT(figures.peak.bytes, 1U << 20);
    }
    const test::ChildResult merged = start(MEMTRACK_PROGRAM, report, false);
    EXPECT_EQ(merged.exit_code, 0) << merged.err;
    EXPECT_EQ(merged.out.rfind("3 ranks: ", 0), 0U) << merged.out;
    EXPECT_NE(merged.out.find("ROOT->solve"), std::string::npos);
}

TEST(Ranks, EndTogetherWhenOneIsRefusedMemory) {
    const test::ChildResult all = run(2, {"--memory-limit", "1"});
    EXPECT_EQ(all.exit_code, 4) << all.err;
    EXPECT_NE(all.err.find("out of memory in step"), std::string::npos) << all.err;

    // The others wait for it in the middle of the solution.
    const std::string program = EXAMPLE_MPI_PROGRAM;
    const test::ChildResult one =
        start(EXAMPLE_MPIRUN,
              {"-n", "1", program, "--backend", "heap", mesh, ":", "-n", "1", program, "--backend",
               "heap", "--memory-limit", "2.5", mesh},
              false);
    EXPECT_EQ(one.exit_code, 4) << one.err;
    EXPECT_NE(one.err.find("elasticity: rank 1: ends the job\n"), std::string::npos) << one.err;
    EXPECT_NE(one.err.find("out of memory in step \"solve\""), std::string::npos) << one.err;

    const test::ChildResult wrong = run(2, {"--output", "no such folder/x.vtu"});
    EXPECT_EQ(wrong.exit_code, 2) << wrong.err;
    EXPECT_NE(wrong.err.find(": no such folder/x."), std::string::npos) << wrong.err;
}

} // namespace
