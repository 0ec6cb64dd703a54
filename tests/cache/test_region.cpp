// The variable region and its free tree: what single operations do, and random histories beside a
// model of both.
#include "damage.h"
#include "recording_KX0CORE.h"
#include "region_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using test::OwnRegion;
using test::RegionModel;
using test::Word;

TEST(VariableRegion, ReportsWhatIsNoChunkInUse) {
    OwnRegion own;
    const int a = own.alloc(200);
    own.alloc(200);
    const int before = recorded_fatal_errors();
    own.free(a);
    EXPECT_EQ(recorded_fatal_errors(), before);
    own.region.AllocSize(&own.block, a);
    EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:info->nextSize > 0");
    own.free(a); // again
    EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:size > 0");
    EXPECT_EQ(recorded_fatal_errors(), before + 2);
}

// A word that a client wrote over is told where it is met, and not followed.
TEST(VariableRegion, ReportsDamageThatAnOperationMeets) {
    struct Case {
        const char* text; // of the first report
        std::function<Word(const int (&chunk)[5])> word;
        std::function<void(OwnRegion&, const int (&chunk)[5])> operation;
    };
    static std::string first;
    on_recorded_fatal_error([] { first = first.empty() ? recorded_fatal_text() : first; });
    const auto free_second = [](OwnRegion& own, const int(&chunk)[5]) {
        EXPECT_FALSE(own.free(chunk[1]));
    };
    // The tree: the rest, whose right is the first chunk, whose left is the third.
    const Case cases[] = {{"nextOff <= m_regionSize",
                           [](auto& c) {
                               return Word{nullptr, c[1] - 1, 70000};
                           },
                           free_second},
                          {"offset != -1",
                           [](auto&) {
                               return Word{nullptr, 11, 200000};
                           },
                           [](OwnRegion& own, auto&) { EXPECT_EQ(own.alloc(300000), -1); }},
                          {"m_parent != -1",
                           [](auto& c) {
                               return Word{nullptr, c[2], -1};
                           },
                           free_second},
                          {"child == lastidx && child != -1",
                           [](auto& c) {
                               return Word{nullptr, c[4] + 2, -1};
                           },
                           free_second}};
    for (const Case& each : cases) {
        OwnRegion own;
        int chunk[5];
        for (int i = 0; i < 4; ++i) {
            chunk[i] = own.alloc(200);
        }
        chunk[4] = chunk[3] + 52;
        own.free(chunk[0]);
        own.free(chunk[2]);
        const Word word = each.word(chunk);
        own.block.Ptr(0)[word.at] = word.value;
        first.clear();
        each.operation(own, chunk);
        EXPECT_EQ(first, "AssertionFailed:" + std::string(each.text));
    }
    on_recorded_fatal_error(nullptr);
}

// One step of a history; false when region and model answer differently.
bool step(OwnRegion& own, RegionModel& model, std::vector<int>& chunks, std::mt19937& random) {
    const auto below = [&random](std::size_t bound) { return random() % bound; };
    const auto size = [&]() -> std::size_t {
        return 129 + (below(8) == 0 ? below(16256) : below(4) == 0 ? below(2000) : below(300));
    };
    const auto take = [&](int got) {
        if (got != -1) {
            chunks.push_back(got);
        }
    };
    switch (below(chunks.size() > 400 ? 12 : 8)) {
    case 0:
    case 1:
    case 2: {
        const std::size_t bytes = size();
        const int got = own.alloc(bytes);
        take(got);
        return got == model.alloc(bytes);
    }
    case 3: {
        std::vector<int> ends{65536};
        for (const auto& [offset, piece] : model.pieces) {
            if (!piece.used || offset % 1024 == 0) {
                ends.push_back(piece.used ? offset : offset + piece.words);
            }
        }
        const int end = ends[below(ends.size())];
        const int got = own.fixed(end);
        take(got);
        return got == model.fixed(end);
    }
    default:
        if (chunks.empty()) {
            return true;
        }
        int& chosen = chunks[below(chunks.size())];
        if (below(4) == 0) {
            const std::size_t bytes = size();
            const int got = own.region.ReAlloc(&own.block, chosen, bytes);
            const int old = chosen;
            if (got != -1) {
                chosen = got;
            }
            return got == model.realloc(old, bytes);
        }
        const int gone = chosen;
        chosen = chunks.back();
        chunks.pop_back();
        return own.free(gone) == model.free(gone);
    }
}

TEST(VariableRegion, DoesAsItsModelInRandomHistories) {
    const int before = recorded_fatal_errors();
    int stale = 0, highest = 0;
    for (unsigned seed = 0; seed < KXM_REGION_SEEDS; ++seed) {
        OwnRegion own;
        RegionModel model(65536);
        std::mt19937 random(seed);
        std::vector<int> chunks;
        for (int i = 0; i < 2500; ++i) {
            ASSERT_TRUE(step(own, model, chunks, random)) << "seed " << seed << " step " << i;
            const blocks::Chunks found = own.walk();
            ASSERT_STREQ(model.differs(found, own.region), nullptr)
                << "seed " << seed << " step " << i;
            stale += found.stale_depths;
            highest = std::max(highest, found.tree_height);
        }
    }
    EXPECT_EQ(recorded_fatal_errors(), before);
    EXPECT_GT(stale, 0) << "the histories meet depths that the rules leave";
    EXPECT_GT(highest, 5);
}

TEST(VariableRegion, IsNotSoundToTheWalkerWithAnyWordWrong) {
    OwnRegion own;
    const int a = own.alloc(200), b = own.alloc(200), c = own.alloc(200), d = own.alloc(200);
    const int rest = d + 52; // the tree: rest, whose right is a, whose left is c
    own.free(a);
    own.free(c);
    int* const base = own.block.Ptr(0);
    test::expect_faults({{"region header", {{base, 3, 3}}},
                         {"region header", {{base, 5, 20}}},
                         {"record tells another length of the chunk before", {{base, b - 2, 48}}},
                         {"length of a chunk", {{base, b - 1, 50}}},
                         {"length of a chunk", {{base, b - 1, 0}}},
                         {"length of a chunk", {{base, rest - 1, -65536}}},
                         {"two free chunks side by side", {{base, b - 1, -52}}},
                         {"end record", {{base, 65535, 4}}},
                         {"link to what is no free chunk", {{base, 8, b}}},
                         {"parent", {{base, a, b}}},
                         {"more nodes than free chunks", {{base, a + 2, c}}},
                         {"order of the tree", {{base, a + 1, -1}, {base, a + 2, c}}},
                         {"depth less than the children's say", {{base, rest + 3, 1}}},
                         {"free chunk in no tree", {{base, a + 1, -1}}},
                         {"anchor", {{base, 9, a}}},
                         {"length of the largest free chunk", {{base, 11, 52}}},
                         {"place of the largest free chunk", {{base, 12, a}}}},
                        [&] { return own.walk().fault; });
}

} // namespace
