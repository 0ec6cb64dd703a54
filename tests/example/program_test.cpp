// The program as a child process: exit statuses, messages, results whole or absent, back ends.
#include "child.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::string meshes = EXAMPLE_MESHES;
const std::string beam = meshes + "/cantilever-41.msh";

test::ChildResult run_program(const char* program, std::vector<std::string> arguments,
                              const char* variable = nullptr) {
    test::ChildRequest request;
    request.program = program;
    request.arguments = std::move(arguments);
    for (const char* name :
         {"KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_CRTMALLOC", "KXQ_USE_ALIGNED_MEMORY"})
        if (variable == nullptr || std::string(variable) != name)
            request.environment.emplace_back(name, std::nullopt);
    if (variable != nullptr)
        request.environment.emplace_back(variable, "1");
    if (std::find(request.arguments.begin(), request.arguments.end(), "--leak") !=
        request.arguments.end()) // on purpose, in a checked build too
        request.environment.emplace_back("ASAN_OPTIONS",
                                         "allocator_may_return_null=1:detect_leaks=0");
    return test::run_child(request);
}

test::ChildResult run(std::vector<std::string> arguments, const char* variable = nullptr) {
    return run_program(EXAMPLE_PROGRAM, std::move(arguments), variable);
}

std::string contents(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return stream ? text.str() : "(absent)";
}

void write(const std::string& file, const std::string& text) {
    std::ofstream(file, std::ios::binary) << text;
}

class Program : public testing::Test {
protected:
    static constexpr const char* result = "program result.vtu";
    static constexpr const char* part = "program result.vtu.part";
    static constexpr const char* figures = "program figures.json";

    void SetUp() override { remove_files(); }
    void TearDown() override { remove_files(); }
    static void remove_files() {
        for (const char* file : {result, part, figures, "program mesh.msh"})
            std::remove(file);
    }
};

TEST_F(Program, WritesReportResultAndFigures) {
    const test::ChildResult child = run({"--output", result, "--json", figures, beam});
    EXPECT_EQ(child.exit_code, 0) << child.err;
    EXPECT_NE(child.out.find("653 tetrahedra of 10 nodes"), std::string::npos) << child.out;
    EXPECT_NE(child.out.find(": passed"), std::string::npos);
    const std::string vtk = contents(result);
    EXPECT_NE(vtk.find("NumberOfCells=\"653\""), std::string::npos);
    EXPECT_TRUE(vtk.ends_with("</VTKFile>\n"));
    EXPECT_NE(contents(figures).find("\"passed\": true"), std::string::npos);
    EXPECT_EQ(contents(part), "(absent)");
}

TEST_F(Program, SolvesForASingleFreeNode) {
    write("program mesh.msh",
          "$MeshFormat\n2.2 0 8\n$EndMeshFormat\n"
          "$PhysicalNames\n2\n2 1 \"fixed\"\n2 2 \"load\"\n$EndPhysicalNames\n"
          "$Nodes\n4\n1 0 0 0\n2 1 0 0\n3 0 1 0\n4 0 0 1\n$EndNodes\n"
          "$Elements\n3\n1 2 2 1 1 1 2 3\n2 2 2 2 2 1 2 4\n3 4 2 3 1 1 2 3 4\n$EndElements\n");
    const test::ChildResult child = run({"program mesh.msh"});
    EXPECT_EQ(child.exit_code, 0) << child.err;
    EXPECT_NE(child.out.find("3 unknowns"), std::string::npos) << child.out;
}

TEST_F(Program, RunsOnTheBackEndAskedFor) {
    for (const std::string backend : {"crt", "guarded", "aligned"}) {
        // A variable that stands for another back end must give way.
        const char* variable = backend == "guarded" ? "KXQ_USE_ALIGNED_MEMORY" : "KXA_DEADBEEF";
        const test::ChildResult child =
            run({"--backend", backend, "--quiet", "--output", result, "--json", figures, beam},
                variable);
        EXPECT_EQ(child.exit_code, 0) << backend << child.err;
        EXPECT_EQ(child.out + child.err, "");
        EXPECT_NE(contents(figures).find("\"backend\": \"" + backend + "\""), std::string::npos);
        EXPECT_NE(contents(result), "(absent)");
        remove_files();
    }
    EXPECT_EQ(run({"--backend=guarded", meshes + "/cantilever-first-order.msh"}).exit_code, 1);
}

