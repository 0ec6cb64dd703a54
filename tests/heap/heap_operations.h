// A history of the heap as a string of bytes: operations of all kinds, run against a shadow model
// that knows every live block, its size and its content. After each operation the walker proves the
// heap, and every block that was touched is compared. Random bytes make a stress test, and a fuzzer
// makes its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace test {

/// Runs the history on a heap as at load, and leaves it so. Empty when all went well, else what was
/// wrong and at which operation. With `walk_every` above 1 the walker runs after every n-th
/// operation only.
std::string run_heap_operations(const std::uint8_t* data, std::size_t size,
                                unsigned walk_every = 1);

} // namespace test
