// The figures as the test finds them out by itself, by other ways than the library takes where the
// system has them, and what only a system can do to its map.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace test {

std::uint64_t physical_bytes();
std::uint64_t available_bytes();     ///< of physical memory
std::uint64_t address_space_bytes(); ///< the limit on it included
std::uint64_t private_bytes();
std::uint64_t resident_bytes();

extern const std::string drive_root;    ///< one that there is
extern const std::string no_drive_root; ///< and one that there is not
std::uint64_t drive_bytes(const std::string& root);
std::uint64_t drive_free_bytes(const std::string& root);

struct MapRegion {
    std::uint64_t start, size;
    std::uint32_t state, type; ///< as a report's reader knows them
};
/// From address 0 on to the region that reaches 2 GiB.
std::vector<MapRegion> low_map();
/// Everywhere.
std::uint64_t reserved_bytes();

/// Takes `size` bytes at exactly `address`, committed or reserved; multiples of 64 KiB.
bool claim(std::uint64_t address, std::size_t size, bool committed);
void give_back(std::uint64_t address, std::size_t size);

/// Limits this process's address space for good; false where the system has no such limit.
bool limit_address_space(std::uint64_t bytes);

} // namespace test
