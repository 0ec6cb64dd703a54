// See pool_walk.h.
#include "tiny/pool_walk.h"

#include <cstdlib>
#include <new>
#include <vector>

#include "blocks/region_walk.h"
#include "heap/heap_walk.h"
#include "tiny/mem_TBPool.h"
#include "tiny/test_seam.h"

namespace {

// A program's own operator new may be served by the pool that is being walked, under its lock.
template <typename T> struct Runtime {
    using value_type = T;
    Runtime() = default;
    template <typename Other> Runtime(const Runtime<Other>&) {}
    T* allocate(std::size_t count) {
        void* const memory = std::calloc(count, sizeof(T));
        return memory != nullptr ? static_cast<T*>(memory) : throw std::bad_alloc();
    }
    void deallocate(T* memory, std::size_t) { std::free(memory); }
    bool operator==(const Runtime&) const = default;
};

} // namespace

namespace tiny {

struct Inspector {
    const mem_TBPool& pool;
    Census census{};
    enum class Kind { lost, free, page, listed };
    std::vector<Kind, Runtime<Kind>> kinds =
        std::vector<Kind, Runtime<Kind>>(static_cast<std::size_t>(pool.m_blockCount));

    static const mem_TBPool* instance() { return mem_TBPool::theInstance; }
    static int index_count() { return mem_TBPool::theInstance->m_blockCount; }

    bool holds(bool statement, const char* fault, int index) {
        if (!statement && census.fault == nullptr) {
            census.fault = fault;
            census.index = index;
        }
        return census.fault == nullptr;
    }

    Kind& kind(int index) { return kinds[static_cast<std::size_t>(index)]; }
    bool is_index(int index) const { return index >= 0 && index < pool.m_blockCount; }
    std::uintptr_t entry(int index) const {
        return reinterpret_cast<std::uintptr_t>(pool.m_blocks.BlockOrNull(index));
    }

    void walk_free_indices() {
        for (int i = pool.m_freeIndex - 1; i != -1; i = static_cast<int>(entry(i)) - 1) {
            if (!holds(is_index(i) && kind(i) == Kind::lost, "stack of free indices", i) ||
                !holds(!pool.IsPage(i), "free index with a page", i)) {
                return;
            }
            kind(i) = Kind::free;
            ++census.free_indices;
        }
    }

    void walk_page(int index) {
        const mem_FixedBlock& block = *pool.GetBlock(index);
        Tag* const tag = page_of(&block);
        if (!holds(is_page(tag) && &block == block_in(tag), "tag", index) ||
            !holds(block.BlockIndex() == index && block.BlockSize() == block_words &&
                       block.BlockType() == mem_BLK_FIXED && block.Offset(&block) == 0,
                   "descriptor", index)) {
            return;
        }
        const int type = block.Region()->RegionType();
        const blocks::Chain chain = blocks::walk_region(block);
        if (!holds(type >= 0 && type < blocks::class_count, "class", index) ||
            !holds(chain.fault == nullptr, chain.fault, index)) {
            return;
        }
        kind(index) = Kind::page;
        ++census.pages;
        census.slots_used[static_cast<std::size_t>(type)] += static_cast<std::size_t>(chain.used());
    }

    void walk_list(int type) {
        const int head = pool.m_firstBlock[type];
        holds(first_page[type] == (is_index(head) ? pool.GetBlock(head) : nullptr),
              "first page is not the list's head", head);
        int last = -1;
        for (int i = head; i != -1; i = pool.GetBlock(i)->NextBlock()) {
            if (!holds(is_index(i) && kind(i) == Kind::page, "list leads off the pages", i)) {
                return;
            }
            const mem_FixedBlock& block = *pool.GetBlock(i);
            holds(block.LastBlock() == last, "links disagree", i);
            holds(block.Region()->RegionType() == type, "page on another class's list", i);
            kind(i) = Kind::listed;
            ++census.listed;
            last = i;
        }
    }

    void check_unlisted(int index) {
        const mem_FixedBlock& block = *pool.GetBlock(index);
        holds(block.NextBlock() == -1 && block.LastBlock() == -1, "link off the lists", index);
        const blocks::Chain chain = blocks::walk_region(block);
        holds(chain.used() == chain.slots, "page with room off its list", index);
    }

    void walk() {
        walk_free_indices();
        for (int i = 0; i < pool.m_blockCount && census.fault == nullptr; ++i) {
            if (kind(i) == Kind::lost) {
                if (pool.IsPage(i)) {
                    walk_page(i);
                } else {
                    ++census.lost_indices;
                }
            }
        }
        for (int type = 0; type < blocks::class_count && census.fault == nullptr; ++type) {
            walk_list(type);
        }
        for (int i = 0; i < pool.m_blockCount && census.fault == nullptr; ++i) {
            if (kind(i) == Kind::page) {
                check_unlisted(i);
            }
        }
    }
};

Census take_census() {
    if (Inspector::instance() == nullptr) {
        return {};
    }
    Inspector inspector{*Inspector::instance()};
    inspector.walk();
    return inspector.census;
}

#if defined(KXM_TEST_SEAMS)
namespace test_seam {
bool (*page_hook)() = nullptr;
bool refuse_events = false;
} // namespace test_seam
#endif

void check_while_small() {
    constexpr int small_pool = 64;
    if constexpr (heap::checked_build) {
        if (Inspector::index_count() <= small_pool && take_census().fault != nullptr) {
            std::abort();
        }
    }
}

} // namespace tiny
