// Started by the tests: does what ends a process, or is printed when an allocator goes.
#include "KXMBasMem.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

#if defined(__GNUC__)
__attribute__((noinline))
#endif
void* leave_behind(const KXMBasAllocator& memory) {
    void* const block = memory.Alloc(100);
    std::memset(block, 1, 100);
    return block;
}

// Blocks 1 and 3 stay.
void leak() {
    KXMBasAllocator memory(new KXMBasMemTrackAlloc);
    void* const first = memory.Alloc(8);
    leave_behind(memory);
    void* const third = memory.allocate(0, nullptr);
    leave_behind(memory);
    memory.Free(third);
    memory.Free(nullptr);
    memory.deallocate(first, 8);
}

// Whether this address's index word is where the block begins.
void headers() {
    KXMBasMemTrackAlloc memory;
    void* blocks[3];
    for (void*& block : blocks) {
        block = memory.Alloc(24);
        std::uint64_t index = 0;
        std::memcpy(&index, static_cast<char*>(block) - 64, sizeof index);
        std::printf("%d ", static_cast<int>(index));
    }
    std::size_t actual = 77;
    const KXMBasAllocator none(nullptr);
    std::printf("%d %d %d %d\n", memory.Alloc(10, actual) == nullptr, static_cast<int>(actual),
                memory.allocate(10, nullptr) == nullptr,
                &memory.LargeBlockAllocator(none) == &none);
    memory.deallocate(blocks[0], 24); // does nothing: it is released once, below
    for (void* const block : blocks) {
        memory.Free(block);
    }
}

void* refuse(std::size_t) {
    return nullptr;
}

void refused() {
    KXMBasMemTrackAlloc memory;
    mem_malloc = refuse;
    std::puts("asking");
    std::fflush(stdout);
    memory.Alloc(10);
}

void fixed_pool(const std::string& operation) {
    KXMBasMemFixedPoolAllocator pool(1024, &pool);
    const KXMBasAllocator handle(nullptr);
    std::size_t actual = 0;
    if (operation == "allocate") {
        pool.allocate(1, nullptr);
    } else if (operation == "deallocate") {
        pool.deallocate(nullptr, 1);
    } else if (operation == "Alloc") {
        pool.Alloc(1);
    } else if (operation == "AllocActual") {
        pool.Alloc(1, actual);
    } else if (operation == "Free") {
        pool.Free(nullptr);
    } else {
        pool.LargeBlockAllocator(handle);
    }
}

void hash_table(const std::string& operation) {
    HashTable<const char*, int> table(3), no_buckets(0);
    table.Insert("a", 1);
    if (operation == "next") {
        table.Next(table.end().IsDone() ? iterState{0, 0} : table.First());
    } else if (operation == "key") {
        table.end().CurrentKey();
    } else if (operation == "value") {
        table.end().CurrentValue();
    } else if (operation == "offset") {
        table.Next({table.First().bucket, 3});
    } else if (operation == "bucket") {
        table.CurrentEntry({3, 1});
    } else {
        no_buckets.Insert("a", 1);
    }
}

void named_pools() {
    KXMBasMemPoolMap::Instance();
    KXMBasMemPoolCow::Instance();
    KXMBasMemTrackerL2::Instance();
    omi_SingletonBase<KXMBasMemPoolCow>::Finalize();
    KXMBasMemPoolCow::Instance();
    omi_SingletonBase<KXMBasMemPoolCow>::Finalize();
    omi_SingletonBase<KXMBasMemTrackerL2>::Finalize();
    KXMBasMemPoolVector::Instance();
}

} // namespace

int main(int, char** argv) {
    const std::string what = argv[1];
    if (what == "leak") {
        leak();
    } else if (what == "headers") {
        headers();
    } else if (what == "refused") {
        refused();
    } else if (what == "refused-table") {
        mem_malloc = refuse;
        KXMBasMemTrackAlloc memory;
    } else if (what == "fixed-pool") {
        fixed_pool(argv[2]);
    } else if (what == "hash-table") {
        hash_table(argv[2]);
    } else if (what == "named-pools") {
        named_pools();
    }
    std::puts("end");
    return 0;
}
