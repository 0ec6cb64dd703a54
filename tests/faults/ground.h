// Ground on which the recursion of a stack into a block can be watched without gigabytes: a block of
// which most is one piece of memory mapped many times, a small stack above it where the system lets
// a thread have one, and the recursion's counter brought near its limit beforehand.
#pragma once

#include <cstddef>
#include <cstdlib>

namespace test {

/// "corruption01": runs mem_stack_corruption01 twice. "corruption02": runs mem_stack_corruption02, with
/// memory for 60 MiB. "corruption01-refused": runs the first where memory is short.
void on_prepared_ground(const char* which);

/// Bytes that are directly below the stack of the thread that runs `work`, where the system can do
/// that, or anywhere. Passes the end of them. `stack_bytes` and `block_bytes` are multiples of 64 MiB
/// but for the block's last 16 MiB, which are apart.
struct GroundSystem {
    static constexpr std::size_t piece = std::size_t{64} << 20; ///< mapped again and again
    static constexpr std::size_t apart = std::size_t{16} << 20; ///< below the block's end
    static void run(std::size_t block_bytes, std::size_t stack_bytes, void (*work)(char* block));
};

/// What the systems' threads are given.
struct Work {
    void (*work)(char*);
    char* block;
};

/// The ground is there, or nothing can be told of what stands on it.
inline void require(bool good) {
    if (!good) {
        std::abort();
    }
}

} // namespace test
