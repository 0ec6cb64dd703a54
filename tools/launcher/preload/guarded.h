// Blocks of the guarded back end, as a program may have them. The library's own lie 8 off a multiple of 16,
// which a program's do not; so each begins somewhat inside the library's block, and the word in front of it
// says how far:
//
//     | size | DEADBEEFDEADBEEF | ... | note | note | user data | DEADBEEFDEADBEEF |
//                               ^ the library's block  ^ the program's, so many bytes further on
//
// The note's lower half is that distance, its upper half a signature of the address. In front of a block of the
// C runtime stands its size, whose upper half is nearly zero, so no block is taken for the other kind. A program
// that writes in front of its block damages the second note first, and the first one serves.
#pragma once

#include <cstddef>

namespace kxmrun::guarded {

/// Null when memory is short, without the fault that the library's own entries take then.
/// pre: inside; `size` at most half of the address space, `alignment` a power of two.
void* take(std::size_t size, std::size_t alignment);
bool is(const void* block);
void give(void* block); ///< tells what was overwritten on standard error. pre: is(block), inside
std::size_t size(const void* block); ///< as asked for. pre: is(block)

void* runtime_malloc(
    std::size_t size); ///< for the library: the C runtime's, or what take() has got already

} // namespace kxmrun::guarded
