// Every size around every edge at which the heap decides otherwise: multiples of a line, borders of bins and of
// trees, thresholds, units of the system. The walker proves the heap around each.
#include "heap_fixture.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

namespace {

using test::Heap;

constexpr std::size_t kib = 1024, mib = 1024 * kib, around = 72;

std::set<std::size_t> edges() {
    std::set<std::size_t> found{0, 4, 8, 16, 32, 48, 64, 80, 96, 112, 128, 4096, 16384};
    for (std::size_t line = 64; line <= 1280; line += 64) { // past the last small bin
        found.insert(line);
    }
    for (unsigned shift = 8; shift <= 24;
         ++shift) { // the trees' borders: powers of two, and half-way
        found.insert(std::size_t{1} << shift);
        found.insert(std::size_t{3} << (shift - 1));
    }
    for (std::size_t unit = 1; unit <= 8;
         ++unit) { // units of the system, without and with a segment's foot
        found.insert(unit * 64 * kib);
        found.insert(unit * 64 * kib - 176);
    }
    found.insert(256 * kib); // the threshold of direct mappings as it stands at load
    found.insert(2 * mib);   // and of trimming
    return found;
}

// First, last and neighbouring bytes, which is where a wrong size shows.
void write_ends(void* block, std::size_t size) {
    std::memset(block, 0x5A, std::min<std::size_t>(size, 160));
    std::memset(static_cast<char*>(block) + size - std::min<std::size_t>(size, 160), 0x5A,
                std::min<std::size_t>(size, 160));
}

bool first_bytes_kept(const void* block, std::size_t size) {
    const auto* const at = static_cast<const unsigned char*>(block);
    return std::all_of(at, at + std::min<std::size_t>(size, 160),
                       [](unsigned char byte) { return byte == 0x5A; });
}

// The bytes of a chunk.
std::size_t chunk_of(std::size_t size) {
    return std::max<std::size_t>((size + 71) / 64 * 64, 64);
}

TEST_F(Heap, EverySizeAroundEveryEdge) {
    void* neighbour = dlmalloc(100);
    for (const std::size_t edge : edges()) {
        void* previous = nullptr;
        std::size_t previous_size = 0;
        for (std::size_t size = edge > around ? edge - around : 0; size <= edge + around; ++size) {
            SCOPED_TRACE(size);
            void* const block = dlmalloc(size);
            ASSERT_TRUE(block != nullptr && test::is_aligned(block, 64));
            ASSERT_GE(dlmalloc_usable_size(block), size);
            write_ends(block, size);
            auto* const clear = static_cast<char*>(dlcalloc(1, size));
            ASSERT_TRUE(clear != nullptr && test::is_aligned(clear, 64));
            ASSERT_TRUE(size == 0 ||
                        (clear[0] == 0 && clear[size - 1] == 0 && clear[size / 2] == 0));
            write_ends(clear, size);
            // The one before, across the size of this one and back, with neighbours that come and go.
            dlfree(neighbour);
            if (previous != nullptr) {
                for (const std::size_t wanted : {size, previous_size, size + around, size}) {
                    void* const moved = dlrealloc(previous, std::max<std::size_t>(wanted, 1));
                    ASSERT_NE(moved, nullptr);
                    ASSERT_TRUE(first_bytes_kept(moved, std::min(previous_size, wanted)));
                    ASSERT_GE(dlmalloc_usable_size(moved), wanted);
                    ASSERT_TRUE(test::is_direct(moved) ||
                                dlmalloc_usable_size(moved) == chunk_of(wanted) - 8)
                        << "what it does not need goes back, if it is but one chunk";
                    previous = moved;
                    write_ends(previous, std::max<std::size_t>(wanted, 1));
                }
                dlfree(previous);
            }
            neighbour = clear;
            previous = block;
            previous_size = size;
            if (size % 16 == 0) {
                ASSERT_EQ(test::heap_fault(), "");
            }
        }
        dlfree(previous);
        ASSERT_EQ(test::heap_fault(), "") << "around " << edge;
    }
    dlfree(neighbour);
}

TEST_F(Heap, EveryAlignmentToAMebibyte) {
    for (std::size_t alignment = 1; alignment <= mib; alignment *= 2) {
        std::vector<void*> blocks;
        for (const std::size_t edge :
             {std::size_t{64}, std::size_t{1024}, 64 * kib, 256 * kib, mib}) {
            for (std::size_t size = edge - around; size <= edge + around; size += 9) {
                void* const block = dlmemalign(alignment, size);
                ASSERT_TRUE(block != nullptr &&
                            test::is_aligned(block, std::max<std::size_t>(alignment, 64)))
                    << size << " on " << alignment;
                ASSERT_GE(dlmalloc_usable_size(block), size);
                ASSERT_TRUE(test::is_direct(block) ||
                            dlmalloc_usable_size(block) <= chunk_of(size) + 64 - 8)
                    << "the tail goes back";
                write_ends(block, size);
                blocks.push_back(block);
                if (blocks.size() % 5 == 0) {
                    dlfree(blocks[blocks.size() / 2]);
                    blocks.erase(blocks.begin() + static_cast<std::ptrdiff_t>(blocks.size() / 2));
                }
            }
            ASSERT_EQ(test::heap_fault(), "") << "on " << alignment;
        }
        for (void* const block : blocks) {
            dlfree(block);
        }
        ASSERT_EQ(test::heap_fault(), "") << "on " << alignment;
        ASSERT_EQ(test::direct_bytes(), 0U) << "a moved block still finds its mapping's start";
    }
}

// What a growth for a chunk asks the system for, in a mapping of its own and in a segment.
std::size_t mapping_for(std::size_t chunk, std::size_t granule) {
    return (chunk + 255 + granule) / granule * granule;
}
std::size_t segment_for(std::size_t chunk, std::size_t granule) {
    return (chunk + 225 + granule) / granule * granule;
}

// Fresh, with a first segment, so that a mapping of its own is possible.
void begin(std::size_t granule, std::size_t threshold) {
    test::reset_heap();
    dlmallopt(-2, granule);
    dlmallopt(-3, threshold);
    dlfree(dlmalloc(1));
}

TEST_F(Heap, TheThresholdOfMappingsDecidesToTheByte) {
    for (const std::size_t granule : {4 * kib, 64 * kib, mib}) {
        for (const std::size_t threshold :
             {std::size_t{0}, std::size_t{64}, 16 * kib, 64 * kib + 1, 256 * kib, mib + 32}) {
            for (std::size_t size = threshold > around ? threshold - around : 0;
                 size <= threshold + around; ++size) {
                SCOPED_TRACE(testing::Message() << granule << ' ' << threshold << ' ' << size);
                begin(granule, threshold);
                const std::size_t before = dlmalloc_footprint(), chunk = chunk_of(size);
                const bool grows = chunk >= heap::state.topsize;
                const bool direct = grows && chunk >= threshold;
                void* const block = dlmalloc(size);
                ASSERT_NE(block, nullptr);
                ASSERT_EQ(test::is_direct(block), direct);
                ASSERT_EQ(dlmalloc_footprint() - before, direct  ? mapping_for(chunk, granule)
                                                         : grows ? segment_for(chunk, granule)
                                                                 : 0);
                write_ends(block, size);
                ASSERT_EQ(test::heap_fault(), "");
                dlfree(block);
                ASSERT_EQ(test::direct_bytes(), 0U);
            }
        }
    }
}

// What would reach the limit is refused, a mapping first and then a segment, which may be a unit smaller.
TEST_F(Heap, TheLimitDecidesToTheByte) {
    for (const std::size_t granule : {4 * kib, 64 * kib}) {
        for (const std::size_t edge : {64 * kib, 256 * kib, 320 * kib, mib}) {
            for (std::size_t size = edge - around - 300; size <= edge + around; ++size) {
                const std::size_t chunk = chunk_of(size);
                const std::size_t mapping = mapping_for(chunk, granule);
                const std::size_t segment = segment_for(chunk, granule);
                for (const std::size_t room : {segment, segment + 1, mapping, mapping + 1}) {
                    SCOPED_TRACE(testing::Message() << granule << ' ' << size << ' ' << room);
                    begin(granule, 256 * kib);
                    dlmallopt(-5, dlmalloc_footprint() + room);
                    const bool direct = chunk >= 256 * kib && mapping < room;
                    const bool served = chunk < heap::state.topsize || direct || segment < room;
                    void* const block = dlmalloc(size);
                    ASSERT_EQ(block != nullptr, served);
                    ASSERT_EQ(error_memory_limit(), served ? 0 : -1);
                    ASSERT_LT(dlmalloc_footprint(), dlmalloc_memory_limit());
                    if (served) {
                        ASSERT_EQ(test::is_direct(block), direct);
                    }
                    dlfree(block);
                }
            }
            ASSERT_EQ(test::heap_fault(), "");
        }
    }
}

TEST_F(Heap, TheThresholdOfTrimmingDecidesToTheByte) {
    for (const std::size_t size : {std::size_t{100}, 60 * kib, 200 * kib}) {
        const auto top_after = [size](std::size_t threshold) {
            test::reset_heap();
            dlmallopt(-1, threshold);
            dlfree(dlmalloc(size));
            return heap::state.topsize;
        };
        const std::size_t top = top_after(mib);
        for (std::size_t threshold = top - around; threshold <= top + around; ++threshold) {
            top_after(threshold);
            // One trial that gave nothing back, and no other until the top is reset.
            ASSERT_EQ(heap::state.trim_check, top > threshold ? SIZE_MAX : threshold) << size;
        }
    }
}

} // namespace
