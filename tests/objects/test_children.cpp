// What is decided once per process, or ends it: the size check, the depth of call stacks, the
// singleton registry, and programs whose global operators are the library's.
#include "child.h"

#include <gtest/gtest.h>
#include <iomanip>
#include <sstream>

namespace {

using test::ChildResult;

ChildResult run(const std::string& program, std::vector<std::string> arguments,
                std::vector<std::pair<std::string, std::string>> set = {}) {
    test::ChildRequest request{test::sibling_program(program), std::move(arguments), {}};
    for (const char* const name :
         {"KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_CRTMALLOC", "KXQ_USE_ALIGNED_MEMORY",
          "KXQ_DEBUG_MEMSIZE", "KXM_SINGLETON_REGISTRY", "KXA_CALLSTACK_DEPTH"}) {
        request.environment.emplace_back(name, std::nullopt);
    }
    // A checked build: refusals are meant, and so is a small leak of the registry.
    request.environment.emplace_back("ASAN_OPTIONS", "allocator_may_return_null=1:detect_leaks=0");
    for (const auto& [name, value] : set) {
        request.environment.emplace_back(name, value);
    }
    return test::run_child(request);
}

// What it should have written is in front; some systems add a word about an abort.
void expect_death(const ChildResult& result, const std::string& error) {
    EXPECT_TRUE(result.crashed);
    EXPECT_EQ(result.err.substr(0, error.size()), error);
}

const std::string class_below_129 =
    "KESTRIX class with sizeof(class) < 129 should use mem_AllocationOperatorsTiny\n";
const std::string class_above_128 =
    "KESTRIX class with sizeof(class) > 128 should use mem_AllocationOperatorsTiny\n";

TEST(SizeCheck, EndsAProcessWhoseClassHasTheWrongBase) {
    for (const char* const entry : {"throw", "nothrow"}) {
        const ChildResult result =
            run("new_probe", {entry, "129", "128"}, {{"KXQ_DEBUG_MEMSIZE", "ON"}});
        EXPECT_EQ(result.out, "allocated\n");
        expect_death(result, class_below_129);
    }
    for (const char* const entry : {"tiny-throw", "tiny-nothrow"}) {
        const ChildResult result =
            run("new_probe", {entry, "1", "128", "129"}, {{"KXQ_DEBUG_MEMSIZE", "ONE"}});
        EXPECT_EQ(result.out, "allocated\nallocated\n");
        expect_death(result, class_above_128);
    }
    expect_death(run("new_probe", {"class", "0"}, {{"KXQ_DEBUG_MEMSIZE", "ON"}}), class_below_129);
    // The registry itself is such a class.
    expect_death(run("registry_probe", {"directly"},
                     {{"KXQ_DEBUG_MEMSIZE", "ON"}, {"KXM_SINGLETON_REGISTRY", "0"}}),
                 class_below_129);
}

TEST(SizeCheck, TakesASizeOfZeroForARefusedRequest) {
    const ChildResult result = run("new_probe", {"throw", "0"},
                                   {{"KXQ_DEBUG_MEMSIZE", "ON"}, {"KXA_CALLSTACK_DEPTH", "0"}});
    EXPECT_EQ(result.out, "bad_alloc\n");
    EXPECT_EQ(result.err, "");
}

TEST(SizeCheck, IsOffUnlessTheValueBeginsWithOn) {
    for (const char* const value : {"on", "1", "O"}) {
        EXPECT_EQ(run("new_probe", {"throw", "0", "1", "128"}, {{"KXQ_DEBUG_MEMSIZE", value}}).out,
                  "allocated\nallocated\nallocated\n")
            << value;
    }
    for (const char* const entry : {"builtin-throw", "builtin-nothrow"}) {
        EXPECT_EQ(run("new_probe", {entry, "0", "128", "129"}, {{"KXQ_DEBUG_MEMSIZE", "ON"}}).out,
                  "allocated\nallocated\nallocated\n");
    }
}

TEST(FailureReport, IsSilentAtDepthZero) {
    const ChildResult result =
        run("new_probe", {"builtin-throw", "9223372036854775807"}, {{"KXA_CALLSTACK_DEPTH", "0"}});
    EXPECT_EQ(result.out, "bad_alloc\n");
    EXPECT_EQ(result.err.find("***"), std::string::npos);
}

std::string account(const std::string& name, const std::string& rest) {
    std::ostringstream line;
    line << "Singleton " << std::left << std::setw(40) << name << ": " << rest << '\n';
    return line.str();
}

const std::string clean = "(anonymous namespace)::Clean", kept = "(anonymous namespace)::Kept",
                  twice = "(anonymous namespace)::Twice", absent = "(anonymous namespace)::Absent";

const std::string balance =
    "-----3 singletons created, 4 singletons deleted------\n" +
    account(clean, "created occurences 1, deleted occurences 2   !!Over deleted!!") +
    account(kept, "created occurences 1, deleted occurences 0   !!NOT deleted!!") +
    account(twice, "created occurences 3, deleted occurences 2   !!Left over!!");

TEST(SingletonRegistry, PrintsABalanceSheetAtTheEnd) {
    const std::string not_created = "Deleting singleton " + absent + ", but it's not created\n";
    EXPECT_EQ(run("registry_probe", {"accounts"}).out, "");
    for (const char* const level : {"0", "1", "verbose"}) {
        const ChildResult result =
            run("registry_probe", {"accounts"}, {{"KXM_SINGLETON_REGISTRY", level}});
        EXPECT_EQ(result.exit_code, 0);
        EXPECT_EQ(result.out, not_created + balance) << level;
        EXPECT_EQ(result.err, "");
    }
    EXPECT_EQ(run("registry_probe", {"accounts"}, {{"KXM_SINGLETON_REGISTRY", "2"}}).out,
              "Singleton " + clean + " created, 1 occurence, ID: 0\n" +     //
                  "Singleton " + clean + " deleted, 1 occurence, ID: 0\n" + //
                  "Singleton " + kept + " created, 1 occurence, ID: 1\n" +  //
                  "Singleton " + twice + " created, 1 occurence, ID: 2\n" + //
                  "Singleton " + twice + " deleted, 1 occurence, ID: 2\n" + //
                  "Singleton " + twice + " created, 2 occurence, ID: 2\n" + //
                  "Singleton " + twice + " deleted, 2 occurence, ID: 2\n" + //
                  "Singleton " + twice + " created, 3 occurence, ID: 2\n" + //
                  not_created +                                             //
                  "Singleton " + clean + " deleted, 2 occurence, ID: 0\n" + balance);
}

TEST(SingletonRegistry, GrowsAndStartsAfresh) {
    const std::string out = run("registry_probe", {"many"}, {{"KXM_SINGLETON_REGISTRY", "0"}}).out;
    EXPECT_EQ(out.rfind("-----51 singletons created, 0 singletons deleted------\n", 0), 0U);
    EXPECT_NE(out.find("Numbered<50>"), std::string::npos);

    EXPECT_EQ(run("registry_probe", {"directly"}).out, "no registry\n");
    // What a second registry counts nobody prints, but it speaks up.
    EXPECT_EQ(run("registry_probe", {"directly"}, {{"KXM_SINGLETON_REGISTRY", "0"}}).out,
              "Deleting singleton C, but it's not created\n"
              "1 1 2 1 0\n"
              "-----2 singletons created, 1 singletons deleted------\n" +
                  account("A", "created occurences 2, deleted occurences 1   !!Left over!!") +
                  account("B", "created occurences 1, deleted occurences 0   !!NOT deleted!!") +
                  "Deleting singleton A, but it's not created\n"
                  "-----0 singletons created, 0 singletons deleted------\n");
}

TEST(Singletons, EndAProcessThatHasTwoOrLosesOne) {
    expect_death(run("registry_probe", {"second"}),
                 "Assertion failed: instance == 0, file omi_SingletonBase, line 22\n");
    expect_death(run("registry_probe", {"unsettled"}), "");
}

TEST(GlobalNew, ServesAProgramOnEveryBackEnd) {
    for (const char* const backend :
         {"", "KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_USE_ALIGNED_MEMORY"}) {
        const std::string name = backend;
        const ChildResult result =
            run("global_new_client", {name == "KXA_DEADBEEF" ? "guarded" : "plain"},
                name.empty() ? std::vector<std::pair<std::string, std::string>>{}
                             : std::vector<std::pair<std::string, std::string>>{{name, "1"}});
        EXPECT_EQ(result.exit_code, 0) << result.err << " on " << name;
    }
    EXPECT_EQ(run("global_new_client", {"odd"}).exit_code, 0);
    const ChildResult tiny = run("global_new_client", {"tiny"}, {{"KXQ_DLALLOCATOR", "1"}});
    EXPECT_EQ(tiny.exit_code, 0) << tiny.err;
}

} // namespace