TEST_F(Program, RefusesWrongInputAndLeavesResultsAlone) {
    std::string damaged = contents(beam);
    write("program mesh.msh", damaged.substr(0, damaged.size() / 2));
    struct Case {
        std::vector<std::string> arguments;
        const char* message;
    };
    const Case cases[] = {
        {{}, "no mesh is named"},
        {{"--frobnicate", beam}, "unknown option --frobnicate"},
        {{beam, "--young"}, "--young needs a value"},
        {{"--young", "0", beam}, "--young: \"0\" is not a modulus above zero"},
        {{"--young", "-1", beam}, "--young"},
        {{"--young", "nan", beam}, "--young"},
        {{"--poisson", "0.5", beam}, "--poisson"},
        {{"--poisson", "-1", beam}, "--poisson"},
        {{"--load", "1e3x", beam}, "--load"},
        {{"--direction", "0,0,0", beam}, "--direction"},
        {{"--backend", "other", beam}, "crt, guarded, aligned or heap"},
        {{"--quiet=1", beam}, "takes no value"},
        {{beam, beam}, "more than one mesh"},
        {{"absent.msh"}, "absent.msh: cannot be opened"},
        {{meshes}, "cannot be"},
        {{meshes + "/cantilever.geo"}, "cantilever.geo:1: not a Gmsh mesh"},
        {{"program mesh.msh"}, "program mesh.msh:"},
    };
    for (const Case& c : cases) {
        write(result, "old");
        std::vector<std::string> arguments{"--output", result};
        arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
        const test::ChildResult child = run(arguments);
        EXPECT_EQ(child.exit_code, 2) << c.message;
        EXPECT_NE(child.err.find(c.message), std::string::npos) << child.err;
        EXPECT_EQ(contents(result), "old") << c.message;
        EXPECT_EQ(contents(part), "(absent)") << c.message;
    }
    const test::ChildResult child = run({"--output", "no such folder/x.vtu", beam});
    EXPECT_EQ(child.exit_code, 2);
    EXPECT_NE(child.err.find("no such folder/x.vtu: cannot be written"), std::string::npos);
}

TEST_F(Program, SaysWhenItDidNotConverge) {
    const test::ChildResult child = run({"--iterations", "5", "--output", result, beam});
    EXPECT_EQ(child.exit_code, 1);
    EXPECT_NE(child.err.find("did not converge"), std::string::npos);
    EXPECT_EQ(contents(result), "(absent)");
    EXPECT_EQ(contents(part), "(absent)");
}

TEST_F(Program, ReportsRefusedMemoryInGoodOrder) {
    const test::ChildResult child = run({"--memory-limit", "1", "--output", result, beam});
    EXPECT_EQ(child.exit_code, 4) << child.err;
    EXPECT_FALSE(child.crashed);
    EXPECT_NE(child.err.find("refused request"), std::string::npos) << child.err;
    EXPECT_NE(child.err.find("above --memory-limit"), std::string::npos);
    EXPECT_EQ(contents(result), "(absent)");
    EXPECT_EQ(contents(part), "(absent)");
}

// The library's report comes first: footprint and call stack, with the lines of this program.
TEST_F(Program, ShowsWhereTheHeapRefusedMemory) {
    const test::ChildResult child = run({"--backend", "heap", "--memory-limit", "1", beam});
    EXPECT_EQ(child.exit_code, 4) << child.err;
    const std::size_t library = child.err.find("*** Error: memory allocation request failed ***\n");
    EXPECT_LT(library, child.err.find("elasticity: out of memory")) << child.err;
    EXPECT_NE(child.err.find("Current footprint:  "), std::string::npos);
    EXPECT_NE(child.out.find("Current callstack:\n  1) "), std::string::npos) << child.out;
    EXPECT_NE(child.out.find("elasticity::allocate"), std::string::npos) << child.out;
    EXPECT_NE(child.out.find("memory.cpp ("), std::string::npos) << child.out;
}

// Refused, the job gives up its reserve, then raises the limit, and finishes; within the ceiling it
// cannot do without, it ends with the report.
TEST_F(Program, SurvivesRefusedMemory) {
    for (const std::string backend : {"heap", "crt"}) {
        const auto run_with = [&](std::vector<std::string> arguments) {
            arguments.insert(arguments.end(), {"--backend", backend, "--output", result, "--json",
                                               figures, "--memory-limit", "2", beam});
            return run(arguments);
        };
        const test::ChildResult raised = run_with({"--raise-limit", "200", "--reserve", "1"});
        EXPECT_EQ(raised.exit_code, 0) << backend << raised.err;
        const std::size_t reserve = raised.err.find("the reserve is given up, 1048576 bytes");
        const std::size_t limit = raised.err.find("the limit is raised to");
        EXPECT_LT(reserve, limit) << raised.err;
        EXPECT_LT(limit, raised.err.size()) << raised.err;
        EXPECT_NE(contents(figures).find("\"passed\": true"), std::string::npos);
        EXPECT_NE(contents(result), "(absent)");
        remove_files();

        const test::ChildResult ended = run_with({"--raise-limit", "2.5"});
        EXPECT_EQ(ended.exit_code, 4) << backend << ended.err;
        EXPECT_NE(ended.err.find("the limit is raised to 2621440 bytes"), std::string::npos);
        EXPECT_NE(ended.err.find("out of memory in step"), std::string::npos) << ended.err;
        EXPECT_EQ(contents(result), "(absent)");
    }
    EXPECT_EQ(run({"--raise-limit", "2", beam}).exit_code, 2);
    EXPECT_EQ(run({"--raise-limit", "2", "--memory-limit", "3", beam}).exit_code, 2);
    EXPECT_EQ(run({"--tiny-pool", "--backend", "crt", beam}).exit_code, 2);
}

