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

std::size_t bytes_for(int words) {
    return static_cast<std::size_t>(words) * 4 - 8;
}

// Chunks of these lengths at the low end, to be freed, each followed by one of 36 words that stays.
struct Holes {
    OwnRegion own{};
    std::vector<int> offsets{};

    explicit Holes(const std::vector<int>& words) {
        for (const int length : words) {
            offsets.push_back(own.alloc(bytes_for(length)));
            own.alloc(bytes_for(36));
        }
        own.alloc(bytes_for(4100)); // parts the holes from the large rest, which tests leave alone
    }
    void free(std::size_t hole) { own.free(offsets[hole]); }
    const blocks::TreeNode node(std::size_t hole) const {
        for (const blocks::TreeNode& each : own.walk().nodes) {
            if (each.offset == offsets[hole]) {
                return each;
            }
        }
        return {-1, -1, -1, -1, -1};
    }
};

TEST(VariableRegion, BeginsAsOneChunkAndCutsFromItsLowEnd) {
    OwnRegion own;
    EXPECT_EQ(own.region.LargestFree(), 65520);
    EXPECT_EQ(own.region.LargestFreeOffset(), 16);
    EXPECT_EQ(own.alloc(129), 16);
    EXPECT_EQ(own.region.AllocSize(&own.block, 16), 136U);
    EXPECT_EQ(own.region.LargestFree(), 65484);
    EXPECT_EQ(own.region.LargestFreeOffset(), 52);
    EXPECT_EQ(own.alloc(16384), 52);
    EXPECT_EQ(own.region.AllocCount(), 36 + 4100);
    EXPECT_FALSE(own.free(16));
    EXPECT_TRUE(own.free(52));
    EXPECT_EQ(own.walk().nodes.size(), 1U);
    EXPECT_EQ(own.alloc(300000), -1);
}

TEST(VariableRegion, AbsorbsARemainderThatIsTooShort) {
    Holes holes({68, 72});
    holes.free(0);
    holes.free(1);
    const int before = holes.own.region.AllocCount();
    EXPECT_EQ(holes.own.alloc(bytes_for(36)), holes.offsets[0]); // 32 are absorbed
    EXPECT_EQ(holes.own.region.AllocCount(), before + 68);
    EXPECT_EQ(holes.own.alloc(bytes_for(36)), holes.offsets[1]); // 36 are left
    EXPECT_EQ(holes.own.region.AllocCount(), before + 68 + 36);
    EXPECT_EQ(holes.own.alloc(bytes_for(36)), holes.offsets[1] + 36);
}

TEST(VariableRegion, TakesTheLowestOfEqualChunksUnlessOneFitsExactly) {
    Holes low({100, 100, 100});
    for (const std::size_t hole : {1U, 2U, 0U}) {
        low.free(hole);
    }
    EXPECT_EQ(low.own.alloc(bytes_for(60)), low.offsets[0]);
    Holes met({100, 100, 100});
    for (const std::size_t hole : {1U, 2U, 0U}) {
        met.free(hole);
    }
    const int first = met.own.alloc(bytes_for(100)); // whichever the way down meets first
    EXPECT_EQ(first, met.offsets[1]);
}

TEST(VariableRegion, GrowsInPlaceAndCountsTheChunkTwice) {
    OwnRegion own;
    const int a = own.alloc(200); // 52 words
    EXPECT_EQ(own.region.ReAlloc(&own.block, a, 10), a);
    EXPECT_EQ(own.region.AllocCount(), 52);
    EXPECT_EQ(own.region.ReAlloc(&own.block, a, 400), a);
    EXPECT_EQ(own.region.AllocCount(), 52 + 104);
    EXPECT_FALSE(own.free(a)) << "it is never empty again";
    EXPECT_EQ(own.walk().used_words, 0);

    Holes holes({100, 36});
    holes.free(1);
    const int grown = holes.offsets[1] - 36; // the one that stays before that hole
    EXPECT_EQ(holes.own.region.ReAlloc(&holes.own.block, grown, bytes_for(60)), grown);
    EXPECT_EQ(holes.own.region.AllocSize(&holes.own.block, grown), bytes_for(72)) << "absorbed";
    EXPECT_EQ(holes.own.walk().fault, nullptr);
}

