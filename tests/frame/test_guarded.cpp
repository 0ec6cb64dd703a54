// Reports of the guarded back end: the words, the addresses, that nothing stops for them, and that
// it has no way out of a refusal.
#include "probe.h"

#include <gtest/gtest.h>
#include <regex>

namespace {

struct Guards {
    std::string front, back;
};

Guards guards_of(const std::string& out) {
    std::smatch match;
    if (!std::regex_search(out, match, std::regex("front=(0x[0-9a-f]+) back=(0x[0-9a-f]+)"))) {
        return {};
    }
    return {match[1], match[2]};
}

test::ChildResult guarded(std::vector<std::string> arguments) {
    return test::run_child(
        test::clean_request("frame_probe", std::move(arguments), {"KXA_DEADBEEF"}));
}

TEST(GuardedBackend, ReportsEachDamagedEndOnceAndGoesOn) {
    for (const bool resize : {false, true}) {
        const std::string verb = resize ? "REALLOC" : "FREE";
        for (const std::string where : {"none", "front", "back", "both"}) {
            const auto result = guarded({resize ? "damage-resize" : "damage", where});
            const Guards at = guards_of(result.out);
            std::string expected;
            if (where == "front" || where == "both") {
                expected += verb + ":memory overwrite detected at " + at.front + " front end\n";
            }
            if (where == "back" || where == "both") {
                expected += verb + ":memory overwrite detected at " + at.back + " back end\n";
            }
            EXPECT_EQ(result.err, expected) << verb << where;
            EXPECT_EQ(result.exit_code, 0);
            EXPECT_NE(result.out.find("went on"), std::string::npos);
            EXPECT_EQ(result.out.find("guarded=0"), std::string::npos) << "not guarded anew";
        }
    }
}

TEST(GuardedBackend, LooksWhereTheStoredSizeSays) {
    const auto result = guarded({"damage-size"});
    EXPECT_EQ(result.err,
              "FREE:memory overwrite detected at " + guards_of(result.out).back + " back end\n");
    EXPECT_EQ(result.exit_code, 0);
}

TEST(GuardedBackend, FaultsWhenItIsRefusedOrDividesByNothing) {
    for (const char* request : {"refused-guarded", "calloc-of-nothing"}) {
        const auto result = guarded({request});
        EXPECT_EQ(result.out, "asking\n");
        EXPECT_TRUE(result.crashed) << request;
    }
}

} // namespace
