// See pool_operations.h.
#include "pool_operations.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <map>
#include <vector>

#include "KXMBasMem.h"
#include "heap/heap_walk.h"
#include "history_reader.h"
#include "pool_fixture.h"
#include "tiny/pool_walk.h"

namespace test {
namespace {

constexpr std::array<int, 10> slot_bytes{4, 8, 16, 32, 48, 64, 80, 96, 112, 128};
constexpr std::array<int, 10> slots_a_page{1000, 500, 249, 124, 83, 62, 49, 41, 35, 31};

std::size_t class_of(std::size_t size) {
    std::size_t type = 0;
    while (static_cast<std::size_t>(slot_bytes[type]) < size) {
        ++type;
    }
    return type;
}

std::size_t room_for(std::size_t size) {
    return static_cast<std::size_t>(slot_bytes[class_of(size)]);
}

std::uintptr_t number(const void* p) {
    return reinterpret_cast<std::uintptr_t>(p);
}

// What the pool must be, told in other words than its own: pages by address, lists and chains as
// containers.
class Model {
public:
    /// The page that will be new is not known before: 0 then.
    std::uintptr_t next_slot(std::size_t type) const {
        for (const std::uintptr_t base : lists_[type]) {
            const Page& page = pages_.at(base);
            if (!page.chain.empty() || page.touched < slots_a_page[type]) {
                return slot_address(base, page,
                                    page.chain.empty() ? page.touched : page.chain.back());
            }
        }
        return 0;
    }

    void allocated(std::size_t type, std::uintptr_t slot) {
        if (next_slot(type) == 0) { // all of the list is full, and leaves it
            lists_[type].clear();
            const std::uintptr_t base = slot & ~std::uintptr_t{4095};
            pages_[base] = {type, take_index(), 0, {}};
            lists_[type].push_front(base);
        }
        std::deque<std::uintptr_t>& list = lists_[type];
        while (full(pages_[list.front()])) {
            list.pop_front();
        }
        Page& page = pages_[list.front()];
        if (page.chain.empty()) {
            ++page.touched;
        } else {
            page.chain.pop_back();
        }
    }

    void refused(std::size_t type) {
        lists_[type].clear();
        take_index();
        ++lost_;
    }

    void released(std::uintptr_t slot) {
        const std::uintptr_t base = slot & ~std::uintptr_t{4095};
        Page& page = pages_[base];
        std::deque<std::uintptr_t>& list = lists_[page.type];
        page.chain.push_back(static_cast<int>(slot - slot_address(base, page, 0)) /
                             slot_bytes[page.type]);
        const auto listed = std::find(list.begin(), list.end(), base);
        if (listed == list.end()) {
            list.push_front(base);
        } else if (used(page) == 0 && list.size() > 1) {
            list.erase(listed);
            free_indices_.push_back(page.index);
            pages_.erase(base);
        }
    }

    bool agrees(const tiny::Census& census) const {
        std::array<std::size_t, 10> in_use{};
        std::size_t listed = 0;
        for (const auto& [base, page] : pages_) {
            in_use[page.type] += static_cast<std::size_t>(used(page));
            if (tiny::block_in(tiny::page_of(reinterpret_cast<void*>(base)))->BlockIndex() !=
                page.index) {
                return false;
            }
        }
        for (const auto& list : lists_) {
            listed += list.size();
        }
        return census.pages == pages_.size() && census.listed == listed &&
               census.free_indices == free_indices_.size() && census.lost_indices == lost_ &&
               std::equal(in_use.begin(), in_use.end(), census.slots_used.begin());
    }

private:
    struct Page {
        std::size_t type = 0;
        int index = 0;
        int touched = 0;
        std::vector<int> chain; // slot numbers, the next to be handed out last
    };

    static std::uintptr_t slot_address(std::uintptr_t base, const Page& page, int slot) {
        return base + (page.type < 2 ? 96U : 104U) +
               static_cast<std::uintptr_t>(slot * slot_bytes[page.type]);
    }
    static int used(const Page& page) { return page.touched - static_cast<int>(page.chain.size()); }
    static bool full(const Page& page) { return used(page) == slots_a_page[page.type]; }

    int take_index() {
        if (free_indices_.empty()) {
            return next_index_++;
        }
        const int index = free_indices_.back();
        free_indices_.pop_back();
        return index;
    }

    std::map<std::uintptr_t, Page> pages_;
    std::array<std::deque<std::uintptr_t>, 10> lists_;
    std::vector<int> free_indices_;
    int next_index_ = 0;
    std::size_t lost_ = 0;
};

struct Block {
    unsigned char* mem;
    std::size_t size;
    unsigned char mark;
    std::size_t room; // of its slot; 0: no tiny block
};

class History {
public:
    History(const std::uint8_t* data, std::size_t size) : reader_(data, size) {}

    std::string run() {
        reset_pool();
        const heap::Census before = heap::take_census();
        mem_TBAllocator(1);
        while (!reader_.done() && fault_.empty()) {
            ++step_;
            operate();
            prove();
        }
        watch_.refuse_every = 0;
        const bool leaves_some = step_ % 2 == 0; // which end with the pool
        for (std::size_t at = blocks_.size(); at-- > 0 && fault_.empty();) {
            if (!leaves_some || blocks_[at].room == 0) {
                release(at);
            }
        }
        prove();
        reset_pool();
        const heap::Census after = heap::take_census();
        expect(after.fault == nullptr, "the heap is broken");
        expect(after.segments != before.segments || // each of which has chunks of its own
                   after.chunks - after.free_chunks == before.chunks - before.free_chunks,
               "the pool did not give everything back");
        return fault_.empty() ? "" : fault_ + " at operation " + std::to_string(step_);
    }

private:
    void expect(bool holds, const char* fault) {
        if (!holds && fault_.empty()) {
            fault_ = fault;
        }
    }