// Elements and nodes as records held by identifiers: the same numbers from another place.
TEST_F(Program, RecordsInACachePoolChangeNoResult) {
    for (const std::string backend : {"heap", "crt"}) {
        ASSERT_EQ(run({"--quiet", "--backend", backend, "--output", result, beam}).exit_code, 0);
        const std::string plain = contents(result);
        remove_files();
        const test::ChildResult child =
            run({"--cache-pool", "--backend", backend, "--output", result, beam});
        EXPECT_EQ(child.exit_code, 0) << child.err;
        EXPECT_NE(child.out.find("Pool Summary: blockCount="), std::string::npos) << child.out;
        EXPECT_TRUE(contents(result) == plain) << backend;
        remove_files();
    }
    EXPECT_EQ(run({"--cache-pool", "--backend", "crt", "--memory-limit", "0.3", beam}).exit_code,
              4);
}

// Their figures come from the heap's own words, and all that vectors and maps held is given back.
TEST_F(Program, TellsWhatThePoolsOfItsContainersHold) {
    const test::ChildResult heap = run({"--backend", "heap", "--json", figures, beam});
    EXPECT_NE(heap.out.find("\nKXMBasVector           1010                0 "), std::string::npos)
        << heap.out;
    const std::string counted = contents(figures);
    for (const std::string pool : {"KXMBasVector", "KXMBasMap"}) {
        EXPECT_NE(counted.find("\"pool_" + pool + "_bytes\": 0,"), std::string::npos) << counted;
        EXPECT_EQ(counted.find("\"pool_" + pool + "_peak_bytes\": 0"), std::string::npos);
    }
    remove_files();
    for (const std::vector<std::string>& pools_blind :
         {std::vector<std::string>{"--backend", "crt"}, {"--backend", "heap", "--tiny-pool"}}) {
        std::vector<std::string> arguments = {"--json", figures, beam};
        arguments.insert(arguments.begin(), pools_blind.begin(), pools_blind.end());
        EXPECT_NE(run(arguments).out.find("\npools            not told: "), std::string::npos);
        EXPECT_NE(contents(figures).find("\"pool_KXMBasVector_bytes\": null"), std::string::npos);
        remove_files();
    }
}

TEST_F(Program, MakesMistakesThatTheLibraryFinds) {
    for (const std::string backend : {"heap", "crt"}) {
        const test::ChildResult leak = run({"--backend", backend, "--quiet", "--leak", beam});
        EXPECT_EQ(leak.exit_code, 0) << leak.err;
        const std::size_t headline = leak.out.find(". UNRELEASED MEMORY FROM\n");
        ASSERT_LT(headline, 10U) << leak.out;
        EXPECT_EQ(leak.out.find("UNRELEASED", headline + 20), std::string::npos) << leak.out;
        const std::size_t leaver = leak.out.find("leave_an_array_behind ");
        ASSERT_NE(leaver, std::string::npos) << leak.out;
        const std::string line = leak.out.substr(leaver, leak.out.find('\n', leaver) - leaver);
        EXPECT_NE(line.find("deliberate.cpp ("), std::string::npos) << line;
    }
    EXPECT_EQ(run({"--leak", "--memory-limit", "100", beam}).exit_code, 2);

    const std::string found = "First_uninitializeded=  32  , Next_initialized=  52  , Diff= 20";
    const test::ChildResult told = run({"--quiet", "--uninitialised-read", beam}, "KXA_UMR_PRINT");
    EXPECT_EQ(told.exit_code, 0);
    EXPECT_NE(told.err.find("Size= 400, " + found), std::string::npos) << told.err;
    EXPECT_NE(contents("KXMBas_UMR_Print.txt").find(found), std::string::npos);
    std::remove("KXMBas_UMR_Print.txt");
    EXPECT_EQ(run({"--quiet", "--uninitialised-read", beam}).err, "");
}

TEST_F(Program, HelpAndVersionSucceedWithoutAMesh) {
    const test::ChildResult help = run({"--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.out.find("--backend NAME"), std::string::npos);
    EXPECT_EQ(run({"--version"}).exit_code, 0);
}

TEST_F(Program, TheBeamMakersMeshesAreSolved) {
    const std::string size = "1,0.1,0.1", mesh = "program mesh.msh";
    ASSERT_EQ(run_program(EXAMPLE_BEAM_MESH, {size, "20,2,2", "2", mesh}).exit_code, 0);
    // Without the held end's hindrance of contraction, theory and solid agree closely.
    const test::ChildResult second = run({"--poisson", "0", "--check-tolerance", "0.006", mesh});
    EXPECT_EQ(second.exit_code, 0) << second.out << second.err;
    ASSERT_EQ(run_program(EXAMPLE_BEAM_MESH, {size, "40,4,5", "1", mesh}).exit_code, 0);
    const test::ChildResult first = run({"--check-tolerance", "0.2", mesh});
    EXPECT_EQ(first.exit_code, 0) << first.out << first.err;
    for (const char* cells : {"20,2", "20,2,0", "20,2,2,2", "20,2,x", "1000000,1000000,1000000"})
        EXPECT_EQ(run_program(EXAMPLE_BEAM_MESH, {size, cells, "2", mesh}).exit_code, 2) << cells;
}

} // namespace
