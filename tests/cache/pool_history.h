// A history of a cache pool beside a shadow of it: every allocation's identifier, size and contents. What it does
// next comes from a source of numbers: random ones make a test, and a fuzzer has its own.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "cache/cache_walk.h"
#include "pool_fixture.h"

namespace test {

class PoolHistory {
public:
    /// At most about `most` allocations at a time.
    PoolHistory(mem_CachePool& pool, std::function<std::size_t()> numbers, std::size_t most)
        : pool_(pool), numbers_(std::move(numbers)), most_(most) {}

    void step() {
        const std::size_t kind = below(held_.size() < most_ ? 16 : 24);
        if (kind < 10 || held_.empty()) {
            allocate();
        } else if (kind < 13) {
            resize(held_[below(held_.size())]);
        } else {
            release(below(held_.size()));
        }
    }

    void release_all() {
        while (!held_.empty()) {
            release(held_.size() - 1);
        }
    }

    /// The first thing in which pool and shadow differ, or null.
    const char* differs() const {
        const cache::Census census = cache::take_census(pool_);
        if (census.fault != nullptr) {
            return census.fault;
        }
        const auto in_clusters = std::count_if(held_.begin(), held_.end(), [](const Held& held) {
            return held.id.bits.inCluster != 0;
        });
        const auto passing = static_cast<std::ptrdiff_t>(held_.size()) - in_clusters;
        return census.slots_used + census.chunks_used != in_clusters ? "allocations in clusters"
               : census.pass_thru != passing                         ? "pass-through blocks"
                                                                     : nullptr;
    }

    int expected_reports = 0; ///< of what is fatal by design
    int damaged = 0;          ///< allocations whose contents did not hold
    int misplaced = 0;        ///< addresses off their boundary
    int nulls = 0;
    int forgotten = 0; ///< in a cluster that was released too early, by its drifted count

private:
    struct Held {
        ID id;
        std::size_t size;
        unsigned char fill;
    };

    std::size_t below(std::size_t bound) { return numbers_() % bound; }
    std::size_t some_size() {
        switch (below(16)) {
        case 0:
            return 16385 + below(30000);
        case 1:
        case 2:
            return 129 + below(16256);
        case 3:
        case 4:
        case 5:
        case 6:
            return 129 + below(600);
        default:
            return 1 + below(128);
        }
    }
    unsigned char* bytes(ID id) const { return static_cast<unsigned char*>(pool_.Ptr(id)); }
    void fill(const Held& held) { std::memset(bytes(held.id), held.fill, held.size); }
    void look(const Held& held, std::size_t size) {
        const unsigned char* const from = bytes(held.id);
        damaged +=
            std::all_of(from, from + size, [&](unsigned char b) { return b == held.fill; }) ? 0 : 1;
        misplaced += reinterpret_cast<std::uintptr_t>(from) % (size > 8   ? 16
                                                               : size > 4 ? 8
                                                                          : 4) !=
                             0
                         ? 1
                         : 0;
    }
    // A new request that is tried in the cluster of the latest change, released or not.
    static bool meets_current(std::size_t size) { return size > 128 && size <= 16384; }

    void allocate() {
        Held held{0U, some_size(), static_cast<unsigned char>(numbers_())};
        if (below(200) == 0) {
            held.size = 1 + below(1000);
            void* const memory = pool_.Allocator()->Malloc("client", held.size);
            if (memory == nullptr) {
                return;
            }
            held.id = pool_.Adopt(held.size, memory);
            if (held.id.IsNull()) {
                pool_.Allocator()->Free("client", memory);
            }
        } else {
            expected_reports +=
                meets_current(held.size) && cache::current_is_released(pool_) ? 1 : 0;
            held.id = pool_.Alloc(held.size);
        }
        if (held.id.IsNull()) {
            ++nulls;
            return;
        }
        fill(held);
        held_.push_back(held);
    }

    void resize(Held& held) {
        const bool passing = held.id.bits.inCluster == 0;
        const std::size_t size = some_size();
        const void* const before = pool_.Ptr(held.id);
        const int cluster = cluster_of(held.id);
        const bool current_is_released = cache::current_is_released(pool_);
        const ID resized = pool_.ReAlloc(held.id, size);
        if (resized.IsNull()) {
            ++nulls;
            return;
        }
        if (passing && pool_.Ptr(resized) != before) {
            ++expected_reports;
        }
        // Its own cluster had no room, so it was allocated anew.
        if (!passing && cluster_of(resized) != cluster && current_is_released &&
            meets_current(size)) {
            ++expected_reports;
        }
        held.id = resized;
        look(held, std::min(held.size, size));
        held.size = size;
        fill(held);
        if (!passing) {
            forget_if_released(cluster);
        }
    }

    void release(std::size_t at) {
        look(held_[at], held_[at].size);
        const ID id = held_[at].id;
        held_[at] = held_.back();
        held_.pop_back();
        pool_.Free(id);
        if (id.bits.inCluster != 0) {
            forget_if_released(cluster_of(id));
        }
    }

    // A count of words that has drifted below what is in use can meet zero too early.
    void forget_if_released(int cluster) {
        if (pool_.Ptr(mem_CachePoolID(true, cluster, 0)) == nullptr) {
            const auto gone = std::remove_if(held_.begin(), held_.end(), [&](const Held& held) {
                return held.id.bits.inCluster != 0 && cluster_of(held.id) == cluster;
            });
            forgotten += static_cast<int>(held_.end() - gone);
            held_.erase(gone, held_.end());
        }
    }

    mem_CachePool& pool_;
    std::function<std::size_t()> numbers_;
    std::size_t most_;
    std::vector<Held> held_{};
};

} // namespace test
