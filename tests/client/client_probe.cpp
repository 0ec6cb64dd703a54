// Started by the tests: what is decided once per process or ends one. client_probe MODE [FOLDER]
#include "client_probe.h"
#include "kxm_memory_resource.h"
#include "sized_back_end.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <vector>

namespace {

using test::Sized_back_end;

// ---- Ends of a process

void assign() {
    KXMBasMemTruePool one(1, "", nullptr);
    const KXMBasMemTruePool two(2, "", nullptr);
    one = two;
}

void no_table() {
    Sized_back_end back_end;
    back_end.refuse(1);
    const KXMBasMemTruePool pool(1, "", nullptr);
}

// A copy asks for its table, then a block for entry 0, then one for entry 1.
void copy_after(int granted) {
    Sized_back_end back_end;
    const KXMBasMemTruePool pool(1, "", nullptr);
    back_end.refuse(1, granted);
    const KXMBasMemTruePool copy(pool);
}

void no_larger_table() {
    Sized_back_end back_end;
    KXMBasMemTruePool pool(1, "", nullptr);
    kxm::TruePoolInspector inside(pool);
    while (inside.last() < 255) {
        inside.grow();
    }
    back_end.refuse(1);
    inside.grow();
}

// ---- The detector

using Words = std::uint32_t;
constexpr Words fill = 0xFEFEFEFE, neutral = 0x80000000;

struct Allocator : KXMBasMemAllocator {
    // A block of `count` words, whose owner has written its size and the given payload.
    Words* make(int count, const std::vector<std::pair<int, Words>>& payload, bool sized = true) {
        auto* const block =
            static_cast<Words*>(allocate(static_cast<std::size_t>(count) * 4, nullptr));
        if (sized) {
            block[6] = static_cast<Words>(count) * 4;
        }
        for (const auto& [index, value] : payload) {
            block[index] = value;
        }
        return block;
    }
};

void detector() {
    Allocator allocator;
    const std::vector<std::pair<int, Words>> runs{{16, 1}, {18, neutral}, {21, 2}, {23, 3}};
    Words* const first = allocator.make(30, runs); // 0
    const bool on = first[11] == fill;
    std::printf("first %s\n", on && first[10] == 0 ? "numbered" : "plain");
    std::vector<void*> blocks{first};
    blocks.push_back(allocator.make(30, runs));                     // 1
    blocks.push_back(allocator.make(31, runs));                     // 2
    blocks.push_back(allocator.make(30, {{5, 0}, {16, 1}}));        // 3, mark overwritten
    blocks.push_back(allocator.make(30, {{16, 1}}, false));         // 4, no size
    blocks.push_back(allocator.make(30, {}));                       // 5, nothing written
    blocks.push_back(allocator.make(30, {{12, neutral}, {14, 1}})); // 6
    blocks.push_back(allocator.make(30, {{12, 7}, {13, neutral}})); // 7, nothing in front
    KXMBasMemAllocatorNoInit other; // has no part in it, and takes no number
    other.Free(other.allocate(100, nullptr));

    // A small block is numbered behind its end, and is written nowhere else there.
    {
        const Sized_back_end back_end;
        void* const small = allocator.allocate(16, nullptr); // 8
        Words seen[11] = {};
        std::memcpy(seen, small, back_end.last_size() < sizeof seen ? 16 : sizeof seen);
        std::printf("small %s %u of %u\n", seen[0] == fill && seen[3] == fill ? "filled" : "plain",
                    seen[10], static_cast<unsigned>(back_end.last_size()));
        allocator.deallocate(small, 0);
    }
    for (void* const block : blocks) {
        allocator.deallocate(block, 7);
    }
    allocator.deallocate(nullptr, 0);
}

// Sizes that lead out of the memory there is, and marks at the very end of it.
void lying() {
    Allocator allocator;
    Words* const block = allocator.make(30, {{16, 1}});
    block[6] = 0x7ffffffc;
    allocator.deallocate(block, 0);
    // Blocks too small to have a word 5, wherever they lie.
    std::vector<void*> blocks;
    for (int i = 0; i < 3000; ++i) {
        blocks.push_back(allocator.Alloc(i % 2 == 0 ? 1 : 40));
    }
    for (void* const each : blocks) {
        allocator.deallocate(each, 0);
    }
    std::puts("survived");
}

// ---- Adaptors on the real back end

template <class Resource> int exercise(Resource& resource) {
    struct Block {
        unsigned char* ptr;
        std::size_t size, alignment;
    };
    std::vector<Block> blocks;
    int wrong = 0;
    for (std::size_t alignment = 1; alignment <= 8192; alignment *= 2) {
        for (std::size_t size = 0; size <= 260; size += size < 20 ? 1 : 13) {
            auto* const ptr = static_cast<unsigned char*>(resource.allocate(size, alignment));
            wrong += reinterpret_cast<std::uintptr_t>(ptr) % alignment != 0;
            std::memset(ptr, static_cast<int>(size), size);
            blocks.push_back({ptr, size, alignment});
        }
    }
    for (const std::size_t begin : {1U, 0U}) {
        for (std::size_t i = begin; i < blocks.size(); i += 2) {
            const Block& block = blocks[i];
            for (std::size_t at = 0; at < block.size; ++at) {
                wrong += block.ptr[at] != static_cast<unsigned char>(block.size);
            }
            resource.deallocate(block.ptr, block.size, block.alignment);
        }
    }
    return wrong;
}

void adaptors() {
    KXMBasMemPool pool(2000, "probe", nullptr);
    pool.Activate();
    kxm::PoolResource in_pool(pool), in_operator_pool;
    kxm::HandleResource cleared(KXMBasAllocator(new KXMBasMemAllocator));
    const std::size_t before = operatorNewPool.MemoryCurrent();
    const int wrong = exercise(in_pool) + exercise(in_operator_pool) + exercise(cleared);
    bool accounted = pool.MemoryCurrent() == 0 && pool.MemoryPeak() != 0 &&
                     operatorNewPool.MemoryCurrent() == before;
    std::vector<void*> blocks;
    for (int i = 0; i < 200; ++i) { // one that begins a page among them
        const std::size_t present = pool.MemoryCurrent();
        blocks.push_back(pool.Alloc(64));
        accounted = blocks.back() != nullptr && pool.MemoryCurrent() > present && accounted;
    }
    for (void* const block : blocks) {
        pool.Free(block);
    }
    // Elsewhere the figures mean nothing.
    std::printf("%d %s\n", wrong, accounted || mem_usingDL() == 0 ? "accounted" : "lost");
}

} // namespace

int main(int argc, char** argv) {
    const std::map<std::string, void (*)()> modes{
        {"assign", assign},
        {"no-table", no_table},
        {"no-table-for-copy", [] { copy_after(0); }},
        {"no-block-for-copy", [] { copy_after(2); }},
        {"no-larger-table", no_larger_table},
        {"detector", detector},
        {"lying", lying},
        {"adaptors", adaptors},
        {"adaptors-tiny",
         [] {
             mem_TBAllocator(1);
             adaptors();
         }},
    };
    if (argc > 2) {
        std::filesystem::current_path(argv[2]);
    }
    modes.at(argv[1])();
    return 0;
}
