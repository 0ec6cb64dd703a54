// What the pool does for good or at the end of a process; each case by its name.
#include "KXMBasMem.h"

#include <cstdio>
#include <cstring>

namespace {

// Only slots of the pool stand 8 bytes apart.
void print_road() {
    char* const first = static_cast<char*>(mem_Malloc(8));
    char* const second = static_cast<char*>(mem_Malloc(8));
    std::puts(second - first == 8 ? "pool" : "back end");
    mem_Free(second);
    mem_Free(first);
}

// Fills the pool's pages under a limit, then asks a slot to grow into a class without a page.
void grow_without_memory() {
    int size = 8;
    void* block = mem_smallalloc(&size);
    mem_Mallopt(-5, mem_Footprint() * 1024);
    while (mem_Malloc(200000) != nullptr || mem_Malloc(4096) != nullptr || mem_Malloc(200)) {
    }
    size = 128;
    while (mem_smallalloc(&size) != nullptr) {
    }
    std::puts("full");
    std::fflush(stdout);
    newDeleteTinyBlock(true);
    mem_Realloc(block, 128);
}

} // namespace

int main(int argc, char** argv) {
    const char* const wish = argc > 1 ? argv[1] : "";
    if (std::strcmp(wish, "switch") == 0) {
        mem_TBAllocator(1);
        print_road();
    } else if (std::strcmp(wish, "force") == 0) {
        newDeleteTinyBlock(true);
        print_road();
        mem_TBThreadLock(true);
        print_road();
    } else if (std::strcmp(wish, "foreign") == 0) {
        void* block = mem_Malloc(500);
        mem_smallfree(&block);
    } else if (std::strcmp(wish, "refused") == 0) {
        mem_Mallopt(-5, 1000); // less than the pool itself needs
        mem_TBAllocator(1);
        std::puts(mem_Malloc(8) == nullptr ? "null" : "block");
        const KXMBasMemSmallBlockAllocator direct;
        std::puts(direct.allocate(8) == nullptr ? "null" : "block");
        mem_Mallopt(-5, 0);
        print_road();
    } else if (std::strcmp(wish, "grow") == 0) {
        grow_without_memory();
    }
    return 0;
}
