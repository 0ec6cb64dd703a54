// What a process under measurement asks the system for: memory that no allocator has a hand in, and what
// the process takes. None of these allocates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace memtrack::platform {

/// Zeroed memory from the system; null when there is none. Never given back.
void* map_memory(std::size_t bytes);

/// Bytes of this process that are in main memory now.
std::uint64_t resident_bytes();

/// The most since forget_peak_resident(), or since the process's start where the system cannot forget.
std::uint64_t peak_resident_bytes();
void forget_peak_resident();

/// Reads exactly `size` bytes from standard input; false at its end.
bool read_input(void* data, std::size_t size);
/// At most 4096 bytes.
bool write_output(const void* data, std::size_t size);
void use_binary_streams();

/// File name of the library that the process's malloc is in; empty where the system does not tell.
const char* home_of_malloc();

} // namespace memtrack::platform
