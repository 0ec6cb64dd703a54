// What the job does when memory is refused, before it gives up.
#pragma once

#include <cstddef>

namespace elasticity {

struct RescueSettings {
    std::size_t limit = 0;   // bytes, as --memory-limit set it; 0 for none
    std::size_t ceiling = 0; // bytes up to which the limit may be raised; 0 for never
    std::size_t reserve = 0; // bytes to hold back for the moment of need
};

/// From here on a refused request first gives up the reserve, then raises the limit step by step as
/// far as the ceiling, and is tried again after each; every step is told on standard error. Takes
/// the reserve at once and touches it, so that it is memory and not a promise. Throws std::bad_alloc
/// when there is no room for it.
void prepare_rescue(const RescueSettings& settings);

/// Bounds memory from now on: the heap's footprint by the library's own limit, and on the back ends
/// that have none what this program holds. False when the library does not take it.
bool set_memory_limit(std::size_t bytes) noexcept;

/// How often the reserve or a higher limit let a refused request go on.
int rescues() noexcept;

} // namespace elasticity
