// See heap_operations.h.
#include "heap_operations.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "heap_fixture.h"
#include "history_reader.h"

namespace test {
namespace {

constexpr std::size_t kib = 1024, mib = 1024 * kib;

struct Block {
    unsigned char* mem = nullptr;
    std::size_t size = 0;
    std::size_t alignment = 64;
    unsigned char mark = 0;
};

// What a block's content is checked by: its first and last bytes, all equal to its mark. A fault
// of the heap shows there, and large blocks stay cheap.
constexpr std::size_t head_bytes = 192, tail_bytes = 64;

void fill(const Block& block) {
    std::memset(block.mem, block.mark, std::min(block.size, head_bytes));
    const std::size_t tail = std::min(block.size, tail_bytes);
    std::memset(block.mem + block.size - tail, block.mark, tail);
}

bool all_equal(const unsigned char* from, std::size_t count, unsigned char value) {
    return std::all_of(from, from + count, [value](unsigned char c) { return c == value; });
}

// Compares what of the old block's marks lies in the first `kept` bytes.
bool content_kept(const unsigned char* mem, const Block& old, std::size_t kept) {
    if (!all_equal(mem, std::min({old.size, head_bytes, kept}), old.mark)) {
        return false;
    }
    const std::size_t tail = old.size - std::min(old.size, tail_bytes);
    return kept <= tail || all_equal(mem + tail, std::min(kept, old.size) - tail, old.mark);
}

class History {
public:
    History(const std::uint8_t* data, std::size_t size, unsigned walk_every)
        : reader_(data, size), walk_every_(walk_every) {}

    std::string run() {
        reset_heap();
        // A large first request that is refused its first segment ends the process, as it must.
        dlfree(dlmalloc(1));
        while (!reader_.done() && fault_.empty()) {
            ++step_;
            operate();
            if (step_ % walk_every_ == 0) {
                prove();
            }
        }
        finish();
        return fault_.empty() ? "" : fault_ + " at operation " + std::to_string(step_);
    }

private:
    void expect(bool holds, const char* fault) {
        if (!holds && fault_.empty()) {
            fault_ = fault;
        }
    }

    std::size_t some_size() {
        static constexpr std::array<std::size_t, 20> edges{
            0,   1,   54,  55,  56,   57,   120,  121,    184,    185,
            248, 249, 376, 760, 1016, 4096, 8184, 261889, 262072, 262136};
        static constexpr std::array<std::size_t, 6> impossible{
            0xFFFFFFFFFFFFFF00, 0xFFFFFFFFFFFFFEFF, SIZE_MAX,
            SIZE_MAX / 2,       SIZE_MAX - 70,      std::size_t{1} << 62};
        switch (reader_.byte() % 16) {
        case 0:
        case 1:
        case 2:
        case 3:
            return reader_.byte();
        case 4:
        case 5:
        case 6:
            return reader_.word() % 4096;
        case 7:
        case 8:
            return reader_.word();
        case 9:
        case 10:
            return edges[reader_.byte() % edges.size()];
        case 11:
        case 12:
            return reader_.word() * 8;
        case 13:
            return reader_.word() * 24;
        case 14:
            return 256 * kib + reader_.word() * 64;
        default:
            return reader_.byte() % 8 == 0 ? impossible[reader_.byte() % impossible.size()]
                                           : 64 * reader_.byte();
        }
    }

    Block& some_block() { return blocks_[reader_.byte() % blocks_.size()]; }

    // A null is right only where something stands against the request.
    bool null_allowed(std::size_t size) const {
        return limited_ || size >= mib * mib || watch_.refuse_count != 0;
    }

    void adopt(Block& block, void* mem, std::size_t size, std::size_t alignment) {
        if (mem == nullptr) {
            expect(null_allowed(size), "a request was refused without a reason");
            block = {};
            return;
        }
        block = {static_cast<unsigned char*>(mem), size, alignment, next_mark()};
        expect(is_aligned(mem, alignment), "misaligned block");
        expect(dlmalloc_usable_size(mem) >= size, "block too small");
        fill(block);
    }

    unsigned char next_mark() { return mark_ = static_cast<unsigned char>(mark_ * 5 + 1); }

    void check_content(const Block& block) {
        expect(content_kept(block.mem, block, block.size), "a block's content changed");
    }

    void release(Block& block) {
        if (block.mem != nullptr) {
            check_content(block);
        }
        dlfree(block.mem);
        block = {};
    }

    void allocate(Block& block) {
        const std::size_t size = some_size();
        adopt(block, dlmalloc(size), size, 64);
    }

    void allocate_cleared(Block& block) {
        std::size_t count = some_size(), size = reader_.byte();
        if (size != 0 && count > SIZE_MAX / size) {
            expect(dlcalloc(count, size) == nullptr, "an overflowing array was served");
            return;
        }
        if (size != 0 && count < mib * mib) {
            count = std::min(count, 4 * mib / size);
        }
        void* const mem = dlcalloc(count, size);
        const std::size_t bytes = count * size;
        if (mem != nullptr) {
            const auto* const at = static_cast<const unsigned char*>(mem);
            const std::size_t head = std::min(bytes, 64 * kib), tail = std::min(bytes, 4 * kib);
            expect(all_equal(at, head, 0) && all_equal(at + bytes - tail, tail, 0), "not cleared");
        }
        adopt(block, mem, bytes, 64);
    }

