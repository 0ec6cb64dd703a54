// What an allocator prints when it goes, and what ends a process.
#include "child.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace {

using test::ChildResult;

ChildResult run(std::vector<std::string> arguments,
                std::vector<std::pair<std::string, std::string>> set = {}) {
    test::ChildRequest request{test::sibling_program("solver_probe"), std::move(arguments), {}};
    for (const char* const name :
         {"KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_CRTMALLOC", "KXQ_USE_ALIGNED_MEMORY",
          "KXQ_DEBUG_MEMSIZE", "KXM_SINGLETON_REGISTRY", "KXA_CALLSTACK_DEPTH"}) {
        request.environment.emplace_back(name, std::nullopt);
    }
    // A checked build: leaks are what this is about, and faults are for the system to report.
    request.environment.emplace_back("ASAN_OPTIONS", "detect_leaks=0:handle_segv=0");
    request.environment.emplace_back("TSAN_OPTIONS", "handle_segv=0");
    for (const auto& [name, value] : set) {
        request.environment.emplace_back(name, value);
    }
    return test::run_child(request);
}

const std::string unreleased = ". UNRELEASED MEMORY FROM\n";

// The stack of a block, after its headline; empty when there is none of this number.
std::string stack_of(const std::string& out, const std::string& number) {
    const std::string headline = number + unreleased;
    const std::size_t at = out.find(headline);
    const std::size_t end = out.find("\n\n", at);
    return at == std::string::npos ? ""
                                   : out.substr(at + headline.size(), end - at - headline.size());
}

void expect_leaver(const std::string& stack) {
    EXPECT_EQ(stack.rfind("  1) ", 0), 0U) << stack;
    EXPECT_NE(stack.find("KXMBasMemTrackAlloc::Alloc "), std::string::npos) << stack;
    const std::size_t leaver = stack.find("leave_behind ");
    ASSERT_NE(leaver, std::string::npos) << stack;
    const std::string line = stack.substr(leaver, stack.find('\n', leaver) - leaver);
    EXPECT_NE(line.find("solver_probe.cpp ("), std::string::npos) << line;
}

TEST(TrackingAllocator, NamesWhatWasNotReleased) {
    EXPECT_EQ(run({"leak"}, {{"KXA_CALLSTACK_DEPTH", "-1"}}).out,
              "1" + unreleased + "\n3" + unreleased + "\nend\n");
    for (const char* const backend : {"KXQ_DLALLOCATOR", "KXA_DEADBEEF"}) {
        const ChildResult result = run({"leak"}, {{backend, "1"}});
        EXPECT_EQ(result.exit_code, 0) << result.err;
        expect_leaver(stack_of(result.out, "1"));
        expect_leaver(stack_of(result.out, "3"));
        EXPECT_EQ(stack_of(result.out, "0") + stack_of(result.out, "2"), "");
    }
}

TEST(TrackingAllocator, CountsInFrontOfItsBlocksAndKeepsTheRestEmpty) {
    const ChildResult result = run({"headers"}, {{"KXA_CALLSTACK_DEPTH", "1"}});
    EXPECT_EQ(result.out, "0 1 2 1 77 1 1\nend\n");
    EXPECT_EQ(result.exit_code, 0) << result.err;
}

TEST(TrackingAllocator, FaultsWhereMemoryIsShort) {
    const ChildResult result = run({"refused"});
    EXPECT_TRUE(result.crashed) << result.exit_code;
    EXPECT_EQ(result.out, "asking\n");
    EXPECT_TRUE(run({"refused-table"}).crashed);
}

// Some systems add a word about an abort.
void expect_assertion(const ChildResult& result, const std::string& begin) {
    EXPECT_TRUE(result.crashed);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.substr(0, begin.size()), begin);
}

TEST(FixedPool, IsAShell) {
    const std::pair<const char*, const char*> lines[] = {
        {"allocate", "36"},    {"deallocate", "42"}, {"Alloc", "47"},
        {"AllocActual", "53"}, {"Free", "59"},       {"LargeBlockAllocator", "65"}};
    for (const auto& [operation, number] : lines) {
        expect_assertion(run({"fixed-pool", operation}),
                         "Assertion failed: \"not implemented\" == 0, file "
                         "KXMBasMemFixedPoolAllocator, line " +
                             std::string(number) + "\n");
    }
}

TEST(HashTablePosition, ThatLeadsNowhereEndsTheProcess) {
    for (const char* const operation : {"next", "key"}) {
        expect_assertion(run({"hash-table", operation}),
                         "Assertion failed: pos.offset != 0, file KXMBasHashTable, line ");
    }
    for (const char* const operation : {"value", "offset", "bucket", "no-buckets"}) {
        expect_assertion(run({"hash-table", operation}),
                         "Assertion failed: entry != 0, file KXMBasHashTable, line ");
    }
}

TEST(NamedPools, AreSingletonsOfTheRegistry) {
    // Each has the operators of its size, or the check would end the process; so would the registry's
    // own, which is therefore left out.
    EXPECT_EQ(run({"named-pools"}, {{"KXQ_DEBUG_MEMSIZE", "ON"}}).out, "end\n");
    const std::string out = run({"named-pools"}, {{"KXM_SINGLETON_REGISTRY", "2"}}).out;
    EXPECT_EQ(out.rfind("Singleton KXMBasMemPoolMap created, 1 occurence, ID: 0\n"
                        "Singleton KXMBasMemPoolCow created, 1 occurence, ID: 1\n"
                        "Singleton KXMBasMemTrackerL2 created, 1 occurence, ID: 2\n"
                        "Singleton KXMBasMemPoolCow deleted, 1 occurence, ID: 1\n"
                        "Singleton KXMBasMemPoolCow created, 2 occurence, ID: 1\n"
                        "Singleton KXMBasMemPoolCow deleted, 2 occurence, ID: 1\n"
                        "Singleton KXMBasMemTrackerL2 deleted, 1 occurence, ID: 2\n"
                        "Singleton KXMBasMemPoolVector created, 1 occurence, ID: 3\n",
                        0),
              0U)
        << out;
}

} // namespace
