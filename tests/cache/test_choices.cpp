// Which cluster serves a request: a pool beside a model that has clusters of its own and keeps the
// lists as plain sequences. Both answer with the same identifiers, step by step.
#include "pool_fixture.h"

#include "cache/mem_Cluster.h"
#include "recording_KX0CORE.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <deque>
#include <random>
#include <vector>

namespace {

using List = std::deque<int>;
using test::ID;

bool heads(const List& list, int index) {
    return !list.empty() && list.front() == index;
}

class PoolModel {
public:
    ~PoolModel() {
        for (const Place& place : places_) {
            place.cluster->Delete(&allocator_);
            place.cluster->~mem_Cluster();
        }
    }

    mem_CachePoolID alloc(std::size_t size) {
        const mem_RegionTypeEnm type = mem_Cluster::RegionType(size);
        int chosen = 0;
        mem_CachePoolID id =
            type == mem_RGN_VARIABLE ? of_any_size(size, chosen) : of_class(type, size, chosen);
        if (id.IsNull()) {
            chosen = take();
            id = at(chosen).Alloc(size);
        }
        bring_first(type, chosen);
        return id;
    }

    void free(mem_CachePoolID id) {
        const int index = test::cluster_of(id);
        const mem_RegionTypeEnm type = at(index).AllocType(id);
        if (!at(index).Free(id)) {
            bring_first(type, index);
            return;
        }
        for (List& list : of_class_) {
            std::erase(list, index);
        }
        for (List& list : by_size_) {
            std::erase(list, index);
        }
        at(index).FreeBlock(&allocator_);
        emptied_.push_front(index);
    }

    mem_CachePoolID realloc(mem_CachePoolID id, std::size_t size) {
        const int index = test::cluster_of(id);
        const mem_CachePoolID resized = at(index).ReAlloc(id, size);
        if (resized.HasValue()) {
            bring_first(at(index).AllocType(resized), index);
            return resized;
        }
        const mem_CachePoolID moved = alloc(size);
        free(id);
        return moved;
    }

    int largest_free(int index) { return at(index).LargestFree(); }
    bool current_is_released() { return current_ != 0 && at(current_).IsFree(); }

private:
    struct Place {
        alignas(mem_Cluster) int storage[sizeof(mem_Cluster) / sizeof(int)];
        mem_Cluster* cluster;
    };

    mem_Cluster& at(int index) { return *places_[static_cast<std::size_t>(index - 1)].cluster; }

    static int bits(int words) {
        return words < 66
                   ? 0
                   : static_cast<int>(std::bit_width(static_cast<unsigned>(words - 34) / 32));
    }

    int take() {
        if (!emptied_.empty()) {
            const int index = emptied_.front();
            emptied_.pop_front();
            at(index).Initialize(&allocator_);
            return index;
        }
        Place& place = places_.emplace_back();
        const int index = static_cast<int>(places_.size());
        place.cluster = mem_Cluster::CreateCluster(index, place.storage, &allocator_);
        return index;
    }

    mem_CachePoolID of_class(mem_RegionTypeEnm type, std::size_t size, int& chosen) {
        List& list = of_class_[type];
        if (list.empty() && by_size_[7].empty()) {
            return 0U; // though list 6 may have room
        }
        for (bool listed = !list.empty(), more = true; more; more = listed && !list.empty()) {
            chosen = listed ? list.front() : by_size_[7].front();
            const mem_CachePoolID id = at(chosen).Alloc(size);
            if (id.HasValue()) {
                return id;
            }
            std::erase(list, chosen);
        }
        const List& roomy = by_size_[6].empty() ? by_size_[7] : by_size_[6];
        if (roomy.empty()) {
            return 0U;
        }
        chosen = roomy.front();
        return at(chosen).Alloc(size);
    }

    mem_CachePoolID of_any_size(std::size_t size, int& chosen) {
        mem_CachePoolID id = 0U;
        if (current_ != 0 && !at(current_).IsFree()) {
            chosen = current_;
            id = at(chosen).Alloc(size);
        }
        for (int k = bits(blocks::variable_words(size)); k < 8 && id.IsNull(); ++k) {
            if (!by_size_[k].empty()) { // one only of each list
                chosen = by_size_[k].front();
                id = at(chosen).Alloc(size);
                if (id.IsNull()) {
                    by_size_[k].pop_front();
                    bring_first(mem_RGN_VARIABLE, chosen);
                }
            }
        }
        return id;
    }

