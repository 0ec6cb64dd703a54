// What takes a process of its own: the environment's say, and ends of the process.
#include "child.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

test::ChildResult probe(const char* wish, const std::vector<std::string>& variables) {
    test::ChildRequest request{test::sibling_program("standin/tiny_probe"), {wish}, {}};
    for (const char* name : {"KXQ_DLALLOCATOR", "KXQ_CRTMALLOC", "KXA_DEADBEEF", "KXQ_TBMALLOC"}) {
        request.environment.emplace_back(name, std::nullopt);
    }
    for (const std::string& variable : variables) {
        const std::size_t at = variable.find('=');
        request.environment.emplace_back(variable.substr(0, at), variable.substr(at + 1));
    }
    return test::run_child(request);
}

TEST(PoolProcess, AsksEnvironmentAndBackEndBeforeItGoesOn) {
    EXPECT_EQ(probe("switch", {"KXQ_DLALLOCATOR=1"}).out, "pool\n");
    EXPECT_EQ(probe("switch", {"KXQ_DLALLOCATOR=1", "KXQ_TBMALLOC=1"}).out, "pool\n");
    EXPECT_EQ(probe("switch", {"KXQ_DLALLOCATOR=1", "KXQ_TBMALLOC=0 no"}).out, "back end\n");
    EXPECT_EQ(probe("switch", {}).out, "back end\n");
}

TEST(PoolProcess, CanBeForcedOn) {
    EXPECT_EQ(probe("force", {"KXQ_DLALLOCATOR=1", "KXQ_TBMALLOC=0"}).out, "pool\npool\n");
    EXPECT_EQ(probe("force", {}).out, "pool\npool\n") << "also where it needs itself to begin";
}

TEST(PoolProcess, IsNullUntilThereIsMemoryForIt) {
    EXPECT_EQ(probe("refused", {"KXQ_DLALLOCATOR=1"}).out, "null\nnull\npool\n");
}

TEST(PoolProcess, EndsWithAPointerThatIsNotItsOwn) {
    const auto result = probe("foreign", {"KXQ_DLALLOCATOR=1"});
    EXPECT_TRUE(result.crashed);
    EXPECT_NE(result.err.find("AssertionFailed:*tag == reinterpret_cast<uintptr_t>(tag) && tag[1] "
                              "== 0xabababab"),
              std::string::npos);
}

TEST(PoolProcess, FaultsWhenASlotCannotGrow) {
    const auto result = probe("grow", {"KXQ_DLALLOCATOR=1"});
    EXPECT_EQ(result.out, "full\n");
    EXPECT_TRUE(result.crashed);
}

} // namespace
