// Every form of the example's global operators: alignment, count of live bytes, refusal.
//
// A program of its own without the test framework, which on Windows shares a C++ runtime whose
// operator new cannot be replaced. The exit status is 0, or the number of the line that failed.
#include "memory.h"

#include <cstdint>
#include <cstring>
#include <new>

#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition))                                                                          \
            return __LINE__;                                                                       \
    } while (false)

namespace {

using elasticity::memory_figures;

struct alignas(256) Wide {
    char bytes[256];
};

bool aligned(const void* block, std::size_t alignment) {
    return reinterpret_cast<std::uintptr_t>(block) % alignment == 0;
}

int check_forms() {
    const std::uint64_t before = memory_figures().live_bytes;
    for (std::size_t size = 0; size < 300; size += 7) {
        void* blocks[] =
            {operator new(size), operator new[](size), operator new(size, std::nothrow),
                                                       operator new[](size, std::nothrow)};
        for (void* block : blocks) {
            REQUIRE(block != nullptr && aligned(block, 16));
            std::memset(block, 0xa5, size);
        }
        REQUIRE(memory_figures().live_bytes >= before + 4 * size);
        operator delete(blocks[0]);
        operator delete[](blocks[1]);
        operator delete(blocks[2]);
        operator delete[](blocks[3], std::nothrow);
    }
    REQUIRE(memory_figures().live_bytes == before);
    // A compiler may leave out a new that it can see to be of no effect.
    Wide* volatile kept = new Wide[3];
    Wide* wide = kept;
    REQUIRE(aligned(wide, 256));
    std::memset(wide, 0x5a, 3 * sizeof(Wide));
    REQUIRE(memory_figures().live_bytes >= before + 3 * sizeof(Wide));
    delete[] wide;
    void* line = operator new (100, std::align_val_t{64}, std::nothrow);
    REQUIRE(aligned(line, 64));
    operator delete (line, std::align_val_t{64});
    operator delete(nullptr);
    REQUIRE(memory_figures().live_bytes == before);
    return 0;
}

int check_refusal() {
    const std::uint64_t before = memory_figures().live_bytes;
    elasticity::set_memory_budget(4096);
    REQUIRE(operator new(8192, std::nothrow) == nullptr);
    REQUIRE(operator new (8192, std::align_val_t{64}, std::nothrow) == nullptr);
    volatile std::size_t impossible = SIZE_MAX;
    REQUIRE(operator new(impossible, std::nothrow) == nullptr);
    bool thrown = false;
    try {
        operator delete(operator new(8192));
    } catch (const std::bad_alloc&) {
        thrown = true;
    }
    REQUIRE(thrown && elasticity::last_refusal().bytes >= 8192);
    elasticity::set_memory_budget(0);
    REQUIRE(memory_figures().live_bytes == before);
    return 0;
}

} // namespace

int main() {
    if (const int line = check_forms())
        return line;
    return check_refusal();
}
