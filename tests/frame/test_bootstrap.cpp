// Memory asked for before the library has started: what the bootstrap binds, and its abort.
#include "probe.h"

#include <gtest/gtest.h>

namespace {

using test::ChildResult;

ChildResult early(const std::vector<std::string>& set) {
    return test::run_child(test::clean_request("early_probe", {}, set));
}

TEST(Bootstrap, BindsWithoutTheHeapAndForGood) {
    EXPECT_EQ(early({}).out, "unbound=1 null=1 bound=crt first=plain usingDL=0\n");
    EXPECT_EQ(early({"KXA_DEADBEEF"}).out,
              "unbound=1 null=1 bound=guarded first=guarded usingDL=0\n");
    // The first block is plain malloc's although the aligned back end is bound from then on.
    EXPECT_EQ(early({"KXQ_USE_ALIGNED_MEMORY"}).out,
              "unbound=1 null=1 bound=aligned first=plain usingDL=0\n");
    // With KXQ_CRTMALLOC beside it the heap's wish does not abort; the start does not look again.
    EXPECT_EQ(early({"KXQ_DLALLOCATOR", "KXQ_CRTMALLOC"}).out,
              "unbound=1 null=1 bound=crt first=plain usingDL=0\n");
}

TEST(Bootstrap, AbortsWhenTheHeapWasAskedFor) {
    for (const std::vector<std::string>& set :
         {std::vector<std::string>{"KXQ_DLALLOCATOR"}, {"KXQ_DLALLOCATOR", "KXA_DEADBEEF"}}) {
        const ChildResult result = early(set);
        EXPECT_TRUE(result.crashed);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err.substr(0, result.err.find('\n') + 1),
                  "ERROR: Memory allocation attempt before component initialization\n");
    }
}

} // namespace