    void bring_first(mem_RegionTypeEnm type, int index) {
        current_ = index;
        if (type != mem_RGN_VARIABLE) {
            std::erase(of_class_[type], index);
            of_class_[type].push_front(index);
        }
        const int largest = at(index).LargestFree();
        List& list = by_size_[std::clamp(bits(largest) - 1, 0, 7)];
        if (heads(list, index)) {
            return; // even when it is full by now
        }
        for (List& each : by_size_) {
            std::erase(each, index);
        }
        if (largest >= 33) {
            list.push_front(index);
        }
    }

    test::CountingAllocator allocator_{};
    std::deque<Place> places_{};
    List of_class_[10], by_size_[8], emptied_;
    int current_ = 0;
};

TEST(CacheChoices, AreTheModels) {
    for (unsigned seed = 0; seed < unsigned{KXM_POOL_SEEDS}; ++seed) {
        test::OwnPool own;
        PoolModel model;
        std::mt19937 random(seed);
        const auto below = [&random](std::size_t bound) { return random() % bound; };
        // Few sizes at a time, so that clusters fill to the brim; and now and then others.
        std::size_t sizes[3] = {128, 300, 16384};
        const auto size = [&] {
            if (below(500) == 0) {
                for (std::size_t& each : sizes) {
                    each = below(2) == 0 ? 1 + below(128) : 1 + below(std::size_t{128} << below(8));
                }
            }
            return sizes[below(3)];
        };
        std::vector<mem_CachePoolID> ids;
        int reports = recorded_fatal_errors();
        for (int i = 0; i < 12000; ++i) {
            const bool growing = i / 2000 % 2 == 0;
            const std::size_t kind = below(10);
            if (ids.empty() || kind < (growing ? 8U : 1U)) {
                const std::size_t bytes = size();
                reports += bytes > 128 && model.current_is_released() ? 1 : 0;
                ids.push_back(own->Alloc(bytes));
                ASSERT_EQ(ids.back().Value(), model.alloc(bytes).Value()) << seed << " step " << i;
                continue;
            }
            mem_CachePoolID& id = ids[below(ids.size())];
            if (kind == 9) {
                const mem_CachePoolID old = id;
                const std::size_t bytes = size();
                id = own->ReAlloc(old, bytes);
                ASSERT_EQ(id.Value(), model.realloc(old, bytes).Value()) << seed << " step " << i;
            } else {
                own->Free(id);
                model.free(id);
                id = ids.back();
                ids.pop_back();
            }
        }
        EXPECT_EQ(recorded_fatal_errors(), reports);
        EXPECT_EQ(own.census().fault, nullptr);
    }
}

// Requests within 18 words of every border of the lists by size, of a slot and of the largest request, beside a
// cluster whose largest free chunk is as near to it.
TEST(CacheChoices, AreTheModelsAroundEveryEdge) {
    constexpr int around = 18, largest_request = 4096;
    for (const int edge : {33, 97, 161, 289, 545, 1024, 1057, 2081, 3072, 4096, 4129}) {
        for (int free = edge - around; free <= edge + around; free += 2) {
            test::OwnPool own;
            PoolModel model;
            const auto alloc = [&](int words) {
                const auto bytes = static_cast<std::size_t>(words) * 4;
                const ID id = own->Alloc(bytes);
                EXPECT_EQ(id.Value(), model.alloc(bytes).Value())
                    << edge << ' ' << free << ' ' << words;
                return id;
            };
            alloc(33);
            for (int left = 0; (left = model.largest_free(1)) > free + 36;) {
                alloc(std::clamp(left - free - 4, 33, largest_request));
            }
            alloc(largest_request); // elsewhere, so that this one is no longer current
            for (int words = std::max(edge - around, 1);
                 words <= std::min(edge + around, largest_request); ++words) {
                const ID id = alloc(words), other = alloc(words);
                ASSERT_TRUE(id.HasValue() && other.HasValue());
                std::memset(own->Ptr(id), words, static_cast<std::size_t>(words) * 4);
                std::memset(own->Ptr(other), words, static_cast<std::size_t>(words) * 4);
                const int more = std::min(words + around, largest_request);
                const ID moved = own->ReAlloc(id, static_cast<std::size_t>(more) * 4);
                ASSERT_EQ(moved.Value(),
                          model.realloc(id, static_cast<std::size_t>(more) * 4).Value());
                for (const ID each : {other, moved}) {
                    own->Free(each);
                    model.free(each);
                }
            }
            ASSERT_EQ(own.census().fault, nullptr) << edge << ' ' << free;
        }
    }
}

} // namespace
