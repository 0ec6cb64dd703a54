// A history of the tiny block pool as a string of bytes, run against a shadow model that knows every
// page's list and chain, and so the very address of the next slot. After each operation the walker
// proves the pool. Random bytes make a stress test, and a fuzzer makes its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace test {

/// Runs the history on a pool as at load, and leaves it so. Empty when all went well, else what was
/// wrong and at which operation. pre: the heap is bound.
std::string run_pool_operations(const std::uint8_t* data, std::size_t size);

} // namespace test
