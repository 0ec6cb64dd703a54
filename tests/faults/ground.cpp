// See ground.h.
#include "ground.h"

#include "KXMBasMem.h"

#include <cstdio>
#include <cstring>

namespace test {
namespace {

constexpr std::size_t large = 2097152000, small = 62914560; // 2000 MiB and 97 times 20 MiB less
constexpr std::size_t stack = std::size_t{8} << 20;
constexpr int levels_left = 10;

char* s_block = nullptr;
std::size_t s_size = 0;
void* (*s_bound)(std::size_t) = nullptr;

// Serves the large request from the ground, refuses what is larger than that, and leaves all else.
void* from_ground(std::size_t size) {
    return size < small ? s_bound(size) : size <= s_size ? s_block : nullptr;
}

void run_in_block(void (*work)()) {
    s_bound = mem_malloc;
    mem_malloc = from_ground;
    for (int i = 0; i < 1200 - levels_left; ++i) {
        mem_stack_fill(0); // a single level each
    }
    work();
    mem_malloc = s_bound;
}

} // namespace

void on_prepared_ground(const char* which) {
    if (std::strcmp(which, "corruption01") == 0) {
        s_size = large;
        GroundSystem::run(large, stack, [](char* block) {
            s_block = block;
            run_in_block([] {
                mem_stack_corruption01();
                mem_stack_corruption01();
            });
        });
    } else if (std::strcmp(which, "corruption02") == 0) {
        s_size = small;
        GroundSystem::run(small, stack, [](char* block) {
            s_block = block;
            run_in_block(mem_stack_corruption02);
        });
    } else {
        run_in_block(mem_stack_corruption01);
    }
}

} // namespace test