    void allocate_aligned(Block& block) {
        const std::size_t alignment = std::size_t{1} << reader_.byte() % 18;
        const std::size_t asked = alignment - (reader_.byte() % 4 == 0 ? alignment / 3 : 0);
        const std::size_t size = some_size();
        adopt(block, dlmemalign(asked, size), size, std::max<std::size_t>(alignment, 64));
    }

    void resize(Block& block) {
        const std::size_t size = some_size();
        if (block.mem == nullptr || size == 0) {
            void* const mem = dlrealloc(block.mem, size);
            if (block.mem == nullptr) {
                adopt(block, mem, size, 64);
            } else {
                expect(mem == nullptr, "resizing to nothing returned a block");
                block = {};
            }
            return;
        }
        auto* const mem = static_cast<unsigned char*>(dlrealloc(block.mem, size));
        if (mem == nullptr) {
            expect(null_allowed(size), "a resize was refused without a reason");
            check_content(block);
            return;
        }
        expect(content_kept(mem, block, std::min(size, block.size)), "a resize lost content");
        adopt(block, mem, size, mem == block.mem ? block.alignment : 64);
    }

    void set_option() {
        static constexpr std::array<std::size_t, 4> trims{0, 64 * kib, 2 * mib, SIZE_MAX};
        static constexpr std::array<std::size_t, 5> units{3000, 4096, 64 * kib, 128 * kib, mib};
        static constexpr std::array<std::size_t, 5> thresholds{0, 65, 4096, 256 * kib, SIZE_MAX};
        const std::size_t choice = reader_.byte();
        switch (reader_.byte() % 4) {
        case 0:
            expect(dlmallopt(-1, trims[choice % trims.size()]) == 1, "option -1");
            break;
        case 1:
            expect(dlmallopt(-2, units[choice % units.size()]) == (choice % units.size() != 0),
                   "option -2");
            break;
        case 2:
            expect(dlmallopt(-3, thresholds[choice % thresholds.size()]) == 1, "option -3");
            break;
        default:
            limited_ = choice % 2 == 1;
            expect(dlmallopt(-5, limited_ ? dlmalloc_footprint() + choice * 32 * kib : 0) == 1,
                   "option -5");
        }
    }

    void check_figures() {
        const heap::Census census = heap::take_census();
        const kxm::mallinfo info = dlmallinfo();
        expect(info.uordblks + info.fordblks == dlmalloc_footprint(), "figures do not add up");
        expect(info.arena + info.hblkhd == dlmalloc_footprint(), "arena and mappings");
        expect(info.usmblks == dlmalloc_max_footprint(), "peak");
        if (census.hidden_starts == 0) { // walks miss what lies in such a segment
            expect(info.ordblks == census.free_chunks + 1, "number of free chunks");
            expect(dlfragmentationinfo() == census.largest_free, "largest free chunk");
        }
    }

    void refuse_some() {
        watch_.refuse_from = watch_.requests + reader_.byte() % 4;
        watch_.refuse_count = reader_.byte() % 3;
        watch_.refuse_releases = reader_.byte() % 16 == 0;
    }

    void operate() {
        Block& block = some_block();
        switch (reader_.byte() % 16) {
        case 0:
        case 1:
        case 2:
        case 3:
            release(block);
            allocate(block);
            break;
        case 4:
            release(block);
            allocate_cleared(block);
            break;
        case 5:
        case 6:
            release(block);
            allocate_aligned(block);
            break;
        case 7:
        case 8:
        case 9:
            resize(block);
            break;
        case 10:
        case 11:
            release(block);
            break;
        case 12:
            dlmalloc_trim(reader_.byte() * kib);
            break;
        case 13:
            set_option();
            break;
        case 14:
            check_figures();
            break;
        default:
            refuse_some();
        }
    }

    void prove() {
        const std::string broken = heap_fault();
        expect(broken.empty(), broken.c_str());
        std::size_t mapped = 0;
        for (const Block& block : blocks_) {
            if (block.mem != nullptr && is_direct(block.mem)) {
                mapped += mapping_bytes(block.mem);
            }
        }
        // What the system did not take back stays counted, though no block is in it.
        if (watch_.releases_refused != releases_refused_) {
            releases_refused_ = watch_.releases_refused;
            lost_ = direct_bytes() - mapped;
        }
        expect(direct_bytes() == mapped + lost_, "the footprint is not what is held");
    }

    void finish() {
        watch_.refuse_count = 0;
        watch_.refuse_releases = false;
        for (Block& block : blocks_) {
            release(block);
        }
        if (fault_.empty()) {
            prove();
        }
        dlmalloc_trim(0);
        const heap::Census census = heap::take_census();
        expect(census.free_chunks <= 2 * census.segments, "free memory did not merge");
        reset_heap();
    }

    HistoryReader reader_;
    SystemWatch watch_;
    std::array<Block, 64> blocks_{};
    std::string fault_;
    std::size_t step_ = 0;
    std::size_t lost_ = 0;
    std::size_t releases_refused_ = 0;
    unsigned walk_every_;
    unsigned char mark_ = 1;
    bool limited_ = false;
};

} // namespace

std::string run_heap_operations(const std::uint8_t* data, std::size_t size, unsigned walk_every) {
    return History(data, size, walk_every).run();
}

} // namespace test
