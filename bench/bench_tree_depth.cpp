// How deep the free tree becomes, whose balance rule is weak: under churn, and under orders of release
// that are made to hurt. The numbers are printed; the README of the cache room tells them.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <vector>

#include "blocks/variable_walk.h"
#include "mem_Interface.h"

namespace {

// A region of its own in a block of its own, as a cluster has one.
struct OwnRegion {
    static constexpr int words = 65536;
    mem_Block block{words, static_cast<int*>(mem_Malloc(std::size_t{words} * 4)), mem_BLK_PASSTHRU};
    mem_VariableRegion& region = *new (block.Ptr(0)) mem_VariableRegion(0, words, &block);

    OwnRegion() = default;
    ~OwnRegion() { block.FreeBlock(nullptr); }
    OwnRegion(const OwnRegion&) = delete;
    OwnRegion& operator=(const OwnRegion&) = delete;

    int alloc(std::size_t size) { return region.Alloc(&block, size); }
    void free(int offset) { region.Free(&block, offset); }
    blocks::Chunks walk() const {
        blocks::Chunks found = blocks::walk_variable_region(block, region);
        if (found.fault != nullptr) {
            std::fprintf(stderr, "%s\n", found.fault);
            std::exit(1);
        }
        return found;
    }
};

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
    int height() const { return own.walk().tree_height; }
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

// At each step a hole that comes below the deepest node with one to come: between two neighbours in
// order, the deeper of which is to get it. `part` says where between them.
int height_of_deepest_first(double part) {
    EqualHoles region;
    std::vector<bool> freed(region.holes.size(), false);
    int highest = 0;
    for (std::size_t count = 0; count < region.holes.size(); ++count) {
        std::map<int, int> parents;
        const blocks::Chunks found = region.own.walk();
        for (const blocks::TreeNode& node : found.nodes) {
            parents[node.offset] = node.parent;
        }
        const auto way = [&](std::size_t hole) {
            int steps = 0;
            for (int at = region.holes[hole]; at != found.root; at = parents[at]) {
                ++steps;
            }
            return steps;
        };
        std::size_t chosen = 0, last = 0;
        int deepest = -1, last_way = 0;
        for (std::size_t hole = 0; hole <= freed.size(); ++hole) {
            if (hole < freed.size() && !freed[hole]) {
                continue;
            }
            const int this_way = hole < freed.size() ? way(hole) : 0;
            if (hole > last && std::max(this_way, last_way) > deepest) {
                deepest = std::max(this_way, last_way);
                chosen =
                    last + static_cast<std::size_t>(part * static_cast<double>(hole - last - 1));
            }
            last = hole + 1;
            last_way = this_way;
        }
        region.free(chosen);
        freed[chosen] = true;
        highest = std::max(highest, region.height());
    }
    return highest;
}

// Requests that fit exactly take the root, whose replacement leaves depths as they were; a hole at
// random comes back for it. Begins with every hole freed, keeps `out` of them in use.
int height_with_roots_taken(std::size_t out) {
    EqualHoles region;
    for (const std::size_t hole : shuffled(region.holes.size())) {
        region.free(hole);
    }
    std::mt19937 random(4);
    std::vector<int> used;
    int highest = 0;
    for (int i = 0; i < 40000; ++i) {
        used.push_back(region.own.alloc(129));
        if (used.size() > out) {
            std::swap(used[random() % used.size()], used.back());
            region.own.free(used.back());
            used.pop_back();
        }
        if (i % 20 == 0) {
            highest = std::max(highest, region.height());
        }
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
        if (!chunks.empty() && (got == -1 || random() % 3 == 0)) {
            std::swap(chunks[random() % chunks.size()], chunks.back());
            own.free(chunks.back());
            chunks.pop_back();
        }
        if (i % 50 == 0) {
            const blocks::Chunks found = own.walk();
            worst.nodes = std::max(worst.nodes, static_cast<int>(found.nodes.size()));
            worst.height = std::max(worst.height, found.tree_height);
        }
    }
    return worst;
}

} // namespace

int main() {
    const std::vector<std::pair<const char*, Order>> orders{
        {"rising", ascending},
        {"falling", descending},
        {"random", shuffled},
        {"from the ends to the middle", outside_in},
        {"from the middle to the ends", inside_out}};
    for (const auto& [name, order] : orders) {
        std::size_t nodes = 0;
        const int height = height_after(order, nodes);
        std::printf("holes of one size, freed %-34s %4d nodes, height %3d\n", name,
                    static_cast<int>(nodes), height);
    }
    for (const double part : {0.0, 0.5, 0.75}) {
        std::printf("holes of one size, below the deepest, %3.0f %% of the gap   height %3d\n",
                    100 * part, height_of_deepest_first(part));
    }
    for (const std::size_t out : {10U, 450U}) {
        std::printf(
            "holes of one size, the root taken and a random one freed, %3d out: height %3d\n",
            static_cast<int>(out), height_with_roots_taken(out));
    }
    for (const auto& [least, most] : {std::pair{129U, 400U}, {129U, 2000U}, {129U, 16384U}}) {
        const Churn worst = churn(least, most);
        std::printf(
            "churn of %4u to %5u bytes, at most                     %4d nodes, height %3d\n", least,
            most, worst.nodes, worst.height);
    }
    return 0;
}