    void prove() {
        const tiny::Census census = tiny::take_census();
        expect(census.fault == nullptr, census.fault);
        expect(model_.agrees(census), "the pool is not what the model is");
    }

    bool next_page_refused() const {
        return watch_.refuse_every != 0 && (watch_.asked + 1) % watch_.refuse_every == 0;
    }

    // Tells the model of a slot that the pool gave, or refused.
    void* settled(void* mem, std::size_t size, bool refusal, std::uintptr_t expected) {
        const std::size_t type = class_of(size);
        if (expected == 0 && refusal) {
            expect(mem == nullptr, "a page came from nowhere");
            model_.refused(type);
            return nullptr;
        }
        expect(mem != nullptr && (expected == 0 || number(mem) == expected), "another slot");
        if (mem != nullptr) {
            model_.allocated(type, number(mem));
        }
        return mem;
    }

    void adopt(void* mem, std::size_t size, std::size_t room) {
        if (mem != nullptr) {
            mark_ = static_cast<unsigned char>(mark_ * 5 + 1);
            std::memset(mem, mark_, size);
            blocks_.push_back({static_cast<unsigned char*>(mem), size, mark_, room});
        }
    }

    void check(const Block& block, std::size_t bytes) {
        expect(std::all_of(block.mem, block.mem + bytes,
                           [&](unsigned char c) { return c == block.mark; }),
               "a block's content changed");
    }

    void allocate(std::size_t size, std::size_t way) {
        const std::uintptr_t expected = model_.next_slot(class_of(size));
        const bool refusal = next_page_refused();
        int small = static_cast<int>(size);
        void* const mem = way == 0   ? mem_smallalloc(&small)
                          : way == 1 ? mem_TBPool::Instance().Alloc(size, true)
                                     : mem_Malloc(size);
        adopt(settled(mem, size, refusal, expected), size, room_for(size));
    }

    void allocate_outside(std::size_t way, std::size_t size) {
        newDeleteTinyBlock(false);
        adopt(way == 0 ? mem_Malloc(size) : mem_Calloc(size, 1), size, 0);
        newDeleteTinyBlock(true);
    }

    Block take_out(std::size_t at) {
        const Block block = blocks_[at];
        blocks_[at] = blocks_.back();
        blocks_.pop_back();
        return block;
    }

    void release(std::size_t at) {
        const Block block = take_out(at);
        check(block, block.size);
        if (block.room != 0) {
            model_.released(number(block.mem));
        }
        void* mem = block.mem;
        if (block.room == 0 || step_ % 3 == 0) {
            mem_Free(mem);
        } else if (step_ % 3 == 1) {
            mem_MalignFree(mem);
        } else {
            mem_smallfree(&mem);
            expect(mem == nullptr, "the caller's pointer was kept");
        }
    }

    void resize(std::size_t at, std::size_t size) {
        const Block block = blocks_[at];
        if (block.room == 0) {
            return;
        }
        const bool moves = size > block.room, stays_tiny = size <= 128;
        const std::uintptr_t expected =
            stays_tiny && size != 0 ? model_.next_slot(class_of(size)) : 0;
        if (moves && stays_tiny && expected == 0 && next_page_refused()) {
            return; // that faults, and is meant to
        }
        take_out(at);
        auto* const mem = static_cast<unsigned char*>(mem_Realloc(block.mem, size));
        if (!moves && size != 0) {
            expect(mem == block.mem, "moved without need");
        } else {
            if (moves && stays_tiny) {
                settled(mem, size, false, expected);
            }
            model_.released(number(block.mem));
            expect((mem == nullptr) == (size == 0), "null or not");
        }
        if (mem != nullptr) {
            check({mem, size, block.mark, 0}, std::min(block.size, size));
            adopt(mem, size, !stays_tiny ? 0 : moves ? room_for(size) : block.room);
        }
    }

    void operate() {
        const std::size_t what = reader_.byte() % 8, size = reader_.byte() % 129,
                          count = reader_.byte();
        for (std::size_t i = 0; i <= count && fault_.empty(); ++i) {
            const std::size_t any = blocks_.empty() ? 0 : (size * 31 + i * 7919) % blocks_.size();
            switch (what) {
            case 0:
            case 1:
            case 2:
                allocate(size, what);
                break;
            case 3:
            case 4:
                if (!blocks_.empty()) {
                    release(what == 3 ? any : blocks_.size() - 1);
                }
                break;
            case 5:
                if (!blocks_.empty()) {
                    resize(any, (size * 2 + i) % 300);
                }
                break;
            case 6:
                if (count % 4 < 2) {
                    allocate_outside(count % 4, size);
                } else {
                    mem_TBThreadLock(count % 4 == 2);
                }
                return;
            default:
                watch_.refuse_every = size % 8;
                return;
            }
        }
    }

    HistoryReader reader_;
    PageWatch watch_;
    Model model_;
    std::vector<Block> blocks_;
    std::string fault_;
    std::size_t step_ = 0;
    unsigned char mark_ = 1;
};

} // namespace

std::string run_pool_operations(const std::uint8_t* data, std::size_t size) {
    return History(data, size).run();
}

} // namespace test