TEST(VariableRegion, MovesAChunkThatCannotGrow) {
    OwnRegion own;
    const int a = own.alloc(200), b = own.alloc(200);
    std::memset(own.block.Ptr(a), 0x5a, 200);
    const int moved = own.region.ReAlloc(&own.block, a, 5000);
    EXPECT_GT(moved, b);
    const char* const bytes = reinterpret_cast<const char*>(own.block.Ptr(moved));
    EXPECT_TRUE(std::all_of(bytes, bytes + 200, [](char c) { return c == 0x5a; }));
    EXPECT_EQ(own.region.ReAlloc(&own.block, b, 300000), -1);
    EXPECT_EQ(own.region.AllocSize(&own.block, b), 200U);
    EXPECT_FALSE(own.free(b));
    EXPECT_TRUE(own.free(moved));
}

TEST(VariableRegion, CutsSlotsFromTheHighEndOfAFreeChunk) {
    OwnRegion own;
    EXPECT_EQ(own.fixed(65536), 64512);
    EXPECT_EQ(own.region.LargestFree(), 64496);
    EXPECT_EQ(own.fixed(65536), -1) << "in use";
    EXPECT_EQ(own.fixed(64512), 63488);
    // A chunk that ends off a slot's boundary: the slot lies below, what is behind it stays free.
    const int a = own.alloc(bytes_for(1488)), b = own.alloc(bytes_for(36));
    own.free(a);
    EXPECT_EQ(b, 1504);
    EXPECT_EQ(own.fixed(b), -1) << "no aligned slot in it";
    const int big = own.alloc(bytes_for(4100)), wall = own.alloc(bytes_for(1600));
    own.free(big);
    const blocks::Chunks before = own.walk();
    const int slot = own.fixed(wall);
    EXPECT_EQ(slot, 4096);
    EXPECT_EQ(own.walk().nodes.size(), before.nodes.size() + 1);
    EXPECT_EQ(own.walk().fault, nullptr);
}

TEST(VariableRegion, LeavesAShortLeadToTheChunkBeforeAndDoesNotCountIt) {
    OwnRegion own;
    const int wall = own.alloc(bytes_for(1024 * 3 - 16 - 20)); // ends 20 words before slot 3
    EXPECT_EQ(own.fixed(65536), 64512);
    std::vector<int> slots;
    for (int end = 64512; end > 3072; end = slots.back()) {
        slots.push_back(own.fixed(end));
    }
    EXPECT_EQ(slots.back(), 3072);
    EXPECT_EQ(own.region.AllocSize(&own.block, wall), bytes_for(1024 * 3 - 16));
    const int counted = own.region.AllocCount();
    own.free(wall);
    EXPECT_EQ(own.region.AllocCount(), counted - (1024 * 3 - 16));
    for (const int slot : slots) {
        own.free(slot);
    }
    EXPECT_FALSE(own.free(64512));
    EXPECT_EQ(own.region.AllocCount(), -20);
    EXPECT_EQ(own.walk().used_words, 0);
}

TEST(FreeTree, TurnsAChainOfFourAndNotOfThree) {
    // The rest of the region is the greatest node and the first; holes of falling length go right.
    Holes holes({200, 160, 120, 80});
    const int rest = holes.own.region.LargestFreeOffset();
    holes.free(0);
    holes.free(1);
    EXPECT_EQ(holes.own.walk().root, rest) << "three";
    EXPECT_EQ(holes.own.walk().tree_height, 2);
    holes.free(2);
    EXPECT_EQ(holes.own.walk().root, holes.offsets[0]) << "four";
    EXPECT_EQ(holes.node(0).left, rest);
    EXPECT_EQ(holes.node(0).right, holes.offsets[1]);
    EXPECT_EQ(holes.node(0).depth, 2);
    EXPECT_EQ(holes.own.walk().tree_height, 2);
}

TEST(FreeTree, MendsOnlyTheDepthsTheRulesName) {
    Holes holes({300, 400, 100, 200, 250});
    for (std::size_t i = 0; i < holes.offsets.size(); ++i) {
        holes.free(i);
    }
    ASSERT_EQ(holes.own.walk().root, holes.offsets[0]);
    ASSERT_EQ(holes.node(2).depth, 2); // 100 above 200 above 250, which takes the root's place
    EXPECT_EQ(holes.own.alloc(bytes_for(300)), holes.offsets[0]);
    const blocks::Chunks found = holes.own.walk();
    EXPECT_EQ(found.root, holes.offsets[4]);
    EXPECT_EQ(holes.node(3).depth, 0);
    EXPECT_EQ(holes.node(2).depth, 2) << "between the two, not mended";
    EXPECT_EQ(holes.node(4).depth, 3) << "and believed";
    EXPECT_EQ(found.stale_depths, 1);
    EXPECT_EQ(found.fault, nullptr);
}

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
