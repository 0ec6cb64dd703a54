// How deep the free tree becomes, whose balance rule is weak: under churn, and under orders of release
// that are made to hurt. The numbers are printed; the README of the cache room tells them.
#include "region_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <numeric>
#include <random>
#include <vector>

namespace {

using test::OwnRegion;

// As many holes of 36 words as a region has room for, between chunks that stay, freed in an order.
class EqualHoles {
public:
    EqualHoles() {
        for (int at = own.alloc(129); at != -1; at = own.alloc(129)) {
            if (++count_ % 2 == 1) {
                holes.push_back(at);
            }
        }
    }
    void free(std::size_t hole) { own.free(holes[hole]); }
    int height() const {
        const blocks::Chunks found = own.walk();
        EXPECT_EQ(found.fault, nullptr);
        return found.tree_height;
    }
    OwnRegion own{};
    std::vector<int> holes{};

private:
    int count_ = 0;
};

using Order = std::function<std::vector<std::size_t>(std::size_t)>;

std::vector<std::size_t> ascending(std::size_t n) {
    std::vector<std::size_t> order(n);
    std::iota(order.begin(), order.end(), 0U);
    return order;
}

std::vector<std::size_t> descending(std::size_t n) {
    std::vector<std::size_t> order = ascending(n);
    std::reverse(order.begin(), order.end());
    return order;
}

std::vector<std::size_t> outside_in(std::size_t n) {
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < n; ++i) {
        order.push_back(i % 2 == 0 ? i / 2 : n - 1 - i / 2);
    }
    return order;
}

std::vector<std::size_t> inside_out(std::size_t n) {
    std::vector<std::size_t> order = outside_in(n);
    std::reverse(order.begin(), order.end());
    return order;
}

std::vector<std::size_t> shuffled(std::size_t n) {
    std::vector<std::size_t> order = ascending(n);
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    return order;
}

int height_after(const Order& order, std::size_t& nodes) {
    EqualHoles region;
    for (const std::size_t hole : order(region.holes.size())) {
        region.free(hole);
    }
    nodes = region.own.walk().nodes.size();
    return region.height();
}

// At each step that one of eight random holes which makes the tree highest. A region can be copied.
int height_of_worst_choices() {
    EqualHoles region;
    std::vector<std::size_t> left = ascending(region.holes.size());
    std::mt19937 random(2);
    std::vector<int> saved(65536);
    int* const words = region.own.block.Ptr(0);
    int highest = 0;
    while (!left.empty()) {
        std::memcpy(saved.data(), words, saved.size() * sizeof(int));
        std::size_t best = 0;
        int best_height = -1;
        for (int choice = 0; choice < 8; ++choice) {
            const std::size_t at = random() % left.size();
            region.free(left[at]);
            const int height = region.height();
            if (height > best_height) {
                best = at;
                best_height = height;
            }
            std::memcpy(words, saved.data(), saved.size() * sizeof(int));
        }
        region.free(left[best]);
        left.erase(left.begin() + static_cast<std::ptrdiff_t>(best));
        highest = std::max(highest, best_height);
    }
    return highest;
}

struct Churn {
    int nodes = 0, height = 0;
};

// A region held nearly full of chunks of `least` to `most` bytes, replaced at random.
Churn churn(std::size_t least, std::size_t most) {
    OwnRegion own;
    std::mt19937 random(3);
    std::vector<int> chunks;
    Churn worst;
    for (int i = 0; i < 50000; ++i) {
        const int got = own.alloc(least + random() % (most - least + 1));
        if (got != -1) {
            chunks.push_back(got);
        }
        if (got == -1 || random() % 3 == 0) {
            std::swap(chunks[random() % chunks.size()], chunks.back());
            own.free(chunks.back());
            chunks.pop_back();
        }
        if (i % 50 == 0) {
            const blocks::Chunks found = own.walk();
            EXPECT_EQ(found.fault, nullptr);
            worst.nodes = std::max(worst.nodes, static_cast<int>(found.nodes.size()));
            worst.height = std::max(worst.height, found.tree_height);
        }
    }
    return worst;
}

TEST(FreeTree, DepthIsMeasured) {
    const std::vector<std::pair<const char*, Order>> orders{
        {"rising", ascending},
        {"falling", descending},
        {"random", shuffled},
        {"from the ends to the middle", outside_in},
        {"from the middle to the ends", inside_out}};
    std::size_t nodes = 0;
    std::vector<int> heights;
    for (const auto& [name, order] : orders) {
        heights.push_back(height_after(order, nodes));
        std::printf("holes of one size, freed %-30s %4d nodes, height %3d\n", name,
                    static_cast<int>(nodes), heights.back());
    }
    std::printf("holes of one size, worst of eight each step           %4d nodes, height %3d\n",
                static_cast<int>(nodes), height_of_worst_choices());
    for (const auto& [least, most] : {std::pair{129U, 400U}, {129U, 2000U}, {129U, 16384U}}) {
        const Churn worst = churn(least, most);
        std::printf("churn of %4u to %5u bytes, at most                  %4d nodes, height %3d\n",
                    least, most, worst.nodes, worst.height);
        EXPECT_LT(worst.height, 40);
    }
    EXPECT_GT(nodes, 900U);
    EXPECT_LT(heights[0], 20); // sorted orders are what the single rotation is for
    EXPECT_LT(heights[1], 20);
}

} // namespace
